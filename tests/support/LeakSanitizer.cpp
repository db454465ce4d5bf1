// For the leak sanitizer. GLib is built without frame pointers, so only slow unwinding of every
// allocation's stack, which makes a program four times as slow, could tell by their stacks what
// leaks are not ours. These two are known without a stack.

#if defined(__SANITIZE_ADDRESS__)

#include <cstring>

#include <glib.h>
#include <sanitizer/lsan_interface.h>

#include "support/Interpose.h"

namespace {

// What a library takes while the program is loaded: GLib gives up its first table of quarks as it
// needs a larger one. The loader calls a program's functions of this kind before any library's.
[[gnu::section(".preinit_array"), gnu::used]] void (*const kBeforeLibraries)() = __lsan_disable;

[[gnu::constructor]] void afterLibraries() {
  __lsan_enable();
}

}  // namespace

// The x265 encoder's element means to free its list of profiles, and leaves what the list holds.
extern "C" gpointer* g_ptr_array_free(GPtrArray* array, gboolean freeSegment) {
  static auto* const real = nextDefinition<gpointer*(GPtrArray*, gboolean)>("g_ptr_array_free");
  Dl_info caller;
  if (dladdr(__builtin_return_address(0), &caller) != 0 &&
      std::strstr(caller.dli_fname, "libgstx265") != nullptr) {
    freeSegment = TRUE;
  }
  return real(array, freeSegment);
}

#endif
