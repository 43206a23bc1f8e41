// Pictures reach the display one by one at the source's pace, even when
// their frames come in a burst.
#include "engine_harness.hh"

namespace engine_test {
namespace {

class presentation : public engine_harness {};

TEST_F(presentation, ABurstOfBFramePicturesIsShownPictureByPictureInOrder) {
  start(0);
  regions(0, {region(0, 0, 0, 480, 270)});
  std::vector<rgb> greys;
  for (uint8_t v = 20; greys.size() < 24; v += 9) greys.push_back({v, v, v});
  auto frames = stream(greys[0], 24, {.gop = 24, .b_frames = 2, .colours = greys.data()});
  // Bursts of four frames, each decoded within a compose period: shown as
  // they come out of the decoder, most of their pictures would never reach
  // the display.
  for (size_t i = 0; i < frames.size(); i += 4) {
    push_all(0, {frames.begin() + static_cast<long>(i), frames.begin() + static_cast<long>(i + 4)});
    ASSERT_TRUE(handled(0, i + 4));
    ASSERT_TRUE(eventually([&] {
      ravel_soft_port_stats_t s = stats(0);
      return s.shown == s.pictures && s.last_shown == s.pictures;
    })) << stats(0).shown
        << " of " << stats(0).pictures << " shown after frame " << i + 4;
  }
  EXPECT_GE(stats(0).pictures + 3, frames.size());
  // The last picture out is the one on the display.
  const uint64_t last = stats(0).pictures - 1;
  EXPECT_TRUE(shows(0, greys[last], 40, 40, 400, 190));
}

}  // namespace
}  // namespace engine_test
