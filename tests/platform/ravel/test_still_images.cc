// Still images: JPEG of a port's picture (by request, by paused frame, for
// one pushed frame) and a frame decoded to packed YVYU.
#include <glib.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

// clang-format off
#include <jpeglib.h>  // after <cstdio>: it uses FILE without including it
// clang-format on

#include "engine_harness.hh"

namespace engine_test {
namespace {

const rgb kGreen = {40, 190, 70};
const rgb kPurple = {180, 40, 190};  // its U lies just above a step

// What the engine's callbacks delivered last (they carry no user data),
// written before `calls` counts it.
void *got_buf = nullptr;
std::array<uint32_t, 5> got_words{};
std::atomic<int> calls{0};

void on_jpeg(void **pbuf, uint32_t w1, uint32_t w2, uint32_t w3, uint32_t w4, uint32_t w5) {
  got_buf = *pbuf;
  got_words = {w1, w2, w3, w4, w5};
  calls++;
}

void on_image(void **pimage) { on_jpeg(pimage, 0, 0, 0, 0, 0); }

bool wait_calls(int n) {
  return eventually([n] { return calls >= n; });
}

class still_images : public engine_harness {
 protected:
  // The JPEG delivered last: its words, its size and its colour.
  void check_jpeg(rgb colour, uint32_t port, uint32_t timestamp) {
    ASSERT_NE(got_buf, nullptr);
    EXPECT_EQ((std::array<uint32_t, 5>{port, got_words[1], 160, 96, timestamp}), got_words);
    jpeg_decompress_struct cinfo;
    jpeg_error_mgr err;
    cinfo.err = jpeg_std_error(&err);
    jpeg_create_decompress(&cinfo);
    jpeg_mem_src(&cinfo, static_cast<uint8_t *>(got_buf), got_words[1]);
    jpeg_read_header(&cinfo, TRUE);
    cinfo.out_color_space = JCS_RGB;
    jpeg_start_decompress(&cinfo);
    EXPECT_EQ(cinfo.output_width * 1000 + cinfo.output_height, 160u * 1000 + 96);
    std::vector<uint8_t> pic(160 * 96 * 3);
    while (cinfo.output_scanline < cinfo.output_height) {
      JSAMPROW row = pic.data() + static_cast<size_t>(cinfo.output_scanline) * 160 * 3;
      jpeg_read_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_decompress(&cinfo);
    jpeg_destroy_decompress(&cinfo);
    const rgb c = mean_colour(pic, 160, 0, 0, 160, 96);
    EXPECT_TRUE(near(c, ravel_synth::through_yuv(colour))) << c;
    std::free(got_buf);
  }
};

TEST_F(still_images, JpegOfThePortsLatestPictureOrOfAFrameGivenWithTheCallback) {
  start(0);
  // Refused, and the caller's mistakes are told in the log.
  std::vector<std::string> warned;
  auto keep = [](const gchar *, GLogLevelFlags, const gchar *text, gpointer to) {
    static_cast<std::vector<std::string> *>(to)->push_back(text);
  };
  const guint handler = g_log_set_handler("ravel", G_LOG_LEVEL_WARNING, keep, &warned);
  EXPECT_EQ(ravel_jpeg_enc(engine_, 2, 0, on_jpeg), -1) << "no picture yet";
  EXPECT_EQ(ravel_jpeg_enc(engine_, 18, 0, on_jpeg), -1);
  EXPECT_EQ(ravel_jpeg_enc(engine_, 2, 0, nullptr), -1);
  g_log_remove_handler("ravel", handler);
  EXPECT_EQ(warned, (std::vector<std::string>{"ravel_jpeg_enc: port 2 has no picture yet",
                                              "ravel_jpeg_enc: 18 is no engine port"}));
  push_all(2, stream(kGreen, 3));
  ASSERT_TRUE(handled(2, 3));
  ASSERT_EQ(ravel_set_jpeg_timestamp(engine_, 2, 1234), 0);
  ASSERT_EQ(ravel_jpeg_enc(engine_, 2, 0, on_jpeg), 0);
  ASSERT_TRUE(wait_calls(1));
  check_jpeg(kGreen, 2, 1234);
  // A paused-frame request: the pause serves it with the time stamp of the
  // moment (set first: a request also ends by itself after a short settle).
  ASSERT_EQ(ravel_set_jpeg_dstntimeimg(engine_, 2, 1, 2), 0);
  ASSERT_EQ(ravel_set_jpeg_timestamp(engine_, 2, 777), 0);
  ASSERT_EQ(ravel_jpeg_enc(engine_, 2, 0, on_jpeg), 0);
  ASSERT_EQ(ravel_pause_frame(engine_, 2), 0);
  ASSERT_TRUE(wait_calls(2));
  check_jpeg(kGreen, 2, 777);
  // A frame given with a callback: the JPEG is of that frame's picture, with
  // the time stamp of the moment the frame came.
  auto purple = stream(kPurple, 1);
  push_all(4, stream(kGreen, 4));
  ASSERT_EQ(ravel_set_jpeg_timestamp(engine_, 4, 99), 0);
  ASSERT_EQ(push(4, purple[0], on_jpeg), 0);
  ASSERT_EQ(ravel_set_jpeg_timestamp(engine_, 4, 100), 0);
  ASSERT_TRUE(wait_calls(3));
  check_jpeg(kPurple, 4, 99);
  // A frame that makes no picture (parameter sets alone) still answers, with
  // none, once its reorder window has passed, and the frames after it are
  // decoded; a frame cut short answers at once.
  auto more = stream(kGreen, 21);
  push_all(5, {more[0]});
  ASSERT_EQ(push(5, split(more[0]).first, on_jpeg), 0);
  push_all(5, {more.begin() + 1, more.end()});
  ASSERT_TRUE(wait_calls(4));
  EXPECT_TRUE(got_buf == nullptr && got_words[1] == 0u);
  ASSERT_EQ(push(5, cut(more[1]), on_jpeg), 0);
  ASSERT_TRUE(wait_calls(5));
  EXPECT_EQ(got_buf, nullptr);
  ASSERT_TRUE(handled(5, 23));
  EXPECT_EQ(stats(5).pictures * 10 + stats(5).decode_errors, 211u) << "pictures, errors";
}

TEST_F(still_images, AnImageCallbackGetsTheFrameAsYvyuAndItIsNotShown) {
  start(0);
  auto green = stream(kGreen, 3);
  push_all(0, {green[0]});
  ASSERT_TRUE(handled(0, 1));
  regions(0, {region(0, 0, 0, 1920, 1080)});
  ASSERT_EQ(push(0, stream(kPurple, 1)[0], nullptr, on_image), 0);
  ASSERT_TRUE(wait_calls(1));
  ASSERT_NE(got_buf, nullptr);
  // Y V Y U: the same Y twice, then the chroma of the purple picture, exact
  // (a flat colour keeps its values through the encoder).
  const auto *p = static_cast<const uint8_t *>(got_buf) + (48 * 160 + 80) * 2;
  const int y = (66 * kPurple.r + 129 * kPurple.g + 25 * kPurple.b + 128) / 256 + 16;
  const int u = (-38 * kPurple.r - 74 * kPurple.g + 112 * kPurple.b + 128) / 256 + 128;
  const int v = (112 * kPurple.r - 94 * kPurple.g - 18 * kPurple.b + 128) / 256 + 128;
  for (int k = 0; k < 4; k++) EXPECT_EQ(p[k], (std::array<int, 4>{y, v, y, u})[k]) << k;
  g_free(got_buf);
  // The port still shows its stream, and that stream goes on decoding.
  EXPECT_TRUE(shows(0, kGreen));
  push_all(0, {green[1], green[2]});
  ASSERT_TRUE(handled(0, 4));
  EXPECT_EQ(stats(0).decode_errors, 0u);
  // An inter frame alone can't be decoded: the callback gets no picture.
  ASSERT_EQ(push(1, green[1], nullptr, on_image), 0);
  ASSERT_TRUE(wait_calls(2));
  EXPECT_EQ(got_buf, nullptr);
}

}  // namespace
}  // namespace engine_test
