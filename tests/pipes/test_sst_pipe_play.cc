// Playback through a pipe into its own kelappsink: the span the parameters
// choose, a recording that grows while it is played, and the first intra
// frame of a span.
#include <gtest/gtest.h>

#include "kel_buffers.h"
#include "playback.hh"

namespace {

using namespace playback_test;

TEST(SstPlay, FirstIntraFrameOfASpan) {
  gst_init(nullptr, nullptr);
  temp_folder folder;
  ASSERT_TRUE(record_channel(folder.path(), 2, 50));
  const char *dir = folder.path().c_str();
  GstBuffer *b = orlo_sst_pipe_get_iframe(dir, 2, 0, tv(kStart + 5 * kFrameNs), tv(0));
  ASSERT_NE(b, nullptr);
  GstKelBuddyMeta *m = gst_kel_buddy_buffer_get_meta(b);
  ASSERT_NE(m, nullptr);
  const frame_seen f = read_header(m->data);
  EXPECT_EQ(f.ch, 2);
  EXPECT_EQ(f.type, 1);
  EXPECT_EQ(f.time, kStart + 10 * kFrameNs);
  EXPECT_EQ(m->size, 24 + f.size);
  gst_buffer_unref(b);
  // A span without an intra frame.
  EXPECT_EQ(
      orlo_sst_pipe_get_iframe(dir, 2, 0, tv(kStart + 41 * kFrameNs), tv(kStart + 49 * kFrameNs)),
      nullptr);
}

// A player that catches up with a recording still being written waits for
// the recorder and plays on, also in the middle of a group of pictures.
TEST(SstPlay, AGrowingRecordingPlaysOnWithOpenRate) {
  gst_init(nullptr, nullptr);
  temp_folder folder;
  constexpr int kShort = 30;
  ASSERT_TRUE(record_channel(folder.path(), 0, kShort));
  orlo_sst_pipe_t *h = orlo_sst_pipe_new();
  ASSERT_NE(h, nullptr);
  g_object_set(h->src, "location", folder.path().c_str(), "open-rate", 20, nullptr);
  collector sink(h->kelappsink);
  orlo_sst_pipe_set_param(h, 4, 0, 0, 1, tv(0), tv(0), tv(0), 4, 1);
  orlo_sst_pipe_start(h);
  ASSERT_TRUE(eventually([&] { return sink.count() >= kShort; }));
  EXPECT_TRUE(eventually([&] { return orlo_sst_pipe_get_eos_mask(h) == 1; }));
  ASSERT_TRUE(record_channel(folder.path(), 0, 10, kStart + kShort * kFrameNs));
  ASSERT_TRUE(eventually([&] { return sink.count() >= kShort + 10; }));
  int64_t last = 0;
  for (const auto &f : sink.frames()) {
    EXPECT_GT(f.time, last);
    last = f.time;
  }
  EXPECT_EQ(last, kStart + (kShort + 9) * kFrameNs);
  orlo_sst_pipe_stop(h);
  orlo_sst_pipe_delete(h);
}

// The parameters reach the source: hide 0 starts at the intra frame before
// the search time, hide 1 at the first one at or after it; the end time
// bounds the play, the mask picks the channels.
TEST(SstPlay, HideChoosesTheIntraFrameAroundTheSearchTimeAndEndTimeBoundsThePlay) {
  gst_init(nullptr, nullptr);
  temp_folder folder;
  for (int ch = 0; ch < 4; ch++) ASSERT_TRUE(record_channel(folder.path(), ch, 50));
  orlo_sst_pipe_t *h = orlo_sst_pipe_new();
  ASSERT_NE(h, nullptr);
  g_object_set(h->src, "location", folder.path().c_str(), nullptr);
  collector sink(h->kelappsink);
  const int64_t search = kStart + 15 * kFrameNs, end = kStart + 20 * kFrameNs;
  for (int hide : {0, 1}) {
    sink.clear();
    orlo_sst_pipe_set_param(h, 1, 0, 0, hide, tv(0), tv(end), tv(search), 4, hide ? 1 : 15);
    orlo_sst_pipe_start(h);
    const size_t frames = hide ? 1 : 4 * 11;  // from frame 20, or 10..20 of each channel
    ASSERT_TRUE(eventually([&] {
      return orlo_sst_pipe_get_eos_mask(h) == (hide ? 1u : 15u) && sink.frames().size() >= frames;
    })) << "hide "
        << hide;
    const auto seen = sink.frames();
    ASSERT_EQ(seen.size(), frames) << "hide " << hide;
    EXPECT_EQ(seen.front().time, hide ? end : kStart + 10 * kFrameNs);
    EXPECT_EQ(seen.back().time, end);
    EXPECT_EQ(h->base_time, static_cast<uint64_t>(search));
    orlo_sst_pipe_stop(h);
  }
  orlo_sst_pipe_delete(h);
}

}  // namespace
