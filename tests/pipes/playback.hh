// Shared by the playback tests: channels recorded in the test into a fresh
// folder, the frame header taken apart, and a kelappsink render collector.
#pragma once

#include <gst/gst.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "eventually.hh"
#include "kelapp_sink.h"
#include "orlo_sst_pipe.h"

namespace playback_test {

inline constexpr int64_t kStart = 1700000000LL * 1000000000LL;  // recorder time of frame 0
inline constexpr int kFps = 25;
inline constexpr int64_t kFrameNs = 1000000000LL / kFps;
inline constexpr int kIntraEvery = 10;

// A temporary folder removed with its files at the end of the scope.
class temp_folder {
 public:
  temp_folder();
  ~temp_folder();
  temp_folder(const temp_folder &) = delete;
  temp_folder &operator=(const temp_folder &) = delete;
  const std::string &path() const { return path_; }

 private:
  std::string path_;
};

// Runs a pipeline, or a launch line, to its end.  False on an error.
bool run_to_eos(GstElement *pipeline);
bool run_to_eos(const std::string &launch);

// Records `frames` frames of channel `ch` at 25 fps, an intra frame every 10,
// the first at recorder time `start`, into the folder's "chNN.h264", with the
// recorder's file `limit` if one is given.
bool record_channel(const std::string &folder, int ch, int frames, int64_t start = kStart,
                    const char *limit = "");

inline orlo_timeval_t tv(int64_t ns) {
  return orlo_timeval_t{static_cast<int32_t>(ns / 1000000000),
                        static_cast<int32_t>(ns % 1000000000 / 1000)};
}

struct frame_seen {
  int ch;
  int type;
  uint32_t size;
  uint32_t ms;
  int64_t time;  // recorder time, ns
};
frame_seen read_header(const uint8_t *d);

using testing_support::eventually;

// Installs itself as the sink's render callback and keeps what it renders.
class collector {
 public:
  using list_seen = std::vector<frame_seen>;
  explicit collector(GstElement *sink);
  std::vector<list_seen> lists() const;
  size_t count() const { return lists().size(); }
  std::vector<frame_seen> frames() const;
  void clear();

 private:
  static gint render(GstKelAppSink *sink, gpointer self);
  mutable std::mutex lock_;
  std::vector<list_seen> lists_;
};

}  // namespace playback_test
