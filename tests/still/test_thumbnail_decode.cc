// Thumbnail decode: one intra frame through port 0 of the engine, the
// picture back on an engine thread, RGB24 for the caller.
#include <gtest/gtest.h>

#include <atomic>

#include "colorspace.h"
#include "still_support.hh"

namespace {

using namespace std::chrono_literals;
using still::logged;
using testing_support::log_capture;

constexpr int W = 8, H = 4;
const std::string kCannotDecode =
    "orlo_display_decode_image: get thumbnail image failed (cannot decode this!!)\n";

// Delivers a decoded picture as the engine gives it: packed Y0 V Y1 U,
// g_free'd.
void deliver(ravel_image_cb cb, uint8_t y) {
  auto *p = static_cast<uint8_t *>(g_malloc(W * H * 2));
  for (int i = 0; i < W * H / 2; i++) {
    p[4 * i] = p[4 * i + 2] = y;
    p[4 * i + 1] = p[4 * i + 3] = 128;
  }
  void *word = p;
  cb(&word);
}

// A watched intra (or inter) frame.
GstBuffer *watched_frame(still::finalize_counter &freed, int channel, int type, int size) {
  GstBuffer *b = still::make_frame(channel, type, size);
  freed.watch(b);
  return b;
}

TEST(ThumbnailDecode, TwentyRefusalsThenAPictureInRgb) {
  orlo_display_t *h = still::make_display();
  ASSERT_NE(h, nullptr);
  int tries = 0;
  fake_engine::hold_frames(true);
  fake_engine::script("ravel_put_decode_stream", [&](const fake_engine::call &c) -> int64_t {
    if (++tries <= 20) return -1;
    ravel_image_cb cb = c.image_cb;
    still::later(30ms, [cb] { deliver(cb, 235); });
    return 0;
  });
  still::finalize_counter freed;
  std::vector<uint8_t> dst(W * H * 3, 0x55);
  ASSERT_EQ(orlo_display_decode_image(h, watched_frame(freed, 3, 1, 40), W, H, 0, dst.data()), 0);
  auto pushes = fake_engine::calls("ravel_put_decode_stream");
  ASSERT_EQ(pushes.size(), 21u);
  EXPECT_EQ(pushes[20].args[1], 0);   // port 0
  EXPECT_EQ(pushes[20].args[4], 40);  // payload size
  EXPECT_EQ(pushes[20].args[6], 0);   // no JPEG callback
  EXPECT_EQ(pushes[20].record.size(), 40u);
  EXPECT_EQ(pushes[20].record[5], 5);  // the payload, behind the header
  // Luma 235 with neutral chroma floors to 254 in every channel.
  for (uint8_t b : dst) EXPECT_EQ(b, 254);
  // The engine holds the frame until it releases it.
  EXPECT_EQ(freed.finalized, 0);
  EXPECT_EQ(fake_engine::release_held(), 1);
  EXPECT_EQ(freed.finalized, 1);
}

// A frame an application stored itself: a plain buffer whose bytes are the
// header and the payload, read as a frame buffer is; too short a one is no
// frame.
TEST(ThumbnailDecode, APlainBufferOfHeaderAndPayloadIsDecodedLikeAFrameBuffer) {
  log_capture log;
  orlo_display_t *h = still::make_display();
  ASSERT_NE(h, nullptr);
  fake_engine::script("ravel_put_decode_stream", [&](const fake_engine::call &c) -> int64_t {
    ravel_image_cb cb = c.image_cb;
    still::later(30ms, [cb] { deliver(cb, 235); });
    return 0;
  });
  GstBuffer *frame = still::make_frame(3, 1, 40);
  const GstKelBuddyMeta *m = gst_kel_buddy_buffer_get_meta(frame);
  GstBuffer *plain = gst_buffer_new_memdup(m->data, m->size);
  gst_buffer_unref(frame);
  still::finalize_counter freed;
  freed.watch(plain);
  std::vector<uint8_t> dst(W * H * 3, 0x55);
  ASSERT_EQ(orlo_display_decode_image(h, plain, W, H, 0, dst.data()), 0);
  auto pushes = fake_engine::calls("ravel_put_decode_stream");
  ASSERT_EQ(pushes.size(), 1u);
  EXPECT_EQ(pushes[0].args[4], 40);   // payload size from the header
  EXPECT_EQ(pushes[0].record[5], 5);  // the payload, behind the header
  for (uint8_t b : dst) EXPECT_EQ(b, 254);
  EXPECT_EQ(freed.finalized, 1) << "the caller's reference was taken over";

  EXPECT_EQ(orlo_display_decode_image(h, gst_buffer_new_memdup("\x03\x00", 2), W, H, 0, dst.data()),
            -1);
  EXPECT_TRUE(logged(log, kCannotDecode));
}

TEST(ThumbnailDecode, EngineRefusingEveryTryFailsWithoutWaiting) {
  log_capture log;
  orlo_display_t *h = still::make_display();
  fake_engine::script_result("ravel_put_decode_stream", -1);
  still::finalize_counter freed;
  std::vector<uint8_t> dst(W * H * 3, 0x55);
  EXPECT_EQ(orlo_display_decode_image(h, watched_frame(freed, 0, 1, 16), W, H, 0, dst.data()), -1);
  EXPECT_EQ(fake_engine::calls("ravel_put_decode_stream").size(), 21u);
  EXPECT_EQ(freed.finalized, 1);
  EXPECT_TRUE(log.has(G_LOG_LEVEL_WARNING, "ravel push failed at port 0\n"));
  EXPECT_TRUE(log.has(G_LOG_LEVEL_WARNING, kCannotDecode));
  EXPECT_EQ(dst[0], 0x55);
}

TEST(ThumbnailDecode, ForeignInterFrameAndNullFrameAreRefusedAtOnce) {
  log_capture log;
  orlo_display_t *h = still::make_display();
  still::finalize_counter freed;
  std::vector<uint8_t> dst(W * H * 3);
  // Port 0 last saw channel 0.
  EXPECT_EQ(orlo_display_decode_image(h, watched_frame(freed, 5, 0, 16), W, H, 0, dst.data()), -1);
  EXPECT_EQ(freed.finalized, 1);
  EXPECT_TRUE(log.has(G_LOG_LEVEL_WARNING, "previous ch(0) is not matched with current ch(5)\n"));
  EXPECT_TRUE(log.has(G_LOG_LEVEL_WARNING, kCannotDecode));
  EXPECT_EQ(orlo_display_decode_image(h, nullptr, W, H, 0, dst.data()), -1);
  EXPECT_TRUE(
      log.has(G_LOG_LEVEL_CRITICAL, "orlo_display_decode_image: assertion 'iframe' failed"));
  EXPECT_TRUE(fake_engine::calls("ravel_put_decode_stream").empty());
}

TEST(ThumbnailDecode, NoPictureWithinASecondThenLatePictureIsFreedAndTheNextDecodeWorks) {
  log_capture log;
  orlo_display_t *h = still::make_display();
  std::atomic<ravel_image_cb> late{nullptr};
  fake_engine::hold_frames(true);
  fake_engine::script("ravel_put_decode_stream", [&](const fake_engine::call &c) -> int64_t {
    late = c.image_cb;
    return 0;
  });
  still::finalize_counter freed;
  std::vector<uint8_t> dst(W * H * 3, 0x55);
  EXPECT_EQ(orlo_display_decode_image(h, watched_frame(freed, 0, 1, 8), W, H, 0, dst.data()), -1);
  EXPECT_TRUE(
      log.has(G_LOG_LEVEL_WARNING, "orlo_display_decode_image: get thumbnail image failed\n"));
  EXPECT_EQ(dst[0], 0x55);
  // The engine still has the frame: it is freed on release, once.
  EXPECT_EQ(freed.finalized, 0);
  EXPECT_EQ(fake_engine::release_held(), 1);
  EXPECT_EQ(freed.finalized, 1);
  // The picture arrives after the caller gave up; the next call drops it
  // without a leak.
  deliver(late.load(), 16);
  fake_engine::hold_frames(false);
  fake_engine::script("ravel_put_decode_stream", [](const fake_engine::call &c) -> int64_t {
    ravel_image_cb cb = c.image_cb;
    still::later(10ms, [cb] { deliver(cb, 16); });
    return 0;
  });
  ASSERT_EQ(orlo_display_decode_image(h, still::make_frame(0, 5, 8), W, H, 0, dst.data()), 0);
  // Black, as the packed-source converter writes it: it keeps 0 out.
  for (uint8_t b : dst) EXPECT_EQ(b, 1);
}

}  // namespace
