// The values the converters are known by: whites, blacks, primaries, the
// carry gradient, the clip floors of the packed-source forms, round trips.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "colorspace.h"

namespace {

struct Yv12 {
  std::vector<uint8_t> y, u, v;
  Yv12(int w, int h, uint8_t fill = 0x5A)
      : y(size_t(w) * h, fill), u(size_t(w / 2) * (h / 2), fill), v(u.size(), fill) {}
};

bool all_equal(const std::vector<uint8_t> &b, uint8_t value) {
  for (uint8_t x : b)
    if (x != value) return false;
  return true;
}

class Quoted : public ::testing::Test {
 protected:
  void SetUp() override { colorspace_init(); }
};

// Each test runs in a process of its own, so here the tables are still zero:
// every pixel comes out alike, whatever the kernels.
TEST(BeforeInit, EveryPixelConvertsAlike) {
  std::mt19937 rng(5);
  const int w = 70, h = 4;
  Yv12 in(w, h);
  for (auto *plane : {&in.y, &in.u, &in.v})
    for (auto &b : *plane) b = static_cast<uint8_t>(rng());
  std::vector<uint8_t> rgb24(w * h * 3, 0x77), rgb565(w * h * 2, 0x77), packed(w * h * 2);
  yv12_to_rgb24_c(rgb24.data(), w, in.y.data(), in.u.data(), in.v.data(), w, w / 2, w, h);
  yv12_to_rgb565_c(rgb565.data(), w, in.y.data(), in.u.data(), in.v.data(), w, w / 2, w, h);
  EXPECT_TRUE(all_equal(rgb24, 0) && all_equal(rgb565, 0));
  for (auto &b : packed) b = static_cast<uint8_t>(rng());
  yvyu_to_rgb24_c(rgb24.data(), w, packed.data(), w, w, h);
  EXPECT_TRUE(all_equal(rgb24, 1));
}

TEST(Tables, ZeroBeforeInitAndExactAfterEachCall) {
  EXPECT_EQ(RGB_Y_tab[200], 0);
  for (int round = 0; round < 2; round++) {
    colorspace_init();
    const int32_t *tables[5] = {RGB_Y_tab, B_U_tab, G_U_tab, G_V_tab, R_V_tab};
    const int32_t expected[5][2] = {{-152560, 2278865},
                                    {-2115968, 2099437},
                                    {-409984, 406781},
                                    {-852480, 845820},
                                    {-1673472, 1660398}};
    for (int t = 0; t < 5; t++) {
      EXPECT_EQ(tables[t][0], expected[t][0]) << "table " << t;
      EXPECT_EQ(tables[t][255], expected[t][1]) << "table " << t;
      EXPECT_EQ(tables[t][t == 0 ? 16 : 128], 0) << "table " << t;
    }
  }
}

TEST_F(Quoted, WhitesBlacksAndPrimariesIntoYv12) {
  using To = void (*)(uint8_t *, uint8_t *, uint8_t *, const uint8_t *, int, int, int);
  const int w = 4, h = 4;
  // Solid pictures: `pixels` repeated; RGB24 bytes are B G R.
  const struct {
    To to;
    std::vector<uint8_t> pixels;
    uint8_t y, u, v;
  } cases[] = {
      {rgb24_to_yv12_c, {255, 255, 255}, 235, 128, 128},
      {rgb24_to_yv12_c, {0, 0, 0}, 16, 128, 128},
      {rgb24_to_yv12_c, {0, 0, 255}, 81, 90, 239},
      {rgb24_to_yv12_c, {255, 0, 0}, 40, 239, 110},
      {rgb565_to_yv12_c, {0xFF, 0xFF}, 231, 126, 126},
      // The top bit of a 555 word is ignored: 0xFFFF and 0x7FFF read the same.
      {rgb555_to_yv12_c, {0xFF, 0xFF, 0xFF, 0x7F}, 229, 128, 128},
  };
  for (const auto &c : cases) {
    std::vector<uint8_t> src(w * h * (c.to == rgb24_to_yv12_c ? 3 : 2));
    for (size_t i = 0; i < src.size(); i++) src[i] = c.pixels[i % c.pixels.size()];
    Yv12 out(w, h);
    c.to(out.y.data(), out.u.data(), out.v.data(), src.data(), w, h, w);
    EXPECT_TRUE(all_equal(out.y, c.y) && all_equal(out.u, c.u) && all_equal(out.v, c.v))
        << int(out.y[0]) << " " << int(out.u[0]) << " " << int(out.v[0]);
  }
}

TEST_F(Quoted, YuvToRgbClipsAndFloors) {
  const uint8_t lumas[] = {16, 235, 255, 0};
  const uint8_t expect[] = {0, 254, 255, 0};
  for (int i = 0; i < 4; i++) {
    Yv12 in(2, 2, 128);
    in.y.assign(4, lumas[i]);
    uint8_t px[2 * 2 * 3];
    yv12_to_rgb24_c(px, 2, in.y.data(), in.u.data(), in.v.data(), 2, 1, 2, 2);
    for (uint8_t b : px) EXPECT_EQ(b, expect[i]) << "Y " << int(lumas[i]);
  }
}

TEST_F(Quoted, Rgb565CarriesMoveTheStepAndRestartEachLine) {
  const int w = 6;
  Yv12 in(w, 2, 128);
  in.y.assign(in.y.size(), 100);
  uint16_t words[2 * w];
  yv12_to_rgb565_c(reinterpret_cast<uint8_t *>(words), w, in.y.data(), in.u.data(), in.v.data(), w,
                   w / 2, w, 2);
  const uint16_t expect[w] = {0x630C, 0x630C, 0x630C, 0x632C, 0x632C, 0x632C};
  for (int line = 0; line < 2; line++)
    for (int x = 0; x < w; x++) EXPECT_EQ(words[line * w + x], expect[x]) << line << "," << x;
  in.y.assign(in.y.size(), 235);
  yv12_to_rgb565_crop(reinterpret_cast<uint8_t *>(words), w, in.y.data(), in.u.data(), in.v.data(),
                      w, w / 2, w, 2);
  for (uint16_t word : words) EXPECT_EQ(word, 0xFFFF);
}

TEST_F(Quoted, Rgb32SwapsChromaRolesNotChannels) {
  Yv12 in(2, 2, 0);
  in.y.assign(4, 128);
  in.u[0] = 200;  // given as U to both
  in.v[0] = 60;
  uint8_t p24[12], p32[16];
  yv12_to_rgb24_c(p24, 2, in.y.data(), in.u.data(), in.v.data(), 2, 1, 2, 2);
  yv12_to_rgb32_c(p32, 2, in.y.data(), in.v.data(), in.u.data(), 2, 1, 2, 2);
  for (int i = 0; i < 4; i++)
    for (int k = 0; k < 4; k++) EXPECT_EQ(p32[4 * i + k], k < 3 ? p24[3 * i + 2 - k] : 0);
}

TEST_F(Quoted, PackedSourcesKeepZeroOut) {
  // Black: Y 16 and neutral chroma, in groups of Y0 V Y1 U.
  const uint8_t black[8] = {16, 128, 16, 128, 16, 128, 16, 128};
  uint8_t out[4 * 3];
  yvyu_to_rgb24_c(out, 4, black, 4, 4, 1);
  for (uint8_t b : out) EXPECT_EQ(b, 1);
  yvyu_to_rgb16_c(out, 4, black, 4, 4, -1);
  for (uint8_t b : out) EXPECT_EQ(b, 8);
  const uint8_t y[4] = {16, 16, 16, 16}, c[2] = {128, 128};
  yv16_to_rgb24_c(out, 4, y, c, c, 4, 2, 4, 1);
  for (uint8_t b : out) EXPECT_EQ(b, 0);
  // Thresholds of the five-bit rule, with c = Y term at neutral chroma:
  // Y 30 gives 16, Y 31 gives 17, Y 255 gives 278.
  const struct {
    uint8_t y;
    uint8_t out;
  } steps[] = {{30, 8}, {31, 16}, {255, 248}};
  for (const auto &s : steps) {
    const uint8_t grey[4] = {s.y, 128, s.y, 128};
    uint8_t px[6];
    yvyu_to_rgb16_c(px, 2, grey, 2, 2, 1);
    for (uint8_t b : px) EXPECT_EQ(b, s.out) << "Y " << int(s.y);
  }
}

TEST_F(Quoted, PackedRoundTripsAreExact) {
  std::mt19937 rng(3);
  const int w = 38, h = 10;
  Yv12 in(w, h);
  for (auto *plane : {&in.y, &in.u, &in.v})
    for (auto &b : *plane) b = static_cast<uint8_t>(rng());
  using To = void (*)(uint8_t *, int, const uint8_t *, const uint8_t *, const uint8_t *, int, int,
                      int, int);
  using Back = void (*)(uint8_t *, uint8_t *, uint8_t *, const uint8_t *, int, int, int);
  const std::pair<To, Back> trips[] = {{yv12_to_yuyv_c, yuyv_to_yv12_c},
                                       {yv12_to_uyvy_c, uyvy_to_yv12_c}};
  for (const auto &[to, back] : trips) {
    std::vector<uint8_t> packed(w * h * 2);
    to(packed.data(), w, in.y.data(), in.u.data(), in.v.data(), w, w / 2, w, h);
    Yv12 out(w, h, 0);
    back(out.y.data(), out.u.data(), out.v.data(), packed.data(), w, h, w);
    EXPECT_TRUE(out.y == in.y && out.u == in.u && out.v == in.v);
  }
}

}  // namespace
