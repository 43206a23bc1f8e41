// The live pipe over the real elements: the build, its sink's settings,
// start/stop cycles, the forwarding calls and the life of the thread.
#include <dirent.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "kel_buffers.h"
#include "kelapp_sink.h"
#include "log_capture.hh"
#include "lumen_src.h"
#include "orlo_lumen_pipe.h"

using namespace std::chrono_literals;

namespace {

// Counts what the sink renders, frame by frame, as the render worker would
// see it.
struct render_counter {
  std::mutex lock;
  std::vector<std::pair<int, int>> frames;  // channel, type
  std::atomic<int> lists{0};

  static gint render(GstKelAppSink *sink, gpointer self) {
    auto *c = static_cast<render_counter *>(self);
    GstBuffer *b = gst_kelapp_sink_pull_buffer(sink);
    if (b == nullptr) return 0;
    if (GstKelListMeta *m = gst_kel_list_buffer_get_meta(b)) {
      std::lock_guard<std::mutex> g(c->lock);
      for (GList *l = m->list; l != nullptr; l = l->next)
        if (auto *f = gst_kel_buddy_buffer_get_meta(static_cast<GstBuffer *>(l->data)))
          c->frames.emplace_back(f->data[0], f->data[8]);
    }
    ++c->lists;
    gst_buffer_unref(b);
    return 0;
  }
  void attach(GstElement *sink) {
    GstKelAppSinkRenderCallbacks cbs{};
    cbs.render = &render_counter::render;
    gst_kelapp_sink_set_render_callbacks(GST_KELAPP_SINK(sink), &cbs, this, nullptr);
  }
  std::set<int> channels() {
    std::lock_guard<std::mutex> g(lock);
    std::set<int> s;
    for (auto &[ch, type] : frames) s.insert(ch);
    return s;
  }
  size_t count(int ch, int type) {
    std::lock_guard<std::mutex> g(lock);
    size_t n = 0;
    for (auto &[c, t] : frames) n += c == ch && t == type;
    return n;
  }
  void clear() {
    std::lock_guard<std::mutex> g(lock);
    frames.clear();
  }
  // Waits, generously, for a condition on what has been rendered.
  template <typename F>
  bool wait_for(F &&ok, std::chrono::seconds limit = 20s) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
      if (ok()) return true;
      std::this_thread::sleep_for(20ms);
    }
    return ok();
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

    gboolean sync = TRUE, drop = FALSE;
    guint max_buffers = 0;
    gint priority = 0;
    GstCaps *caps = nullptr;
    g_object_get(p->kelappsink, "sync", &sync, "drop", &drop, "max-buffers", &max_buffers,
                 "priority", &priority, "caps", &caps, nullptr);
    EXPECT_FALSE(sync);
    EXPECT_TRUE(drop);
    EXPECT_EQ(max_buffers, 3u);
    EXPECT_EQ(priority, 99);
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

TEST_F(LumenPipe, StartStopStartOnOnePipeCarriesFramesEachTime) {
  orlo_lumen_pipe_t *p = orlo_lumen_pipe_new(4);
  ASSERT_NE(p, nullptr);
  GstElement *pipeline = p->pipeline;
  render_counter rc;
  rc.attach(orlo_lumen_pipe_get_kelappsink(p));
  g_object_set(p->src, "width", 160, "height", 96, "key-interval", 5, nullptr);

  // open_ch passes 0 as the element's third argument: both streams.
  ASSERT_EQ(orlo_lumen_pipe_open_ch(p, 1), 0);
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(orlo_lumen_pipe_start(p), 0);
    EXPECT_EQ(state_of(pipeline), GST_STATE_PLAYING) << "round " << round;
    EXPECT_TRUE(rc.wait_for([&] { return rc.count(1, 1) >= 2 && rc.count(17, 1) >= 2; }))
        << "round " << round;
    EXPECT_EQ(orlo_lumen_pipe_stop(p), 0);
    EXPECT_EQ(state_of(pipeline), GST_STATE_NULL);
    rc.clear();
  }
  EXPECT_EQ(p->pipeline, pipeline) << "no new build";
  EXPECT_EQ(orlo_lumen_pipe_close_ch(p, 1), 0);
  EXPECT_EQ(orlo_lumen_pipe_close_ch(p, 1), -1) << "the element's result comes back";
  orlo_lumen_pipe_delete(p);
}

TEST_F(LumenPipe, RequestsReachTheElement) {
  orlo_lumen_pipe_t *p = orlo_lumen_pipe_new(4);
  ASSERT_NE(p, nullptr);
  render_counter rc;
  rc.attach(p->kelappsink);
  g_object_set(p->src, "width", 160, "height", 96, "key-interval", 5, "streams",
               LUMEN_SRC_OPEN_MAIN, nullptr);
  orlo_lumen_pipe_start(p);
  ASSERT_EQ(orlo_lumen_pipe_open_ch(p, 0), 0);
  ASSERT_EQ(orlo_lumen_pipe_open_ch(p, 2), 0);
  ASSERT_TRUE(rc.wait_for([&] { return rc.count(0, 0) >= 4 && rc.count(2, 0) >= 4; }));

  orlo_lumen_pipe_pause_ch(p, 0, 0);
  orlo_lumen_pipe_i_only_req(p, 2);
  std::this_thread::sleep_for(300ms);
  rc.clear();
  ASSERT_TRUE(rc.wait_for([&] { return rc.count(2, 1) >= 3; }));
  EXPECT_EQ(rc.count(0, 0) + rc.count(0, 1), 0u) << "paused";
  EXPECT_EQ(rc.count(2, 0), 0u) << "intra frames only";

  orlo_lumen_pipe_resume_ch(p, 0, 0);
  EXPECT_TRUE(rc.wait_for([&] { return rc.count(0, 1) >= 1 && rc.count(0, 0) >= 2; }));

  // Calls for every source of the process: the handle isn't read.
  EXPECT_EQ(orlo_lumen_pipe_set_live_audio_ch(nullptr, 2), 0);
  EXPECT_TRUE(rc.wait_for([&] { return rc.count(2, 10) >= 2; }));
  EXPECT_EQ(orlo_lumen_pipe_set_live_audio_ch(reinterpret_cast<orlo_lumen_pipe_t *>(0x10), -1), 0);
  EXPECT_EQ(orlo_lumen_pipe_set_dev_mac(nullptr, "\x00\x01\x02\x03\x04\x05", 6), 0);
  EXPECT_EQ(orlo_lumen_pipe_send_audio(p, 2, "pcm!", 4), 4);
  EXPECT_EQ(orlo_lumen_pipe_set_cmd_callback(p, nullptr, nullptr), 0);
  EXPECT_EQ(orlo_lumen_pipe_set_src_handoff(p, nullptr, nullptr), 0);

  orlo_lumen_pipe_stop(p);
  orlo_lumen_pipe_delete(p);
}

TEST_F(LumenPipe, DeleteFreesTheRecordAndLeavesTheThreadParked) {
  testing_support::log_capture log;
  orlo_lumen_pipe_delete(nullptr);
  EXPECT_TRUE(log.has(G_LOG_LEVEL_CRITICAL,
                      "orlo_lumen_pipe_delete: assertion 'h_lumen_pipe != NULL' failed"));

  orlo_lumen_pipe_t *p = orlo_lumen_pipe_new(4);
  ASSERT_NE(p, nullptr);
  GstElement *pipeline = p->pipeline;
  orlo_lumen_pipe_start(p);
  orlo_lumen_pipe_stop(p);
  EXPECT_EQ(pipe_threads(), 1);
  orlo_lumen_pipe_delete(p);
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(pipe_threads(), 1) << "the thread lives on, parked in its loop";
  // The pipeline is the thread's to keep; it is still whole.
  EXPECT_TRUE(GST_IS_PIPELINE(pipeline));
  EXPECT_EQ(state_of(pipeline), GST_STATE_NULL);
}
