// The geometry change: scaling, rounding, overlap repair, the engine's calls
// for both outputs; and the repair on its own.
#include "display/display_overlap.hh"
#include "display_fixture.hh"

namespace {

using namespace display_test;
using vr_list = std::array<orlo_vr_t, ORLO_MAX_VR>;

vr_list list_of(std::vector<orlo_vr_t> used) {
  vr_list v;
  v.fill(kUnset);
  std::copy(used.begin(), used.end(), v.begin());
  return v;
}

// The calls of ravel_change_geometry: count, display, kind and the regions.
struct geometry_call {
  int count, display, kind;
  std::vector<orlo_vr_t> regions;
};
std::vector<geometry_call> geometry_calls() {
  std::vector<geometry_call> out;
  for (const auto &c : fake_engine::calls("ravel_change_geometry")) {
    EXPECT_EQ(c.args[0], with_engine({})[0]);
    const auto *r = reinterpret_cast<const orlo_vr_t *>(c.record.data());
    out.push_back({int(c.args[2]), int(c.args[3]), int(c.args[4]), {r, r + c.args[2]}});
  }
  return out;
}

int change(orlo_display_t *h, const vr_list &vr, int mode, std::string *out = nullptr) {
  int ret = 0;
  const std::string printed = printed_by([&] { ret = orlo_display_change(h, vr.data(), 0, mode); });
  if (out != nullptr) *out = printed;
  return ret;
}

// Mode 7 with a mosaic of 1920 x 1000 on a display of 800 x 600: the middle
// row overlaps the one below by 2 and gives way.
TEST(DisplayChange, NineTilesOn800x600RepairTheMiddleRowAndFeedTheSecondOutput) {
  log_capture log;
  orlo_display_t *h = make_display(6);
  vr_list vr;
  std::array<int, ORLO_MAX_VR> c{0, 1, 2, 3, 4, 5, 6, 7, 8};
  ASSERT_EQ(orlo_display_get_user_vr(h, 7, 0, 0, 1920, 1000, c.data(), nullptr, vr.data()), 0);
  std::string printed;
  EXPECT_EQ(change(h, vr, 7, &printed), 0);
  const auto calls = geometry_calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ((std::array<int, 6>{calls[0].count, calls[0].display, calls[0].kind, calls[1].count,
                                calls[1].display, calls[1].kind}),
            (std::array<int, 6>{9, 0, 0, 9, 2, 0}));
  const int xs[3] = {0, 264, 536}, ws[3] = {264, 272, 264};
  const int ys[3] = {0, 186, 370}, hs[3] = {186, 184, 186};
  // The second output: no rounding to 8 and no repair.
  const int xs2[3] = {0, 422, 858}, ws2[3] = {422, 434, 422};
  for (int i = 0; i < 9; i++) {
    EXPECT_EQ(calls[0].regions[i], R(i, xs[i % 3], ys[i / 3], ws[i % 3], hs[i / 3])) << i;
    EXPECT_EQ(calls[1].regions[i], R(i, xs2[i % 3], 222 * (i / 3), ws2[i % 3], 222)) << i;
  }
  EXPECT_EQ(texts_without_lines(log, G_LOG_LEVEL_WARNING),
            names({"_fix_dispOverlap:L: (vr[3].y:186 + vr[3].height:186) > vr[6].y:370\n",
                   "_fix_dispOverlap:L: (vr[4].y:186 + vr[4].height:186) > vr[7].y:370\n",
                   "_fix_dispOverlap:L: (vr[5].y:186 + vr[5].height:186) > vr[8].y:370\n"}));
  EXPECT_EQ(texts_without_lines(log, G_LOG_LEVEL_MESSAGE),
            names{"orlo_display_change:L: _first_init: 0\n"});
  EXPECT_TRUE(
      std::regex_match(printed, std::regex("orlo_display_change: [0-9]+: vr_num = 9, mode: 0\n")))
      << printed;
  EXPECT_EQ(std::memcmp(h->vr, vr.data(), sizeof h->vr), 0);  // the caller's list, unscaled
}

TEST(DisplayChange, ScalesOnlyThePlaceAndSize) {
  orlo_display_t *h = make_display(3);  // 1280 x 720
  ASSERT_EQ(
      change(h,
             list_of({orlo_vr_t{5, 101, 51, 333, 201, 2, 10, 20, 30, 40, 7}, R(6, 0, 1079, 8, 2)}),
             10),
      0);
  const auto calls = geometry_calls();
  ASSERT_EQ(calls.size(), 2u);
  // even(333) = 334 -> 222.6 -> 222 -> 224; even(201) = 202 -> 134.6 -> 134;
  // x 101 -> 67.3 -> 67 -> 72; y 51 -> 34.  Second output: no rounding
  // before, even after: 67 -> 68, 222, 34, 134.  y 1079 -> 719.3 -> 720.
  EXPECT_EQ(calls[0].regions, (std::vector{orlo_vr_t{5, 72, 34, 224, 134, 2, 10, 20, 30, 40, 7},
                                           R(6, 0, 720, 8, 2)}));
  EXPECT_EQ(calls[1].regions, (std::vector{orlo_vr_t{5, 68, 34, 222, 134, 2, 10, 20, 30, 40, 7},
                                           R(6, 0, 720, 6, 2)}));
}

// The count stops at the first free record or at 37.  The second output is
// fed once, after the first output took a change; a refusal of either call
// is the caller's result.  The kind is live (0) or playback (1) by mode; an
// unknown mode is live, with a warning.
TEST(DisplayChange, CountKindAndTheSecondOutputOnceAfterTheFirstSucceeds) {
  log_capture log;
  orlo_display_t *h = make_display(0);
  vr_list full;
  for (int i = 0; i < ORLO_MAX_VR; i++) full[i] = R(i, 0, 0, 8, 8);
  vr_list holed = full;
  holed[4].ch = -1;
  fake_engine::script_sequence("ravel_change_geometry", {-5, 0, -9, 0});
  EXPECT_EQ(change(h, full, 9), -5);
  EXPECT_TRUE(log.texts(G_LOG_LEVEL_MESSAGE).empty());
  EXPECT_EQ(change(h, holed, 9), -9);
  EXPECT_EQ(change(h, list_of({}), 9), 0);
  std::vector<int> seen;  // display and count of each call
  for (const auto &c : geometry_calls()) seen.insert(seen.end(), {c.display, c.count});
  EXPECT_EQ(seen, (std::vector<int>{0, 37, 0, 4, 2, 4, 0, 0}));
  EXPECT_TRUE(log.texts(G_LOG_LEVEL_WARNING).empty());

  for (auto [mode, kind] :
       {std::pair{0, 0}, {10, 0}, {100, 0}, {11, 1}, {22, 1}, {101, 1}, {23, 0}, {-1, 0}}) {
    log.clear();
    fake_engine::reset();
    std::string printed;
    ASSERT_EQ(change(h, list_of({R(1, 0, 0, 1920, 1080)}), mode, &printed), 0);
    EXPECT_EQ(geometry_calls().at(0).kind, kind) << mode;
    EXPECT_EQ(texts_without_lines(log, G_LOG_LEVEL_WARNING),
              mode == 23 || mode == -1
                  ? names{"orlo_display_change:L: config_mode: " + std::to_string(mode) + "\n"}
                  : names{});
    EXPECT_NE(printed.find("mode: " + std::to_string(kind) + "\n"), std::string::npos) << mode;
  }
}

// The earlier region of an overlapping pair gives way, the width first; an
// overlap of 3 or more is meant (the inset of modes 10 and 21) and stays.
TEST(OverlapRepair, EarlierRegionGivesWay) {
  const std::string W = "_fix_dispOverlap:L: ";
  const struct {
    std::vector<orlo_vr_t> in;
    orlo_vr_t first;  // the first region afterwards; the others stay
    std::string warning;
  } cases[] = {
      {{R(0, 0, 0, 102, 100), R(1, 100, 0, 100, 100), R(2, 101, 0, 100, 100)},
       R(0, 0, 0, 100, 100),  // seen repaired by the third pair
       W + "(vr[0].x:0 + vr[0].width:102) > vr[1].x:100\n"},
      {{R(0, 99, 0, 100, 100), R(1, 0, 0, 100, 100)},
       R(0, 100, 0, 99, 100),
       W + "vr[0].x:99 < (vr[1].x:0 + vr[1].width:100)\n"},
      {{R(0, 0, 98, 100, 100), R(1, 0, 0, 100, 100)},
       R(0, 0, 100, 100, 98),
       W + "vr[0].y:98 < (vr[1].y:0 + vr[1].height:100)\n"},
      {{R(0, 0, 0, 101, 101), R(1, 100, 100, 50, 50)},
       R(0, 0, 0, 100, 101),
       W + "(vr[0].x:0 + vr[0].width:101) > vr[1].x:100\n"},
      {{R(0, 0, 0, 100, 100), R(1, 100, 0, 100, 100), R(2, 0, 100, 100, 100)},
       R(0, 0, 0, 100, 100),
       ""},  // edges that only touch
      {{R(0, 0, 0, 103, 103), R(1, 100, 100, 100, 100)}, R(0, 0, 0, 103, 103), ""},
  };
  for (const auto &p : cases) {
    log_capture log;
    std::vector<orlo_vr_t> vr = p.in, expected = p.in;
    expected[0] = p.first;
    orlo::_fix_dispOverlap(vr.data(), static_cast<int>(vr.size()));
    EXPECT_EQ(vr, expected) << p.in[0];
    EXPECT_EQ(texts_without_lines(log, G_LOG_LEVEL_WARNING),
              p.warning.empty() ? names{} : names{p.warning});
  }
}

}  // namespace
