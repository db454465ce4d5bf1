#pragma once

#include <dlfcn.h>

// The function that a definition of the same name in this program stands in front of: a program's
// own definition takes the library's calls too.
template <typename Function>
Function* nextDefinition(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
