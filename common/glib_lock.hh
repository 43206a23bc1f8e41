// Scoped holders for the GLib locks that the C records carry as pointers.
#pragma once

#include <glib.h>

namespace orlo {

class mutex_guard {
 public:
  explicit mutex_guard(GMutex *m) : m_(m) { g_mutex_lock(m_); }
  ~mutex_guard() { g_mutex_unlock(m_); }
  mutex_guard(const mutex_guard &) = delete;
  mutex_guard &operator=(const mutex_guard &) = delete;

 private:
  GMutex *m_;
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
