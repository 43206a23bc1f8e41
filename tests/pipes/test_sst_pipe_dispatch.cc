// Playback end to end: four channels recorded in the test, played through a
// playback pipe bound at sink index 1 into the render worker's playback
// dispatch and the recording engine.
#include <gtest/gtest.h>

#include <map>

#include "fake_engine.hh"
#include "kel_buffers.h"
#include "orlo_display.h"
#include "pipes_fixture.hh"

namespace {

using namespace pipes_test;
using clock_type = std::chrono::steady_clock;

constexpr int kFrames = 50;  // 2 s

struct put_seen {
  int port;
  frame_seen frame;
  clock_type::time_point at;
};

class SstDispatch : public ::testing::Test {
 protected:
  void SetUp() override {
    gst_init(nullptr, nullptr);
    for (int ch = 0; ch < 4; ch++) ASSERT_TRUE(record_channel(folder.path(), ch, kFrames));
    fake_engine::script("ravel_put_decode_stream", [this](const fake_engine::call &c) -> int64_t {
      GstKelBuddyMeta *m = gst_kel_buddy_buffer_get_meta(static_cast<GstBuffer *>(c.buffer));
      std::lock_guard<std::mutex> g(lock);
      if (m != nullptr)
        puts.push_back({static_cast<int>(c.args[1]), read_header(m->data), clock_type::now()});
      return 0;
    });
    const int32_t formats[] = {0};
    display = orlo_display_new(formats, 0, 16, 0, 1, -1, nullptr);
    ASSERT_NE(display, nullptr);
    // Channels 0..3 of the playback sink: slots 48..51, ports 4..7.
    orlo_decode_cfg_t table[ORLO_MAX_SLOT] = {};
    for (int ch = 0; ch < 4; ch++) {
      table[48 + ch].port = 4 + ch;
      table[48 + ch].enable = 1;
    }
    ASSERT_EQ(orlo_display_decode_change(display, table), 0);
    h = orlo_sst_pipe_new();
    ASSERT_NE(h, nullptr);
    g_object_set(h->src, "location", folder.path().c_str(), nullptr);
    ASSERT_EQ(orlo_display_bind_src_pipe(display, orlo_sst_pipe_get_kelappsink(h), 1), 0);
  }
  void TearDown() override {
    if (h == nullptr) return;
    orlo_sst_pipe_stop(h);
    orlo_sst_pipe_delete(h);
  }

  void play(int dir, int64_t search) {
    orlo_sst_pipe_set_param(h, 1, dir, 0, 1, tv(0), tv(0), tv(search), 4, 15);
    orlo_sst_pipe_start(h);
  }
  std::vector<put_seen> seen() {
    std::lock_guard<std::mutex> g(lock);
    return puts;
  }
  bool wait_puts(size_t n, double seconds = 20) {
    return eventually([&] { return seen().size() >= n; }, seconds);
  }
  bool wait_eos() {
    return eventually([&] { return orlo_sst_pipe_get_eos_mask(h) == 15; });
  }
  std::map<int, std::vector<put_seen>> by_port() {
    std::map<int, std::vector<put_seen>> ports;
    for (const auto &p : seen()) ports[p.port].push_back(p);
    return ports;
  }

  temp_folder folder;
  orlo_display_t *display = nullptr;
  orlo_sst_pipe_t *h = nullptr;
  std::mutex lock;
  std::vector<put_seen> puts;
};

TEST_F(SstDispatch, ForwardFramesReachTheirPortsInOrderPacedAndEndWithTheEosBits) {
  play(0, kStart);
  ASSERT_TRUE(wait_eos());
  ASSERT_TRUE(wait_puts(4 * kFrames));
  EXPECT_EQ(seen().size(), static_cast<size_t>(4 * kFrames));
  const auto ports = by_port();
  ASSERT_EQ(ports.size(), 4u);
  for (const auto &[port, list] : ports) {
    ASSERT_EQ(list.size(), static_cast<size_t>(kFrames)) << "port " << port;
    for (size_t i = 0; i < list.size(); i++) {
      EXPECT_EQ(list[i].frame.ch, port - 4);
      EXPECT_EQ(list[i].frame.time, kStart + static_cast<int64_t>(i) * kFrameNs);
    }
    // Paced by the clock: no sooner than the recording took (load only
    // makes it later).
    const double span = std::chrono::duration<double>(list.back().at - list.front().at).count();
    EXPECT_GE(span, (kFrames - 1) * 0.04 * 0.9);
  }
  EXPECT_EQ(h->base_time, static_cast<uint64_t>(kStart));
  EXPECT_EQ(h->direction, 0);
  EXPECT_EQ(orlo_sst_pipe_get_norecord_mask(h), 0u);
  EXPECT_GE(orlo_sst_pipe_get_timestamp(h), static_cast<uint64_t>(kStart));

  // The first intra frame of a span, found in the recording itself.
  const char *dir = folder.path().c_str();
  GstBuffer *b = orlo_sst_pipe_get_iframe(dir, 2, 0, tv(kStart + 5 * kFrameNs), tv(0));
  ASSERT_NE(b, nullptr);
  const frame_seen f = read_header(gst_kel_buddy_buffer_get_meta(b)->data);
  EXPECT_EQ((std::vector<int64_t>{f.ch, f.type, f.time}),
            (std::vector<int64_t>{2, 1, kStart + 10 * kFrameNs}));
  gst_buffer_unref(b);
  EXPECT_EQ(
      orlo_sst_pipe_get_iframe(dir, 2, 0, tv(kStart + 41 * kFrameNs), tv(kStart + 49 * kFrameNs)),
      nullptr);  // a span without one
}

TEST_F(SstDispatch, PauseHoldsNextStepsWithTheRenderReportStartResumes) {
  play(0, kStart);
  ASSERT_TRUE(wait_puts(20));
  orlo_sst_pipe_pause(h);
  gst_element_get_state(h->pipeline, nullptr, nullptr, 20 * GST_SECOND);
  // The stream time is the base time and the sink's position, added
  // forward, subtracted backward.
  gint64 position = -1;
  ASSERT_TRUE(gst_element_query_position(h->kelappsink, GST_FORMAT_TIME, &position));
  EXPECT_GT(position, 0);
  EXPECT_EQ(orlo_sst_pipe_get_timestamp(h), static_cast<uint64_t>(kStart + position));
  h->direction = 1;
  EXPECT_EQ(orlo_sst_pipe_get_timestamp(h), static_cast<uint64_t>(kStart - position));
  h->direction = 0;

  // The frame held by the paused sink, then the step: the sink renders in
  // stream order and reports the stepped frame last, one frame of each
  // channel a step.
  orlo_sst_pipe_next(h);
  ASSERT_TRUE(eventually([&] { return orlo_sst_pipe_get_last_timestamp(h) != 0; }, 10));
  size_t held = seen().size();
  for (int step = 0; step < 3; step++) {
    const uint64_t before = orlo_sst_pipe_get_last_timestamp(h);
    orlo_sst_pipe_next(h);
    ASSERT_TRUE(eventually(
        [&] {
          return seen().size() >= held + 4 &&
                 orlo_sst_pipe_get_last_timestamp(h) == before + kFrameNs;
        },
        10))
        << "step " << step;
    const auto all = seen();
    ASSERT_EQ(all.size(), held + 4);
    for (size_t i = held; i < all.size(); i++) EXPECT_EQ(all[i].frame.time, all[held].frame.time);
    held = all.size();
  }
  orlo_sst_pipe_start(h);
  ASSERT_TRUE(wait_puts(held + 20));
  for (const auto &[port, list] : by_port())
    for (size_t i = 1; i < list.size(); i++) EXPECT_GT(list[i].frame.time, list[i - 1].frame.time);
}

// A recording cut into files plays as one; a player that catches up with a
// recording still being written waits for the recorder and plays on.
TEST(SstPlay, ACutAndGrowingRecordingPlaysOnWithOpenRate) {
  gst_init(nullptr, nullptr);
  temp_folder folder;
  constexpr int kShort = 30;
  ASSERT_TRUE(record_channel(folder.path(), 0, kShort, kStart, "max-size=6000"));
  ASSERT_TRUE(g_file_test((folder.path() + "/ch00-0001.h264").c_str(), G_FILE_TEST_EXISTS));
  orlo_sst_pipe_t *h = orlo_sst_pipe_new();
  ASSERT_NE(h, nullptr);
  g_object_set(h->src, "location", folder.path().c_str(), "open-rate", 20, nullptr);
  collector sink(h->kelappsink);
  orlo_sst_pipe_set_param(h, 4, 0, 0, 1, tv(0), tv(0), tv(0), 4, 1);
  orlo_sst_pipe_start(h);
  EXPECT_TRUE(eventually(
      [&] { return sink.frames().size() >= kShort && orlo_sst_pipe_get_eos_mask(h) == 1; }));
  ASSERT_TRUE(record_channel(folder.path(), 0, 10, kStart + kShort * kFrameNs));
  ASSERT_TRUE(eventually([&] { return sink.frames().size() >= kShort + 10; }));
  int64_t last = 0;
  for (const auto &f : sink.frames()) {
    EXPECT_GT(f.time, last);
    last = f.time;
  }
  EXPECT_EQ(last, kStart + (kShort + 9) * kFrameNs);
  orlo_sst_pipe_stop(h);
  orlo_sst_pipe_delete(h);
}

}  // namespace
