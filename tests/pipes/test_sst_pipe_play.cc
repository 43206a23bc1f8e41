// Playback through a pipe into its own kelappsink: a recording that grows
// while it is played, and the first intra frame of a span.
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

}  // namespace
