// For the thread sanitizer. GLib's locks are made of futexes that it does not see, so everything
// that GStreamer hands from thread to thread would look like a race: these definitions stand in
// front of GLib's and tell it who waited for whom.

#if defined(__SANITIZE_THREAD__)

#include <glib.h>
#include <sanitizer/tsan_interface.h>

#include "support/Interpose.h"

extern "C" {

void g_mutex_lock(GMutex* mutex) {
  static auto* const real = nextDefinition<decltype(g_mutex_lock)>("g_mutex_lock");
  real(mutex);
  __tsan_acquire(mutex);
}

gboolean g_mutex_trylock(GMutex* mutex) {
  static auto* const real = nextDefinition<decltype(g_mutex_trylock)>("g_mutex_trylock");
  const gboolean locked = real(mutex);
  if (locked) {
    __tsan_acquire(mutex);
  }
  return locked;
}

void g_mutex_unlock(GMutex* mutex) {
  static auto* const real = nextDefinition<decltype(g_mutex_unlock)>("g_mutex_unlock");
  __tsan_release(mutex);
  real(mutex);
}

void g_cond_wait(GCond* cond, GMutex* mutex) {
  static auto* const real = nextDefinition<decltype(g_cond_wait)>("g_cond_wait");
  __tsan_release(mutex);
  real(cond, mutex);
  __tsan_acquire(mutex);
}

gboolean g_cond_wait_until(GCond* cond, GMutex* mutex, gint64 end) {
  static auto* const real = nextDefinition<decltype(g_cond_wait_until)>("g_cond_wait_until");
  __tsan_release(mutex);
  const gboolean signalled = real(cond, mutex, end);
  __tsan_acquire(mutex);
  return signalled;
}

void g_rec_mutex_lock(GRecMutex* mutex) {
  static auto* const real = nextDefinition<decltype(g_rec_mutex_lock)>("g_rec_mutex_lock");
  real(mutex);
  __tsan_acquire(mutex);
}

void g_rec_mutex_unlock(GRecMutex* mutex) {
  static auto* const real = nextDefinition<decltype(g_rec_mutex_unlock)>("g_rec_mutex_unlock");
  __tsan_release(mutex);
  real(mutex);
}

}  // extern "C"

#endif
