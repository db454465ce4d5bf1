# Warnings and sanitizers for the project's own targets: link them to project_options.
add_library(project_options INTERFACE)
target_compile_options(project_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
    -Wnon-virtual-dtor -Wold-style-cast -Woverloaded-virtual
    $<$<BOOL:${MEDIA_BACKEND_WERROR}>:-Werror>)

if(MEDIA_BACKEND_SANITIZE)
  add_compile_options(-fsanitize=${MEDIA_BACKEND_SANITIZE} -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  # That check of the dynamic type makes a pipe to look at memory, and takes every object for an
  # invalid one where there are no descriptors left.
  add_compile_options(-fno-sanitize=vptr)
  # GCC's analysis goes wrong over instrumented code, std::regex for one.
  target_compile_options(project_options INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  add_link_options(-fsanitize=${MEDIA_BACKEND_SANITIZE})
endif()
