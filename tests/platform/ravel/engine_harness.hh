// Drives the software engine directly: frames as owned buffers whose
// releases are counted, pushes that honour back-pressure, and reads of the
// composed displays.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "ravel.h"
#include "ravel_soft.h"
#include "synth_stream.hh"

namespace engine_test {

using ravel_synth::rgb;

// One frame buffer as the engine sees it: `buffer` comes back through the
// release function, `data` is read.
struct test_frame {
  std::vector<uint8_t> data;
  std::atomic<int> releases{0};  // written by the engine's threads
};

class engine_harness : public ::testing::Test {
 protected:
  // An engine with display format `format`, not yet started.
  ravel_t *create(int32_t format = 0);
  // A started engine with display format `format`.
  ravel_t *start(int32_t format = 0);

  // Frames of a solid colour, owned by the harness until the end of the test.
  // With `right`, the right half of the picture has that colour.
  std::vector<test_frame *> stream(rgb colour, int frames, int gop = 10, int width = 160,
                                   int height = 96, const rgb *right = nullptr);
  // Frames whose pictures change colour: frame i has colours[i].
  // With `b_frames`, that many B frames between reference frames.
  std::vector<test_frame *> stream_of(const std::vector<rgb> &colours, int gop, int b_frames = 0);
  // One attempt to push a frame.
  int32_t put(int32_t port, test_frame *f, ravel_jpeg_cb jpeg_cb = nullptr,
              ravel_image_cb image_cb = nullptr);
  // Pushes one frame, retrying while the port's queue is full; the result
  // of the last attempt.
  int32_t push(int32_t port, test_frame *f, ravel_jpeg_cb jpeg_cb = nullptr,
               ravel_image_cb image_cb = nullptr);
  void push_all(int32_t port, const std::vector<test_frame *> &frames);
  // Waits until `what` holds, up to 20 s.
  static bool eventually(const std::function<bool()> &what);
  ravel_soft_port_stats_t stats(int32_t port);
  // Whether every accepted frame of the port is in exactly one column.
  ::testing::AssertionResult accounted(int32_t port);
  // Waits until the port has handled (decoded, skipped or failed) `n` frames.
  bool handled(int32_t port, uint64_t n);
  // Waits for a compose pass and reads a display as RGB.
  std::vector<uint8_t> display(int32_t display, int32_t *width, int32_t *height);
  // Whether the block (x, y, w, h) of a composed display has the colour
  // `colour` took through the engine's YUV (or black, when `colour` is black).
  ::testing::AssertionResult shows(int32_t display, rgb colour, int x = 0, int y = 0, int w = -1,
                                   int h = -1);
  // Sets the regions of a display.
  void regions(int32_t display, std::vector<ravel_region_t> list);

  static ravel_region_t region(int32_t port, int x, int y, int w, int h, int layer = 1);

  ravel_t *engine_ = nullptr;
  std::vector<std::unique_ptr<test_frame>> frames_;
};

// The mean colour of a w x h block at (x, y) of an RGB picture.
rgb mean_colour(const std::vector<uint8_t> &rgb_pic, int width, int x, int y, int w, int h);
// True when two colours differ by at most `tolerance` in each component.
bool near(rgb a, rgb b, int tolerance = 12);
std::string str(rgb c);

}  // namespace engine_test
