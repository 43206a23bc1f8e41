// Collects what a kelappsink renders: each list buffer's frames with their
// header fields and the time they arrived.
#pragma once

#include <gst/gst.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

#include "kel_buffers.h"
#include "kelapp_sink.h"

namespace playback_test {

struct frame_seen {
  int ch;
  int type;
  uint32_t size;
  uint32_t ms;
  int64_t time;  // recorder time, ns
};

struct list_seen {
  std::vector<frame_seen> frames;
  bool step;
  std::chrono::steady_clock::time_point at;
};

frame_seen read_header(const uint8_t *d);

class collector {
 public:
  // Installs itself as the sink's render callback.
  explicit collector(GstElement *sink);
  std::vector<list_seen> lists() const;
  size_t count() const;
  // Lists that came marked as stepped frames.
  size_t steps() const;
  // Waits until `pred(count)` holds, up to `seconds`.
  bool wait_for(const std::function<bool(size_t)> &pred, double seconds = 20) const;

 private:
  static gint render(GstKelAppSink *sink, gpointer self);
  mutable std::mutex lock_;
  mutable std::condition_variable cv_;
  std::vector<list_seen> lists_;
  size_t steps_ = 0;
};

}  // namespace playback_test
