// Shared by the pipe tests: channels recorded in the test into a fresh
// folder, the frame header taken apart, a kelappsink render collector,
// element checks, and the spies of pipe_spies.cc.
#pragma once

#include <gst/gst.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "eventually.hh"
#include "kelapp_sink.h"
#include "orlo_sst_pipe.h"

namespace pipes_test {

using testing_support::eventually;

inline constexpr int64_t kStart = 1700000000LL * 1000000000LL;  // recorder time of frame 0
inline constexpr int64_t kFrameNs = 1000000000LL / 25;

// A temporary folder removed with its files at the end of the scope.
struct temp_folder {
  temp_folder();
  ~temp_folder();
  temp_folder(const temp_folder &) = delete;
  const std::string &path() const { return path_; }
  std::string path_;
};

// Runs a pipeline to its end: false on an error or after 30 s.
bool run_to_eos(GstElement *pipeline);

// Records `frames` frames of channel `ch` at 25 fps, an intra frame every 10,
// the first at recorder time `start`, into the folder's "chNN.h264", with the
// recorder's file `limit` if one is given.
bool record_channel(const std::string &folder, int ch, int frames, const char *limit = "",
                    int64_t start = kStart);

inline orlo_timeval_t tv(int64_t ns) {
  return orlo_timeval_t{static_cast<int32_t>(ns / 1000000000),
                        static_cast<int32_t>(ns % 1000000000 / 1000)};
}

struct frame_seen {
  int ch;
  int type;
  int64_t time;  // recorder time, ns
};
frame_seen read_header(const uint8_t *d);

// Installs itself as the sink's render callback and keeps the frames of
// what it renders.
class collector {
 public:
  explicit collector(GstElement *sink);
  std::vector<frame_seen> frames() const;
  void clear();

 private:
  static gint render(GstKelAppSink *sink, gpointer self);
  mutable std::mutex lock_;
  std::vector<frame_seen> frames_;
};

// Checks "name=value name=value ..." against the element's properties as
// GLib prints them (TRUE, FALSE, decimal numbers).
void expect_props(GstElement *e, const std::string &want);

}  // namespace pipes_test

// Spies between liborlo and the libraries it calls (pipe_spies.cc, linked
// into the tests that use them), each handing on to the real call.
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
