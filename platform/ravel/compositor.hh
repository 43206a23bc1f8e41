// The displays and the thread that composes them.  A pass runs when a port
// has a new picture (at most at the display's refresh rate) and redraws only
// the tiles whose picture changed, with the tiles above them.
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

// What a port's tiles show: its latest picture, or NO SIGNAL; and when the
// port's next picture is due (max(): none waits).
struct tile_source {
  picture_ptr pic;
  bool no_signal = false;
  std::chrono::steady_clock::time_point next_due = std::chrono::steady_clock::time_point::max();
};

class compositor {
 public:
  static constexpr int kDisplays = 2;      // engine displays 0 and 2
  static constexpr int kRefreshRate = 60;  // passes per second at most
  using clock = std::chrono::steady_clock;
  // A port's tiles for a pass at `now`.
  using source_of = std::function<tile_source(int port, clock::time_point now)>;
  // Told, under the lock of the region lists, whether any region shows a
  // port, whenever a region list changes.
  using shown_hook = std::function<void(int port, bool shown)>;
  using canvas_observer = std::function<void(const canvas &)>;

  compositor(source_of sources, shown_hook shown, statistics &stats, int width0, int height0);
  ~compositor();
  compositor(const compositor &) = delete;
  compositor &operator=(const compositor &) = delete;

  // Index 0 or 1 for the engine's display 0 or 2; -1 for any other number.
  static int index_of(int32_t display);

  void set_regions(int index, const ravel_region_t *regions, int count, int playback);
  void set_running(bool on);
  // A port has a new picture: a pass follows as soon as the rate allows, and
  // not before `due`.
  void picture_arrived(clock::time_point due = {});
  // `per_second` > 0: a fixed tick that redraws a whole display whenever
  // anything on it changed (for comparisons); 0: on arrival (the default).
  void set_fixed_rate(int per_second);
  void shutdown();

  // Asks for a pass and waits for it to end; false on time-out.
  bool wait_pass(std::chrono::milliseconds timeout);
  void size(int index, int *width, int *height) const;
  // Copies the composed display as R, G, B bytes, `stride` bytes a row.
  void read_rgb(int index, uint8_t *rgb, int stride) const;
  // Runs `use` on the composed display, with the display locked.
  void with_canvas(int index, const std::function<void(const canvas &)> &use) const;
  // Called on the compositor thread after each pass that changed the display.
  void set_observer(int index, canvas_observer observer);
  // Every display is drawn whole in the next pass.
  void redraw_all();
  // Test hook: one pass on the calling thread, for a compositor that does
  // not run, so that a fuzzer composes without hand-offs.  False while it
  // runs.
  bool pass_here();

 private:
  struct tile_key {
    uint64_t seq = 0;
    bool no_signal = false;
    bool operator==(const tile_key &) const = default;
  };
  struct display {
    canvas cv;
    std::vector<ravel_region_t> regions;
    uint64_t version = 1;  // rises with every new region list
    uint64_t drawn_version = 0;
    std::vector<tile_key> drawn;  // what each region's drawing was made of
    canvas_observer observer;
  };

  void run();
  void wait_for_work(std::unique_lock<std::mutex> &g);
  // Draws what changed; the earliest time a port's next picture is due.
  clock::time_point pass(bool whole, bool *drew);
  bool update(display &d, const std::array<tile_source, kPorts> &now, bool whole);
  void note_shown(int port, uint64_t seq);
  // Under regions_lock_: tells every port whether a region shows it.
  void tell_shown();

  source_of sources_;
  shown_hook shown_;
  statistics &stats_;
  std::array<display, kDisplays> displays_;
  std::array<uint64_t, kPorts> last_shown_{};

  mutable std::mutex regions_lock_;  // region lists and observers
  mutable std::mutex canvas_lock_;   // the pixels
  std::mutex state_lock_;            // the flags and counters below
  std::condition_variable state_cond_;
  bool running_ = false;
  bool quit_ = false;
  bool arrived_ = false;
  bool requested_ = false;
  clock::time_point due_ = clock::time_point::max();  // a picture waits until then
  int fixed_rate_ = 0;
  clock::time_point last_pass_{};
  uint64_t passes_started_ = 0;
  uint64_t passes_done_ = 0;
  std::thread thread_;
};

}  // namespace ravel_soft
