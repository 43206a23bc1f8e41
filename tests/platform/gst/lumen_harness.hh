// A lumensrc in a small pipeline of its own, with the frames it delivers
// taken apart for the tests.
#pragma once

#include <gst/app/gstappsink.h>
#include <gst/gst.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "kel_buffers.h"
#include "lumen_src.h"

namespace live_test {

struct frame {
  int ch;
  int type;
  uint32_t size;
  uint32_t seq;
  GstClockTime list_pts;
  bool header_ok;  // the header's size agrees with the buffer's
};

// Runs a launch line to its end; false on an error or a time-out.
inline bool run_to_eos(const std::string &launch) {
  GstElement *p = gst_parse_launch(launch.c_str(), nullptr);
  if (p == nullptr) return false;
  gst_element_set_state(p, GST_STATE_PLAYING);
  GstBus *bus = gst_element_get_bus(p);
  GstMessage *m = gst_bus_timed_pop_filtered(
      bus, 20 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
  const bool ok = m != nullptr && GST_MESSAGE_TYPE(m) == GST_MESSAGE_EOS;
  if (m != nullptr) gst_message_unref(m);
  gst_object_unref(bus);
  gst_element_set_state(p, GST_STATE_NULL);
  gst_object_unref(p);
  return ok;
}

class lumen_harness {
 public:
  // Small pictures and a short intra interval keep the tests quick.
  explicit lumen_harness(const std::string &extra = "") {
    gst_init(nullptr, nullptr);
    std::string d = "lumensrc name=src width=160 height=96 key-interval=5 " + extra +
                    " ! appsink name=out sync=false caps=video/x-h264";
    pipeline_ = gst_parse_launch(d.c_str(), nullptr);
    src_ = gst_bin_get_by_name(GST_BIN(pipeline_), "src");
    out_ = gst_bin_get_by_name(GST_BIN(pipeline_), "out");
  }
  ~lumen_harness() {
    gst_element_set_state(pipeline_, GST_STATE_NULL);
    gst_object_unref(out_);
    gst_object_unref(src_);
    gst_object_unref(pipeline_);
  }
  GstElement *src() const { return src_; }
  // A live pipeline completes its change to PLAYING only with a first frame,
  // so nothing waits for it here.
  void play() { gst_element_set_state(pipeline_, GST_STATE_PLAYING); }

  // Pulls deliveries until `done` says so or `limit` passes; gives every frame.
  std::vector<frame> collect(const std::function<bool(const std::vector<frame> &)> &done,
                             std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    std::vector<frame> frames;
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end && !done(frames)) {
      GstSample *sample = gst_app_sink_try_pull_sample(GST_APP_SINK(out_), 100 * GST_MSECOND);
      if (sample == nullptr) continue;
      GstBuffer *list = gst_sample_get_buffer(sample);
      if (GstKelListMeta *m = gst_kel_list_buffer_get_meta(list)) {
        for (GList *l = m->list; l != nullptr; l = l->next) {
          GstKelBuddyMeta *b = gst_kel_buddy_buffer_get_meta(static_cast<GstBuffer *>(l->data));
          if (b == nullptr) continue;
          frame f{b->data[0], b->data[8], 0, 0, GST_BUFFER_PTS(list), false};
          memcpy(&f.size, b->data + 4, 4);
          memcpy(&f.seq, b->data + 16, 4);
          f.header_ok = b->size == 24 + static_cast<gsize>(f.size);
          frames.push_back(f);
        }
      }
      gst_sample_unref(sample);
    }
    return frames;
  }
  std::vector<frame> collect_for(std::chrono::milliseconds span) {
    return collect([](const std::vector<frame> &) { return false; }, span);
  }

 private:
  GstElement *pipeline_;
  GstElement *src_;
  GstElement *out_;
};

inline std::vector<frame> of_channel(const std::vector<frame> &frames, int ch) {
  std::vector<frame> out;
  for (const auto &f : frames)
    if (f.ch == ch) out.push_back(f);
  return out;
}

inline size_t count_of(const std::vector<frame> &frames, int ch, int type) {
  size_t n = 0;
  for (const auto &f : frames) n += f.ch == ch && f.type == type;
  return n;
}

}  // namespace live_test
