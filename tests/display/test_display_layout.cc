// Region layouts of every display mode, with and without the corrections for
// the display's width, and the crop position.
#include <array>
#include <ostream>

#include "display_fixture.hh"

namespace {

using display_test::make_display;
using display_test::R;
using testing_support::log_capture;

const orlo_vr_t kUnset = {-1, -1, -1, -1, -1, 1, -1, -1, -1, -1, 0};

// Channels 20, 21, ... so that a channel is never mistaken for an index.
std::array<int, ORLO_MAX_VR> channel_list() {
  std::array<int, ORLO_MAX_VR> c{};
  for (int i = 0; i < ORLO_MAX_VR; i++) c[i] = 20 + i;
  return c;
}

struct layout_case {
  const char *label;
  int format;  // 0: 1920 wide, 3: 1280, 6: 800, 18: 640
  int mode;
  int x, y, W, H;
  std::vector<orlo_vr_t> regions;  // the used records; the rest stay unset
  int ch_count = 16;
};
void PrintTo(const layout_case &c, std::ostream *os) { *os << c.label; }

class Layout : public ::testing::TestWithParam<layout_case> {};

TEST_P(Layout, RegionsOfTheMode) {
  const layout_case &p = GetParam();
  orlo_display_t *h = make_display(p.format, p.ch_count);
  auto c = channel_list();
  std::array<int, ORLO_MAX_VR> flags{};
  std::array<orlo_vr_t, ORLO_MAX_VR> vr{};
  ASSERT_EQ(
      orlo_display_get_user_vr(h, p.mode, p.x, p.y, p.W, p.H, c.data(), flags.data(), vr.data()),
      0);
  for (size_t i = 0; i < vr.size(); i++)
    EXPECT_EQ(vr[i], i < p.regions.size() ? p.regions[i] : kUnset) << i;
  EXPECT_TRUE(fake_engine::calls("ravel_change_geometry").empty());  // computes only
}

std::vector<orlo_vr_t> quad(int x0, int y0, int a, int b) {
  return {R(20, x0, y0, a, b), R(21, x0 + a, y0, a, b), R(22, x0, y0 + b, a, b),
          R(23, x0 + a, y0 + b, a, b)};
}

// 3 x 3 tiles of height 360 with the given column edges and widths.
std::vector<orlo_vr_t> nine(std::array<int, 3> xs, std::array<int, 3> ws) {
  std::vector<orlo_vr_t> v;
  for (int i = 0; i < 9; i++) v.push_back(R(20 + i, xs[i % 3], 360 * (i / 3), ws[i % 3], 360));
  return v;
}

std::vector<orlo_vr_t> six(int g_e2, int h, int t_e2, int t_e0, int t_e1, int s) {
  return {R(20, 0, 0, g_e2, h), R(21, g_e2, 0, t_e2, s), R(22, g_e2, s, t_e2, s),
          R(23, 0, h, t_e0, s), R(24, t_e0, h, t_e1, s), R(25, g_e2, h, t_e2, s)};
}

// One big region of `bw` x 810 at x0, three of `rw` x 270 on its right, four
// below with the given edges and widths.
std::vector<orlo_vr_t> eight(int x0, int bw, int rw, std::array<int, 4> xs, std::array<int, 4> ws) {
  std::vector<orlo_vr_t> v = {R(20, x0, 0, bw, 810)};
  for (int i = 0; i < 3; i++) v.push_back(R(21 + i, x0 + bw, 270 * i, rw, 270));
  for (int i = 0; i < 4; i++) v.push_back(R(24 + i, xs[i], 810, ws[i], 270));
  return v;
}
const std::vector<orlo_vr_t> kEight1920 =
    eight(0, 1440, 480, {0, 480, 960, 1440}, {480, 480, 480, 480});

std::vector<orlo_vr_t> thirteen_1920() {
  std::vector<orlo_vr_t> v = {R(20, 0, 0, 960, 540), R(21, 960, 0, 480, 270),
                              R(22, 1440, 0, 480, 270), R(23, 960, 270, 480, 270),
                              R(24, 1440, 270, 480, 270)};
  const int xs[4] = {0, 480, 960, 1440};
  for (int i = 5; i < 13; i++)
    v.push_back(R(20 + i, xs[(i + 3) % 4], 270 * ((i + 3) / 4), 480, 270));
  return v;
}

std::vector<orlo_vr_t> sixteen(std::array<int, 4> xs, std::array<int, 4> ws) {
  std::vector<orlo_vr_t> v;
  for (int i = 0; i < 16; i++) v.push_back(R(20 + i, xs[i % 4], 270 * (i / 4), ws[i % 4], 270));
  return v;
}
const std::vector<orlo_vr_t> kSixteen1920 = sixteen({0, 480, 960, 1440}, {480, 480, 480, 480});
const std::vector<orlo_vr_t> kSixteen1728 = sixteen({0, 424, 864, 1288}, {424, 440, 424, 440});

std::vector<orlo_vr_t> inset(int big_ch, int W, int H) {
  orlo_vr_t big{big_ch, 0, 0, W, H, 1, 0, W - 64, 0, H - 48, 0};
  return {big, R(20, W - 576, H - 392, 576, 324, 2)};
}

std::vector<orlo_vr_t> with_ninth_fixed(std::vector<orlo_vr_t> v) {
  v[8].ch = 8;
  v[8].flag = 1;
  return v;
}

std::vector<orlo_vr_t> two_by_three(int x0, int y0, int w, int h) {
  std::vector<orlo_vr_t> v;
  for (int i = 0; i < 6; i++) v.push_back(R(20 + i, x0 + w * (i % 3), y0 + h * (i / 3), w, h));
  return v;
}

// Modes 12 and 22 at y 20, 600 high: the channel above port 0.
std::vector<orlo_vr_t> two_layers(int x_top, int w_top, int x_port) {
  return {R(20, x_top, 20, w_top, 600, 2), R(0, x_port, 20, 1000, 600)};
}

const std::vector<orlo_vr_t> kNine1920 = nine({0, 640, 1280}, {640, 640, 640});
const std::vector<orlo_vr_t> kNine800 = nine({0, 634, 1286}, {634, 652, 634});
const std::vector<orlo_vr_t> kSix1920 = six(1280, 720, 640, 640, 640, 360);

INSTANTIATE_TEST_SUITE_P(
    Modes, Layout,
    ::testing::Values(
        layout_case{"m1", 0, 1, 0, 0, 1920, 1080, {R(20, 0, 0, 1920, 1080)}},
        layout_case{"m2", 0, 2, 0, 0, 1920, 1080, quad(0, 0, 960, 540)},
        layout_case{"m13_origin", 0, 13, 100, 50, 960, 540, quad(100, 50, 480, 270)},
        layout_case{"m3", 0, 3, 0, 0, 1920, 1080, kSix1920},
        layout_case{"m14", 0, 14, 0, 0, 1920, 1080, kSix1920},
        layout_case{"m5", 0, 5, 0, 0, 1920, 1080, kEight1920},
        layout_case{"m16", 0, 16, 0, 0, 1920, 1080, kEight1920},
        layout_case{"m7", 0, 7, 0, 0, 1920, 1080, kNine1920},
        layout_case{"m18", 0, 18, 0, 0, 1920, 1080, with_ninth_fixed(kNine1920)},
        layout_case{"m7_eight_ch", 0, 7, 0, 0, 1920, 1080, with_ninth_fixed(kNine1920), 8},
        layout_case{"m8", 0, 8, 0, 0, 1920, 1080, thirteen_1920()},
        layout_case{"m19", 0, 19, 0, 0, 1920, 1080, thirteen_1920()},
        layout_case{"m9", 0, 9, 0, 0, 1920, 1080, kSixteen1920},
        layout_case{"m20", 0, 20, 0, 0, 1920, 1080, kSixteen1920},
        layout_case{"m10", 0, 10, 0, 0, 1920, 1080, inset(20, 1920, 1080)},
        layout_case{"m10_small", 0, 10, 0, 0, 960, 540, inset(20, 960, 540)},
        layout_case{"m100", 0, 100, 0, 0, 1920, 1080, two_by_three(0, 0, 640, 540)},
        layout_case{"m101_origin", 0, 101, 30, 60, 960, 600, two_by_three(30, 60, 320, 300)},
        // The size test is on the scaled value: 480 x 1081 / 1080 is 480.
        layout_case{"m1_scaled_fit", 18, 1, 0, 0, 1922, 1081, {R(20, 0, 0, 1922, 1081)}}),
    display_test::by_label);

// The column corrections at W = 1920 on displays 1280, 800 and 640 wide, and
// their absence at any other W or in untiled columns.
INSTANTIATE_TEST_SUITE_P(
    Corrections, Layout,
    ::testing::Values(
        layout_case{"m7_d1280", 3, 7, 0, 0, 1920, 1080, nine({0, 648, 1272}, {648, 624, 648})},
        layout_case{"m7_d800", 6, 7, 0, 0, 1920, 1080, kNine800},
        layout_case{"m7_d640", 18, 7, 0, 0, 1920, 1080, nine({0, 642, 1278}, {642, 636, 642})},
        layout_case{"m18_d800", 6, 18, 0, 0, 1920, 1080, with_ninth_fixed(kNine800)},
        layout_case{"m7_d800_w1900", 6, 7, 0, 0, 1900, 1080, nine({0, 633, 1266}, {633, 633, 633})},
        layout_case{"m7_d720", 7, 7, 0, 0, 1920, 1080, kNine1920},
        layout_case{"m3_d1280", 3, 3, 0, 0, 1920, 1080, six(1272, 720, 648, 648, 624, 360)},
        layout_case{"m3_d800", 6, 3, 0, 0, 1920, 1080, six(1286, 720, 634, 634, 652, 360)},
        layout_case{"m14_d640", 18, 14, 0, 0, 1920, 1080, six(1278, 720, 642, 642, 636, 360)},
        layout_case{"m2_d800", 6, 2, 0, 0, 1920, 1080, quad(0, 0, 960, 540)},
        layout_case{"m5_d800_w1920", 6, 5, 0, 0, 1920, 1080, kEight1920}),
    display_test::by_label);

// The rules for W = 1728 on a display 800 wide, and their absence elsewhere;
// the origin rules of modes 1 and 12 on a display 800 wide.
INSTANTIATE_TEST_SUITE_P(
    Narrow800, Layout,
    ::testing::Values(
        layout_case{"m9_d800", 6, 9, 0, 0, 1728, 1080, kSixteen1728},
        layout_case{"m20_d800", 6, 20, 0, 0, 1728, 1080, kSixteen1728},
        layout_case{"m9_d1280", 3, 9, 0, 0, 1728, 1080,
                    sixteen({0, 432, 864, 1296}, {432, 432, 432, 432})},
        layout_case{"m9_d800_w1900", 6, 9, 0, 0, 1900, 1080,
                    sixteen({0, 475, 950, 1425}, {475, 475, 475, 475})},
        layout_case{"m5_d800", 6, 5, 96, 0, 1728, 1080,
                    eight(96, 1288, 440, {96, 520, 960, 1384}, {424, 440, 424, 440})},
        layout_case{"m16_d800", 6, 16, 0, 0, 1728, 1080,
                    eight(0, 1288, 440, {0, 424, 864, 1288}, {424, 440, 424, 440})},
        layout_case{"m5_d640_w1728", 18, 5, 0, 0, 1728, 1080,
                    eight(0, 1296, 432, {0, 432, 864, 1296}, {432, 432, 432, 432})},
        layout_case{"m1_x406", 6, 1, 406, 20, 1000, 600, {R(20, 402, 20, 1004, 600)}},
        layout_case{"m1_x48", 6, 1, 48, 20, 1000, 600, {R(20, 48, 20, 1000, 600)}},
        layout_case{"m1_x406_d1280", 3, 1, 406, 20, 1000, 600, {R(20, 406, 20, 1000, 600)}},
        layout_case{"m12_x48", 6, 12, 48, 20, 1000, 600, two_layers(40, 1008, 40)},
        layout_case{"m12_x406", 6, 12, 406, 20, 1000, 600, two_layers(406, 1000, 406)},
        layout_case{"m22_x48", 6, 22, 48, 20, 1000, 600, two_layers(48, 1000, 48)}),
    display_test::by_label);

// ---- main_port of modes 12 and 22, read by mode 21 ----

struct port_case {
  int mode, ch_count, c0, port;
};
void PrintTo(const port_case &c, std::ostream *os) {
  *os << "mode " << c.mode << " ch_count " << c.ch_count << " c0 " << c.c0;
}

class MainPort : public ::testing::TestWithParam<port_case> {};

TEST_P(MainPort, SecondLayerShowsThePortAndModeTwentyOneTakesIt) {
  const port_case &p = GetParam();
  orlo_display_t *h = make_display(0, p.ch_count);
  int c[ORLO_MAX_VR] = {p.c0};
  orlo_vr_t vr[ORLO_MAX_VR];
  ASSERT_EQ(orlo_display_get_user_vr(h, p.mode, 0, 0, 1920, 1080, c, nullptr, vr), 0);
  EXPECT_EQ(h->main_port, p.port);
  EXPECT_EQ(vr[0], R(p.c0, 0, 0, 1920, 1080, 2));
  EXPECT_EQ(vr[1], R(p.port, 0, 0, 1920, 1080, 1));
  EXPECT_EQ(vr[2], kUnset);

  c[0] = 33;
  ASSERT_EQ(orlo_display_get_user_vr(h, 21, 0, 0, 1920, 1080, c, nullptr, vr), 0);
  auto expected = inset(p.port, 1920, 1080);
  expected[1].ch = 33;
  EXPECT_EQ(vr[0], expected[0]);
  EXPECT_EQ(vr[1], expected[1]);
}

INSTANTIATE_TEST_SUITE_P(Rule, MainPort,
                         ::testing::Values(port_case{12, 16, 0, 1}, port_case{12, 16, 15, 0},
                                           port_case{12, 4, 5, 0}, port_case{12, 2, 2, 1},
                                           port_case{22, 4, 4, 0}, port_case{22, 16, 0, 1}));

TEST(MainPort, ModeTwentyOneBeforeAnyPlaybackLayoutHasAnEmptyList) {
  orlo_display_t *h = make_display();
  int c[ORLO_MAX_VR] = {7};
  orlo_vr_t vr[ORLO_MAX_VR];
  ASSERT_EQ(orlo_display_get_user_vr(h, 21, 10, 20, 1920, 1000, c, nullptr, vr), 0);
  // The region keeps its place; no origin is added to a region without a
  // channel.
  EXPECT_EQ(vr[0], (orlo_vr_t{-1, 0, 0, 1920, 1000, 1, 0, 1856, 0, 952, 0}));
  EXPECT_EQ(vr[1], R(7, 10 + 1920 - 576, 20 + 1000 - 392, 576, 324, 2));
  EXPECT_EQ(h->main_port, -1);
}

// ---- channels and flags ----

TEST(LayoutChannels, UnsetChannelFlagsAndFixedNinthTile) {
  orlo_display_t *h = make_display(0, 8);
  auto c = channel_list();
  c[2] = -1;
  orlo_vr_t vr[ORLO_MAX_VR];
  ASSERT_EQ(orlo_display_get_user_vr(h, 2, 100, 100, 960, 540, c.data(), nullptr, vr), 0);
  // An unset channel keeps its place without the origin.
  EXPECT_EQ(vr[1], R(21, 580, 100, 480, 270));
  EXPECT_EQ(vr[2], R(-1, 0, 270, 480, 270));
  EXPECT_EQ(vr[3], R(23, 580, 370, 480, 270));

  // Flags go into every record but the fixed ninth tile of an 8-channel device.
  c[8] = -1;
  std::array<int, ORLO_MAX_VR> flags{};
  for (int i = 0; i < ORLO_MAX_VR; i++) flags[i] = 100 + i;
  ASSERT_EQ(orlo_display_get_user_vr(h, 7, 0, 0, 1920, 1080, c.data(), flags.data(), vr), 0);
  for (int i = 0; i < ORLO_MAX_VR; i++) EXPECT_EQ(vr[i].flag, i == 8 ? 1 : 100 + i) << i;
  EXPECT_EQ(vr[8].ch, 8);
}

// ---- refusals: the output and main_port stay as they were ----

struct refusal_case {
  const char *label;
  int format, mode, W, H, c0;
  const char *warning;  // nullptr: the missing-channel assertion
};
void PrintTo(const refusal_case &c, std::ostream *os) { *os << c.label; }

class LayoutRefused : public ::testing::TestWithParam<refusal_case> {};

TEST_P(LayoutRefused, OutputUntouched) {
  const refusal_case &p = GetParam();
  log_capture log;
  orlo_display_t *h = make_display(p.format);
  int c[ORLO_MAX_VR] = {p.c0, 1, 2, 3};
  orlo_vr_t vr[ORLO_MAX_VR], before[ORLO_MAX_VR];
  std::memset(vr, 0x5a, sizeof vr);
  std::memcpy(before, vr, sizeof vr);
  EXPECT_EQ(orlo_display_get_user_vr(h, p.mode, 0, 0, p.W, p.H, c, nullptr, vr), -1);
  EXPECT_EQ(std::memcmp(before, vr, sizeof vr), 0);
  EXPECT_EQ(h->main_port, -1);
  if (p.warning != nullptr)
    EXPECT_EQ(log.texts(G_LOG_LEVEL_WARNING), std::vector<std::string>{p.warning});
  else
    EXPECT_EQ(
        log.texts(G_LOG_LEVEL_CRITICAL),
        std::vector<std::string>{"orlo_display_get_user_vr: assertion 'channels[0] != -1' failed"});
}

const char kHeight[] = "orlo_display_get_user_vr:invalid height\n";
const char kWidth[] = "orlo_display_get_user_vr:invalid width\n";

INSTANTIATE_TEST_SUITE_P(
    Cases, LayoutRefused,
    ::testing::Values(
        refusal_case{"h1081_on_1080", 0, 2, 1920, 1081, 0, kHeight},
        refusal_case{"w1921_on_1920", 0, 2, 1921, 1080, 0, kWidth},
        refusal_case{"height_first", 0, 2, 5000, 5000, 0, kHeight},
        refusal_case{"w1923_on_640", 18, 2, 1923, 1080, 0, kWidth},
        refusal_case{"negative_height", 0, 2, 100, -1, 0, kHeight},
        refusal_case{"mode0", 0, 0, 1920, 1080, 0, "orlo_display_get_user_vr:invalid mode:0\n"},
        refusal_case{"mode11", 0, 11, 1920, 1080, 0, "orlo_display_get_user_vr:invalid mode:11\n"},
        refusal_case{"mode23", 0, 23, 1920, 1080, 0, "orlo_display_get_user_vr:invalid mode:23\n"},
        refusal_case{"mode_neg", 0, -7, 1920, 1080, 0,
                     "orlo_display_get_user_vr:invalid mode:-7\n"},
        refusal_case{"m1_no_channel", 0, 1, 1920, 1080, -1, nullptr},
        refusal_case{"m12_no_channel", 0, 12, 1920, 1080, -1, nullptr},
        refusal_case{"m22_no_channel", 0, 22, 1920, 1080, -1, nullptr}),
    display_test::by_label);

// ---- crop position: scaled, then rounded up to the alignment ----

TEST(CropPosition, ScaledAndRoundedUp) {
  struct {
    unsigned in_w, in_h, disp_w, disp_h, cx, cw, cy, ch, align;
    unsigned x, w, y, h;
  } cases[] = {
      // 704 x 480 from a crop of 100,50 600 x 300 on 1920 x 1080:
      // 36.7 -> 36 -> 40; 220 -> 224; 22.2 -> 22 -> 24; 133.3 -> 133 -> 136.
      {704, 480, 1920, 1080, 100, 600, 50, 300, 8, 40, 224, 24, 136},
      {704, 480, 1920, 1080, 100, 600, 50, 300, 1, 36, 220, 22, 133},
      {704, 480, 1920, 1080, 100, 600, 50, 300, 16, 48, 224, 32, 144},
      {1920, 1080, 960, 540, 8, 16, 4, 32, 16, 16, 32, 16, 64},  // exact multiples stay
      {704, 480, 0, 0, 100, 600, 50, 300, 8, 0, 0, 0, 0},        // no display size: zero
  };
  for (const auto &p : cases) {
    unsigned x = 1, w = 1, y = 1, h = 1;
    orlo_display_get_incrop_position(&x, &w, &y, &h, p.in_w, p.in_h, p.disp_w, p.disp_h, p.cx, p.cw,
                                     p.cy, p.ch, p.align);
    EXPECT_EQ((std::array<unsigned, 4>{x, w, y, h}), (std::array<unsigned, 4>{p.x, p.w, p.y, p.h}))
        << p.in_w << " align " << p.align;
  }
}

}  // namespace
