// The composed displays: tiles in their ports' colours, black where there is
// no picture, layers, crops, NO SIGNAL, the sizes of the displays, and the
// same pictures through the window's path and in PNG files.
#include <png.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <tuple>

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
    for (int p = 0; p < n; p++) push_all(p, stream(kColours[p], 3));
    for (int p = 0; p < n; p++) ASSERT_TRUE(handled(p, 3));
  }
  // The 2 x 2 tiles of a display of w x h, port ports[i] in tile i.
  void quarters(int32_t d, int w, int h, const int (&ports)[4]) {
    std::vector<ravel_region_t> list;
    for (int i = 0; i < 4; i++)
      list.push_back(region(ports[i], (i % 2) * w / 2, (i / 2) * h / 2, w / 2, h / 2));
    regions(d, list);
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
    if (round == 1) push_all(0, stream(kColours[3], 1));
    ASSERT_TRUE(handled(0, 3 + round));
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
  push_all(0, stream(kColours[0], 2, {.width = 320, .height = 180, .right = &kColours[2]}));
  ASSERT_TRUE(handled(0, 2));
  // The crop is given in the layout space that stands for the whole
  // picture: x 0..960 of 1920 is the left half.
  auto cropped = [](int x, int y, int crop_x) {
    ravel_region_t r = region(0, x, y, 960, 540);
    r.crop_x = crop_x;
    r.crop_y = 0;
    r.crop_width = 960;
    r.crop_height = 1080;
    return r;
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
  // A NO SIGNAL tile: mostly dark, with white letters centred.
  auto no_signal_tile = [&](int port) {
    int32_t w, h, dark = 0, white = 0, white_x = 0;
    auto pic = display(0, &w, &h);
    for (int j = 0; j < 540; j++)
      for (int i = port * 960; i < port * 960 + 960; i++) {
        const uint8_t *p = &pic[(static_cast<size_t>(j) * w + i) * 3];
        dark += p[0] < 50 && p[1] < 50 && p[2] < 50;
        white += p[0] > 220 && p[1] > 220 && p[2] > 220;
        white_x += p[0] > 220 && p[1] > 220 && p[2] > 220 ? i - port * 960 : 0;
      }
    return dark > 960 * 540 * 7 / 10 && white > 960 * 540 / 100 &&
           std::abs(white_x / white - 480) < 20;
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
  push_all(0, stream(kColours[2], 1));
  ASSERT_TRUE(handled(0, 4));
  EXPECT_TRUE(shows(0, kColours[2], 40, 40, 880, 460));
}

TEST_F(compose, TilesOfBothDisplaysShowTheirPortsThroughTheWindowPathAndInPngFiles) {
  feed(4);
  // The ports in another order on display 2: each display follows its list.
  quarters(0, 1920, 1080, {0, 1, 2, 3});
  quarters(2, 1280, 720, {3, 2, 1, 0});
  // The window's pipeline, ending in a file instead of a window.
  const std::string raw = ::testing::TempDir() + "ravel_window.rgb";
  const std::string sink = "videoconvert ! video/x-raw,format=RGB ! filesink location=" + raw;
  ASSERT_EQ(ravel_soft_show_display_through(engine_, 2, sink.c_str()), 0);
  std::vector<uint8_t> window(1280 * 720 * 3);
  auto *bytes = reinterpret_cast<char *>(window.data());
  ASSERT_TRUE(eventually([&] {
    return std::ifstream(raw).read(bytes, long(window.size())).gcount() == long(window.size());
  }));
  int32_t w0, h0, w, h;
  display(0, &w0, &h0);
  auto pic = display(2, &w, &h);
  EXPECT_EQ((std::vector<int>{w0, h0, w, h}), (std::vector<int>{1920, 1080, 1280, 720}));
  for (int p = 0; p < 4; p++) {
    EXPECT_TRUE(shows(0, kColours[p], (p % 2) * 960 + 40, (p / 2) * 540 + 40, 880, 460));
    EXPECT_GE(stats(p).shown, 1u) << "port " << p;
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
  EXPECT_EQ(file.width * 10000 + file.height, 1280u * 10000 + 720);
  EXPECT_TRUE(back == pic) << "the PNG differs from the display";
  for (const char *bad : {"/nonexistent-dir/x.png", "/dev/full"})
    EXPECT_EQ(ravel_soft_write_display(engine_, 0, bad), -1) << bad;
  // Headless here: no window unless a graphical display is named.
  if (std::getenv("DISPLAY") == nullptr && std::getenv("WAYLAND_DISPLAY") == nullptr) {
    EXPECT_EQ(ravel_soft_show_window(engine_, 0), -1);
  }
}

}  // namespace
}  // namespace engine_test
