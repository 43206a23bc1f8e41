// The displays and the thread that composes them: 25 passes a second, each
// region scaled from the latest picture of its port.
#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "picture.hh"
#include "ravel.h"
#include "statistics.hh"

namespace ravel_soft {

// One composed display, 8-bit I420.
struct canvas {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> y, u, v;
  void resize(int w, int h);
  void fill_black();
};

class compositor {
 public:
  static constexpr int kDisplays = 2;  // engine displays 0 and 2
  static constexpr int kRate = 25;     // passes per second
  using picture_of = std::function<picture_ptr(int port)>;
  using canvas_observer = std::function<void(const canvas &)>;

  compositor(picture_of pictures, statistics &stats, int width0, int height0);
  ~compositor();
  compositor(const compositor &) = delete;
  compositor &operator=(const compositor &) = delete;

  // Index 0 or 1 for the engine's display 0 or 2; -1 for any other number.
  static int index_of(int32_t display);

  void set_regions(int index, const ravel_region_t *regions, int count, int playback);
  void set_running(bool on);
  void shutdown();

  // Waits for a pass that starts after the call to end; false on time-out.
  bool wait_pass(std::chrono::milliseconds timeout);
  void size(int index, int *width, int *height) const;
  // Copies the composed display as R, G, B bytes, `stride` bytes a row.
  void read_rgb(int index, uint8_t *rgb, int stride) const;
  // Runs `use` on the composed display, with the display locked.
  void with_canvas(int index, const std::function<void(const canvas &)> &use) const;
  // Called on the compositor thread after each pass that changed the display.
  void set_observer(int index, canvas_observer observer);

 private:
  struct display {
    canvas cv;
    std::vector<ravel_region_t> regions;
    uint64_t version = 1;         // rises with every new region list
    std::vector<uint64_t> drawn;  // what the last drawing was made of
    canvas_observer observer;
  };

  void run();
  void pass();
  void compose(display &d, const std::vector<ravel_region_t> &regions,
               const std::vector<picture_ptr> &pics);
  void note_shown(int port, uint64_t seq);

  picture_of pictures_;
  statistics &stats_;
  std::array<display, kDisplays> displays_;
  std::array<uint64_t, kPorts> last_shown_{};

  mutable std::mutex regions_lock_;  // region lists and observers
  mutable std::mutex canvas_lock_;   // the pixels
  std::mutex state_lock_;            // the flags and counters below
  std::condition_variable state_cond_;
  bool running_ = false;
  bool quit_ = false;
  uint64_t passes_started_ = 0;
  uint64_t passes_done_ = 0;
  std::thread thread_;
};

}  // namespace ravel_soft
