// Frames into the ports: refusals, buffers given back exactly once, the
// statistics columns and their printout, gaps and damage, presentation
// order and pacing, resets; the header reader on what cameras send; the
// calls that only set or report.
#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <tuple>

#include "engine_harness.hh"
#include "h264_nal.hh"

namespace engine_test {
namespace {

const rgb kRed = {255, 0, 0};  // its red goes past 255 before clamping
const rgb kBlue = {30, 40, 220};
constexpr int kDepth = RAVEL_SOFT_QUEUE_DEPTH;

class streams : public engine_harness {};

TEST_F(streams, RefusedFramesStayWithTheCallerAndAcceptedOnesComeBackOnceInOneColumn) {
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
  ASSERT_EQ(push(4, f[kDepth]), 0) << "other ports are not held back by a full one";
  ASSERT_EQ(ravel_soft_hold_port(engine_, 3, 0), 0);
  ASSERT_TRUE(deliver(3, {f.begin() + kDepth, f.end()}));
  ASSERT_TRUE(handled(4, 1));
  for (size_t i = 0; i < f.size(); i++)
    EXPECT_EQ(f[i]->releases.load(), i == kDepth ? 2 : 1) << "frame " << i;
  auto s = stats(3);
  EXPECT_EQ((std::array{s.accepted, s.decoded, s.pictures}), (std::array<uint64_t, 3>{12, 12, 12}));
  // Port 2 is reset with three frames queued, then goes on mid-stream.
  auto g = stream(kRed, 11);
  ASSERT_EQ(ravel_soft_hold_port(engine_, 2, 1), 0);
  for (int i = 0; i < 3; i++) ASSERT_EQ(put(2, g[i]), 0);
  EXPECT_EQ(stats(2).queued, 3u);
  reset();
  ASSERT_EQ(ravel_soft_hold_port(engine_, 2, 0), 0);
  ASSERT_TRUE(deliver(2, {g[3], g[10]}));
  // Port 5 has four frames queued when the engine stops: they go back
  // undecoded, and a stopped engine takes and composes nothing.
  ASSERT_EQ(ravel_soft_hold_port(engine_, 5, 1), 0);
  for (int i = 0; i < 4; i++) ASSERT_EQ(put(5, g[i]), 0);
  ASSERT_EQ(ravel_stop(engine_), 0);
  ASSERT_TRUE(handled(5, 4));
  EXPECT_EQ(put(5, g[4]), -1);
  EXPECT_EQ(g[4]->releases.load(), 0) << "refused after the stop: not given back";
  EXPECT_EQ(ravel_soft_wait_compose(engine_, 100), -1);
  // Decoded, errors, skipped, flushed.
  const std::array<uint64_t, 4> want[2] = {{1, 0, 1, 3}, {0, 0, 0, 4}};
  for (int p : {2, 5}) {
    s = stats(p);
    EXPECT_EQ((std::array{s.decoded, s.decode_errors, s.skipped, s.flushed}), want[p / 5]) << p;
  }
  // The printout: two heading lines, then a line for each port that saw a frame.
  testing::internal::CaptureStdout();
  ASSERT_EQ(ravel_print_statistics(engine_, 0, 0), 0);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 6) << out;
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
    ASSERT_TRUE(deliver(0, {frames[i]}));
    EXPECT_EQ(stats(0).pictures, i == 0 ? 1 : i) << "step " << i;
    int32_t w, h;
    auto pic = display(0, &w, &h);
    EXPECT_EQ((mean_colour(pic, w, 40, 40, 400, 190).r - 16) / 9, int(stats(0).pictures) - 1);
  }
  // Bursts of four frames, each decoded within a compose period: shown as
  // they come out of the decoder, most of their pictures would never reach
  // the display.
  for (size_t i = 8; i < frames.size(); i += 4) {
    ASSERT_TRUE(deliver(0, {frames.begin() + long(i), frames.begin() + long(i + 4)}));
    ASSERT_TRUE(eventually([&] {
      auto s = stats(0);
      return s.shown == s.pictures && s.last_shown == s.pictures;
    })) << "after frame "
        << i + 4;
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
  ASSERT_TRUE(deliver(0, stream(kBlue, 12)));
  EXPECT_EQ(stats(0).pictures, pictures + 12);
  // A caller waiting for the waiting pictures is let go once no region shows
  // the port (after a pass, so that it is surely waiting by then).
  ASSERT_LT(stats(0).last_shown, stats(0).pictures) << "pictures wait";
  std::atomic<int32_t> waited{1};
  std::thread waiter([&] { waited = ravel_soft_wait_compose(engine_, 40000); });
  const uint64_t passes = ravel_soft_compose_passes(engine_);
  EXPECT_TRUE(eventually([&] {
    return ravel_soft_compose_passes(engine_) > passes || stats(0).last_shown == stats(0).pictures;
  }));
  regions(0, {});
  EXPECT_TRUE(eventually([&] { return waited == 0; }));
  waiter.join();
  regions(0, {region(0, 0, 0, 480, 270)});
  ASSERT_EQ(ravel_soft_set_compose_rate(engine_, 0), 0);
  EXPECT_TRUE(shows(0, kBlue, 40, 40, 400, 190));
  EXPECT_LT(stats(0).shown - shown, 12u);
}

TEST_F(streams, BadInputIsCountedAndThePortHoldsItsLastGoodPicture) {
  start(0);
  auto red = stream(kRed, 6);
  auto blue = stream(kBlue, 3);
  auto wide = stream(kBlue, 2, {.width = 320, .height = 180});
  auto tex = stream(kRed, 3, {.pattern = true});  // an intra frame large enough to cut inside
  std::vector<uint8_t> noise;
  for (int i = 0; i < 3000; i++) noise.push_back(static_cast<uint8_t>((i * 131 + 7) | 1));
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
      {"intra frame cut in its slice data",
       false,
       {cut(tex[0]), tex[1], tex[2]},
       1,
       {blue[0], blue[1]}},
      // The intra frame from its slice on, without the parameter sets before it.
      {"no parameter sets yet", true, {split(blue[0]).second}, 0, {blue[0]}},
      {"resolution change", false, {}, 0, {wide[0], wide[1]}},
  };
  std::vector<ravel_region_t> tiles;
  for (int p = 0; p < 7; p++) tiles.push_back(region(p, (p % 4) * 480, (p / 4) * 540, 480, 540));
  regions(0, tiles);
  for (int p = 0; p < 7; p++) {
    const auto &c = cases[p];
    SCOPED_TRACE(c.what);
    const int x = (p % 4) * 480 + 20, y = (p / 4) * 540 + 20;
    const uint64_t good = c.fresh ? 0 : 3;
    ASSERT_TRUE(c.fresh || deliver(p, {red[0], red[1], red[2]}));
    ASSERT_TRUE(deliver(p, c.bad));
    EXPECT_EQ(stats(p).decode_errors, c.errors);
    EXPECT_EQ(stats(p).skipped, c.bad.size() - c.errors);
    EXPECT_EQ(stats(p).pictures, good);
    EXPECT_TRUE(shows(0, c.fresh ? rgb{0, 0, 0} : kRed, x, y, 440, 500));
    ASSERT_TRUE(deliver(p, c.next));
    EXPECT_EQ(stats(p).pictures, good + c.next.size());
    EXPECT_TRUE(shows(0, kBlue, x, y, 440, 500));
  }
  EXPECT_EQ(stats(6).width, 320);
}

// The calls that only set or report: each takes its settings from a running
// engine and refuses a missing engine, record or port.
class control : public engine_harness {};

TEST_F(control, SettingsAreTakenAndAMissingEngineRecordOrPortIsRefused) {
  start(0);
  ravel_mask_t mask{};
  ravel_roi_t roi{};
  ravel_dnr_t dnr{};
  ravel_datetime_format_t format{};
  ravel_ip_osd_t osd{1, "10.0.0.1"};
  ravel_soft_port_stats_t s{};
  int32_t word = 1, rate = 0;
  using call = std::function<int32_t(ravel_t *, bool)>;
  // The first five take anything from a running engine.
  const call calls[] = {
      [](ravel_t *e, bool) { return ravel_capture_drv_start(e, 3); },
      [](ravel_t *e, bool) { return ravel_capture_drv_stop(e, 3); },
      [](ravel_t *e, bool) { return ravel_encode_change(e, 3, 0, nullptr); },
      [](ravel_t *e, bool) { return ravel_set_osd_enable(e, 3, 1, 1); },
      [](ravel_t *e, bool) { return ravel_set_time(e, 0, 1234, 0); },
      [&](ravel_t *e, bool r) { return ravel_set_mask(e, r ? &mask : nullptr); },
      [&](ravel_t *e, bool r) { return ravel_set_ROI_coordinate(e, r ? &roi : nullptr); },
      [&](ravel_t *e, bool r) { return ravel_set_dnr(e, r ? &dnr : nullptr); },
      [&](ravel_t *e, bool r) { return ravel_set_mirror(e, r ? &word : nullptr); },
      [&](ravel_t *e, bool r) { return ravel_set_datetime_format(e, r ? &format : nullptr); },
      [&](ravel_t *e, bool r) { return ravel_set_ip_osd_enable(e, r ? &osd : nullptr); },
      [&](ravel_t *e, bool r) { return ravel_set_encode_bitrate(e, 3, 1, r ? 512 : -1); },
      [&](ravel_t *e, bool r) { return ravel_get_encode_bitrate(e, 3, 1, r ? &rate : nullptr); },
      [](ravel_t *e, bool r) { return ravel_set_display_enable(e, r ? 3 : 4, 1); },
      [](ravel_t *e, bool r) { return ravel_motion_detect_config_param(e, 3, nullptr, r ? 0 : 4); },
      [](ravel_t *e, bool r) { return ravel_pause_frame(e, r ? 3 : 18); },
      [](ravel_t *e, bool r) { return ravel_set_jpeg_dstntimeimg(e, r ? 3 : 18, 1, 2); },
      [](ravel_t *e, bool r) { return ravel_set_jpeg_timestamp(e, r ? 3 : -1, 1); },
      [&](ravel_t *e, bool r) { return ravel_soft_port_stats(e, 3, r ? &s : nullptr); },
      [](ravel_t *e, bool r) { return ravel_soft_set_port_signal(e, r ? 3 : 18, 1); },
      [](ravel_t *e, bool r) { return ravel_soft_set_signal_timeout(e, r ? 0 : -1); },
      [](ravel_t *e, bool r) { return ravel_soft_set_compose_rate(e, r ? 0 : -1); },
      [](ravel_t *e, bool r) { return ravel_soft_hold_port(e, r ? 0 : 18, 0); },
  };
  for (size_t i = 0; i < std::size(calls); i++) {
    EXPECT_EQ(calls[i](engine_, true), 0) << "call " << i;
    EXPECT_EQ(calls[i](nullptr, true), -1) << "call " << i;
    EXPECT_EQ(calls[i](engine_, false), i < 5 ? 0 : -1) << "call " << i;
  }
  EXPECT_EQ(rate, 512);
  EXPECT_EQ(ravel_check_alive_m3(engine_, 0, 0), 1);
}

// The header reader on a hand-made unit: what x264 never writes in our small
// streams, but cameras do.
TEST(h264_headers, HighProfileParameterSetsGiveTheSlicesFrameNum) {
  // High profile (4:2:0, no scaling lists) at level 0, so that an emulation
  // prevention byte follows; log2_max_frame_num 8; then its PPS, and a P
  // slice with frame_num 90.
  const uint8_t params[] = {0, 0, 1, 0x67, 0x64, 0, 0, 3, 0xac, 0x2b, 0x48, 0, 0, 1, 0x68, 0xe0};
  const uint8_t slice[] = {0, 0, 1, 0x41, 0x9a, 0xb5};
  ravel_soft::stream_reader r;
  EXPECT_TRUE(r.inspect(params, sizeof params).has_params);
  auto au = r.inspect(slice, sizeof slice);
  EXPECT_EQ(au.max_frame_num * 1000 + au.frame_num, 256u * 1000 + 90);
  EXPECT_TRUE(r.inspect(slice, sizeof slice - 1).cut) << "frame_num cut short";
  // Two scaling lists that end early, by a delta to 0 from below (-8) and
  // from above (+100, +127, +21), to a reader that knows nothing yet.
  const uint8_t ended[] = {0,    0,    1,    0x67, 0x64, 0,    0x1e, 0xad, 0x84, 0x60, 0x32, 0,
                           0x7f, 0x02, 0xa0, 0x0a, 0xd0, 0x51, 0xb2, 0,    0,    1,    0x68, 0xe0};
  ravel_soft::stream_reader fresh;
  fresh.inspect(ended, sizeof ended);
  EXPECT_EQ(fresh.inspect(slice, sizeof slice).max_frame_num, 256u) << "lists that end early";
}

}  // namespace
}  // namespace engine_test
