// Playback through a pipe into its own kelappsink: the parameters that reach
// the source choose the span, and the first intra frame of a span.
#include <gtest/gtest.h>

#include <map>

#include "kel_buffers.h"
#include "playback.hh"

namespace {

using namespace playback_test;

constexpr int kFrames = 50;

class SstPlay : public ::testing::Test {
 protected:
  void SetUp() override { gst_init(nullptr, nullptr); }
  void TearDown() override { close(); }

  // Records channels 0..channels-1 of `frames` frames.
  bool record(int channels, int frames = kFrames) {
    for (int ch = 0; ch < channels; ch++)
      if (!record_channel(folder.path(), ch, frames)) return false;
    return true;
  }
  void open(int open_rate = 1) {
    h = orlo_sst_pipe_new();
    ASSERT_NE(h, nullptr);
    g_object_set(h->src, "location", folder.path().c_str(), "open-rate", open_rate, nullptr);
    sink = std::make_unique<collector>(h->kelappsink);
  }
  void close() {
    if (h == nullptr) return;
    orlo_sst_pipe_stop(h);
    orlo_sst_pipe_delete(h);
    h = nullptr;
  }
  void play(int64_t search, uint32_t mask = 15, int rate = 1, int hide = 1, int64_t end = 0) {
    orlo_sst_pipe_set_param(h, rate, 0, 0, hide, tv(0), tv(end), tv(search), 4, mask);
    orlo_sst_pipe_start(h);
  }
  bool wait_eos(uint64_t mask) {
    return eventually([&] { return orlo_sst_pipe_get_eos_mask(h) == mask; });
  }
  std::map<int, std::vector<frame_seen>> by_channel() {
    std::map<int, std::vector<frame_seen>> out;
    for (const auto &f : sink->frames()) out[f.ch].push_back(f);
    return out;
  }
  temp_folder folder;
  orlo_sst_pipe_t *h = nullptr;
  std::unique_ptr<collector> sink;
};

TEST_F(SstPlay, HideChoosesTheIntraFrameAroundTheSearchTimeAndEndTimeBoundsThePlay) {
  ASSERT_TRUE(record(4));
  open();
  const int64_t search = kStart + 15 * kFrameNs, end = kStart + 20 * kFrameNs;
  // hide 0: from the intra frame before the search time, to the end time.
  play(search, 15, 1, 0, end);
  ASSERT_TRUE(wait_eos(15));
  ASSERT_TRUE(eventually([&] { return sink->frames().size() >= 4 * 11; }));
  for (const auto &[ch, frames] : by_channel()) {
    ASSERT_EQ(frames.size(), 11u) << "channel " << ch;
    EXPECT_EQ(frames.front().time, kStart + 10 * kFrameNs);
    EXPECT_EQ(frames.back().time, end);
  }
  EXPECT_EQ(h->base_time, static_cast<uint64_t>(search));

  // hide 1: from the first intra frame at or after it.
  orlo_sst_pipe_stop(h);
  const size_t before = sink->count();
  play(search, 1, 1, 1, end);
  ASSERT_TRUE(
      eventually([&] { return orlo_sst_pipe_get_eos_mask(h) == 1 && sink->count() > before; }));
  const auto lists = sink->lists();
  ASSERT_EQ(lists.size(), before + 1);
  ASSERT_EQ(lists.back().size(), 1u);
  EXPECT_EQ(lists.back()[0].time, end);
  EXPECT_EQ(lists.back()[0].ch, 0);
}

TEST_F(SstPlay, FirstIntraFrameOfASpan) {
  ASSERT_TRUE(record(3));
  const std::string dir = folder.path();
  GstBuffer *b = orlo_sst_pipe_get_iframe(dir.c_str(), 2, 0, tv(kStart + 5 * kFrameNs), tv(0));
  ASSERT_NE(b, nullptr);
  GstKelBuddyMeta *m = gst_kel_buddy_buffer_get_meta(b);
  ASSERT_NE(m, nullptr);
  const frame_seen f = read_header(m->data);
  EXPECT_EQ(f.ch, 2);
  EXPECT_EQ(f.type, 1);
  EXPECT_EQ(f.time, kStart + 10 * kFrameNs);
  EXPECT_EQ(m->size, 24 + f.size);
  EXPECT_EQ(m->data[24 + 2], 0);  // an Annex B start code opens the payload
  EXPECT_EQ(m->data[24 + 3], 1);
  gst_buffer_unref(b);
  // A span without an intra frame, and a channel never recorded.
  EXPECT_EQ(orlo_sst_pipe_get_iframe(dir.c_str(), 2, 0, tv(kStart + 41 * kFrameNs),
                                     tv(kStart + 49 * kFrameNs)),
            nullptr);
  EXPECT_EQ(orlo_sst_pipe_get_iframe(dir.c_str(), 9, 0, tv(0), tv(0)), nullptr);
}

// A player that catches up with a recording still being written waits for
// the recorder and plays on, also in the middle of a group of pictures.
TEST_F(SstPlay, AGrowingRecordingPlaysOnWithOpenRate) {
  constexpr int kShort = 30;
  ASSERT_TRUE(record(1, kShort));
  open(20);
  play(0, 1, 4);
  ASSERT_TRUE(eventually([&] { return sink->count() >= kShort; }));
  EXPECT_TRUE(wait_eos(1));
  ASSERT_TRUE(record_channel(folder.path(), 0, 10, kStart + kShort * kFrameNs));
  ASSERT_TRUE(eventually([&] { return sink->count() >= kShort + 10; }));
  int64_t last = 0;
  for (const auto &f : sink->frames()) {
    EXPECT_GT(f.time, last);
    last = f.time;
  }
  EXPECT_EQ(last, kStart + (kShort + 9) * kFrameNs);
}

}  // namespace
