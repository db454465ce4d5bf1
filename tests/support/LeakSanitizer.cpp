// For the leak sanitizer. GLib is built without frame pointers, so only slow unwinding of every
// allocation's stack, which makes a program four times as slow, could match leaks of other
// libraries by their stacks. The functions below mark three such leaks without a stack.

#if defined(__SANITIZE_ADDRESS__)

#include <cstring>

#include <glib.h>
#include <sanitizer/lsan_interface.h>

#include "support/Interpose.h"

namespace {

// GLib drops its table of quarks without freeing it whenever it needs a larger one, every 2,048
// quarks. It allocates the first table while the program is loaded; the loader calls a program's
// functions of this kind before any library's.
[[gnu::section(".preinit_array"), gnu::used]] void (*const kBeforeLibraries)() = __lsan_disable;

[[gnu::constructor]] void afterLibraries() {
  __lsan_enable();
}

}  // namespace

// Later tables are allocated in one of these calls. How many there are depends on the plugins of
// the machine. What a quark keeps besides stays reachable.
template <typename Result>
Result internUnwatched(const char* function, const gchar* string) {
  const __lsan::ScopedDisabler disabler;
  return nextDefinition<Result(const gchar*)>(function)(string);
}

extern "C" {

GQuark g_quark_from_string(const gchar* string) {
  return internUnwatched<GQuark>("g_quark_from_string", string);
}

GQuark g_quark_from_static_string(const gchar* string) {
  return internUnwatched<GQuark>("g_quark_from_static_string", string);
}

const gchar* g_intern_string(const gchar* string) {
  return internUnwatched<const gchar*>("g_intern_string", string);
}

const gchar* g_intern_static_string(const gchar* string) {
  return internUnwatched<const gchar*>("g_intern_static_string", string);
}

}  // extern "C"

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
