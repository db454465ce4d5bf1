// A library without content.
__attribute__((visibility("default"))) void empty();
void empty() {}
