// The composed display shows each channel where the layout and the decode
// table put it, across a mode change and a seamless switch of a port.
#include <gtest/gtest.h>

#include <string>

#include "mosaic_harness.hh"

namespace {

using e2e::mosaic;
using e2e::rgb;

TEST(EndToEnd, EveryTileOfModes9And2ShowsTheChannelPlacedThere) {
  mosaic m;
  ASSERT_NE(m.display, nullptr);
  // Channel j decodes on port 15 - j, and the layout scatters the ports, so
  // a tile is right only if both the decode table and the layout were used.
  std::vector<int> port_of(16), layout9(16);
  for (int j = 0; j < 16; ++j) port_of[static_cast<size_t>(j)] = 15 - j;
  for (int i = 0; i < 16; ++i) layout9[static_cast<size_t>(i)] = (i * 5 + 3) % 16;
  ASSERT_EQ(m.show(9, layout9), 0);
  ASSERT_EQ(m.decode(port_of), 0);
  m.start_live(16);
  // The camera a region shows is the one its port decodes.
  auto cameras_of = [](const std::vector<int> &layout) {
    std::vector<rgb> want;
    for (int port : layout) want.push_back(e2e::camera_colour(15 - port));
    return want;
  };
  EXPECT_EQ(m.wait_for_tiles(cameras_of(layout9)), "");

  // A later selection only records the mode; the new layout does the rest.
  const std::vector<int> layout2 = {6, 13, 0, 9};
  ASSERT_EQ(m.show(2, layout2), 0);
  EXPECT_EQ(m.display->config_mode, 2);
  EXPECT_EQ(m.wait_for_tiles(cameras_of(layout2)), "");
}

// Port 0 moves from camera 0's main stream (slot 16) to its sub stream
// (slot 32), which a source of another colour feeds: the tile turns from the
// one colour to the other with no black picture between.
TEST(EndToEnd, SeamlessSwitchOfAPairChangesTheTileWithoutBlack) {
  mosaic m;
  ASSERT_NE(m.display, nullptr);
  ASSERT_EQ(m.show(1, {0}), 0);
  ASSERT_EQ(m.decode({0}), 0);
  m.start_live(1, 3, [](GstElement *src) {
    // A second between intra frames: the tile is watched before the switch.
    g_object_set(src, "key-interval", 25, nullptr);
    g_object_set(src, "channel", 0, "stream", 1, "uri",
                 "testbin://video,pattern=red,is-live=(boolean)true", nullptr);
  });
  const rgb main_colour = e2e::camera_colour(0);
  const rgb partner_colour = {255, 0, 0};
  ASSERT_EQ(m.wait_for_tiles({main_colour}), "");

  // The main stream's slot leaves (2) in favour of its partner (1) on the
  // same port.
  m.table[16].enable = 2;
  m.table[32].port = 0;
  m.table[32].enable = 1;
  ASSERT_EQ(orlo_display_decode_change(m.display, m.table.data()), 0);

  int main_seen = 0, partner_seen = 0;
  std::string other;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
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
