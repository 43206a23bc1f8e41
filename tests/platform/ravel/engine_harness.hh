// Drives the software engine directly: frames as owned buffers whose
// releases are counted, pushes that wait for room in the port's queue, and
// reads of the composed displays.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <utility>
#include <vector>

#include "eventually.hh"
#include "ravel.h"
#include "ravel_soft.h"
#include "synth_stream.hh"

namespace ravel_synth {
inline std::ostream &operator<<(std::ostream &os, rgb c) {
  return os << '(' << int{c.r} << ", " << int{c.g} << ", " << int{c.b} << ')';
}
}  // namespace ravel_synth

namespace engine_test {

using ravel_synth::rgb;
using ravel_synth::stream_options;
using testing_support::eventually;

// True when two colours differ by at most `tolerance` in each component.
inline bool near(rgb a, rgb b, int tolerance = 12) {
  return std::abs(a.r - b.r) <= tolerance && std::abs(a.g - b.g) <= tolerance &&
         std::abs(a.b - b.b) <= tolerance;
}

// The mean colour of a w x h block at (x, y) of an RGB picture.
inline rgb mean_colour(const std::vector<uint8_t> &pic, int width, int x, int y, int w, int h) {
  uint64_t sum[3] = {0, 0, 0};
  for (int j = y; j < y + h; j++)
    for (int i = x; i < x + w; i++)
      for (int k = 0; k < 3; k++) sum[k] += pic[(static_cast<size_t>(j) * width + i) * 3 + k];
  const uint64_t n = static_cast<uint64_t>(w) * h;
  return {uint8_t(sum[0] / n), uint8_t(sum[1] / n), uint8_t(sum[2] / n)};
}

// One frame buffer as the engine sees it: the buffer comes back through the
// release function, `data` is read.
struct test_frame {
  std::vector<uint8_t> data;
  std::atomic<int> releases{0};  // written by the engine's threads
};

class engine_harness : public ::testing::Test {
 protected:
  // An engine with display format `format`, started unless told otherwise.
  void start(int32_t format = 0, bool run = true) {
    int32_t formats[4] = {format, 0, 0, 0}, ids[4] = {}, block[4] = {};
    auto release = [](void *b) { static_cast<test_frame *>(b)->releases++; };
    engine_ = ravel_new(formats, 0, 16, 1, 0, release, 0, 0, 0, 24, ids, 6, block);
    ASSERT_NE(engine_, nullptr);
    EXPECT_EQ(ravel_soft_engine(), engine_);
    EXPECT_EQ(run ? ravel_start(engine_) : 0, 0);
  }
  // `frames` frames of `colour` (opt.colours: frame i in colours[i]), owned
  // by the harness until the end of the test.
  std::vector<test_frame *> stream(rgb colour, int frames, stream_options opt = {}) {
    opt.frames = frames;
    std::vector<test_frame *> out;
    for (auto &f : ravel_synth::encode(colour, opt)) out.push_back(frame(f.data));
    return out;
  }
  test_frame *frame(std::vector<uint8_t> data) {
    frames_.push_back(std::make_unique<test_frame>());
    frames_.back()->data = std::move(data);
    return frames_.back().get();
  }
  // A frame of the first half of `f`.
  test_frame *cut(const test_frame *f) {
    return frame({f->data.begin(), f->data.begin() + static_cast<long>(f->data.size() / 2)});
  }
  // The intra frame `f` as two frames: its parameter sets, and its slice.
  std::pair<test_frame *, test_frame *> split(const test_frame *f) {
    auto at = f->data.begin();
    while (at[0] != 0 || at[1] != 0 || at[2] != 1 || (at[3] & 31) != 5) at++;
    return {frame({f->data.begin(), at}), frame({at, f->data.end()})};
  }
  // One attempt to push a frame.
  int32_t put(int32_t port, test_frame *f, ravel_jpeg_cb jpeg = nullptr,
              ravel_image_cb image = nullptr) {
    return ravel_put_decode_stream(engine_, port, f, f->data.data(),
                                   static_cast<int32_t>(f->data.size()), 0, jpeg, image, 0, 0);
  }
  // Waits until the port's queue has room (only the test pushes, so room
  // once seen stays), then pushes once.
  int32_t push(int32_t port, test_frame *f, ravel_jpeg_cb jpeg = nullptr,
               ravel_image_cb image = nullptr) {
    EXPECT_TRUE(eventually([&] { return stats(port).queued < RAVEL_SOFT_QUEUE_DEPTH; }));
    return put(port, f, jpeg, image);
  }
  // Pushes `frames` and waits until the port has handled every frame it took.
  bool deliver(int32_t port, const std::vector<test_frame *> &frames) {
    const uint64_t n = stats(port).accepted + frames.size();
    for (test_frame *f : frames)
      if (push(port, f) != 0) return false;
    return handled(port, n);
  }
  ravel_soft_port_stats_t stats(int32_t port) {
    ravel_soft_port_stats_t s{};
    EXPECT_EQ(ravel_soft_port_stats(engine_, port, &s), 0);
    return s;
  }
  // Waits until the port has handled and given back `n` frames; then each
  // accepted frame must be in exactly one column.
  bool handled(int32_t port, uint64_t n) {
    ravel_soft_port_stats_t s{};
    return eventually([&] {
             s = stats(port);
             return s.accepted >= n && s.queued == 0 && s.accepted == s.released;
           }) &&
           s.decoded + s.decode_errors + s.skipped + s.flushed == s.accepted;
  }
  // Waits for a compose pass and reads a display as RGB.
  std::vector<uint8_t> display(int32_t d, int32_t *width, int32_t *height) {
    EXPECT_EQ(ravel_soft_wait_compose(engine_, 20000), 0);
    EXPECT_EQ(ravel_soft_display_size(engine_, d, width, height), 0);
    std::vector<uint8_t> pic(static_cast<size_t>(*width) * *height * 3);
    EXPECT_EQ(ravel_soft_read_display(engine_, d, pic.data(), *width * 3), 0);
    return pic;
  }
  // Whether the block (x, y, w, h) of a composed display has the colour
  // `colour` took through the engine's YUV (or black, when it is black).
  ::testing::AssertionResult shows(int32_t d, rgb colour, int x = 0, int y = 0, int w = -1,
                                   int h = -1) {
    int32_t width, height;
    auto pic = display(d, &width, &height);
    const bool black = colour.r == 0 && colour.g == 0 && colour.b == 0;
    const rgb want = black ? colour : ravel_synth::through_yuv(colour);
    const rgb got = mean_colour(pic, width, x, y, w < 0 ? width - x : w, h < 0 ? height - y : h);
    if (near(got, want, black ? 0 : 12)) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure()
           << "display " << d << " at (" << x << ", " << y << ") shows " << got << ", not " << want;
  }
  // A pipeline reset, as a change of the decode settings does.
  void reset() {
    ravel_dec_config_t dec[RAVEL_DEC_CONFIG_COUNT];
    std::vector<uint8_t> enc(RAVEL_ENC_CONFIG_BYTES);
    ASSERT_EQ(ravel_init_dec_config_param(engine_, dec), 0);
    ASSERT_EQ(ravel_change_pipe_config(engine_, dec, 0, enc.data(), 16), 0);
  }
  void regions(int32_t d, std::vector<ravel_region_t> list) {
    ASSERT_EQ(ravel_change_geometry(engine_, list.data(), int32_t(list.size()), d, 0), 0);
  }
  static ravel_region_t region(int32_t port, int x, int y, int w, int h, int layer = 1) {
    return ravel_region_t{port, x, y, w, h, layer, -1, -1, -1, -1, 0};
  }

  ravel_t *engine_ = nullptr;
  std::vector<std::unique_ptr<test_frame>> frames_;
};

}  // namespace engine_test
