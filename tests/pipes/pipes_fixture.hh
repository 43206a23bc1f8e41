// Shared by the pipe tests: channels recorded in the test into a fresh
// folder, the frame header taken apart, a kelappsink render collector,
// element checks, and the spies of pipe_spies.cc.
#pragma once

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "eventually.hh"
#include "kel_buffers.h"
#include "kelapp_sink.h"
#include "orlo_sst_pipe.h"
#include "ref_ptr.hh"
#include "temp_dir.hh"

namespace pipes_test {

using testing_support::eventually;
using testing_support::temp_dir;

inline constexpr int64_t kStart = 1700000000LL * 1000000000LL;  // recorder time of frame 0
inline constexpr int64_t kFrameNs = 1000000000LL / 25;

// Runs a pipeline to its end: false on an error or after 30 s.
inline bool run_to_eos(GstElement *p) {
  gst_element_set_state(p, GST_STATE_PLAYING);
  auto bus = orlo::adopt(gst_element_get_bus(p));
  auto msg = orlo::adopt(
      gst_bus_timed_pop_filtered(bus.get(), 30 * GST_SECOND,
                                 static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
  gst_element_set_state(p, GST_STATE_NULL);
  return msg && GST_MESSAGE_TYPE(msg.get()) == GST_MESSAGE_EOS;
}

// Records `frames` frames of channel `ch` at 25 fps, an intra frame every 10,
// the first at recorder time `start`, into the folder's "chNN.h264", with the
// recorder's file `limit` if one is given.
inline bool record_channel(const std::string &folder, int ch, int frames, const char *limit = "",
                           int64_t start = kStart) {
  const std::string launch =
      "videotestsrc num-buffers=" + std::to_string(frames) +
      " pattern=ball ! video/x-raw,width=64,height=48,framerate=25/1 "
      "! x264enc tune=zerolatency speed-preset=ultrafast bframes=0 key-int-max=10 "
      "! video/x-h264,stream-format=byte-stream,alignment=au ! kelsstrec location=\"" +
      folder + "\" ch=" + std::to_string(ch) + " start-time=" + std::to_string(start) + " " + limit;
  auto p = orlo::adopt_floating(gst_parse_launch(launch.c_str(), nullptr));
  return p && run_to_eos(p.get());
}

inline orlo_timeval_t tv(int64_t ns) {
  return orlo_timeval_t{static_cast<int32_t>(ns / 1000000000),
                        static_cast<int32_t>(ns % 1000000000 / 1000)};
}

struct frame_seen {
  int ch;
  int type;
  int64_t time;  // recorder time, ns
};

inline frame_seen read_header(const uint8_t *d) {
  int64_t time = 0;
  for (int i = 23; i >= 16; i--) time = time << 8 | d[i];  // little-endian
  return frame_seen{d[0], d[8], time};
}

// Installs itself as the sink's render callback and keeps the frames of
// what it renders.
class collector {
 public:
  explicit collector(GstElement *sink) {
    GstKelAppSinkRenderCallbacks cb = {};
    cb.render = render;
    gst_kelapp_sink_set_render_callbacks(GST_KELAPP_SINK(sink), &cb, this, nullptr);
  }
  std::vector<frame_seen> frames() const { return std::lock_guard<std::mutex>(lock_), frames_; }
  void clear() { std::lock_guard<std::mutex>{lock_}, frames_.clear(); }

 private:
  static gint render(GstKelAppSink *sink, gpointer data) {
    auto *self = static_cast<collector *>(data);
    auto b = orlo::adopt(gst_kelapp_sink_pull_buffer(sink));
    std::lock_guard<std::mutex> g(self->lock_);
    if (GstKelListMeta *m = gst_kel_list_buffer_get_meta(b.get()))
      for (GList *i = m->list; i != nullptr; i = i->next) {
        GstKelBuddyMeta *fm = gst_kel_buddy_buffer_get_meta(static_cast<GstBuffer *>(i->data));
        if (fm != nullptr && fm->size >= 24) self->frames_.push_back(read_header(fm->data));
      }
    return 0;
  }
  mutable std::mutex lock_;
  std::vector<frame_seen> frames_;
};

// Checks "name=value name=value ..." against the element's properties as
// GLib prints them (TRUE, FALSE, decimal numbers).
inline void expect_props(GstElement *e, const std::string &want) {
  std::string seen;
  std::istringstream words(want);
  for (std::string word; words >> word;) {
    const std::string name = word.substr(0, word.find('='));
    GValue v = G_VALUE_INIT;
    g_value_init(&v, g_object_class_find_property(G_OBJECT_GET_CLASS(e), name.c_str())->value_type);
    g_object_get_property(G_OBJECT(e), name.c_str(), &v);
    gchar *text = g_strdup_value_contents(&v);
    seen += (seen.empty() ? "" : " ") + name + "=" + text;
    g_free(text);
    g_value_unset(&v);
  }
  EXPECT_EQ(seen, want);
}

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
