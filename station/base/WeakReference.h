#pragma once

#include <glib-object.h>

namespace station {

// A weak reference to an object, as data of another one or of a callback.
//
// Threads: any.
class WeakReference {
 public:
  explicit WeakReference(gpointer object) { g_weak_ref_init(&reference_, object); }
  ~WeakReference() { g_weak_ref_clear(&reference_); }
  WeakReference(const WeakReference&) = delete;
  WeakReference& operator=(const WeakReference&) = delete;

  // The object, which the caller releases, or null if it has gone. `self`: a WeakReference or null.
  static gpointer get(gpointer self) {
    return self != nullptr ? g_weak_ref_get(&static_cast<WeakReference*>(self)->reference_)
                           : nullptr;
  }
  // A GDestroyNotify.
  static void drop(gpointer self) { delete static_cast<WeakReference*>(self); }

 private:
  GWeakRef reference_{};
};

}  // namespace station
