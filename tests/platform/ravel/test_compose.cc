// The composed displays: tiles in their channels' colours, black where there
// is no picture, layers, crops, and the sizes of the displays.
#include <cstdio>
#include <cstdlib>
#include <cstring>

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
  void expect_size(int32_t d, int32_t width, int32_t height) {
    int32_t w, h;
    display(d, &w, &h);
    EXPECT_EQ(w, width);
    EXPECT_EQ(h, height);
  }
};

TEST_F(compose, TilesOfBothDisplaysShowTheColoursOfTheirPorts) {
  feed(4);
  // 2 x 2 on display 0 (1920 x 1080), ports in a different order on
  // display 2 (1280 x 720) to show that each display follows its own list.
  regions(0, {region(0, 0, 0, 960, 540), region(1, 960, 0, 960, 540), region(2, 0, 540, 960, 540),
              region(3, 960, 540, 960, 540)});
  regions(2, {region(3, 0, 0, 640, 360), region(2, 640, 0, 640, 360), region(1, 0, 360, 640, 360),
              region(0, 640, 360, 640, 360)});
  expect_size(0, 1920, 1080);
  expect_size(2, 1280, 720);
  for (int p = 0; p < 4; p++) {
    EXPECT_TRUE(shows(0, kColours[p], (p % 2) * 960 + 40, (p / 2) * 540 + 40, 880, 460));
    EXPECT_TRUE(shows(2, kColours[3 - p], (p % 2) * 640 + 20, (p / 2) * 360 + 20, 600, 320));
    EXPECT_GE(stats(p).shown, 1u) << "port " << p;
  }
}

TEST_F(compose, RegionsWithoutPictureAreBlackAndLayerTwoLiesOnTop) {
  feed(2);
  // The inset comes first in the list but lies on layer 2; port 7 never had
  // a picture, 40 is no port at all.
  regions(0, {region(1, 1280, 640, 480, 320, 2), region(0, 0, 0, 1920, 1080, 1),
              region(7, 0, 0, 480, 270, 2), region(40, 480, 0, 480, 270, 2)});
  EXPECT_TRUE(shows(0, kColours[1], 1300, 660, 440, 280));
  EXPECT_TRUE(shows(0, kColours[0], 1000, 300, 200, 200));
  EXPECT_TRUE(shows(0, kBlack, 10, 10, 460, 250));
  EXPECT_TRUE(shows(0, kBlack, 490, 10, 460, 250));
}

TEST_F(compose, DisplayZeroTakesTheSizeOfItsFormatAndClipsRegions) {
  feed(1, 17);  // 800 x 600
  // A region that reaches past the display is cut at its edge.
  regions(0, {region(0, 400, 300, 800, 600)});
  expect_size(0, 800, 600);
  EXPECT_TRUE(shows(0, kColours[0], 420, 320, 360, 260));
  EXPECT_TRUE(shows(0, kBlack, 0, 0, 380, 280));
}

TEST_F(compose, CropFieldsShowPartOfThePicture) {
  start(0);
  // Left half of the picture in one colour, right half in another.
  push_all(0, stream(kColours[0], 2, 10, 320, 180, &kColours[2]));
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

TEST_F(compose, AnEmptyListBlanksTheDisplayAndBadListsAreRefused) {
  feed(1);
  regions(0, {region(0, 0, 0, 1920, 1080)});
  EXPECT_TRUE(shows(0, kColours[0]));
  ASSERT_EQ(ravel_change_geometry(engine_, nullptr, 0, 0, 0), 0);
  EXPECT_TRUE(shows(0, kBlack));
  ravel_region_t many[38];
  for (auto &r : many) r = region(0, 0, 0, 10, 10);
  EXPECT_EQ(ravel_change_geometry(engine_, many, 38, 0, 0), -1);
  EXPECT_EQ(ravel_change_geometry(engine_, many, 1, 1, 0), -1);
  EXPECT_EQ(ravel_change_geometry(engine_, nullptr, 1, 0, 0), -1);
  EXPECT_EQ(ravel_change_geometry(engine_, many, -1, 2, 0), -1);
}

// A NO SIGNAL tile: mostly dark, with white letters.
::testing::AssertionResult no_signal_tile(const std::vector<uint8_t> &pic, int width, int x, int y,
                                          int w, int h) {
  int dark = 0, white = 0;
  for (int j = y; j < y + h; j++)
    for (int i = x; i < x + w; i++) {
      const uint8_t *p = &pic[(static_cast<size_t>(j) * width + i) * 3];
      if (p[0] < 50 && p[1] < 50 && p[2] < 50) dark++;
      if (p[0] > 220 && p[1] > 220 && p[2] > 220) white++;
    }
  if (dark > w * h * 7 / 10 && white > w * h / 100) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << dark << " dark and " << white << " white of " << w * h;
}

TEST_F(compose, ALostPortShowsNoSignalUntilItsNextPicture) {
  feed(2);
  ASSERT_EQ(ravel_soft_set_signal_timeout(engine_, 0), 0);
  regions(0, {region(0, 0, 0, 960, 540), region(1, 960, 0, 960, 540)});
  auto tile = [&](int p) {
    int32_t w, h;
    auto pic = display(0, &w, &h);
    return no_signal_tile(pic, w, p * 960, 0, 960, 540);
  };
  // Told so: at once, and until told otherwise.
  ASSERT_EQ(ravel_soft_set_port_signal(engine_, 1, 0), 0);
  EXPECT_TRUE(tile(1));
  EXPECT_EQ(stats(1).no_signal, 1);
  EXPECT_TRUE(shows(0, kColours[0], 40, 40, 880, 460));
  EXPECT_EQ(stats(0).no_signal, 0);
  ASSERT_EQ(ravel_soft_set_port_signal(engine_, 1, 1), 0);
  EXPECT_TRUE(shows(0, kColours[1], 1000, 40, 880, 460));
  // By itself: a port with a picture that hears nothing for the time-out.
  ASSERT_EQ(ravel_soft_set_signal_timeout(engine_, 200), 0);
  ASSERT_TRUE(eventually([&] { return stats(0).no_signal == 1; }));
  EXPECT_TRUE(tile(0));
  // The next picture ends it.
  push_all(0, stream(kColours[2], 1));
  ASSERT_TRUE(handled(0, 4));
  EXPECT_TRUE(shows(0, kColours[2], 40, 40, 880, 460));
  EXPECT_EQ(ravel_soft_set_port_signal(engine_, 18, 0), -1);
  EXPECT_EQ(ravel_soft_set_signal_timeout(engine_, -1), -1);
}

TEST_F(compose, TheWindowPathShowsThePicturesColours) {
  feed(4);
  regions(2, {region(0, 0, 0, 640, 360), region(1, 640, 0, 640, 360), region(2, 0, 360, 640, 360),
              region(3, 640, 360, 640, 360)});
  // The window's pipeline, ending in a file instead of a window.
  const std::string path = ::testing::TempDir() + "ravel_window.rgb";
  const std::string sink = "videoconvert ! video/x-raw,format=RGB ! filesink location=" + path;
  ASSERT_EQ(ravel_soft_show_display_through(engine_, 2, sink.c_str()), 0);
  const size_t frame_bytes = 1280 * 720 * 3;
  std::vector<uint8_t> window(frame_bytes);
  ASSERT_TRUE(eventually([&] {
    FILE *f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) return false;
    size_t got = std::fread(window.data(), 1, frame_bytes, f);
    std::fclose(f);
    return got == frame_bytes;
  }));
  std::remove(path.c_str());
  int32_t w, h;
  auto png = display(2, &w, &h);
  for (int p = 0; p < 4; p++) {
    int x = (p % 2) * 640 + 40, y = (p / 2) * 360 + 40;
    rgb a = mean_colour(window, 1280, x, y, 560, 280), b = mean_colour(png, w, x, y, 560, 280);
    EXPECT_TRUE(near(a, b, 2)) << "tile " << p << ": window " << str(a) << ", picture " << str(b);
  }
}

TEST_F(compose, PicturesAreWrittenAsPng) {
  feed(1);
  regions(2, {region(0, 0, 0, 1280, 720)});
  ASSERT_EQ(ravel_soft_wait_compose(engine_, 20000), 0);
  std::string path = ::testing::TempDir() + "ravel_display2.png";
  ASSERT_EQ(ravel_soft_write_display(engine_, 2, path.c_str()), 0);
  FILE *f = std::fopen(path.c_str(), "rb");
  ASSERT_NE(f, nullptr);
  unsigned char head[24];
  ASSERT_EQ(std::fread(head, 1, sizeof head, f), sizeof head);
  std::fclose(f);
  std::remove(path.c_str());
  // The signature, then the IHDR chunk's width and height, big-endian.
  EXPECT_EQ(std::memcmp(head, "\x89PNG\r\n\x1a\n", 8), 0);
  EXPECT_EQ((head[16] << 24 | head[17] << 16 | head[18] << 8 | head[19]), 1280);
  EXPECT_EQ((head[20] << 24 | head[21] << 16 | head[22] << 8 | head[23]), 720);
  EXPECT_EQ(ravel_soft_write_display(engine_, 0, "/nonexistent-dir/x.png"), -1);
  // Headless here: no window unless a graphical display is named.
  if (std::getenv("DISPLAY") == nullptr && std::getenv("WAYLAND_DISPLAY") == nullptr) {
    EXPECT_EQ(ravel_soft_show_window(engine_, 0), -1);
  }
}

}  // namespace
}  // namespace engine_test
