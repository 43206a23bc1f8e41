// The live pipe over the real elements: the build, its sink's settings,
// start/stop cycles, the forwarding calls and the life of the thread.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "lumen_src.h"
#include "orlo_lumen_pipe.h"
#include "pipes_fixture.hh"

namespace {

using namespace pipes_test;

// Threads of this process that carry the pipeline thread's name.
int pipe_threads() {
  int n = 0;
  for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream comm(task.path() / "comm");
    std::string name;
    n += std::getline(comm, name) && name == "lumen-pipe";
  }
  return n;
}

// How many frames of (ch, type) the sink rendered, in all or at the end.
size_t count(const collector &c, int ch, int type) {
  return std::ranges::count_if(c.frames(), [&](auto &x) { return x.ch == ch && x.type == type; });
}
size_t trailing(const collector &c, int ch, int type) {
  const auto f = c.frames();
  const auto other = std::find_if(f.rbegin(), f.rend(),
                                  [&](const auto &x) { return x.ch != ch || x.type != type; });
  return static_cast<size_t>(other - f.rbegin());
}

}  // namespace

// One pipe through its life: start, stop and start again without a new
// build, the requests forwarded on the way, then a delete that leaves the
// pipeline thread parked in its loop.
TEST(LumenPipe, BuildStartStopStartForwardsRequestsAndDeleteLeavesTheThreadParked) {
  gst_init(nullptr, nullptr);
  orlo_lumen_pipe_t *p = nullptr;
  // The built pipeline, whatever the argument, with its sink's settings, not playing.
  for (int arg : {0, -7, 4}) {
    if (p != nullptr) orlo_lumen_pipe_delete(p);
    p = orlo_lumen_pipe_new(arg);
    ASSERT_NE(p, nullptr);
    const auto launch = pipe_spies::last_launch();
    EXPECT_EQ(launch.text,
              "lumensrc name=livelumensrc ! kelappsink caps=\"video/x-h264\" name=lumen_app_sink");
    EXPECT_TRUE(launch.freed);
    ASSERT_TRUE(GST_IS_LUMEN_SRC(orlo_lumen_pipe_get_src(p)));
    ASSERT_TRUE(GST_IS_KELAPP_SINK(orlo_lumen_pipe_get_kelappsink(p)));
    expect_props(p->kelappsink, "sync=FALSE drop=TRUE max-buffers=3 priority=99");
    EXPECT_EQ(GST_STATE(p->pipeline), GST_STATE_NULL);
    EXPECT_EQ(orlo_lumen_pipe_stop(p), 0) << "stop before any start";
  }
  GstElement *pipeline = p->pipeline;
  collector rc(p->kelappsink);
  g_object_set(p->src, "width", 160, "height", 96, "key-interval", 5, nullptr);
  // open_ch passes 0 as the element's third argument: both streams, 1 and 17.
  ASSERT_EQ(orlo_lumen_pipe_open_ch(p, 1), 0);
  for (int round = 0; round < 2; ++round) {
    rc.clear();
    EXPECT_EQ(orlo_lumen_pipe_start(p), 0);
    EXPECT_EQ(GST_STATE(pipeline), GST_STATE_PLAYING) << "round " << round;
    ASSERT_TRUE(eventually([&] { return count(rc, 1, 1) >= 2 && count(rc, 17, 1) >= 2; }))
        << "round " << round;
    if (round == 0) {
      EXPECT_EQ(orlo_lumen_pipe_stop(p), 0);
      EXPECT_EQ(GST_STATE(pipeline), GST_STATE_NULL);
    }
  }
  EXPECT_EQ(p->pipeline, pipeline) << "no new build";

  orlo_lumen_pipe_pause_ch(p, 1, 0);
  orlo_lumen_pipe_i_only_req(p, 17);
  // Frames under way when the requests came still arrive; then channel 1 is
  // paused and 17 sends intra frames only.
  EXPECT_TRUE(eventually([&] { return trailing(rc, 17, 1) >= 3; })) << "paused, intra only";
  rc.clear();
  orlo_lumen_pipe_resume_ch(p, 1, 0);
  orlo_lumen_pipe_i_only_req(p, -1);
  EXPECT_TRUE(eventually([&] { return count(rc, 1, 1) >= 1 && count(rc, 1, 0) >= 2; }));
  EXPECT_TRUE(eventually([&] { return count(rc, 17, 0) >= 2; })) << "intra-only ended";

  // Calls for every source of the process: the handle isn't read.
  EXPECT_EQ(orlo_lumen_pipe_set_live_audio_ch(nullptr, 1), 0);
  EXPECT_TRUE(eventually([&] { return count(rc, 1, 10) >= 2; }));
  EXPECT_EQ(orlo_lumen_pipe_set_dev_mac(nullptr, "\x00\x01\x02\x03\x04\x05", 6), 0);
  EXPECT_EQ(orlo_lumen_pipe_send_audio(p, 1, "pcm!", 4), 4);
  for (auto set : {orlo_lumen_pipe_set_cmd_callback, orlo_lumen_pipe_set_motion_callback,
                   orlo_lumen_pipe_set_alarm_callback, orlo_lumen_pipe_set_src_handoff,
                   orlo_lumen_pipe_set_header_x_callback, orlo_lumen_pipe_set_onvif_meta_callback})
    EXPECT_EQ(set(p, nullptr, nullptr), 0);

  EXPECT_EQ(orlo_lumen_pipe_stop(p), 0);
  EXPECT_EQ(orlo_lumen_pipe_close_ch(p, 1), 0);
  EXPECT_EQ(orlo_lumen_pipe_close_ch(p, 1), -1) << "the element's result comes back";
  // Delete gives back the record's two element references, nothing more;
  // the pipeline and its thread, parked in its loop, stay.
  GstObject *elements[] = {GST_OBJECT(p->src), GST_OBJECT(p->kelappsink)};
  const int refs[] = {GST_OBJECT_REFCOUNT_VALUE(elements[0]),
                      GST_OBJECT_REFCOUNT_VALUE(elements[1])};
  orlo_lumen_pipe_delete(p);
  for (int i = 0; i < 2; i++) EXPECT_EQ(GST_OBJECT_REFCOUNT_VALUE(elements[i]), refs[i] - 1) << i;
  EXPECT_EQ(pipe_threads(), 3);  // one for each pipe built
  EXPECT_EQ(GST_STATE(pipeline), GST_STATE_NULL);
}
