// Megapixels per second of every converter beside its nearest libyuv
// function, same call shape, same buffers, warm cache, at 1920 x 1080,
// 640 x 360 and 64 x 64 (where the cost of a call shows).  The closing
// tables give the ratio of each converter to its counterpart.  The 4:2:2
// paths that libyuv has no counterpart for are held against the faster of
// our own yv16_to_rgb24_c and yv12_to_rgb24_c.
//
// Each benchmark times the two sides in rounds, one right after the other,
// the one that goes first changing every round, so that the load of a
// shared machine and the drift of its clock weigh on both alike.  The ratio
// is the median of the rounds' ratios; the rates are the sides' medians.
#include <benchmark/benchmark.h>
#include <libyuv.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "colorspace.h"
#include "colorspace_rows.hh"

namespace {

struct Size {
  int w, h;
};
constexpr Size kSizes[] = {{1920, 1080}, {640, 360}, {64, 64}};

// Buffers big enough for any layout of the largest size at 4 bytes a
// pixel.  The planes y, u, v lie back to back, as in one YV12 frame.
struct Pictures {
  int w = 0, h = 0;
  std::vector<uint8_t> src, planes, dst;
  uint8_t *y = nullptr, *u = nullptr, *v = nullptr;
  Pictures() {
    const size_t n = size_t(kSizes[0].w) * kSizes[0].h;
    for (auto *b : {&src, &planes, &dst}) b->resize(n * 4);
    std::mt19937 rng(1);
    for (auto *b : {&src, &planes})
      for (auto &x : *b) x = static_cast<uint8_t>(rng());
    colorspace_init();
  }
  void resize(Size s) {
    w = s.w, h = s.h;
    y = planes.data();
    u = y + size_t(w) * h;
    v = u + size_t(w / 2) * (h / 2);
  }
};
Pictures &pics() {
  static Pictures p;
  return p;
}

using Call = std::function<void(Pictures &)>;

struct Entry {
  std::string name;    // ours
  std::string libyuv;  // counterpart, or empty: held against our own best
  Call ours, theirs;
};

template <auto fn>
void from_yv12(Pictures &p) {
  fn(p.dst.data(), p.w, p.y, p.u, p.v, p.w, p.w / 2, p.w, p.h);
}
template <auto fn>
void to_yv12(Pictures &p) {
  fn(p.y, p.u, p.v, p.src.data(), p.w, p.h, p.w);
}
template <auto fn, int kBpp>
void libyuv_to_i420(Pictures &p) {
  fn(p.src.data(), p.w * kBpp, p.y, p.w, p.u, p.w / 2, p.v, p.w / 2, p.w, p.h);
}
template <auto fn, int kBpp>
void libyuv_from_i420(Pictures &p) {
  fn(p.y, p.w, p.u, p.w / 2, p.v, p.w / 2, p.dst.data(), p.w * kBpp, p.w, p.h);
}

std::vector<Entry> entries() {
  using namespace libyuv;
  const Call copy_into_planes = [](Pictures &p) {
    const size_t n = size_t(p.w) * p.h;
    I420Copy(p.src.data(), p.w, p.src.data() + n, p.w / 2, p.src.data() + n * 5 / 4, p.w / 2, p.y,
             p.w, p.u, p.w / 2, p.v, p.w / 2, p.w, p.h);
  };
  const Call copy_out_of_planes = [](Pictures &p) {
    const size_t n = size_t(p.w) * p.h;
    I420Copy(p.y, p.w, p.u, p.w / 2, p.v, p.w / 2, p.dst.data(), p.w, p.dst.data() + n, p.w / 2,
             p.dst.data() + n * 5 / 4, p.w / 2, p.w, p.h);
  };
  return {
      {"rgb555_to_yv12_c", "ARGB1555ToI420", to_yv12<rgb555_to_yv12_c>,
       libyuv_to_i420<ARGB1555ToI420, 2>},
      {"rgb565_to_yv12_c", "RGB565ToI420", to_yv12<rgb565_to_yv12_c>,
       libyuv_to_i420<RGB565ToI420, 2>},
      {"rgb24_to_yv12_c", "RGB24ToI420", to_yv12<rgb24_to_yv12_c>, libyuv_to_i420<RGB24ToI420, 3>},
      {"rgb32_to_yv12_c", "ARGBToI420", to_yv12<rgb32_to_yv12_c>, libyuv_to_i420<ARGBToI420, 4>},
      {"yuv_to_yv12_c", "I420Copy", to_yv12<yuv_to_yv12_c>, copy_into_planes},
      {"yuyv_to_yv12_c", "YUY2ToI420", to_yv12<yuyv_to_yv12_c>, libyuv_to_i420<YUY2ToI420, 2>},
      {"uyvy_to_yv12_c", "UYVYToI420", to_yv12<uyvy_to_yv12_c>, libyuv_to_i420<UYVYToI420, 2>},
      {"yv12_to_rgb555_c", "I420ToARGB1555", from_yv12<yv12_to_rgb555_c>,
       libyuv_from_i420<I420ToARGB1555, 2>},
      {"yv12_to_rgb565_c", "I420ToRGB565", from_yv12<yv12_to_rgb565_c>,
       libyuv_from_i420<I420ToRGB565, 2>},
      {"yv12_to_rgb565_crop", "I420ToRGB565", from_yv12<yv12_to_rgb565_crop>,
       libyuv_from_i420<I420ToRGB565, 2>},
      {"yv12_to_rgb24_c", "I420ToRGB24", from_yv12<yv12_to_rgb24_c>,
       libyuv_from_i420<I420ToRGB24, 3>},
      {"yv12_to_rgb32_c", "I420ToABGR", from_yv12<yv12_to_rgb32_c>,
       libyuv_from_i420<I420ToABGR, 4>},
      {"yv12_to_yuv_c", "I420Copy", from_yv12<yv12_to_yuv_c>, copy_out_of_planes},
      {"yv12_to_yuyv_c", "I420ToYUY2", from_yv12<yv12_to_yuyv_c>, libyuv_from_i420<I420ToYUY2, 2>},
      {"yv12_to_uyvy_c", "I420ToUYVY", from_yv12<yv12_to_uyvy_c>, libyuv_from_i420<I420ToUYVY, 2>},
      {"yv16_to_rgb24_c", "I422ToRGB24", from_yv12<yv16_to_rgb24_c>,
       libyuv_from_i420<I422ToRGB24, 3>},
      {"yv16_to_rgb32_c", "I422ToABGR", from_yv12<yv16_to_rgb32_c>,
       libyuv_from_i420<I422ToABGR, 4>},
      {"yv16i_to_rgb24_c", "",
       [](Pictures &p) { yv16i_to_rgb24_c(p.dst.data(), p.w, p.y, p.src.data(), p.w, p.w, p.h); },
       nullptr},
      {"yvyu_to_rgb24_c", "",
       [](Pictures &p) { yvyu_to_rgb24_c(p.dst.data(), p.w, p.src.data(), p.w, p.w, p.h); },
       nullptr},
      {"yvyu_to_rgb16_c", "",
       [](Pictures &p) { yvyu_to_rgb16_c(p.dst.data(), p.w, p.src.data(), p.w, p.w, p.h); },
       nullptr},
  };
}

using Clock = std::chrono::steady_clock;

// Seconds that `calls` calls take.
double timed(const Call &fn, Pictures &p, int calls) {
  const auto start = Clock::now();
  for (int i = 0; i < calls; i++) {
    fn(p);
    benchmark::ClobberMemory();
  }
  return std::chrono::duration<double>(Clock::now() - start).count();
}

double median(std::vector<double> x) {
  std::sort(x.begin(), x.end());
  return x.empty() ? 0 : x[x.size() / 2];
}

struct Result {
  double ours = 0, theirs = 0;          // MP/s, median of the rounds
  double ratio = 0, low = 0, high = 0;  // median and quartiles of the rounds' ratios
  std::string against;
};
std::map<std::string, Result> results;

// The rounds' ratios of side 0 to side `best`, the faster counterpart.
void summarise(const std::vector<std::vector<double>> &times, const std::vector<std::string> &names,
               double pixels, Result &r) {
  size_t best = 1;
  for (size_t i = 2; i < times.size(); i++)
    if (median(times[i]) < median(times[best])) best = i;
  std::vector<double> ratios;
  for (size_t k = 0; k < times[0].size(); k++) ratios.push_back(times[best][k] / times[0][k]);
  std::sort(ratios.begin(), ratios.end());
  r.ours = pixels / median(times[0]) / 1e6;
  r.theirs = pixels / median(times[best]) / 1e6;
  r.ratio = median(ratios);
  r.low = ratios[ratios.size() / 4];
  r.high = ratios[ratios.size() * 3 / 4];
  r.against = names[best];
}

// Side 0 is ours, the others its counterparts; a round times each side once
// on a batch of calls long enough for the clock.
void run(benchmark::State &state, Size size, const std::vector<const Call *> &sides,
         const std::vector<std::string> &names, Result &r) {
  Pictures &p = pics();
  p.resize(size);
  const int calls = std::max(1, (1 << 18) / (size.w * size.h));
  for (const Call *side : sides) timed(*side, p, calls);  // warm the cache for both
  std::vector<std::vector<double>> times(sides.size());
  size_t first = 0;
  for (auto _ : state) {
    double round = 0;
    for (size_t k = 0; k < sides.size(); k++) {
      const size_t i = (first + k) % sides.size();
      times[i].push_back(timed(*sides[i], p, calls));
      round += times[i].back();
    }
    first = (first + 1) % sides.size();
    state.SetIterationTime(round);
  }
  summarise(times, names, double(size.w) * size.h * calls, r);
  state.counters["ours MP/s"] = r.ours;
  state.counters["theirs MP/s"] = r.theirs;
  state.counters["ratio"] = r.ratio;
}

std::string key(Size s, const std::string &name) {
  return std::to_string(s.w) + "x" + std::to_string(s.h) + "/" + name;
}

void print_table(const std::vector<Entry> &list, Size s) {
  std::printf("\n%dx%d%-12s %10s  %-16s %10s %7s  %s\n", s.w, s.h, "", "ours MP/s", "counterpart",
              "MP/s", "ratio", "quartiles");
  for (const auto &e : list) {
    const auto it = results.find(key(s, e.name));
    if (it == results.end() || it->second.against.empty()) continue;  // filtered out
    const Result &r = it->second;
    std::printf("%-20s %10.1f  %-16s %10.1f %7.2f  %.2f-%.2f\n", e.name.c_str(), r.ours,
                r.against.c_str(), r.theirs, r.ratio, r.low, r.high);
  }
}

}  // namespace

int main(int argc, char **argv) {
  std::vector<char *> args(argv, argv + argc);
  char min_time[] = "--benchmark_min_time=0.5";
  args.insert(args.begin() + 1, min_time);
  int n = static_cast<int>(args.size());
  benchmark::Initialize(&n, args.data());
  const auto list = entries();
  const Entry *own[2] = {nullptr, nullptr};
  for (const auto &e : list) {
    if (e.name == "yv16_to_rgb24_c") own[0] = &e;
    if (e.name == "yv12_to_rgb24_c") own[1] = &e;
  }
  for (Size s : kSizes)
    for (const auto &e : list) {
      std::vector<const Call *> sides = {&e.ours};
      std::vector<std::string> names = {e.name};
      if (e.theirs) {
        sides.push_back(&e.theirs);
        names.push_back(e.libyuv);
      } else {
        for (const Entry *o : own) sides.push_back(&o->ours), names.push_back(o->name);
      }
      Result &r = results[key(s, e.name)];
      benchmark::RegisterBenchmark(key(s, e.name).c_str(), [s, sides, names,
                                                            &r](benchmark::State &st) {
        run(st, s, sides, names, r);
      })->UseManualTime();
    }
  std::string target;  // the first set offered is the one the converters run
  orlo::colorspace::for_each_vector_target([&](const char *t) {
    if (target.empty()) target = t;
  });
  std::printf("vector kernels: %s\n", target.c_str());
  benchmark::RunSpecifiedBenchmarks();
  for (Size s : kSizes) print_table(list, s);
  benchmark::Shutdown();
  return 0;
}
