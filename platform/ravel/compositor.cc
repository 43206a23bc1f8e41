#include "compositor.hh"

#include <libyuv/convert_argb.h>
#include <libyuv/convert_from.h>
#include <libyuv/planar_functions.h>
#include <libyuv/scale.h>
#include <pthread.h>

#include <algorithm>
#include <cstring>

namespace ravel_soft {
namespace {

// Regions are laid out in a space of 1920 x 1080; the crop fields stay in it.
constexpr int kLayoutWidth = 1920;
constexpr int kLayoutHeight = 1080;

struct rect {
  int x, y, w, h;
};

// The part of the picture that a region shows: the whole picture, or the
// crop rectangle mapped from layout space onto the picture.
rect source_rect(const ravel_region_t &r, const picture &pic) {
  int pw = pic.width(), ph = pic.height();
  rect s{0, 0, pw, ph};
  if (r.crop_x >= 0 && r.crop_y >= 0 && r.crop_width > 0 && r.crop_height > 0) {
    s.x = static_cast<int>(int64_t{r.crop_x} * pw / kLayoutWidth) & ~1;
    s.y = static_cast<int>(int64_t{r.crop_y} * ph / kLayoutHeight) & ~1;
    s.w = static_cast<int>(int64_t{r.crop_width} * pw / kLayoutWidth);
    s.h = static_cast<int>(int64_t{r.crop_height} * ph / kLayoutHeight);
    s.x = std::min(s.x, pw - 2);
    s.y = std::min(s.y, ph - 2);
    s.w = std::clamp(s.w, 2, pw - s.x);
    s.h = std::clamp(s.h, 2, ph - s.y);
  }
  return s;
}

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

compositor::compositor(picture_of pictures, statistics &stats, int width0, int height0)
    : pictures_(std::move(pictures)), stats_(stats) {
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
  std::lock_guard<std::mutex> g(regions_lock_);
  display &d = displays_[index];
  d.regions.assign(regions, regions + count);
  d.version++;
}

void compositor::set_running(bool on) {
  {
    std::lock_guard<std::mutex> g(state_lock_);
    running_ = on;
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

void compositor::run() {
  using clock = std::chrono::steady_clock;
  const auto period = std::chrono::microseconds(1000000 / kRate);
  auto next = clock::now();
  std::unique_lock<std::mutex> g(state_lock_);
  for (;;) {
    state_cond_.wait(g, [this] { return quit_ || running_; });
    if (quit_) return;
    passes_started_++;
    g.unlock();
    pass();
    g.lock();
    passes_done_++;
    state_cond_.notify_all();
    // A steady rate; a late pass does not make the next ones hurry.
    next += period;
    auto now = clock::now();
    if (next < now) next = now;
    state_cond_.wait_until(g, next, [this] { return quit_; });
  }
}

void compositor::pass() {
  for (display &d : displays_) {
    std::vector<ravel_region_t> regions;
    uint64_t version;
    canvas_observer observer;
    {
      std::lock_guard<std::mutex> g(regions_lock_);
      regions = d.regions;
      version = d.version;
      observer = d.observer;
    }
    // The pictures of this pass, and what the drawing is made of: the same
    // regions with the same pictures need no new drawing.
    std::vector<picture_ptr> pics(regions.size());
    std::vector<uint64_t> made_of{version};
    for (size_t i = 0; i < regions.size(); i++) {
      int port = regions[i].ch;
      if (port >= 0 && port < kPorts) pics[i] = pictures_(port);
      made_of.push_back(pics[i] ? pics[i]->seq : 0);
    }
    if (made_of == d.drawn) continue;
    {
      std::lock_guard<std::mutex> g(canvas_lock_);
      compose(d, regions, pics);
      d.drawn = std::move(made_of);
      if (observer) observer(d.cv);
    }
    for (size_t i = 0; i < regions.size(); i++)
      if (pics[i]) note_shown(regions[i].ch, pics[i]->seq);
  }
  stats_.compose_passes++;
}

void compositor::note_shown(int port, uint64_t seq) {
  if (seq > last_shown_[port]) {
    last_shown_[port] = seq;
    stats_.port[port].shown++;
    stats_.port[port].last_shown_seq = seq;
  }
}

void compositor::compose(display &d, const std::vector<ravel_region_t> &regions,
                         const std::vector<picture_ptr> &pics) {
  canvas &c = d.cv;
  c.fill_black();
  // Layers from the bottom up; within a layer, in list order.
  std::vector<size_t> order(regions.size());
  for (size_t i = 0; i < order.size(); i++) order[i] = i;
  std::stable_sort(order.begin(), order.end(),
                   [&](size_t a, size_t b) { return regions[a].layer < regions[b].layer; });
  const int cw2 = c.width / 2;
  for (size_t i : order) {
    const ravel_region_t &r = regions[i];
    // Chroma is at half resolution: the rectangle keeps to even pixels.
    int x0 = std::max(r.x, 0) & ~1, y0 = std::max(r.y, 0) & ~1;
    int x1 = static_cast<int>(std::min<int64_t>(int64_t{r.x} + r.width, c.width)) & ~1;
    int y1 = static_cast<int>(std::min<int64_t>(int64_t{r.y} + r.height, c.height)) & ~1;
    if (r.width <= 0 || r.height <= 0 || x1 <= x0 || y1 <= y0) continue;
    uint8_t *dy = c.y.data() + static_cast<size_t>(y0) * c.width + x0;
    uint8_t *du = c.u.data() + static_cast<size_t>(y0 / 2) * cw2 + x0 / 2;
    uint8_t *dv = c.v.data() + static_cast<size_t>(y0 / 2) * cw2 + x0 / 2;
    int w = x1 - x0, h = y1 - y0;
    const picture *pic = pics[i].get();
    if (pic == nullptr) {
      libyuv::SetPlane(dy, c.width, w, h, 16);
      libyuv::SetPlane(du, cw2, w / 2, h / 2, 128);
      libyuv::SetPlane(dv, cw2, w / 2, h / 2, 128);
      continue;
    }
    rect s = source_rect(r, *pic);
    // A region that reaches past the display shows the matching part of its
    // source, not a squeezed whole.
    if (x0 != r.x || y0 != r.y || w != r.width || h != r.height) {
      int64_t sx = s.x + int64_t{x0 - r.x} * s.w / r.width;
      int64_t sy = s.y + int64_t{y0 - r.y} * s.h / r.height;
      int64_t sw = int64_t{w} * s.w / r.width, sh = int64_t{h} * s.h / r.height;
      s = {static_cast<int>(sx) & ~1, static_cast<int>(sy) & ~1, std::max(2, static_cast<int>(sw)),
           std::max(2, static_cast<int>(sh))};
      s.w = std::min(s.w, pic->width() - s.x);
      s.h = std::min(s.h, pic->height() - s.y);
    }
    const uint8_t *sy = pic->plane(0) + static_cast<size_t>(s.y) * pic->stride(0) + s.x;
    const uint8_t *su = pic->plane(1) + static_cast<size_t>(s.y / 2) * pic->stride(1) + s.x / 2;
    const uint8_t *sv = pic->plane(2) + static_cast<size_t>(s.y / 2) * pic->stride(2) + s.x / 2;
    libyuv::I420Scale(sy, pic->stride(0), su, pic->stride(1), sv, pic->stride(2), s.w, s.h, dy,
                      c.width, du, cw2, dv, cw2, w, h, libyuv::kFilterBilinear);
  }
}

}  // namespace ravel_soft
