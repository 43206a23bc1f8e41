#include "compositor.hh"

#include <libyuv/convert_argb.h>
#include <libyuv/convert_from.h>
#include <pthread.h>

#include <algorithm>
#include <numeric>

#include "tile_draw.hh"

namespace ravel_soft {
namespace {

// How often an idle compositor looks whether a port lost its signal.
constexpr std::chrono::milliseconds kSignalCheck{100};

}  // namespace

void canvas::resize(int w, int h) {
  width = w;
  height = h;
  y.assign(static_cast<size_t>(w) * h, 16);
  u.assign(static_cast<size_t>(w / 2) * (h / 2), 128);
  v.assign(static_cast<size_t>(w / 2) * (h / 2), 128);
}

void canvas::fill_black() {
  std::fill(y.begin(), y.end(), uint8_t{16});
  std::fill(u.begin(), u.end(), uint8_t{128});
  std::fill(v.begin(), v.end(), uint8_t{128});
}

compositor::compositor(source_of sources, shown_hook shown, statistics &stats, int width0,
                       int height0)
    : sources_(std::move(sources)), shown_(std::move(shown)), stats_(stats) {
  displays_[0].cv.resize(width0, height0);
  displays_[1].cv.resize(1280, 720);
  thread_ = std::thread([this] {
    pthread_setname_np(pthread_self(), "ravel-compose");
    run();
  });
}

compositor::~compositor() { shutdown(); }

int compositor::index_of(int32_t display) {
  if (display == 0) return 0;
  if (display == 2) return 1;
  return -1;
}

void compositor::set_regions(int index, const ravel_region_t *regions, int count, int) {
  {
    std::lock_guard<std::mutex> g(regions_lock_);
    display &d = displays_[index];
    d.regions.assign(regions, regions + count);
    d.version++;
    tell_shown();
  }
  picture_arrived();
}

void compositor::tell_shown() {
  std::array<bool, kPorts> shown{};
  for (const display &d : displays_)
    for (const ravel_region_t &r : d.regions)
      if (r.ch >= 0 && r.ch < kPorts) shown[r.ch] = true;
  for (int p = 0; p < kPorts; p++) shown_(p, shown[p]);
}

void compositor::redraw_all() {
  {
    std::lock_guard<std::mutex> g(regions_lock_);
    for (display &d : displays_) d.version++;
  }
  picture_arrived();
}

void compositor::set_running(bool on) {
  {
    std::lock_guard<std::mutex> g(state_lock_);
    running_ = on;
  }
  state_cond_.notify_all();
}

void compositor::picture_arrived(clock::time_point due) {
  bool sooner;
  {
    std::lock_guard<std::mutex> g(state_lock_);
    if (due <= clock::now()) {
      sooner = !arrived_;
      arrived_ = true;
    } else {
      sooner = !arrived_ && due < due_;
      due_ = std::min(due_, due);
    }
  }
  // The pictures that come while a pass is due anyway wake nobody.
  if (sooner) state_cond_.notify_all();
}

void compositor::set_fixed_rate(int per_second) {
  {
    std::lock_guard<std::mutex> g(state_lock_);
    fixed_rate_ = std::max(0, per_second);
  }
  state_cond_.notify_all();
}

void compositor::shutdown() {
  {
    std::lock_guard<std::mutex> g(state_lock_);
    quit_ = true;
  }
  state_cond_.notify_all();
  if (thread_.joinable()) thread_.join();
}

bool compositor::wait_pass(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> g(state_lock_);
  uint64_t target = passes_started_ + 1;
  requested_ = true;
  state_cond_.notify_all();
  return state_cond_.wait_for(g, timeout, [&] { return passes_done_ >= target; });
}

void compositor::size(int index, int *width, int *height) const {
  std::lock_guard<std::mutex> g(canvas_lock_);
  *width = displays_[index].cv.width;
  *height = displays_[index].cv.height;
}

void compositor::read_rgb(int index, uint8_t *rgb, int stride) const {
  std::lock_guard<std::mutex> g(canvas_lock_);
  const canvas &c = displays_[index].cv;
  // libyuv's "RAW" is R, G, B in memory order.
  libyuv::I420ToRAW(c.y.data(), c.width, c.u.data(), c.width / 2, c.v.data(), c.width / 2, rgb,
                    stride, c.width, c.height);
}

void compositor::with_canvas(int index, const std::function<void(const canvas &)> &use) const {
  std::lock_guard<std::mutex> g(canvas_lock_);
  use(displays_[index].cv);
}

void compositor::set_observer(int index, canvas_observer observer) {
  std::lock_guard<std::mutex> g(regions_lock_);
  displays_[index].observer = std::move(observer);
}

// Until there is something to draw: a new picture, a picture's time, a
// request, or, in the fixed mode, the next tick.  Passes keep at least one
// refresh period apart; a pass that only looks for lost signals (after a
// quiet while) does not count as one.
void compositor::wait_for_work(std::unique_lock<std::mutex> &g) {
  auto ready = [this] {
    return quit_ || (running_ && (arrived_ || requested_ || due_ <= clock::now()));
  };
  if (fixed_rate_ == 0) {
    // The wait is cut short when a picture comes due sooner than before.
    const clock::time_point check = clock::now() + kSignalCheck;
    while (!ready()) {
      state_cond_.wait_until(g, std::min(check, due_));
      if (!ready() && clock::now() >= check) return;
    }
  }
  if (quit_ || !running_) return;
  auto period = std::chrono::microseconds(1000000 / (fixed_rate_ > 0 ? fixed_rate_ : kRefreshRate));
  auto next = last_pass_ + period;
  if (clock::now() < next) state_cond_.wait_until(g, next, [this] { return quit_; });
  last_pass_ = clock::now();
}

void compositor::run() {
  std::unique_lock<std::mutex> g(state_lock_);
  for (;;) {
    state_cond_.wait(g, [this] { return quit_ || running_; });
    wait_for_work(g);
    if (quit_) return;
    if (!running_) continue;
    bool requested = requested_;
    bool whole = fixed_rate_ > 0;
    arrived_ = requested_ = false;
    due_ = clock::time_point::max();
    passes_started_++;
    g.unlock();
    bool drew;
    const clock::time_point due = pass(whole, &drew);
    g.lock();
    due_ = std::min(due_, due);
    passes_done_++;
    if (drew || requested) stats_.compose_passes++;
    state_cond_.notify_all();
  }
}

bool compositor::pass_here() {
  {
    std::lock_guard<std::mutex> g(state_lock_);
    if (running_ || quit_) return false;
  }
  bool drew;
  pass(false, &drew);
  return true;
}

compositor::clock::time_point compositor::pass(bool whole, bool *drew) {
  // Every port, shown or not, so that the watch for lost signals covers all.
  std::array<tile_source, kPorts> now;
  const clock::time_point at = clock::now();
  clock::time_point due = clock::time_point::max();
  for (int p = 0; p < kPorts; p++) {
    now[p] = sources_(p, at);
    due = std::min(due, now[p].next_due);
  }
  *drew = false;
  for (display &d : displays_) *drew = update(d, now, whole) || *drew;
  return due;
}

bool compositor::update(display &d, const std::array<tile_source, kPorts> &now, bool whole) {
  std::vector<ravel_region_t> regions;
  uint64_t version;
  canvas_observer observer;
  {
    std::lock_guard<std::mutex> g(regions_lock_);
    regions = d.regions;
    version = d.version;
    observer = d.observer;
  }
  const size_t n = regions.size();
  std::vector<tile_source> src(n);
  std::vector<tile_key> keys(n);
  for (size_t i = 0; i < n; i++) {
    int port = regions[i].ch;
    if (port >= 0 && port < kPorts) src[i] = now[port];
    keys[i] = {src[i].pic ? src[i].pic->seq : 0, src[i].no_signal};
  }
  const bool relayout = version != d.drawn_version;
  if (!relayout && keys == d.drawn) return false;
  // Layers from the bottom up; within a layer, in list order.
  std::vector<size_t> order(n);
  std::iota(order.begin(), order.end(), size_t{0});
  std::stable_sort(order.begin(), order.end(),
                   [&](size_t a, size_t b) { return regions[a].layer < regions[b].layer; });
  std::vector<bool> redraw(n, relayout || whole);
  std::vector<rect> drawn_rects;
  {
    std::lock_guard<std::mutex> g(canvas_lock_);
    if (relayout || whole) d.cv.fill_black();
    for (size_t i : order) {
      rect r = clip_region(regions[i], d.cv);
      // A tile is redrawn when its picture changed, or when a tile under it
      // was, since that drawing covered part of it.
      if (!redraw[i]) {
        redraw[i] =
            !(keys[i] == d.drawn[i]) || std::any_of(drawn_rects.begin(), drawn_rects.end(),
                                                    [&](const rect &o) { return overlap(o, r); });
      }
      if (!redraw[i]) continue;
      draw_tile(d.cv, regions[i], src[i]);
      drawn_rects.push_back(r);
    }
    if (observer) observer(d.cv);
  }
  for (size_t i = 0; i < n; i++)
    if (redraw[i] && src[i].pic && !src[i].no_signal) note_shown(regions[i].ch, src[i].pic->seq);
  d.drawn = std::move(keys);
  d.drawn_version = version;
  return true;
}

void compositor::note_shown(int port, uint64_t seq) {
  if (seq > last_shown_[port]) {
    last_shown_[port] = seq;
    stats_.port[port].shown++;
    stats_.port[port].last_shown_seq = seq;
  }
}

}  // namespace ravel_soft
