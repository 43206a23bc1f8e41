// Region layouts of every display mode, with and without the corrections for
// the display's width, the main port of the two-layer modes, and the crop
// position.
#include <array>
#include <numeric>

#include "display_fixture.hh"

namespace {

using namespace display_test;
using list = std::vector<orlo_vr_t>;

// The display's size as the layout reads it (16:9), set on the one handle.
void set_display_width(orlo_display_t *h, int D) { h->disp_width = D, h->disp_height = D * 9 / 16; }

// Channels 20, 21, ... so that a channel is never mistaken for an index.
std::array<int, ORLO_MAX_VR> channel_list() {
  std::array<int, ORLO_MAX_VR> c{};
  std::iota(c.begin(), c.end(), 20);
  return c;
}

list quad(int x0, int y0, int a, int b) {
  return {R(20, x0, y0, a, b), R(21, x0 + a, y0, a, b), R(22, x0, y0 + b, a, b),
          R(23, x0 + a, y0 + b, a, b)};
}

// 3 x 3 tiles of height 360 with the given column edges and widths.
list nine(std::array<int, 3> xs, std::array<int, 3> ws, bool ninth_fixed = false) {
  list v;
  for (int i = 0; i < 9; i++) v.push_back(R(20 + i, xs[i % 3], 360 * (i / 3), ws[i % 3], 360));
  if (ninth_fixed) v[8].ch = 8, v[8].flag = 1;
  return v;
}

list six(int g_e2, int t_e2, int t_e0, int t_e1) {
  return {R(20, 0, 0, g_e2, 720),   R(21, g_e2, 0, t_e2, 360),   R(22, g_e2, 360, t_e2, 360),
          R(23, 0, 720, t_e0, 360), R(24, t_e0, 720, t_e1, 360), R(25, g_e2, 720, t_e2, 360)};
}

// One big region of `bw` x 810, three of `rw` x 270 on its right, four below.
list eight(int x0, int bw, int rw, std::array<int, 4> xs, std::array<int, 4> ws) {
  list v = {R(20, x0, 0, bw, 810)};
  for (int i = 0; i < 3; i++) v.push_back(R(21 + i, x0 + bw, 270 * i, rw, 270));
  for (int i = 0; i < 4; i++) v.push_back(R(24 + i, xs[i], 810, ws[i], 270));
  return v;
}

list thirteen() {
  list v = {R(20, 0, 0, 960, 540), R(21, 960, 0, 480, 270), R(22, 1440, 0, 480, 270),
            R(23, 960, 270, 480, 270), R(24, 1440, 270, 480, 270)};
  for (int i = 5; i < 13; i++)
    v.push_back(R(20 + i, 480 * ((i + 3) % 4), 270 * ((i + 3) / 4), 480, 270));
  return v;
}

list sixteen(std::array<int, 4> xs, std::array<int, 4> ws) {
  list v;
  for (int i = 0; i < 16; i++) v.push_back(R(20 + i, xs[i % 4], 270 * (i / 4), ws[i % 4], 270));
  return v;
}

list inset(int big_ch, int W, int H, int x0 = 0, int y0 = 0) {
  const orlo_vr_t big{big_ch, x0, y0, W, H, 1, 0, W - 64, 0, H - 48, 0};
  return {big, R(20, x0 + W - 576, y0 + H - 392, 576, 324, 2)};
}

list three_by_two(int x0, int y0, int w, int h) {
  list v;
  for (int i = 0; i < 6; i++) v.push_back(R(20 + i, x0 + w * (i % 3), y0 + h * (i / 3), w, h));
  return v;
}

// Modes 12 and 22 at y 20, 600 high: the channel above port 0.
list two_layers(int x_top, int w_top, int x_port) {
  return {R(20, x_top, 20, w_top, 600, 2), R(0, x_port, 20, 1000, 600)};
}

struct layout_case {
  const char *label;
  int D, mode, x, y, W, H;
  list regions;  // the used records; the rest stay unset
  int ch_count = 16;
};

TEST(Layout, RegionsOfEveryModeAndCorrection) {
  const list k9 = nine({0, 640, 1280}, {640, 640, 640}),
             k9_800 = nine({0, 634, 1286}, {634, 652, 634});
  const list k6 = six(1280, 640, 640, 640), k13 = thirteen();
  const list k8 = eight(0, 1440, 480, {0, 480, 960, 1440}, {480, 480, 480, 480});
  const list k16 = sixteen({0, 480, 960, 1440}, {480, 480, 480, 480});
  const list k16_1728 = sixteen({0, 424, 864, 1288}, {424, 440, 424, 440});
  const layout_case cases[] = {
      {"m1", 1920, 1, 0, 0, 1920, 1080, {R(20, 0, 0, 1920, 1080)}},
      {"m2", 1920, 2, 0, 0, 1920, 1080, quad(0, 0, 960, 540)},
      {"m13_origin", 1920, 13, 100, 50, 960, 540, quad(100, 50, 480, 270)},
      {"m3", 1920, 3, 0, 0, 1920, 1080, k6},
      {"m5", 1920, 5, 0, 0, 1920, 1080, k8},
      {"m7", 1920, 7, 0, 0, 1920, 1080, k9},
      {"m18", 1920, 18, 0, 0, 1920, 1080, nine({0, 640, 1280}, {640, 640, 640}, true)},
      {"m7_eight_ch", 1920, 7, 0, 0, 1920, 1080, nine({0, 640, 1280}, {640, 640, 640}, true), 8},
      {"m8", 1920, 8, 0, 0, 1920, 1080, k13},
      {"m19", 1920, 19, 0, 0, 1920, 1080, k13},
      {"m9", 1920, 9, 0, 0, 1920, 1080, k16},
      {"m10", 1920, 10, 0, 0, 1920, 1080, inset(20, 1920, 1080)},
      {"m10_small_origin", 1920, 10, 8, 4, 960, 540, inset(20, 960, 540, 8, 4)},
      {"m100", 1920, 100, 0, 0, 1920, 1080, three_by_two(0, 0, 640, 540)},
      {"m101_origin", 1920, 101, 30, 60, 960, 600, three_by_two(30, 60, 320, 300)},
      // The size test is on the scaled value: 480 x 1081 / 1080 is 480.
      {"m1_scaled_fit", 640, 1, 0, 0, 1922, 1081, {R(20, 0, 0, 1922, 1081)}},
      // Column corrections at W = 1920 only.
      {"m7_d1280", 1280, 7, 0, 0, 1920, 1080, nine({0, 648, 1272}, {648, 624, 648})},
      {"m7_d800", 800, 7, 0, 0, 1920, 1080, k9_800},
      {"m7_d640", 640, 7, 0, 0, 1920, 1080, nine({0, 642, 1278}, {642, 636, 642})},
      {"m7_d800_w1900", 800, 7, 0, 0, 1900, 1080, nine({0, 633, 1266}, {633, 633, 633})},
      {"m7_d720", 720, 7, 0, 0, 1920, 1080, k9},
      {"m3_d1280", 1280, 3, 0, 0, 1920, 1080, six(1272, 648, 648, 624)},
      {"m3_d800", 800, 3, 0, 0, 1920, 1080, six(1286, 634, 634, 652)},
      {"m14_d640", 640, 14, 0, 0, 1920, 1080, six(1278, 642, 642, 636)},
      {"m5_d800_w1920", 800, 5, 0, 0, 1920, 1080, k8},
      // The rules for W = 1728 on a display 800 wide.
      {"m9_d800", 800, 9, 0, 0, 1728, 1080, k16_1728},
      {"m20_d800", 800, 20, 0, 0, 1728, 1080, k16_1728},
      {"m9_d1280", 1280, 9, 0, 0, 1728, 1080, sixteen({0, 432, 864, 1296}, {432, 432, 432, 432})},
      {"m9_d800_w1900", 800, 9, 0, 0, 1900, 1080,
       sixteen({0, 475, 950, 1425}, {475, 475, 475, 475})},
      {"m5_d800", 800, 5, 96, 0, 1728, 1080,
       eight(96, 1288, 440, {96, 520, 960, 1384}, {424, 440, 424, 440})},
      {"m16_d800", 800, 16, 0, 0, 1728, 1080,
       eight(0, 1288, 440, {0, 424, 864, 1288}, {424, 440, 424, 440})},
      {"m5_d640_w1728", 640, 5, 0, 0, 1728, 1080,
       eight(0, 1296, 432, {0, 432, 864, 1296}, {432, 432, 432, 432})},
      // The origin rules of modes 1 and 12 on a display 800 wide.
      {"m1_x406", 800, 1, 406, 20, 1000, 600, {R(20, 402, 20, 1004, 600)}},
      {"m1_x48", 800, 1, 48, 20, 1000, 600, {R(20, 48, 20, 1000, 600)}},
      {"m1_x406_d1280", 1280, 1, 406, 20, 1000, 600, {R(20, 406, 20, 1000, 600)}},
      {"m12_x48", 800, 12, 48, 20, 1000, 600, two_layers(40, 1008, 40)},
      {"m12_x406", 800, 12, 406, 20, 1000, 600, two_layers(406, 1000, 406)},
      {"m12_x48_d1280", 1280, 12, 48, 20, 1000, 600, two_layers(48, 1000, 48)},
      {"m22_x48", 800, 22, 48, 20, 1000, 600, two_layers(48, 1000, 48)},
  };
  orlo_display_t *h = make_display();
  const auto c = channel_list();
  const std::array<int, ORLO_MAX_VR> flags{};
  for (const auto &p : cases) {
    SCOPED_TRACE(p.label);
    set_display_width(h, p.D);
    h->ch_count = p.ch_count;
    std::array<orlo_vr_t, ORLO_MAX_VR> vr{};
    ASSERT_EQ(
        orlo_display_get_user_vr(h, p.mode, p.x, p.y, p.W, p.H, c.data(), flags.data(), vr.data()),
        0);
    for (size_t i = 0; i < vr.size(); i++)
      EXPECT_EQ(vr[i], i < p.regions.size() ? p.regions[i] : kUnset) << i;
  }
  EXPECT_EQ(fake_engine::calls().size(), 1u);  // computes only: ravel_new was all
}

// Modes 12 and 22 put the port that receives the copies on their second
// layer; mode 21 shows it large, and nothing before any of them.
TEST(Layout, MainPortUnsetChannelsFlagsAndFixedNinthTile) {
  orlo_display_t *h = make_display();
  int c[ORLO_MAX_VR] = {7};
  orlo_vr_t vr[ORLO_MAX_VR];
  ASSERT_EQ(orlo_display_get_user_vr(h, 21, 10, 20, 1920, 1000, c, nullptr, vr), 0);
  // The region keeps its place: no origin for a region without a channel.
  EXPECT_EQ(vr[0], (orlo_vr_t{-1, 0, 0, 1920, 1000, 1, 0, 1856, 0, 952, 0}));
  EXPECT_EQ(vr[1], R(7, 10 + 1920 - 576, 20 + 1000 - 392, 576, 324, 2));
  EXPECT_EQ(h->main_port, -1);

  const struct {
    int mode, ch_count, c0, port;
  } cases[] = {{12, 16, 0, 1}, {12, 16, 15, 0}, {12, 4, 5, 0},
               {12, 2, 2, 1},  {22, 4, 4, 0},   {22, 16, 0, 1}};
  for (const auto &p : cases) {
    SCOPED_TRACE(testing::Message() << p.mode << " " << p.ch_count << " " << p.c0);
    h->ch_count = p.ch_count;
    c[0] = p.c0;
    ASSERT_EQ(orlo_display_get_user_vr(h, p.mode, 0, 0, 1920, 1080, c, nullptr, vr), 0);
    EXPECT_EQ(h->main_port, p.port);
    EXPECT_EQ(vr[0], R(p.c0, 0, 0, 1920, 1080, 2));
    EXPECT_EQ(vr[1], R(p.port, 0, 0, 1920, 1080, 1));
    EXPECT_EQ(vr[2], kUnset);
    c[0] = 33;
    ASSERT_EQ(orlo_display_get_user_vr(h, 21, 0, 0, 1920, 1080, c, nullptr, vr), 0);
    list expected = inset(p.port, 1920, 1080);
    expected[1].ch = 33;
    EXPECT_EQ(list(vr, vr + 2), expected);
  }

  // An 8-channel device: an unset channel, flags and the fixed ninth tile.
  h->ch_count = 8;
  auto cl = channel_list();
  cl[2] = -1;
  ASSERT_EQ(orlo_display_get_user_vr(h, 2, 100, 100, 960, 540, cl.data(), nullptr, vr), 0);
  // An unset channel keeps its place without the origin.
  EXPECT_EQ(list(vr + 1, vr + 4),
            (list{R(21, 580, 100, 480, 270), R(-1, 0, 270, 480, 270), R(23, 580, 370, 480, 270)}));

  // Flags go into every record but the fixed ninth tile of an 8-channel device.
  cl[8] = -1;
  std::array<int, ORLO_MAX_VR> flags{};
  for (int i = 0; i < ORLO_MAX_VR; i++) flags[i] = 100 + i;
  ASSERT_EQ(orlo_display_get_user_vr(h, 7, 0, 0, 1920, 1080, cl.data(), flags.data(), vr), 0);
  for (int i = 0; i < ORLO_MAX_VR; i++) EXPECT_EQ(vr[i].flag, i == 8 ? 1 : 100 + i) << i;
  EXPECT_EQ(vr[8].ch, 8);
}

// Refusals leave the output and main_port as they were.
TEST(Layout, RefusedSizesModesAndChannels) {
  const std::string kHeight = "orlo_display_get_user_vr:invalid height\n";
  const std::string kWidth = "orlo_display_get_user_vr:invalid width\n";
  const std::string kNoChannel = "orlo_display_get_user_vr: assertion 'channels[0] != -1' failed";
  const struct {
    int D, mode, W, H, c0;
    std::string text;
  } cases[] = {
      {1920, 2, 1920, 1081, 0, kHeight},
      {1920, 2, 1921, 1080, 0, kWidth},
      {1920, 2, 5000, 5000, 0, kHeight},
      {640, 2, 1923, 1080, 0, kWidth},
      {1920, 2, 100, -1, 0, kHeight},
      {1920, 2, -1, 100, 0, kWidth},
      {1920, 0, 1920, 1080, 0, "orlo_display_get_user_vr:invalid mode:0\n"},
      {1920, 11, 1920, 1080, 0, "orlo_display_get_user_vr:invalid mode:11\n"},
      {1920, 1, 1920, 1080, -1, kNoChannel},
      {1920, 12, 1920, 1080, -1, kNoChannel},
      {1920, 22, 1920, 1080, -1, kNoChannel},
  };
  orlo_display_t *h = make_display();
  for (const auto &p : cases) {
    SCOPED_TRACE(testing::Message() << p.mode << " " << p.W << "x" << p.H);
    log_capture log;
    set_display_width(h, p.D);
    int c[ORLO_MAX_VR] = {p.c0, 1, 2, 3};
    orlo_vr_t vr[ORLO_MAX_VR], before[ORLO_MAX_VR];
    std::memset(vr, 0x5a, sizeof vr);
    std::memcpy(before, vr, sizeof vr);
    EXPECT_EQ(orlo_display_get_user_vr(h, p.mode, 0, 0, p.W, p.H, c, nullptr, vr), -1);
    EXPECT_EQ(std::memcmp(before, vr, sizeof vr), 0);
    EXPECT_EQ(h->main_port, -1);
    EXPECT_EQ(log.texts(p.text == kNoChannel ? G_LOG_LEVEL_CRITICAL : G_LOG_LEVEL_WARNING),
              names{p.text});
  }
}

// Scaled from display to input coordinates, then rounded up to the alignment.
TEST(Layout, CropPositionScaledAndRoundedUp) {
  const struct {
    unsigned in_w, in_h, disp_w, disp_h, cx, cw, cy, ch, align;
    std::array<unsigned, 4> out;
  } cases[] = {
      // 36.7 -> 36 -> 40; 220 -> 224; 22.2 -> 22 -> 24; 133.3 -> 133 -> 136.
      {704, 480, 1920, 1080, 100, 600, 50, 300, 8, {40, 224, 24, 136}},
      {704, 480, 1920, 1080, 100, 600, 50, 300, 1, {36, 220, 22, 133}},
      {704, 480, 1920, 1080, 100, 600, 50, 300, 16, {48, 224, 32, 144}},
      {1920, 1080, 960, 540, 8, 16, 4, 32, 16, {16, 32, 16, 64}},  // exact multiples stay
      {704, 480, 0, 0, 100, 600, 50, 300, 8, {0, 0, 0, 0}},        // no display size: zero
  };
  for (const auto &p : cases) {
    std::array<unsigned, 4> o = {1, 1, 1, 1};
    orlo_display_get_incrop_position(&o[0], &o[1], &o[2], &o[3], p.in_w, p.in_h, p.disp_w, p.disp_h,
                                     p.cx, p.cw, p.cy, p.ch, p.align);
    EXPECT_EQ(o, p.out) << p.in_w << " align " << p.align;
  }
}

}  // namespace
