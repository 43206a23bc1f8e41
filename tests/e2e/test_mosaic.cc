// The composed display shows each channel where the layout and the decode
// table put it, across a mode change and a seamless switch of a port.
#include <gtest/gtest.h>

#include <string>

#include "eventually.hh"
#include "mosaic_harness.hh"

namespace {

using e2e::mosaic;
using e2e::rgb;

// Waits until every region of the last layout shows the camera that
// `expected(i)` names; gives the mismatches of the last look otherwise.
template <typename F>
std::string wait_for_tiles(mosaic &m, int regions, F expected) {
  std::string bad;
  testing_support::eventually(
      [&] {
        const e2e::picture p = m.grab();
        bad.clear();
        for (int i = 0; i < regions; ++i)
          if (!e2e::near(m.tile(p, i), e2e::camera_colour(expected(i))))
            bad += "tile " + std::to_string(i) + " saw " + e2e::describe(m.tile(p, i)) + "; ";
        return bad.empty();
      },
      60);
  return bad;
}

TEST(EndToEnd, EveryTileOfModes9And2ShowsTheChannelPlacedThere) {
  mosaic m;
  ASSERT_NE(m.display, nullptr);
  // Channel j decodes on port 15 - j, and the layout scatters the ports, so
  // a tile is right only if both the decode table and the layout were used.
  std::vector<int> port_of(16), layout9(16);
  for (int j = 0; j < 16; ++j) port_of[static_cast<size_t>(j)] = 15 - j;
  for (int i = 0; i < 16; ++i) layout9[static_cast<size_t>(i)] = (i * 5 + 3) % 16;
  ASSERT_EQ(m.show(9, layout9), 0);
  auto table = e2e::live_table(port_of);
  ASSERT_EQ(orlo_display_decode_change(m.display, table.data()), 0);
  m.start_live(16);

  auto camera_on_port = [](int port) { return 15 - port; };
  EXPECT_EQ(
      wait_for_tiles(m, 16, [&](int i) { return camera_on_port(layout9[static_cast<size_t>(i)]); }),
      "");

  // A later selection only records the mode; the new layout does the rest.
  const std::vector<int> layout2 = {6, 13, 0, 9};
  ASSERT_EQ(m.show(2, layout2), 0);
  EXPECT_EQ(m.display->config_mode, 2);
  EXPECT_EQ(
      wait_for_tiles(m, 4, [&](int i) { return camera_on_port(layout2[static_cast<size_t>(i)]); }),
      "");
}

// Port 0 moves from camera 0's main stream (slot 16) to its sub stream
// (slot 32), which a source of another colour feeds: the tile turns from the
// one colour to the other with no black picture between.
TEST(EndToEnd, SeamlessSwitchOfAPairChangesTheTileWithoutBlack) {
  mosaic m;
  ASSERT_NE(m.display, nullptr);
  ASSERT_EQ(m.show(1, {0}), 0);
  auto table = e2e::live_table({0});
  ASSERT_EQ(orlo_display_decode_change(m.display, table.data()), 0);
  m.start_live(1, 3, [](GstElement *src) {
    // A second between intra frames: the tile is watched before the switch.
    g_object_set(src, "key-interval", 25, nullptr);
    g_object_set(src, "channel", 0, "stream", 1, "uri",
                 "testbin://video,pattern=red,is-live=(boolean)true", nullptr);
  });
  const rgb main_colour = e2e::camera_colour(0);
  const rgb partner_colour = {255, 0, 0};
  ASSERT_EQ(wait_for_tiles(m, 1, [](int) { return 0; }), "");

  // The main stream's slot leaves (2) in favour of its partner (1) on the
  // same port.
  table[16].enable = 2;
  table[32].port = 0;
  table[32].enable = 1;
  ASSERT_EQ(orlo_display_decode_change(m.display, table.data()), 0);

  int main_seen = 0, partner_seen = 0;
  std::string other;
  const auto end = std::chrono::steady_clock::now() + e2e::kDeadline;
  // Every compose pass until the partner has held the tile for a while.
  while (partner_seen < 10 && std::chrono::steady_clock::now() < end) {
    const rgb seen = m.tile(0);
    if (e2e::near(seen, main_colour)) {
      EXPECT_EQ(partner_seen, 0) << "the main stream came back after the switch";
      ++main_seen;
    } else if (e2e::near(seen, partner_colour)) {
      ++partner_seen;
    } else {
      other += e2e::describe(seen) + " ";
    }
  }
  EXPECT_EQ(partner_seen, 10) << "the tile never settled on the partner's colour";
  RecordProperty("main_pictures_after_switch", main_seen);
  EXPECT_EQ(other, "") << "pictures that were neither stream (black between?)";
  EXPECT_EQ(m.display->ch_enable[16], 0) << "the leaving slot was not turned off";

  ravel_soft_port_stats_t s{};
  ASSERT_EQ(ravel_soft_port_stats(m.engine, 0, &s), 0);
  EXPECT_EQ(s.width, 80) << "port 0 does not show the sub stream";
}

}  // namespace
