#pragma once

#include <glib-object.h>

namespace station {

// A weak reference to an object.
//
// Threads: any.
class WeakReference {
 public:
  explicit WeakReference(gpointer object) { g_weak_ref_init(&reference_, object); }
  ~WeakReference() { g_weak_ref_clear(&reference_); }
  WeakReference(const WeakReference&) = delete;
  WeakReference& operator=(const WeakReference&) = delete;

  // The object, which the caller releases, or null after its end.
  gpointer get() const { return g_weak_ref_get(&reference_); }

 private:
  mutable GWeakRef reference_{};
};

}  // namespace station
