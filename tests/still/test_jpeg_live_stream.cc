// The JPEG live stream selection kept in the handle: no engine work.
#include <gtest/gtest.h>

#include "still_support.hh"

TEST(JpegLiveStream, StartChangeAndStopKeepTheirFields) {
  orlo_display_t *h = still::make_display();
  ASSERT_NE(h, nullptr);
  int table[ORLO_MAX_SLOT];
  for (int i = 0; i < ORLO_MAX_SLOT; i++) table[i] = i % 3;
  // A change before any start replaces the table and leaves the word at 0.
  EXPECT_EQ(orlo_display_jpeg_live_stream_change(h, table), 0);
  EXPECT_EQ(h->ch_jpeg_live[5], 2);
  EXPECT_EQ(h->jpeg_live_arg, 0);
  EXPECT_EQ(orlo_display_jpeg_live_stream_start(h, table, 42), 0);
  EXPECT_EQ(h->jpeg_live_arg, 42);
  EXPECT_EQ(orlo_display_jpeg_live_stream_all_stop(h), 0);
  for (int i = 0; i < ORLO_MAX_SLOT; i++) EXPECT_EQ(h->ch_jpeg_live[i], 0);
  EXPECT_EQ(h->jpeg_live_arg, 42);
  EXPECT_EQ(fake_engine::calls().size(), 1u);  // ravel_new only
}
