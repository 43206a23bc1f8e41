// The thread of a pipe: started by the pipe's creation, which waits until
// the thread has built the pipeline, then parked for the life of the
// process.
#pragma once

#include <glib.h>

#include <cstdint>

namespace orlo {

// Starts `body` with `pipe` on a new joinable thread that nobody joins, and
// waits until the thread has set `ready` to 1 (with release order, after the
// fields it publishes).  NULL when no thread could be made.
GThread *start_pipe_thread(const char *name, GThreadFunc body, gpointer pipe, int32_t &ready);

// Raises the calling thread to SCHED_FIFO at the policy's minimum plus 2
// where the process may have it; refused, the thread keeps the default.
void raise_pipe_thread_priority();

// Keeps the calling thread in a main loop of its own context, which has no
// sources and which nothing quits: the thread stays parked for good.
void park_pipe_thread();

}  // namespace orlo
