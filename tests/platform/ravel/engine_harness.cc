#include "engine_harness.hh"

#include <cstdio>
#include <cstdlib>
#include <thread>

namespace engine_test {
namespace {

void count_release(void *buffer) { static_cast<test_frame *>(buffer)->releases++; }

}  // namespace

ravel_t *engine_harness::create(int32_t format) {
  int32_t formats[4] = {format, 0, 0, 0};
  int32_t ids[4] = {0, 0, 0, 0};
  int32_t block[4] = {0, 0, 0, 0};
  engine_ = ravel_new(formats, 0, 16, 1, 0, count_release, 0, 0, 0, 24, ids, 6, block);
  EXPECT_NE(engine_, nullptr);
  EXPECT_EQ(ravel_soft_engine(), engine_);
  return engine_;
}

ravel_t *engine_harness::start(int32_t format) {
  EXPECT_EQ(ravel_start(create(format)), 0);
  return engine_;
}

std::vector<test_frame *> engine_harness::stream(rgb colour, int frames, int gop, int width,
                                                 int height, const rgb *right) {
  ravel_synth::stream_options opt;
  opt.width = width;
  opt.height = height;
  opt.frames = frames;
  opt.gop = gop;
  opt.right = right;
  std::vector<test_frame *> out;
  for (auto &f : ravel_synth::encode(colour, opt)) {
    frames_.push_back(std::make_unique<test_frame>());
    frames_.back()->data = std::move(f.data);
    out.push_back(frames_.back().get());
  }
  EXPECT_EQ(static_cast<int>(out.size()), frames);
  return out;
}

std::vector<test_frame *> engine_harness::stream_of(const std::vector<rgb> &colours, int gop,
                                                    int b_frames) {
  ravel_synth::stream_options opt;
  opt.b_frames = b_frames;
  opt.frames = static_cast<int>(colours.size());
  opt.gop = gop;
  opt.colours = colours.data();
  std::vector<test_frame *> out;
  for (auto &f : ravel_synth::encode(colours[0], opt)) {
    frames_.push_back(std::make_unique<test_frame>());
    frames_.back()->data = std::move(f.data);
    out.push_back(frames_.back().get());
  }
  EXPECT_EQ(out.size(), colours.size());
  return out;
}

int32_t engine_harness::push(int32_t port, test_frame *f, ravel_jpeg_cb jpeg_cb,
                             ravel_image_cb image_cb) {
  auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  for (;;) {
    int32_t r = put(port, f, jpeg_cb, image_cb);
    if (r == 0 || std::chrono::steady_clock::now() > until) return r;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

int32_t engine_harness::put(int32_t port, test_frame *f, ravel_jpeg_cb jpeg_cb,
                            ravel_image_cb image_cb) {
  return ravel_put_decode_stream(engine_, port, f, f->data.data(),
                                 static_cast<int32_t>(f->data.size()), 0, jpeg_cb, image_cb, 0, 0);
}

void engine_harness::push_all(int32_t port, const std::vector<test_frame *> &frames) {
  for (test_frame *f : frames) ASSERT_EQ(push(port, f), 0);
}

bool engine_harness::eventually(const std::function<bool()> &what) {
  auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!what()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

ravel_soft_port_stats_t engine_harness::stats(int32_t port) {
  ravel_soft_port_stats_t s{};
  EXPECT_EQ(ravel_soft_port_stats(engine_, port, &s), 0);
  return s;
}

::testing::AssertionResult engine_harness::accounted(int32_t port) {
  ravel_soft_port_stats_t s = stats(port);
  uint64_t sum = s.decoded + s.decode_errors + s.skipped + s.flushed + s.queued;
  if (sum == s.accepted) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << "port " << port << ": accepted " << s.accepted << " but decoded " << s.decoded
         << " + errors " << s.decode_errors << " + skipped " << s.skipped << " + flushed "
         << s.flushed << " + queued " << s.queued << " = " << sum;
}

bool engine_harness::handled(int32_t port, uint64_t n) {
  return eventually([&] {
    ravel_soft_port_stats_t s = stats(port);
    return s.accepted >= n && s.queued == 0 && s.accepted == s.released;
  });
}

std::vector<uint8_t> engine_harness::display(int32_t display, int32_t *width, int32_t *height) {
  EXPECT_EQ(ravel_soft_wait_compose(engine_, 20000), 0);
  EXPECT_EQ(ravel_soft_display_size(engine_, display, width, height), 0);
  std::vector<uint8_t> pic(static_cast<size_t>(*width) * *height * 3);
  EXPECT_EQ(ravel_soft_read_display(engine_, display, pic.data(), *width * 3), 0);
  return pic;
}

::testing::AssertionResult engine_harness::shows(int32_t d, rgb colour, int x, int y, int w,
                                                 int h) {
  int32_t width, height;
  auto pic = display(d, &width, &height);
  const bool black = colour.r == 0 && colour.g == 0 && colour.b == 0;
  const rgb want = black ? colour : ravel_synth::through_yuv(colour);
  const rgb got = mean_colour(pic, width, x, y, w < 0 ? width - x : w, h < 0 ? height - y : h);
  if (near(got, want, black ? 4 : 12)) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "display " << d << " at (" << x << ", " << y << ") shows "
                                       << str(got) << ", not " << str(want);
}

void engine_harness::regions(int32_t display, std::vector<ravel_region_t> list) {
  ASSERT_EQ(
      ravel_change_geometry(engine_, list.data(), static_cast<int32_t>(list.size()), display, 0),
      0);
}

ravel_region_t engine_harness::region(int32_t port, int x, int y, int w, int h, int layer) {
  return ravel_region_t{port, x, y, w, h, layer, -1, -1, -1, -1, 0};
}

rgb mean_colour(const std::vector<uint8_t> &pic, int width, int x, int y, int w, int h) {
  uint64_t sum[3] = {0, 0, 0};
  for (int j = y; j < y + h; j++)
    for (int i = x; i < x + w; i++)
      for (int k = 0; k < 3; k++) sum[k] += pic[(static_cast<size_t>(j) * width + i) * 3 + k];
  uint64_t n = static_cast<uint64_t>(w) * h;
  return {static_cast<uint8_t>(sum[0] / n), static_cast<uint8_t>(sum[1] / n),
          static_cast<uint8_t>(sum[2] / n)};
}

bool near(rgb a, rgb b, int tolerance) {
  return std::abs(a.r - b.r) <= tolerance && std::abs(a.g - b.g) <= tolerance &&
         std::abs(a.b - b.b) <= tolerance;
}

std::string str(rgb c) {
  char text[32];
  std::snprintf(text, sizeof text, "(%d, %d, %d)", c.r, c.g, c.b);
  return text;
}

}  // namespace engine_test
