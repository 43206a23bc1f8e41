// Spies between liborlo and the libraries it calls, for what a pipe keeps to
// itself: the launch line it builds (and frees), the record's allocation
// (which a test can make fail) and the callback table it gives its sink.
// The test program defines the calls and hands each on to the real one.
#pragma once

#include <gst/gst.h>

#include <string>

#include "kelapp_sink.h"

namespace pipe_spies {

struct launch_seen {
  std::string text;
  bool freed;  // the string went back through g_free
};
// The last launch line given to gst_parse_launch.
launch_seen last_launch();

// The next g_try_malloc0 of `size` bytes gives NULL.
void fail_allocation_of(gsize size);

// The last table given to gst_kelapp_sink_set_callbacks, with its user data.
GstKelAppSinkCallbacks last_callbacks(gpointer *user_data);

}  // namespace pipe_spies
