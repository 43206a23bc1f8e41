// Internals of the playback pipe shared by its creation, control and time
// files.
#pragma once

#include <cstdint>
#include <string>

#include "kelapp_sink.h"
#include "orlo_sst_pipe.h"

namespace orlo {

// "%u:%02u:%02u.%09u" of a nanosecond count; all bits set (no valid time)
// prints as "99:99:99.999999999".
std::string format_pb_time(uint64_t t);

// Slot 3 of the sink's callback table: code 35 records and prints the
// stream time of the frame just rendered.
gint sst_pipe_render_report(GstKelAppSink *sink, gint code, gpointer user_data);

}  // namespace orlo
