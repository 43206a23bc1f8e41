// The JPEG live stream selection kept in the handle.
#include "still_support.hh"

TEST(JpegLiveStream, StartChangeAndStopKeepTheirFields) {
  orlo_display_t *h = still::make_display();
  int table[ORLO_MAX_SLOT], zeros[ORLO_MAX_SLOT] = {};
  for (int i = 0; i < ORLO_MAX_SLOT; i++) table[i] = i % 3 + 1;
  // A change before any start replaces the table and leaves the word at 0.
  EXPECT_EQ(orlo_display_jpeg_live_stream_change(h, table), 0);
  EXPECT_EQ(std::memcmp(h->ch_jpeg_live, table, sizeof table), 0);
  EXPECT_EQ(h->jpeg_live_arg, 0);
  EXPECT_EQ(orlo_display_jpeg_live_stream_all_stop(h), 0);
  EXPECT_EQ(std::memcmp(h->ch_jpeg_live, zeros, sizeof zeros), 0);
  EXPECT_EQ(orlo_display_jpeg_live_stream_start(h, table, 42), 0);
  EXPECT_EQ(std::memcmp(h->ch_jpeg_live, table, sizeof table), 0);
  EXPECT_EQ(orlo_display_jpeg_live_stream_all_stop(h), 0);
  EXPECT_EQ(h->jpeg_live_arg, 42);
  // A missing handle or table is refused.
  EXPECT_EQ(orlo_display_jpeg_live_stream_start(h, nullptr, 1) +
                orlo_display_jpeg_live_stream_start(nullptr, table, 1) +
                orlo_display_jpeg_live_stream_change(h, nullptr) +
                orlo_display_jpeg_live_stream_all_stop(nullptr),
            -4);
  EXPECT_EQ(h->jpeg_live_arg, 42);
}
