// Scoped holders for the GLib locks that the C records carry as pointers.
#pragma once

#include <glib.h>

namespace orlo {

// Holds a GMutex for a scope.  Built with `try_lock`, it only tries, and
// owns() tells whether it got the lock.
class mutex_guard {
 public:
  struct try_lock_t {};
  static constexpr try_lock_t try_lock{};

  explicit mutex_guard(GMutex *m) : m_(m), owns_(true) { g_mutex_lock(m_); }
  mutex_guard(GMutex *m, try_lock_t) : m_(m), owns_(g_mutex_trylock(m) != FALSE) {}
  ~mutex_guard() {
    if (owns_) g_mutex_unlock(m_);
  }
  mutex_guard(const mutex_guard &) = delete;
  mutex_guard &operator=(const mutex_guard &) = delete;

  bool owns() const { return owns_; }

 private:
  GMutex *m_;
  bool owns_;
};

// The records own their locks for the life of the process; these make them.
inline GMutex *new_mutex() {
  GMutex *m = g_new0(GMutex, 1);
  g_mutex_init(m);
  return m;
}

inline GCond *new_cond() {
  GCond *c = g_new0(GCond, 1);
  g_cond_init(c);
  return c;
}

}  // namespace orlo
