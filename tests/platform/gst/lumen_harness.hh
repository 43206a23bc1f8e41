// A lumensrc in a small pipeline of its own, with the frames it delivers
// taken apart for the tests.
#pragma once

#include <gst/app/gstappsink.h>
#include <gst/gst.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "kel_buffers.h"
#include "lumen_src.h"
#include "ref_ptr.hh"

namespace live_test {

struct frame {
  int ch, type;
  uint32_t size, seq;
  GstClockTime list_pts;
  bool header_ok;  // the header's size agrees with the buffer's
};
using frames_t = std::vector<frame>;

// An H.264 file made by FFmpeg (`options` name the codec's settings); its
// URI, or "" when FFmpeg failed.
inline std::string make_file(const std::string &path, const std::string &options) {
  const std::string cmd = "ffmpeg -v error -y -f lavfi -i testsrc2=s=320x180:r=25 " + options +
                          " -c:v libx264 -pix_fmt yuv420p " + path;
  if (std::system(cmd.c_str()) != 0) return {};
  gchar *uri = g_filename_to_uri(path.c_str(), nullptr, nullptr);
  std::string s(uri);
  g_free(uri);
  return s;
}

class lumen_harness {
 public:
  // Small pictures and a short intra interval keep the tests quick.
  explicit lumen_harness(const std::string &extra = "") {
    gst_init(nullptr, nullptr);
    const std::string d = "lumensrc name=src width=160 height=96 key-interval=5 " + extra +
                          " ! appsink name=out sync=false caps=video/x-h264";
    pipeline_ = orlo::adopt_floating(gst_parse_launch(d.c_str(), nullptr));
    src_ = orlo::adopt(gst_bin_get_by_name(GST_BIN(pipeline_.get()), "src"));
    out_ = orlo::adopt(gst_bin_get_by_name(GST_BIN(pipeline_.get()), "out"));
  }
  ~lumen_harness() { gst_element_set_state(pipeline_.get(), GST_STATE_NULL); }
  GstElement *src() const { return src_.get(); }
  // A live pipeline completes its change to PLAYING only with a first frame,
  // so nothing waits for it here.
  void play() { gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING); }

  // Pulls deliveries until `done` says so or `limit` passes; gives every frame.
  frames_t collect(const std::function<bool(const frames_t &)> &done,
                   std::chrono::seconds limit = std::chrono::seconds(20)) {
    frames_t frames;
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end && !done(frames)) {
      GstSample *sample = gst_app_sink_try_pull_sample(GST_APP_SINK(out_.get()), 100 * GST_MSECOND);
      if (sample == nullptr) continue;
      GstBuffer *list = gst_sample_get_buffer(sample);
      GstKelListMeta *m = gst_kel_list_buffer_get_meta(list);
      for (GList *l = m != nullptr ? m->list : nullptr; l != nullptr; l = l->next) {
        GstKelBuddyMeta *b = gst_kel_buddy_buffer_get_meta(static_cast<GstBuffer *>(l->data));
        if (b == nullptr) continue;
        frame f{b->data[0], b->data[8], 0, 0, GST_BUFFER_PTS(list), false};
        memcpy(&f.size, b->data + 4, 4);
        memcpy(&f.seq, b->data + 16, 4);
        f.header_ok = b->size == 24 + static_cast<gsize>(f.size);
        frames.push_back(f);
      }
      gst_sample_unref(sample);
    }
    return frames;
  }

 private:
  orlo::ref_ptr<GstElement> pipeline_, src_, out_;
};

inline frames_t of_channel(const frames_t &frames, int ch) {
  frames_t out;
  for (const auto &f : frames)
    if (f.ch == ch) out.push_back(f);
  return out;
}

inline size_t count_of(const frames_t &frames, int ch, int type) {
  size_t n = 0;
  for (const auto &f : frames) n += f.ch == ch && f.type == type;
  return n;
}

}  // namespace live_test
