// The pictures out of the engine.  The composed displays: tiles in their
// ports' colours, black where there is no picture, layers, crops, NO SIGNAL,
// the sizes of the displays, and the same pictures through the window's path
// and in PNG files.  Still images: JPEG of a port's picture (by request, by
// paused frame, for one pushed frame) and a frame decoded to packed YVYU.
#include <glib.h>
#include <png.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <tuple>

// clang-format off
#include <jpeglib.h>  // after <cstdio>: it uses FILE without including it
// clang-format on

#include "engine_harness.hh"

namespace engine_test {
namespace {

const rgb kColours[4] = {{200, 40, 40}, {40, 180, 60}, {50, 60, 210}, {220, 200, 40}};
const rgb kBlack = {0, 0, 0};

class compose : public engine_harness {
 protected:
  // Starts an engine and gives ports 0..n-1 their colours.
  void feed(int n, int32_t format = 0) {
    start(format);
    for (int p = 0; p < n; p++) ASSERT_TRUE(deliver(p, stream(kColours[p], 3)));
  }
};

TEST_F(compose, LayersAndBlackRegionsAndAnEmptyListAndBadLists) {
  feed(2);
  // The inset comes first in the list but lies on layer 2; port 7 never had
  // a picture, 40 is no port at all.
  regions(0, {region(1, 200, 200, 800, 400, 2), region(0, 0, 0, 1920, 1080, 1),
              region(7, 1280, 700, 300, 300, 2), region(40, 1600, 700, 300, 300, 2)});
  // A new picture under the inset and the black tiles: they are drawn again
  // over it.
  for (int round = 0; round < 2; round++) {
    ASSERT_TRUE(round == 0 || deliver(0, stream(kColours[3], 1)));
    EXPECT_TRUE(shows(0, kColours[round * 3], 1100, 100, 700, 500));
    EXPECT_TRUE(shows(0, kColours[1], 220, 220, 760, 360));
    EXPECT_TRUE(shows(0, kBlack, 1290, 710, 280, 280));
    EXPECT_TRUE(shows(0, kBlack, 1610, 710, 280, 280));
  }
  regions(0, {});
  EXPECT_TRUE(shows(0, kBlack));
  ravel_region_t many[38];
  for (auto &r : many) r = region(0, 0, 0, 10, 10);
  for (auto [list, n, d] : {std::tuple{many, 38, 0}, {many, 1, 1}, {nullptr, 1, 0}, {many, -1, 2}})
    EXPECT_EQ(ravel_change_geometry(engine_, list, n, d, 0), -1) << n << " on " << d;
}

TEST_F(compose, DisplayZeroTakesTheSizeOfItsFormatAndClipsRegions) {
  feed(1, 17);  // 800 x 600
  regions(0, {region(0, 400, 300, 800, 600)});
  int32_t w, h;
  display(0, &w, &h);
  EXPECT_EQ(w * 10000 + h, 800 * 10000 + 600);
  EXPECT_TRUE(shows(0, kColours[0], 420, 320, 360, 260));
  EXPECT_TRUE(shows(0, kBlack, 0, 0, 380, 280));
  EXPECT_TRUE(shows(2, kBlack)) << "a display never given regions";
}

TEST_F(compose, CropFieldsShowPartOfThePicture) {
  start(0);
  // Left half of the picture in one colour, right half in another.
  ASSERT_TRUE(
      deliver(0, stream(kColours[0], 2, {.width = 320, .height = 180, .right = &kColours[2]})));
  // The crop is given in the layout space that stands for the whole
  // picture: x 0..960 of 1920 is the left half.
  // Crop x, width, y, height: the left or right half, from `crop_x` on.
  auto cropped = [](int x, int y, int crop_x) {
    return ravel_region_t{0, x, y, 960, 540, 1, crop_x, 960, 0, 1080, 0};
  };
  // The last crop is clamped to the picture's last columns.
  regions(0, {region(0, 0, 0, 960, 540), cropped(960, 0, 0), cropped(0, 540, 960),
              cropped(960, 540, 5000)});
  EXPECT_TRUE(shows(0, kColours[0], 20, 20, 420, 500));
  EXPECT_TRUE(shows(0, kColours[2], 500, 20, 420, 500));
  EXPECT_TRUE(shows(0, kColours[0], 980, 20, 900, 500)) << "left half only";
  EXPECT_TRUE(shows(0, kColours[2], 20, 560, 900, 500)) << "right half only";
  EXPECT_TRUE(shows(0, kColours[2], 980, 560, 900, 500));
}

TEST_F(compose, ALostPortShowsNoSignalUntilItsNextPicture) {
  feed(2);
  ASSERT_EQ(ravel_soft_set_signal_timeout(engine_, 0), 0);
  regions(0, {region(0, 0, 0, 960, 540), region(1, 960, 0, 960, 540)});
  // A NO SIGNAL tile: mostly dark, with white letters centred (the words
  // below the number weigh more: their mean lies 30 rows below the middle).
  auto no_signal_tile = [&](int port) {
    int32_t w, h, dark = 0, white = 0, white_x = 0, white_y = 0;
    auto pic = display(0, &w, &h);
    for (int j = 0; j < 540; j++)
      for (int i = port * 960; i < port * 960 + 960; i++) {
        const uint8_t *p = &pic[(static_cast<size_t>(j) * w + i) * 3];
        dark += p[0] < 50 && p[1] < 50 && p[2] < 50;
        white += p[0] > 220 && p[1] > 220 && p[2] > 220;
        white_x += p[0] > 220 && p[1] > 220 && p[2] > 220 ? i - port * 960 : 0;
        white_y += p[0] > 220 && p[1] > 220 && p[2] > 220 ? j : 0;
      }
    return dark > 960 * 540 * 7 / 10 && white > 960 * 540 / 100 &&
           std::abs(white_x / white - 480) < 20 && std::abs(white_y / white - 300) < 20;
  };
  // Told so: at once, and until told otherwise.
  ASSERT_EQ(ravel_soft_set_port_signal(engine_, 1, 0), 0);
  EXPECT_TRUE(no_signal_tile(1));
  EXPECT_EQ(stats(1).no_signal, 1);
  EXPECT_TRUE(shows(0, kColours[0], 40, 40, 880, 460));
  EXPECT_EQ(stats(0).no_signal, 0);
  ASSERT_EQ(ravel_soft_set_port_signal(engine_, 1, 1), 0);
  EXPECT_TRUE(shows(0, kColours[1], 1000, 40, 880, 460));
  // By itself: a port with a picture that hears nothing for the time-out.
  ASSERT_EQ(ravel_soft_set_signal_timeout(engine_, 200), 0);
  ASSERT_TRUE(eventually([&] { return stats(0).no_signal == 1; }));
  EXPECT_TRUE(no_signal_tile(0));
  // The next picture ends it (a long time-out again, so that a slow run does
  // not see the signal lost once more after that one picture).
  ASSERT_EQ(ravel_soft_set_signal_timeout(engine_, 60000), 0);
  ASSERT_TRUE(deliver(0, stream(kColours[2], 1)));
  EXPECT_TRUE(shows(0, kColours[2], 40, 40, 880, 460));
}

TEST_F(compose, TilesOfBothDisplaysShowTheirPortsThroughTheWindowPathAndInPngFiles) {
  feed(4);
  // 2 x 2 tiles on display 2, the second output, the ports in reverse order.
  std::vector<ravel_region_t> list;
  for (int i = 0; i < 4; i++) list.push_back(region(3 - i, (i % 2) * 640, (i / 2) * 360, 640, 360));
  regions(2, list);
  // The window's pipeline, ending in a file instead of a window.
  const std::string raw = ::testing::TempDir() + "ravel_window.rgb";
  const std::string sink = "videoconvert ! video/x-raw,format=RGB ! filesink location=" + raw;
  ASSERT_EQ(ravel_soft_show_display_through(engine_, 2, sink.c_str()), 0);
  std::vector<uint8_t> window(1280 * 720 * 3);
  auto *bytes = reinterpret_cast<char *>(window.data());
  ASSERT_TRUE(eventually([&] {
    return std::ifstream(raw).read(bytes, long(window.size())).gcount() == long(window.size());
  }));
  int32_t w, h;
  auto pic = display(2, &w, &h);
  EXPECT_EQ(w * 10000 + h, 1280 * 10000 + 720);
  for (int p = 0; p < 4; p++) {
    int x = (p % 2) * 640 + 40, y = (p / 2) * 360 + 40;
    rgb a = mean_colour(window, 1280, x, y, 560, 280), b = mean_colour(pic, w, x, y, 560, 280);
    EXPECT_TRUE(near(a, b, 2)) << "tile " << p << ": window " << a << ", picture " << b;
    EXPECT_TRUE(near(b, ravel_synth::through_yuv(kColours[3 - p]))) << "tile " << p;
  }
  // The PNG file holds the display as it was read.
  const std::string png = ::testing::TempDir() + "ravel_display2.png";
  ASSERT_EQ(ravel_soft_write_display(engine_, 2, png.c_str()), 0);
  png_image file{};
  file.version = PNG_IMAGE_VERSION;
  ASSERT_TRUE(png_image_begin_read_from_file(&file, png.c_str()));
  file.format = PNG_FORMAT_RGB;
  std::vector<uint8_t> back(PNG_IMAGE_SIZE(file));
  ASSERT_TRUE(png_image_finish_read(&file, nullptr, back.data(), 0, nullptr));
  std::remove(png.c_str());
  std::remove(raw.c_str());
  EXPECT_TRUE(back == pic) << "the PNG differs from the display";
  for (const char *bad : {"/nonexistent-dir/x.png", "/dev/full"})
    EXPECT_EQ(ravel_soft_write_display(engine_, 0, bad), -1) << bad;
  // Headless here: no window unless a graphical display is named.
  EXPECT_TRUE(std::getenv("DISPLAY") || std::getenv("WAYLAND_DISPLAY") ||
              ravel_soft_show_window(engine_, 0) == -1);
}

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
  // A flat picture: its last row tells its colour.
  std::vector<uint8_t> row(cinfo.output_width * 3);
  for (JSAMPROW at = row.data(); cinfo.output_scanline < cinfo.output_height;)
    jpeg_read_scanlines(&cinfo, &at, 1);
  jpeg_destroy_decompress(&cinfo);
  std::free(got_buf);
  const rgb c = mean_colour(row, int(row.size() / 3), 0, 0, int(row.size() / 3), 1);
  EXPECT_TRUE(near(c, ravel_synth::through_yuv(colour))) << c;
}

class still_images : public engine_harness {};

TEST_F(still_images, JpegsOfLatestPausedAndGivenFramesAndAYvyuImageOfAFrame) {
  start(0);
  // Refused, and the caller's mistakes are told in the log (a message not
  // seen ends the test).
  g_test_expect_message("ravel", G_LOG_LEVEL_WARNING, "ravel_jpeg_enc: port 2 has no picture yet");
  EXPECT_EQ(ravel_jpeg_enc(engine_, 2, 0, on_jpeg), -1);
  g_test_expect_message("ravel", G_LOG_LEVEL_WARNING, "ravel_jpeg_enc: 18 is no engine port");
  EXPECT_EQ(ravel_jpeg_enc(engine_, 18, 0, on_jpeg), -1);
  EXPECT_EQ(ravel_jpeg_enc(engine_, 2, 0, nullptr), -1);
  g_test_assert_expected_messages();
  ASSERT_TRUE(deliver(2, stream(kGreen, 3)));
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
  ASSERT_TRUE(deliver(4, stream(kGreen, 4)));
  ASSERT_EQ(ravel_set_jpeg_timestamp(engine_, 4, 99), 0);
  ASSERT_EQ(push(4, purple[0], on_jpeg), 0);
  ASSERT_EQ(ravel_set_jpeg_timestamp(engine_, 4, 100), 0);
  ASSERT_TRUE(wait_calls(3));
  check_jpeg(kPurple, 4, 99);
  // A frame that makes no picture (parameter sets alone) still answers, with
  // none, once its reorder window has passed, and the frames after it are
  // decoded; a frame cut short answers at once.
  auto more = stream(kGreen, 21);
  ASSERT_TRUE(deliver(5, {more[0]}));
  ASSERT_EQ(push(5, split(more[0]).first, on_jpeg), 0);
  ASSERT_TRUE(deliver(5, {more.begin() + 1, more.end()}));
  ASSERT_TRUE(wait_calls(4));
  EXPECT_TRUE(got_buf == nullptr && got_words[1] == 0u);
  ASSERT_EQ(push(5, cut(more[1]), on_jpeg), 0);
  ASSERT_TRUE(wait_calls(5));
  EXPECT_EQ(got_buf, nullptr);
  ASSERT_TRUE(handled(5, 23));
  EXPECT_EQ(stats(5).pictures * 10 + stats(5).decode_errors, 211u) << "pictures, errors";
  // An image callback gets its frame as YVYU, and that frame is not shown.
  ASSERT_TRUE(deliver(0, {more[0]}));
  regions(0, {region(0, 0, 0, 1920, 1080)});
  ASSERT_EQ(push(0, purple[0], nullptr, on_image), 0);
  ASSERT_TRUE(wait_calls(6));
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
  ASSERT_TRUE(deliver(0, {more[1], more[2]}));
  EXPECT_EQ(stats(0).decode_errors, 0u);
  // An inter frame alone can't be decoded: the callback gets no picture.
  ASSERT_EQ(push(1, more[1], nullptr, on_image), 0);
  ASSERT_TRUE(wait_calls(7));
  EXPECT_EQ(got_buf, nullptr);
}

}  // namespace
}  // namespace engine_test
