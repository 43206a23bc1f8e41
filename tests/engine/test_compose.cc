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

class compose : public engine_harness {};

TEST_F(compose, TilesOfBothDisplaysShowTheColoursOfTheirPorts) {
  start(0);
  for (int p = 0; p < 4; p++) push_all(p, stream(kColours[p], 5));
  for (int p = 0; p < 4; p++) ASSERT_TRUE(handled(p, 5));
  // 2 x 2 on display 0 (1920 x 1080), ports in a different order on
  // display 2 (1280 x 720) to show that each display follows its own list.
  regions(0, {region(0, 0, 0, 960, 540), region(1, 960, 0, 960, 540), region(2, 0, 540, 960, 540),
              region(3, 960, 540, 960, 540)});
  regions(2, {region(3, 0, 0, 640, 360), region(2, 640, 0, 640, 360), region(1, 0, 360, 640, 360),
              region(0, 640, 360, 640, 360)});
  int32_t w, h;
  auto d0 = display(0, &w, &h);
  ASSERT_EQ(w, 1920);
  ASSERT_EQ(h, 1080);
  for (int p = 0; p < 4; p++) {
    rgb got = mean_colour(d0, w, (p % 2) * 960 + 40, (p / 2) * 540 + 40, 880, 460);
    EXPECT_TRUE(near(got, ravel_synth::through_yuv(kColours[p])))
        << "display 0 tile " << p << " is " << str(got);
  }
  auto d2 = display(2, &w, &h);
  ASSERT_EQ(w, 1280);
  ASSERT_EQ(h, 720);
  for (int t = 0; t < 4; t++) {
    rgb got = mean_colour(d2, w, (t % 2) * 640 + 20, (t / 2) * 360 + 20, 600, 320);
    EXPECT_TRUE(near(got, ravel_synth::through_yuv(kColours[3 - t])))
        << "display 2 tile " << t << " is " << str(got);
  }
  for (int p = 0; p < 4; p++) EXPECT_GE(stats(p).shown, 1u) << "port " << p;
}

TEST_F(compose, RegionsWithoutPictureAreBlackAndLayerTwoLiesOnTop) {
  start(0);
  push_all(0, stream(kColours[0], 3));
  push_all(1, stream(kColours[1], 3));
  ASSERT_TRUE(handled(0, 3));
  ASSERT_TRUE(handled(1, 3));
  // The inset comes first in the list but lies on layer 2; port 7 never had
  // a picture, 40 is no port at all.
  regions(0, {region(1, 1280, 640, 480, 320, 2), region(0, 0, 0, 1920, 1080, 1),
              region(7, 0, 0, 480, 270, 2), region(40, 480, 0, 480, 270, 2)});
  int32_t w, h;
  auto d0 = display(0, &w, &h);
  EXPECT_TRUE(near(mean_colour(d0, w, 1300, 660, 440, 280), ravel_synth::through_yuv(kColours[1])));
  EXPECT_TRUE(near(mean_colour(d0, w, 1000, 300, 200, 200), ravel_synth::through_yuv(kColours[0])));
  EXPECT_TRUE(near(mean_colour(d0, w, 10, 10, 460, 250), kBlack, 4));
  EXPECT_TRUE(near(mean_colour(d0, w, 490, 10, 460, 250), kBlack, 4));
}

TEST_F(compose, DisplayZeroTakesTheSizeOfItsFormatAndClipsRegions) {
  start(17);  // 800 x 600
  push_all(2, stream(kColours[2], 2));
  ASSERT_TRUE(handled(2, 2));
  // A region that reaches past the display is cut at its edge.
  regions(0, {region(2, 400, 300, 800, 600)});
  int32_t w, h;
  auto d0 = display(0, &w, &h);
  ASSERT_EQ(w, 800);
  ASSERT_EQ(h, 600);
  EXPECT_TRUE(near(mean_colour(d0, w, 420, 320, 360, 260), ravel_synth::through_yuv(kColours[2])));
  EXPECT_TRUE(near(mean_colour(d0, w, 0, 0, 380, 280), kBlack, 4));
}

TEST_F(compose, CropFieldsShowPartOfThePicture) {
  start(0);
  // Left half of the picture in one colour, right half in another.
  ravel_synth::stream_options opt;
  opt.width = 320;
  opt.height = 180;
  opt.frames = 2;
  opt.right = &kColours[2];
  for (auto &f : ravel_synth::encode(kColours[0], opt)) {
    frames_.push_back(std::make_unique<test_frame>());
    frames_.back()->data = std::move(f.data);
    ASSERT_EQ(push(0, frames_.back().get()), 0);
  }
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
  ravel_region_t beyond = cropped(960, 540, 5000);  // clamped to the picture's last columns
  regions(0, {region(0, 0, 0, 960, 540), cropped(960, 0, 0), cropped(0, 540, 960), beyond});
  int32_t w, h;
  auto d0 = display(0, &w, &h);
  auto left = ravel_synth::through_yuv(kColours[0]);
  auto right = ravel_synth::through_yuv(kColours[2]);
  EXPECT_TRUE(near(mean_colour(d0, w, 20, 20, 420, 500), left));
  EXPECT_TRUE(near(mean_colour(d0, w, 500, 20, 420, 500), right));
  EXPECT_TRUE(near(mean_colour(d0, w, 980, 20, 900, 500), left)) << "left half only";
  EXPECT_TRUE(near(mean_colour(d0, w, 20, 560, 900, 500), right)) << "right half only";
  EXPECT_TRUE(near(mean_colour(d0, w, 980, 560, 900, 500), right));
}

TEST_F(compose, AnEmptyListBlanksTheDisplayAndBadListsAreRefused) {
  start(0);
  push_all(0, stream(kColours[0], 2));
  ASSERT_TRUE(handled(0, 2));
  regions(0, {region(0, 0, 0, 1920, 1080)});
  int32_t w, h;
  auto full = display(0, &w, &h);
  EXPECT_TRUE(near(mean_colour(full, w, 0, 0, w, h), ravel_synth::through_yuv(kColours[0])));
  ASSERT_EQ(ravel_change_geometry(engine_, nullptr, 0, 0, 0), 0);
  auto empty = display(0, &w, &h);
  EXPECT_TRUE(near(mean_colour(empty, w, 0, 0, w, h), kBlack, 2));

  ravel_region_t many[38];
  for (auto &r : many) r = region(0, 0, 0, 10, 10);
  EXPECT_EQ(ravel_change_geometry(engine_, many, 38, 0, 0), -1);
  EXPECT_EQ(ravel_change_geometry(engine_, many, 1, 1, 0), -1);
  EXPECT_EQ(ravel_change_geometry(engine_, nullptr, 1, 0, 0), -1);
  EXPECT_EQ(ravel_change_geometry(engine_, many, -1, 2, 0), -1);
}

TEST_F(compose, PicturesAreWrittenAsPng) {
  start(0);
  push_all(0, stream(kColours[3], 2));
  ASSERT_TRUE(handled(0, 2));
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
  EXPECT_EQ(std::memcmp(head, "\x89PNG\r\n\x1a\n", 8), 0);
  // The IHDR chunk: width and height, big-endian.
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
