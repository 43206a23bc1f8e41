// The live pipe over the real elements: the build, its sink's settings,
// start/stop cycles, the forwarding calls and the life of the thread.
#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>

#include "eventually.hh"
#include "kel_buffers.h"
#include "kelapp_sink.h"
#include "log_capture.hh"
#include "lumen_src.h"
#include "orlo_lumen_pipe.h"

using namespace std::chrono_literals;

namespace {

using testing_support::eventually;

// Counts what the sink renders, frame by frame, as the render worker would
// see it.
struct render_counter {
  std::mutex lock;
  std::vector<std::pair<int, int>> frames;  // channel, type

  explicit render_counter(GstElement *sink) {
    GstKelAppSinkRenderCallbacks cbs{};
    cbs.render = [](GstKelAppSink *sink, gpointer self) -> gint {
      auto *c = static_cast<render_counter *>(self);
      GstBuffer *b = gst_kelapp_sink_pull_buffer(sink);
      if (b == nullptr) return 0;
      if (GstKelListMeta *m = gst_kel_list_buffer_get_meta(b)) {
        std::lock_guard<std::mutex> g(c->lock);
        for (GList *l = m->list; l != nullptr; l = l->next)
          if (auto *f = gst_kel_buddy_buffer_get_meta(static_cast<GstBuffer *>(l->data)))
            c->frames.emplace_back(f->data[0], f->data[8]);
      }
      gst_buffer_unref(b);
      return 0;
    };
    gst_kelapp_sink_set_render_callbacks(GST_KELAPP_SINK(sink), &cbs, this, nullptr);
  }
  size_t count(int ch, int type) {
    std::lock_guard<std::mutex> g(lock);
    return static_cast<size_t>(std::count(frames.begin(), frames.end(), std::make_pair(ch, type)));
  }
  // How many of the last frames rendered are all (ch, type).
  size_t trailing(int ch, int type) {
    std::lock_guard<std::mutex> g(lock);
    const auto last = std::find_if(frames.rbegin(), frames.rend(),
                                   [&](const auto &f) { return f != std::make_pair(ch, type); });
    return static_cast<size_t>(last - frames.rbegin());
  }
  void clear() {
    std::lock_guard<std::mutex> g(lock);
    frames.clear();
  }
};

GstState state_of(GstElement *e) {
  GstState s = GST_STATE_VOID_PENDING;
  gst_element_get_state(e, &s, nullptr, 0);
  return s;
}

// Threads of this process that carry the pipeline thread's name.
int pipe_threads() {
  int n = 0;
  DIR *d = opendir("/proc/self/task");
  while (dirent *e = readdir(d)) {
    if (e->d_name[0] == '.') continue;
    std::ifstream comm(std::string("/proc/self/task/") + e->d_name + "/comm");
    std::string name;
    std::getline(comm, name);
    n += name == "lumen-pipe";
  }
  closedir(d);
  return n;
}

class LumenPipe : public ::testing::Test {
 protected:
  void SetUp() override { gst_init(nullptr, nullptr); }
};

template <typename T>
T get(GstElement *e, const char *name) {
  T v{};
  g_object_get(e, name, &v, nullptr);
  return v;
}

}  // namespace

TEST_F(LumenPipe, NewGivesTheBuiltPipelineWithTheSinkSettingsAndNotPlaying) {
  for (int arg : {4, 0, -7}) {
    orlo_lumen_pipe_t *p = orlo_lumen_pipe_new(arg);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->thread_ready, 1);
    EXPECT_NE(p->h_thread, nullptr);
    ASSERT_TRUE(GST_IS_LUMEN_SRC(orlo_lumen_pipe_get_src(p)));
    ASSERT_TRUE(GST_IS_KELAPP_SINK(orlo_lumen_pipe_get_kelappsink(p)));
    EXPECT_STREQ(GST_OBJECT_NAME(p->src), "livelumensrc");
    EXPECT_STREQ(GST_OBJECT_NAME(p->kelappsink), "lumen_app_sink");
    EXPECT_EQ(GST_OBJECT_PARENT(p->src), GST_OBJECT(p->pipeline));

    EXPECT_FALSE(get<gboolean>(p->kelappsink, "sync"));
    EXPECT_TRUE(get<gboolean>(p->kelappsink, "drop"));
    EXPECT_EQ(get<guint>(p->kelappsink, "max-buffers"), 3u);
    EXPECT_EQ(get<gint>(p->kelappsink, "priority"), 99);
    GstCaps *caps = get<GstCaps *>(p->kelappsink, "caps");
    ASSERT_NE(caps, nullptr);
    gchar *text = gst_caps_to_string(caps);
    EXPECT_STREQ(text, "video/x-h264");
    g_free(text);
    gst_caps_unref(caps);

    EXPECT_EQ(state_of(p->pipeline), GST_STATE_NULL);
    EXPECT_EQ(orlo_lumen_pipe_stop(p), 0) << "stop before any start";
    orlo_lumen_pipe_delete(p);
  }
}

// One pipe through its life: start, stop and start again without a new
// build, the requests forwarded on the way, then a delete that leaves the
// pipeline thread parked in its loop.
TEST_F(LumenPipe, StartStopStartForwardsRequestsAndDeleteLeavesTheThreadParked) {
  testing_support::log_capture log;
  orlo_lumen_pipe_delete(nullptr);
  EXPECT_TRUE(log.has(G_LOG_LEVEL_CRITICAL,
                      "orlo_lumen_pipe_delete: assertion 'h_lumen_pipe != NULL' failed"));

  orlo_lumen_pipe_t *p = orlo_lumen_pipe_new(4);
  ASSERT_NE(p, nullptr);
  GstElement *pipeline = p->pipeline;
  render_counter rc(orlo_lumen_pipe_get_kelappsink(p));
  g_object_set(p->src, "width", 160, "height", 96, "key-interval", 5, nullptr);
  // open_ch passes 0 as the element's third argument: both streams, 1 and 17.
  ASSERT_EQ(orlo_lumen_pipe_open_ch(p, 1), 0);
  for (int round = 0; round < 2; ++round) {
    rc.clear();
    EXPECT_EQ(orlo_lumen_pipe_start(p), 0);
    EXPECT_EQ(state_of(pipeline), GST_STATE_PLAYING) << "round " << round;
    ASSERT_TRUE(eventually([&] { return rc.count(1, 1) >= 2 && rc.count(17, 1) >= 2; }))
        << "round " << round;
    if (round == 0) {
      EXPECT_EQ(orlo_lumen_pipe_stop(p), 0);
      EXPECT_EQ(state_of(pipeline), GST_STATE_NULL);
    }
  }
  EXPECT_EQ(p->pipeline, pipeline) << "no new build";

  orlo_lumen_pipe_pause_ch(p, 1, 0);
  orlo_lumen_pipe_i_only_req(p, 17);
  // Frames under way when the requests came still arrive; then channel 1 is
  // paused and 17 sends intra frames only.
  EXPECT_TRUE(eventually([&] { return rc.trailing(17, 1) >= 3; })) << "paused, intra only";
  rc.clear();
  orlo_lumen_pipe_resume_ch(p, 1, 0);
  orlo_lumen_pipe_i_only_req(p, -1);
  EXPECT_TRUE(eventually([&] { return rc.count(1, 1) >= 1 && rc.count(1, 0) >= 2; }));
  EXPECT_TRUE(eventually([&] { return rc.count(17, 0) >= 2; })) << "intra-only ended";

  // Calls for every source of the process: the handle isn't read.
  EXPECT_EQ(orlo_lumen_pipe_set_live_audio_ch(nullptr, 1), 0);
  EXPECT_TRUE(eventually([&] { return rc.count(1, 10) >= 2; }));
  EXPECT_EQ(orlo_lumen_pipe_set_live_audio_ch(reinterpret_cast<orlo_lumen_pipe_t *>(0x10), -1), 0);
  EXPECT_EQ(orlo_lumen_pipe_set_dev_mac(nullptr, "\x00\x01\x02\x03\x04\x05", 6), 0);
  EXPECT_EQ(orlo_lumen_pipe_send_audio(p, 1, "pcm!", 4), 4);
  for (auto set : {orlo_lumen_pipe_set_cmd_callback, orlo_lumen_pipe_set_motion_callback,
                   orlo_lumen_pipe_set_alarm_callback, orlo_lumen_pipe_set_src_handoff,
                   orlo_lumen_pipe_set_header_x_callback, orlo_lumen_pipe_set_onvif_meta_callback})
    EXPECT_EQ(set(p, nullptr, nullptr), 0);

  EXPECT_EQ(orlo_lumen_pipe_stop(p), 0);
  EXPECT_EQ(orlo_lumen_pipe_close_ch(p, 1), 0);
  EXPECT_EQ(orlo_lumen_pipe_close_ch(p, 1), -1) << "the element's result comes back";
  EXPECT_EQ(pipe_threads(), 1) << "the thread lives on, parked in its loop";
  // Delete gives back the record's two element references, nothing more.
  GstObject *elements[] = {GST_OBJECT(p->src), GST_OBJECT(p->kelappsink)};
  const int refs[] = {GST_OBJECT_REFCOUNT_VALUE(elements[0]),
                      GST_OBJECT_REFCOUNT_VALUE(elements[1])};
  orlo_lumen_pipe_delete(p);
  for (int i = 0; i < 2; i++) EXPECT_EQ(GST_OBJECT_REFCOUNT_VALUE(elements[i]), refs[i] - 1) << i;
  EXPECT_EQ(pipe_threads(), 1);
  // The pipeline is the thread's to keep; it is still whole.
  EXPECT_TRUE(GST_IS_PIPELINE(pipeline));
  EXPECT_EQ(state_of(pipeline), GST_STATE_NULL);
}
