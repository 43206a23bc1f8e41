// The hand-over of one answer from an engine callback thread to the caller
// that asked for it: the caller clears the answer, makes its request, and
// waits on the handle's condition until the answer is there or its time is
// up; the callback stores the answer under the same lock and signals.  What
// the answer is, and who frees one that comes too late, is each user's.
#pragma once

#include <glib.h>

#include "glib_lock.hh"

namespace orlo {

class engine_answer {
 public:
  engine_answer(GMutex *lock, GCond *cond) : lock_(lock), cond_(cond) {}

  // Runs `step` under the lock: the clearing before a request.
  template <typename Step>
  void locked(Step step) const {
    mutex_guard held(lock_);
    step();
  }

  // The callback's side: stores the answer under the lock and wakes the
  // caller.
  template <typename Store>
  void deliver(Store store) const {
    mutex_guard held(lock_);
    store();
    g_cond_signal(cond_);
  }

  // The caller's side: waits until `arrived()` or until `span` has passed.
  // Monotonic, so that a change of the wall clock neither stretches nor cuts
  // the wait; an answer that came before the wait is taken at once.
  // `settle()` runs under the same lock as the callback's store, so that an
  // answer is either taken there or left for the callback to free.
  template <typename Arrived, typename Settle>
  auto await(gint64 span, Arrived arrived, Settle settle) const {
    mutex_guard held(lock_);
    const gint64 end = g_get_monotonic_time() + span;
    while (!arrived() && g_cond_wait_until(cond_, lock_, end)) {
    }
    return settle();
  }

 private:
  GMutex *lock_;
  GCond *cond_;
};

}  // namespace orlo
