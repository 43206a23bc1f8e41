// Region layouts of every display mode, with and without the corrections for
// the display's width, the main port of the two-layer modes, and the crop
// position.
#include <numeric>

#include "display_fixture.hh"

namespace {

using namespace display_test;
using list = std::vector<orlo_vr_t>;
using ints = std::vector<int>;

// The display's size as the layout reads it (16:9).
void set_display_width(orlo_display_t *h, int D) { h->disp_width = D, h->disp_height = D * 9 / 16; }

// Channels 20, 21, ... so that a channel is never mistaken for an index.
std::array<int, ORLO_MAX_VR> channel_list() {
  std::array<int, ORLO_MAX_VR> c{};
  std::iota(c.begin(), c.end(), 20);
  return c;
}

// Regions of channels 20, 21, ... given as x, y, width, height in turn.
list rects(ints r) {
  list v;
  for (size_t i = 0; i + 3 < r.size(); i += 4)
    v.push_back(R(20 + i / 4, r[i], r[i + 1], r[i + 2], r[i + 3]));
  return v;
}

// Rows of tiles, by the columns' edges and widths and the rows' edges and
// heights, the top-left span x span of them joined into one region first.
list tiles(ints xs, ints ws, ints ys, ints hs, size_t span = 0) {
  ints r;
  if (span > 0) r = {xs[0], ys[0], xs[span] - xs[0], ys[span] - ys[0]};
  for (size_t row = 0; row < ys.size(); row++)
    for (size_t col = 0; col < xs.size(); col++)
      if (row >= span || col >= span) r.insert(r.end(), {xs[col], ys[row], ws[col], hs[row]});
  return rects(r);
}

list inset(int big_ch, int W, int H, int x0 = 0, int y0 = 0) {
  const orlo_vr_t big{big_ch, x0, y0, W, H, 1, 0, W - 64, 0, H - 48, 0};
  return {big, R(20, x0 + W - 576, y0 + H - 392, 576, 324, 2)};
}

// Modes 12 and 22 at y 20, 600 high: the channel above port 0.
list two_layers(int x_top, int w_top, int x_port) {
  return {R(20, x_top, 20, w_top, 600, 2), R(0, x_port, 20, 1000, 600)};
}

list nine(ints xs, ints ws) { return tiles(xs, ws, {0, 360, 720}, {360, 360, 360}); }

TEST(Layout, RegionsOfEveryModeAndCorrection) {
  // clang-format off
  const ints k270 = {0, 270, 540, 810}, k270s = {270, 270, 270, 270};
  const ints k480 = {0, 480, 960, 1440}, k480s = {480, 480, 480, 480};
  const ints k360 = {0, 360, 720}, k360s = {360, 360, 360};
  const ints k640 = {0, 640, 1280}, k640s = {640, 640, 640};
  const list k8 = tiles(k480, k480s, k270, k270s, 3);
  list k18 = nine(k640, k640s);
  k18[8].ch = 8, k18[8].flag = 1;
  const std::string kHeight = "orlo_display_get_user_vr:invalid height\n";
  const std::string kWidth = "orlo_display_get_user_vr:invalid width\n";
  const struct {
    const char *label;
    int D, mode, x, y, W, H;
    list regions;         // the used records; the rest stay unset
    std::string refusal = "";  // or the warning of a refusal, which leaves the output
  } cases[] = {
      {"m2_origin", 1920, 2, 100, 50, 960, 540,
       tiles({100, 580}, {480, 480}, {50, 320}, {270, 270})},
      {"m3", 1920, 3, 0, 0, 1920, 1080, tiles(k640, k640s, k360, k360s, 2)},
      {"m5", 1920, 5, 0, 0, 1920, 1080, k8},
      {"m7", 1920, 7, 0, 0, 1920, 1080, nine(k640, k640s)},
      {"m18", 1920, 18, 0, 0, 1920, 1080, k18},  // the ninth tile is fixed in playback
      {"m8", 1920, 8, 0, 0, 1920, 1080, tiles(k480, k480s, k270, k270s, 2)},
      {"m9", 1920, 9, 0, 0, 1920, 1080, tiles(k480, k480s, k270, k270s)},
      {"m10_origin", 1920, 10, 8, 4, 960, 540, inset(20, 960, 540, 8, 4)},
      {"m100", 1920, 100, 0, 0, 1920, 1080, tiles(k640, k640s, {0, 540}, {540, 540})},
      // The size test is on the scaled value: 480 x 1081 / 1080 is 480.
      {"m1_scaled_fit", 640, 1, 0, 0, 1922, 1081, {R(20, 0, 0, 1922, 1081)}},
      // Column corrections, at W = 1920 only.
      {"m7_d1280", 1280, 7, 0, 0, 1920, 1080, nine({0, 648, 1272}, {648, 624, 648})},
      {"m7_d800", 800, 7, 0, 0, 1920, 1080, nine({0, 634, 1286}, {634, 652, 634})},
      {"m7_d640", 640, 7, 0, 0, 1920, 1080, nine({0, 642, 1278}, {642, 636, 642})},
      {"m3_d800", 800, 3, 0, 0, 1920, 1080, tiles({0, 634, 1286}, {634, 652, 634}, k360, k360s, 2)},
      {"m5_d800_w1920", 800, 5, 0, 0, 1920, 1080, k8},
      // The rules for W = 1728 on a display 800 wide.
      {"m9_d800", 800, 9, 0, 0, 1728, 1080,
       tiles({0, 424, 864, 1288}, {424, 440, 424, 440}, k270, k270s)},
      {"m5_d800", 800, 5, 96, 0, 1728, 1080,
       tiles({96, 520, 960, 1384}, {424, 440, 424, 440}, k270, k270s, 3)},
      // The origin rules of modes 1 and 12 on a display 800 wide.
      {"m1_x406", 800, 1, 406, 20, 1000, 600, {R(20, 402, 20, 1004, 600)}},
      {"m1_x48", 800, 1, 48, 20, 1000, 600, {R(20, 48, 20, 1000, 600)}},
      {"m12_x48", 800, 12, 48, 20, 1000, 600, two_layers(40, 1008, 40)},
      {"m12_x406", 800, 12, 406, 20, 1000, 600, two_layers(406, 1000, 406)},
      {"m22_x48", 800, 22, 48, 20, 1000, 600, two_layers(48, 1000, 48)},
      {"h1081", 1920, 2, 0, 0, 1920, 1081, {}, kHeight},
      {"w1921", 1920, 2, 0, 0, 1921, 1080, {}, kWidth},
      {"w1923_d640", 640, 2, 0, 0, 1923, 1080, {}, kWidth},
      {"h-1", 1920, 2, 0, 0, 100, -1, {}, kHeight},
      {"w-1", 1920, 2, 0, 0, -1, 100, {}, kWidth},
      {"m0", 1920, 0, 0, 0, 1920, 1080, {}, "orlo_display_get_user_vr:invalid mode:0\n"},
      {"m11", 1920, 11, 0, 0, 1920, 1080, {}, "orlo_display_get_user_vr:invalid mode:11\n"},
  };
  // clang-format on
  orlo_display_t *h = make_display();
  const auto c = channel_list();
  std::array<int, ORLO_MAX_VR> flags;
  std::iota(flags.begin(), flags.end(), 100);
  std::array<orlo_vr_t, ORLO_MAX_VR> vr{}, live{};
  for (const auto &p : cases) {
    SCOPED_TRACE(p.label);
    log_capture log;
    set_display_width(h, p.D);
    vr.fill(R(5, 5, 5, 5, 5));
    EXPECT_EQ(
        orlo_display_get_user_vr(h, p.mode, p.x, p.y, p.W, p.H, c.data(), flags.data(), vr.data()),
        p.refusal.empty() ? 0 : -1);
    for (size_t i = 0; i < vr.size(); i++) {
      // Every record takes its flag, the fixed ninth tile excepted.
      orlo_vr_t want = i < p.regions.size() ? p.regions[i] : kUnset;
      want.flag = want.flag != 0 ? want.flag : flags[i];
      EXPECT_EQ(vr[i], p.refusal.empty() ? want : R(5, 5, 5, 5, 5)) << i;
    }
    EXPECT_EQ(log.texts(G_LOG_LEVEL_WARNING), p.refusal.empty() ? names{} : names{p.refusal});
  }
  // A playback mode lays out as its live one (mode 18 as mode 7 on a device
  // of eight channels), with the corrections of both families.
  h->ch_count = 8;
  set_display_width(h, 800);
  for (int W : {1920, 1728})
    for (auto [m, pb] :
         {std::pair{2, 13}, {3, 14}, {5, 16}, {7, 18}, {8, 19}, {9, 20}, {12, 22}, {100, 101}}) {
      ASSERT_EQ(orlo_display_get_user_vr(h, m, 0, 0, W, 1080, c.data(), nullptr, live.data()), 0);
      ASSERT_EQ(orlo_display_get_user_vr(h, pb, 0, 0, W, 1080, c.data(), nullptr, vr.data()), 0);
      EXPECT_EQ(vr, live) << pb << " at " << W;
    }
  EXPECT_EQ(fake_engine::calls().size(), 1u);  // computes only: ravel_new was all
}

// Modes 12 and 22 put the port that receives the copies on their second
// layer; mode 21 shows it large, and nothing before any of them.
TEST(Layout, MainPortAndUnsetChannels) {
  orlo_display_t *h = make_display();
  int c[ORLO_MAX_VR] = {7};
  orlo_vr_t vr[ORLO_MAX_VR];
  ASSERT_EQ(orlo_display_get_user_vr(h, 21, 10, 20, 1920, 1000, c, nullptr, vr), 0);
  // The region keeps its place: no origin for a region without a channel.
  EXPECT_EQ(vr[0], (orlo_vr_t{-1, 0, 0, 1920, 1000, 1, 0, 1856, 0, 952, 0}));
  EXPECT_EQ(vr[1], R(7, 10 + 1920 - 576, 20 + 1000 - 392, 576, 324, 2));
  EXPECT_EQ(h->main_port, -1);
  // Modes 1, 12 and 22 need channel 0; a refusal leaves main_port alone.
  log_capture log;
  c[0] = -1;
  EXPECT_EQ(orlo_display_get_user_vr(h, 12, 0, 0, 1920, 1080, c, nullptr, vr), -1);
  EXPECT_EQ(h->main_port, -1);
  EXPECT_EQ(log.texts(G_LOG_LEVEL_CRITICAL),
            names{"orlo_display_get_user_vr: assertion 'channels[0] != -1' failed"});

  // Mode, device channels, channel 0 and the port it gives.
  const std::array<int, 4> ports[] = {
      {12, 16, 0, 1}, {12, 4, 5, 0}, {12, 2, 2, 1}, {22, 16, 15, 0}};
  for (auto [mode, ch_count, c0, port] : ports) {
    SCOPED_TRACE(testing::Message() << mode << " " << ch_count << " " << c0);
    h->ch_count = ch_count;
    c[0] = c0;
    ASSERT_EQ(orlo_display_get_user_vr(h, mode, 0, 0, 1920, 1080, c, nullptr, vr), 0);
    EXPECT_EQ(h->main_port, port);
    EXPECT_EQ(list(vr, vr + 3),
              (list{R(c0, 0, 0, 1920, 1080, 2), R(port, 0, 0, 1920, 1080, 1), kUnset}));
    c[0] = 33;
    ASSERT_EQ(orlo_display_get_user_vr(h, 21, 0, 0, 1920, 1080, c, nullptr, vr), 0);
    list expected = inset(port, 1920, 1080);
    expected[1].ch = 33;
    EXPECT_EQ(list(vr, vr + 2), expected);
  }

  // An unset channel keeps its place without the origin.
  auto cl = channel_list();
  cl[2] = -1;
  ASSERT_EQ(orlo_display_get_user_vr(h, 2, 100, 100, 960, 540, cl.data(), nullptr, vr), 0);
  EXPECT_EQ(list(vr + 1, vr + 4),
            (list{R(21, 580, 100, 480, 270), R(-1, 0, 270, 480, 270), R(23, 580, 370, 480, 270)}));
}

// Scaled from display to input coordinates, then rounded up to the alignment.
TEST(Layout, CropPositionScaledAndRoundedUp) {
  const struct {
    unsigned in_w, in_h, disp_w, disp_h, cx, cw, cy, ch, align;
    std::array<unsigned, 4> out;
  } cases[] = {
      // 36.7 -> 36 -> 40; 220 -> 224; 22.2 -> 22 -> 24; 133.3 -> 133 -> 136.
      {704, 480, 1920, 1080, 100, 600, 50, 300, 8, {40, 224, 24, 136}},
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
