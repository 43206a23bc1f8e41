// Frames into the ports: refusals, buffers given back exactly once, the
// statistics columns and their printout, gaps and damage, presentation
// order and pacing, resets.
#include <algorithm>
#include <array>
#include <string>
#include <tuple>

#include "engine_harness.hh"

namespace engine_test {
namespace {

const rgb kRed = {255, 0, 0};  // its red goes past 255 before clamping
const rgb kBlue = {30, 40, 220};
constexpr int kDepth = RAVEL_SOFT_QUEUE_DEPTH;

class streams : public engine_harness {};

TEST_F(streams, RefusedFramesStayWithTheCallerAndAcceptedOnesComeBackOnce) {
  start(0, false);
  auto f = stream(kRed, 12);
  EXPECT_EQ(put(3, f[0]), -1) << "not started";
  ASSERT_EQ(ravel_start(engine_), 0);
  const auto n = static_cast<int32_t>(f[0]->data.size());
  const uint8_t *d = f[0]->data.data();
  for (auto [e, port, buffer, data, size] : {std::tuple{engine_, -1, f[0], d, n},
                                             {engine_, 18, f[0], d, n},
                                             {engine_, 3, f[0], nullptr, n},
                                             {engine_, 3, nullptr, d, n},
                                             {engine_, 3, f[0], d, 0},
                                             {nullptr, 3, f[0], d, n}})
    EXPECT_EQ(ravel_put_decode_stream(e, port, buffer, data, size, 0, nullptr, nullptr, 0, 0), -1)
        << "port " << port << " size " << size;
  ASSERT_EQ(ravel_soft_hold_port(engine_, 3, 1), 0);
  for (int i = 0; i < kDepth; i++) ASSERT_EQ(put(3, f[i]), 0) << "frame " << i;
  EXPECT_EQ(put(3, f[kDepth]), -1) << "a full queue";
  EXPECT_EQ(stats(3).refused, 5u);
  EXPECT_EQ(stats(3).released, 0u);
  ASSERT_EQ(push(4, f[kDepth]), 0) << "other ports are not held back by a full one";
  ASSERT_EQ(ravel_soft_hold_port(engine_, 3, 0), 0);
  for (size_t i = kDepth; i < f.size(); i++) ASSERT_EQ(push(3, f[i]), 0);
  ASSERT_TRUE(handled(3, f.size()));
  ASSERT_TRUE(handled(4, 1));
  for (size_t i = 0; i < f.size(); i++)
    EXPECT_EQ(f[i]->releases.load(), i == kDepth ? 2 : 1) << "frame " << i;
  auto s = stats(3);
  EXPECT_EQ((std::array{s.accepted, s.decoded, s.pictures}), (std::array<uint64_t, 3>{12, 12, 12}));
  EXPECT_EQ(s.width * 1000 + s.height, 160 * 1000 + 96);
}

TEST_F(streams, EveryAcceptedFrameIsInExactlyOneColumn) {
  start(0);
  auto f = stream(kRed, 11);
  // Port 2 is reset with three frames queued, then goes on mid-stream.
  ASSERT_EQ(ravel_soft_hold_port(engine_, 2, 1), 0);
  push_all(2, {f[0], f[1], f[2]});
  EXPECT_EQ(stats(2).queued, 3u);
  reset();
  ASSERT_EQ(ravel_soft_hold_port(engine_, 2, 0), 0);
  push_all(2, {f[3], f[10]});
  ASSERT_TRUE(handled(2, 5));
  // Port 3 has four frames queued when the engine stops: they go back
  // undecoded, and a stopped engine takes and composes nothing.
  ASSERT_EQ(ravel_soft_hold_port(engine_, 3, 1), 0);
  push_all(3, {f[0], f[1], f[2], f[3]});
  ASSERT_EQ(ravel_stop(engine_), 0);
  ASSERT_TRUE(handled(3, 4));
  EXPECT_EQ(put(3, f[4]), -1);
  EXPECT_EQ(ravel_soft_wait_compose(engine_, 100), -1);
  // Decoded, errors, skipped, flushed.
  const std::array<uint64_t, 4> want[2] = {{1, 0, 1, 3}, {0, 0, 0, 4}};
  for (int p = 2; p < 4; p++) {
    auto s = stats(p);
    EXPECT_EQ((std::array{s.decoded, s.decode_errors, s.skipped, s.flushed}), want[p - 2]) << p;
  }
  EXPECT_EQ(f[4]->releases.load(), 0) << "refused after the stop: not given back";
  // The printout: two heading lines, then a line for each port that saw a frame.
  testing::internal::CaptureStdout();
  ASSERT_EQ(ravel_print_statistics(engine_, 0, 0), 0);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 4) << out;
}

TEST_F(streams, BFramePicturesAreShownInOrderOneByOneAndAResetDropsTheHeldOnes) {
  start(0);
  regions(0, {region(0, 0, 0, 480, 270)});
  // Frame i is a grey of level 20 + 9 i: its number is burned into it.
  std::vector<rgb> greys;
  for (uint8_t v = 20; greys.size() < 24; v += 9) greys.push_back({v, v, v});
  auto frames = stream(greys[0], 24, {.gop = 24, .b_frames = 2, .colours = greys.data()});
  // As a frame step does: one frame, then a look at the display.  Every step
  // brings out the next picture, the intra frame's too, but the one of the
  // P frame after it: the next picture is a B frame still to come.
  for (size_t i = 0; i < 8; i++) {
    ASSERT_EQ(push(0, frames[i]), 0);
    ASSERT_TRUE(handled(0, i + 1));
    EXPECT_EQ(stats(0).pictures, i == 0 ? 1 : i) << "step " << i;
    int32_t w, h;
    auto pic = display(0, &w, &h);
    EXPECT_EQ((mean_colour(pic, w, 40, 40, 400, 190).r - 16) / 9, int(stats(0).pictures) - 1);
  }
  // Bursts of four frames, each decoded within a compose period: shown as
  // they come out of the decoder, most of their pictures would never reach
  // the display.
  for (size_t i = 8; i < frames.size(); i += 4) {
    push_all(0, {frames.begin() + long(i), frames.begin() + long(i + 4)});
    ASSERT_TRUE(handled(0, i + 4));
    ASSERT_TRUE(eventually([&] {
      ravel_soft_port_stats_t s = stats(0);
      return s.shown == s.pictures && s.last_shown == s.pictures;
    })) << stats(0).shown
        << " of " << stats(0).pictures << " shown after frame " << i + 4;
  }
  EXPECT_EQ(stats(0).decoded, frames.size());
  EXPECT_GE(stats(0).pictures + 3, frames.size());
  EXPECT_TRUE(shows(0, greys[stats(0).pictures - 1], 40, 40, 400, 190));
  // Pictures still held back belong to the old stream: a reset drops them.
  // Then a flood at a display that composes once a second: only a few
  // pictures wait for it, the port does not fall behind its source.
  const uint64_t pictures = stats(0).pictures, shown = stats(0).shown;
  reset();
  ASSERT_EQ(ravel_soft_set_compose_rate(engine_, 1), 0);
  push_all(0, stream(kBlue, 12));
  ASSERT_TRUE(handled(0, frames.size() + 12));
  ASSERT_EQ(ravel_soft_set_compose_rate(engine_, 0), 0);
  EXPECT_EQ(stats(0).pictures, pictures + 12);
  EXPECT_TRUE(shows(0, kBlue, 40, 40, 400, 190));
  EXPECT_LT(stats(0).shown - shown, 12u);
}

TEST_F(streams, BadInputIsCountedAndThePortHoldsItsLastGoodPicture) {
  start(0);
  auto red = stream(kRed, 6);
  auto blue = stream(kBlue, 3);
  auto wide = stream(kBlue, 2, {.width = 320, .height = 180});
  std::vector<uint8_t> noise, garbled = blue[2]->data;
  for (int i = 0; i < 3000; i++) noise.push_back(static_cast<uint8_t>((i * 131 + 7) | 1));
  for (size_t i = garbled.size() / 3; i < garbled.size(); i++) garbled[i] = uint8_t(i * 37);
  test_frame *fake_idr = frame({0, 0, 1, 0x65});  // so that the decoder reads the noise
  fake_idr->data.insert(fake_idr->data.end(), noise.begin(), noise.end());
  const struct {
    const char *what;
    bool fresh;  // the port has seen nothing before
    std::vector<test_frame *> bad;
    uint64_t errors;                 // of `bad`; the others are skipped
    std::vector<test_frame *> next;  // an intra frame and what follows
  } cases[] = {
      {"missing frame", false, {red[4], red[5]}, 0, {blue[0], blue[1]}},
      {"truncated frame", false, {cut(red[3]), red[4], red[5]}, 1, {blue[0], blue[1]}},
      {"garbage for a frame", false, {frame(noise), red[4], red[5]}, 1, {blue[0], blue[1]}},
      {"garbage behind a start code", false, {fake_idr, red[4], red[5]}, 1, {blue[0], blue[1]}},
      {"garbled slice data", false, {frame(garbled)}, 1, {blue[0], blue[1]}},
      // The intra frame from its slice on, without the parameter sets before it.
      {"no parameter sets yet", true, {split(blue[0]).second}, 0, {blue[0]}},
      {"garbage at a fresh port", true, {fake_idr}, 0, {blue[0], blue[1]}},
      {"resolution change", false, {}, 0, {wide[0], wide[1]}},
  };
  std::vector<ravel_region_t> tiles;
  for (int p = 0; p < 8; p++) tiles.push_back(region(p, (p % 4) * 480, (p / 4) * 540, 480, 540));
  regions(0, tiles);
  for (int p = 0; p < 8; p++) {
    const auto &c = cases[p];
    SCOPED_TRACE(c.what);
    const int x = (p % 4) * 480 + 20, y = (p / 4) * 540 + 20;
    const uint64_t good = c.fresh ? 0 : 3, n = good + c.bad.size();
    if (!c.fresh) push_all(p, {red[0], red[1], red[2]});
    push_all(p, c.bad);
    ASSERT_TRUE(handled(p, n));
    EXPECT_EQ(stats(p).decode_errors, c.errors);
    EXPECT_EQ(stats(p).skipped, c.bad.size() - c.errors);
    EXPECT_EQ(stats(p).pictures, good);
    EXPECT_TRUE(shows(0, c.fresh ? rgb{0, 0, 0} : kRed, x, y, 440, 500));
    push_all(p, c.next);
    ASSERT_TRUE(handled(p, n + c.next.size()));
    EXPECT_EQ(stats(p).pictures, good + c.next.size());
    EXPECT_TRUE(shows(0, kBlue, x, y, 440, 500));
  }
  EXPECT_EQ(stats(7).width, 320);
}

}  // namespace
}  // namespace engine_test
