// The thread of a pipe: start, scheduling, and the loop it parks in.
#include "pipes/pipe_thread.hh"

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include "ref_ptr.hh"
#include "shared_word.hh"

namespace orlo {

GThread *start_pipe_thread(const char *name, GThreadFunc body, gpointer pipe, int32_t &ready) {
  store_word(ready, int32_t{0});
  // GLib's thread priorities are gone; the thread raises its own scheduling.
  GThread *thread = g_thread_try_new(name, body, pipe, nullptr);
  if (thread == nullptr) return nullptr;
  while (load_word(ready, std::memory_order_acquire) != 1) usleep(1000);
  return thread;
}

void raise_pipe_thread_priority() {
  sched_param param{};
  param.sched_priority = sched_get_priority_min(SCHED_FIFO) + 2;
  (void)pthread_setschedparam(pthread_self(), SCHED_FIFO, &param);
}

void park_pipe_thread() {
  auto context = adopt(g_main_context_new());
  auto loop = adopt(g_main_loop_new(context.get(), FALSE));
  g_main_loop_run(loop.get());
}

}  // namespace orlo
