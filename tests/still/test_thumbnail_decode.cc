// Thumbnail decode: one intra frame through port 0 of the engine, the
// picture back on an engine thread, RGB24 for the caller.
#include <atomic>
#include <memory>

#include "still_support.hh"

namespace {

using namespace still;

constexpr int W = 8, H = 4;
const std::string kCannotDecode =
    "orlo_display_decode_image: get thumbnail image failed (cannot decode this!!)\n";

// Delivers a decoded picture as the engine gives it: packed Y0 V Y1 U of luma
// `y` and neutral chroma, g_free'd.
void deliver(ravel_image_cb cb, uint8_t y) {
  auto *p = static_cast<uint8_t *>(g_malloc(W * H * 2));
  for (int i = 0; i < W * H * 2; i++) p[i] = i % 2 == 0 ? y : 128;
  void *word = p;
  cb(&word);
}

// The engine refuses `refusals` offers, then answers with luma `y` on a
// thread of its own.
void engine_answers(int refusals, uint8_t y) {
  auto tries = std::make_shared<int>(0);
  fake_engine::script("ravel_put_decode_stream", [=](const fake_engine::call &c) -> int64_t {
    if (++*tries <= refusals) return -1;
    on_engine_thread([cb = c.image_cb, y] { deliver(cb, y); });
    return 0;
  });
}

// A display, a destination of W x H filled with 0x55, and the frames' count.
struct ThumbnailDecode : ::testing::Test {
  log_capture log;
  orlo_display_t *h = make_display();
  free_counter frames;
  std::vector<uint8_t> dst = std::vector<uint8_t>(W * H * 3, 0x55);
  // Decodes `b` (watched unless null) into dst.
  int decode(GstBuffer *b, int width = W) {
    return orlo_display_decode_image(h, b != nullptr ? frames.watch(b) : b, width, H, 0,
                                     dst.data());
  }
};

TEST_F(ThumbnailDecode, TwentyRefusalsThenAPictureInRgb) {
  fake_engine::hold_frames(true);
  engine_answers(20, 235);
  ASSERT_EQ(decode(make_frame(3, 1, 40)), 0);
  auto pushes = fake_engine::calls("ravel_put_decode_stream");
  ASSERT_EQ(pushes.size(), 21u);
  // Port 0, the payload behind the header and its size, no JPEG callback.
  EXPECT_EQ((std::vector<int64_t>{pushes[20].args[1], pushes[20].args[4], pushes[20].args[6]}),
            (std::vector<int64_t>{0, 40, 0}));
  EXPECT_EQ(pushes[20].record.size(), 40u);
  EXPECT_EQ(pushes[20].record[5], 5);
  // Luma 235 with neutral chroma floors to 254 in every channel.
  EXPECT_EQ(dst, std::vector<uint8_t>(W * H * 3, 254));
  // The engine holds the frame until it releases it.
  EXPECT_EQ(frames.freed.load(), 0);
  EXPECT_EQ(fake_engine::release_held(), 1);
  EXPECT_EQ(frames.freed.load(), 1);
}

// Each refusal releases the frame, answers -1 without waiting and leaves dst.
TEST_F(ThumbnailDecode, RefusedFramesAreReleasedAtOnce) {
  // An inter frame of a channel that port 0 did not last see (channel 0).
  EXPECT_EQ(decode(make_frame(5, 0, 16)), -1);
  EXPECT_TRUE(log.has(G_LOG_LEVEL_WARNING, "previous ch(0) is not matched with current ch(5)\n"));
  EXPECT_EQ(decode(nullptr), -1);
  EXPECT_TRUE(
      log.has(G_LOG_LEVEL_CRITICAL, "orlo_display_decode_image: assertion 'iframe' failed"));
  EXPECT_EQ(decode(make_frame(0, 1, 16), 0), -1);               // a picture of no width
  EXPECT_EQ(decode(gst_buffer_new_memdup("\x03\x00", 2)), -1);  // too short to be a frame
  EXPECT_TRUE(fake_engine::calls("ravel_put_decode_stream").empty());
  EXPECT_EQ(log.count(kCannotDecode), 2);

  fake_engine::script_result("ravel_put_decode_stream", -1);
  EXPECT_EQ(decode(make_frame(0, 1, 16)), -1);
  EXPECT_EQ(fake_engine::calls("ravel_put_decode_stream").size(), 21u);
  EXPECT_EQ(frames.freed.load(), 4);
  EXPECT_TRUE(log.has(G_LOG_LEVEL_WARNING, "ravel push failed at port 0\n"));
  EXPECT_EQ(log.count(kCannotDecode), 3);
  EXPECT_EQ(dst, std::vector<uint8_t>(W * H * 3, 0x55));
}

TEST_F(ThumbnailDecode, NoPictureWithinASecondThenLatePictureIsFreedAndTheNextDecodeWorks) {
  std::atomic<ravel_image_cb> late{nullptr};
  fake_engine::hold_frames(true);
  fake_engine::script("ravel_put_decode_stream", [&](const fake_engine::call &c) -> int64_t {
    late = c.image_cb;
    return 0;
  });
  EXPECT_EQ(decode(make_frame(0, 1, 8)), -1);
  EXPECT_TRUE(
      log.has(G_LOG_LEVEL_WARNING, "orlo_display_decode_image: get thumbnail image failed\n"));
  EXPECT_EQ(dst[0], 0x55);
  // The engine still has the frame: it is freed on release, once.
  EXPECT_EQ(frames.freed.load(), 0);
  EXPECT_EQ(fake_engine::release_held(), 1);
  EXPECT_EQ(frames.freed.load(), 1);
  // The picture arrives after the caller gave up; the next call drops it
  // without a leak and waits for its own.  That frame is one an application
  // stored itself: a plain buffer of header and payload, read as a frame
  // buffer is.
  deliver(late.load(), 235);
  fake_engine::reset();
  engine_answers(0, 16);
  GstBuffer *frame = make_frame(0, 5, 8);
  const GstKelBuddyMeta *m = gst_kel_buddy_buffer_get_meta(frame);
  GstBuffer *plain = gst_buffer_new_memdup(m->data, m->size);
  gst_buffer_unref(frame);
  ASSERT_EQ(decode(plain), 0);
  const auto pushes = fake_engine::calls("ravel_put_decode_stream");
  ASSERT_EQ(pushes.size(), 1u);
  EXPECT_EQ(pushes[0].record, std::vector<uint8_t>({0, 1, 2, 3, 4, 5, 6, 7}));
  // Black, as the packed-source converter writes it: it keeps 0 out.
  EXPECT_EQ(dst, std::vector<uint8_t>(W * H * 3, 1));
  EXPECT_EQ(frames.freed.load(), 2) << "the caller's reference was taken over";
}

}  // namespace
