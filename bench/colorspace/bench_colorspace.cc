// Megapixels per second of every converter beside its nearest libyuv
// function, same call shape, warm cache, at 1920 x 1080, 640 x 360 and
// 64 x 64 (where the cost of a call shows).  The closing tables give the
// ratio of each converter to its counterpart.  The 4:2:2 paths that libyuv
// has no counterpart for are held against the faster of our own
// yv16_to_rgb24_c and yv12_to_rgb24_c.
//
// The runs are repeated and interleaved at random, and each side counts
// its best repetition in CPU time, so that the other work of a shared
// machine weighs on both sides alike.
#include <benchmark/benchmark.h>
#include <libyuv.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "colorspace.h"

namespace {

struct Size {
  int w, h;
};
constexpr Size kSizes[] = {{1920, 1080}, {640, 360}, {64, 64}};

// Planes big enough for any layout of the largest size at 4 bytes a pixel.
struct Pictures {
  int w = 0, h = 0;
  std::vector<uint8_t> src, y, u, v, dst;
  Pictures() {
    const size_t n = size_t(kSizes[0].w) * kSizes[0].h;
    for (auto *b : {&src, &y, &u, &v, &dst}) b->resize(n * 4);
    std::mt19937 rng(1);
    for (auto *b : {&src, &y, &u, &v})
      for (auto &x : *b) x = static_cast<uint8_t>(rng());
    colorspace_init();
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
  fn(p.dst.data(), p.w, p.y.data(), p.u.data(), p.v.data(), p.w, p.w / 2, p.w, p.h);
}
template <auto fn>
void to_yv12(Pictures &p) {
  fn(p.y.data(), p.u.data(), p.v.data(), p.src.data(), p.w, p.h, p.w);
}
template <auto fn, int kBpp>
void libyuv_to_i420(Pictures &p) {
  fn(p.src.data(), p.w * kBpp, p.y.data(), p.w, p.u.data(), p.w / 2, p.v.data(), p.w / 2, p.w,
     p.h);
}
template <auto fn, int kBpp>
void libyuv_from_i420(Pictures &p) {
  fn(p.y.data(), p.w, p.u.data(), p.w / 2, p.v.data(), p.w / 2, p.dst.data(), p.w * kBpp, p.w,
     p.h);
}

std::vector<Entry> entries() {
  using namespace libyuv;
  const Call copy_into_planes = [](Pictures &p) {
    const size_t n = size_t(p.w) * p.h;
    I420Copy(p.src.data(), p.w, p.src.data() + n, p.w / 2, p.src.data() + n * 5 / 4, p.w / 2,
             p.y.data(), p.w, p.u.data(), p.w / 2, p.v.data(), p.w / 2, p.w, p.h);
  };
  const Call copy_out_of_planes = [](Pictures &p) {
    const size_t n = size_t(p.w) * p.h;
    I420Copy(p.y.data(), p.w, p.u.data(), p.w / 2, p.v.data(), p.w / 2, p.dst.data(), p.w,
             p.dst.data() + n, p.w / 2, p.dst.data() + n * 5 / 4, p.w / 2, p.w, p.h);
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
      {"yv12_to_yuyv_c", "I420ToYUY2", from_yv12<yv12_to_yuyv_c>,
       libyuv_from_i420<I420ToYUY2, 2>},
      {"yv12_to_uyvy_c", "I420ToUYVY", from_yv12<yv12_to_uyvy_c>,
       libyuv_from_i420<I420ToUYVY, 2>},
      {"yv16_to_rgb24_c", "I422ToRGB24", from_yv12<yv16_to_rgb24_c>,
       libyuv_from_i420<I422ToRGB24, 3>},
      {"yv16_to_rgb32_c", "I422ToABGR", from_yv12<yv16_to_rgb32_c>,
       libyuv_from_i420<I422ToABGR, 4>},
      {"yv16i_to_rgb24_c", "",
       [](Pictures &p) {
         yv16i_to_rgb24_c(p.dst.data(), p.w, p.y.data(), p.src.data(), p.w, p.w, p.h);
       },
       nullptr},
      {"yvyu_to_rgb24_c", "",
       [](Pictures &p) { yvyu_to_rgb24_c(p.dst.data(), p.w, p.src.data(), p.w, p.w, p.h); },
       nullptr},
      {"yvyu_to_rgb16_c", "",
       [](Pictures &p) { yvyu_to_rgb16_c(p.dst.data(), p.w, p.src.data(), p.w, p.w, p.h); },
       nullptr},
  };
}

void run(benchmark::State &state, Size size, const Call &fn) {
  Pictures &p = pics();
  p.w = size.w;
  p.h = size.h;
  for (auto _ : state) {
    fn(p);
    benchmark::ClobberMemory();
  }
  state.counters["MP/s"] = benchmark::Counter(size.w * double(size.h) / 1e6 * state.iterations(),
                                              benchmark::Counter::kIsRate);
}

// Keeps the best rate of every benchmark over its repetitions.
class BestRateReporter : public benchmark::ConsoleReporter {
 public:
  std::map<std::string, double> best;
  void ReportRuns(const std::vector<Run> &runs) override {
    for (const auto &r : runs) {
      auto it = r.counters.find("MP/s");
      if (r.run_type != Run::RT_Iteration || it == r.counters.end()) continue;
      double &b = best[r.run_name.function_name];
      b = std::max(b, it->second.value);
    }
    ConsoleReporter::ReportRuns(runs);
  }
};

std::string key(const char *side, Size s, const std::string &name) {
  return std::string(side) + "/" + std::to_string(s.w) + "x" + std::to_string(s.h) + "/" + name;
}

void print_table(const std::vector<Entry> &list, Size s, std::map<std::string, double> &best) {
  std::printf("\n%dx%d%-12s %10s  %-16s %10s %7s\n", s.w, s.h, "", "ours MP/s", "counterpart",
              "MP/s", "ratio");
  const double own_best =
      std::max(best[key("orlo", s, "yv16_to_rgb24_c")], best[key("orlo", s, "yv12_to_rgb24_c")]);
  for (const auto &e : list) {
    const double ours = best[key("orlo", s, e.name)];
    const bool own = e.libyuv.empty();
    const double theirs = own ? own_best : best[key("libyuv", s, e.name)];
    std::printf("%-20s %10.1f  %-16s %10.1f %7.2f\n", e.name.c_str(), ours,
                own ? "best own rgb24" : e.libyuv.c_str(), theirs, theirs > 0 ? ours / theirs : 0);
  }
}

}  // namespace

int main(int argc, char **argv) {
  // Repeated, interleaved runs unless the command line says otherwise.
  std::vector<char *> args(argv, argv + argc);
  char reps[] = "--benchmark_repetitions=5", mix[] = "--benchmark_enable_random_interleaving=true",
       min_time[] = "--benchmark_min_time=0.05";
  args.insert(args.begin() + 1, {reps, mix, min_time});
  int n = static_cast<int>(args.size());
  benchmark::Initialize(&n, args.data());
  const auto list = entries();
  for (Size s : kSizes)
    for (const auto &e : list) {
      benchmark::RegisterBenchmark(key("orlo", s, e.name).c_str(),
                                   [s, &e](benchmark::State &st) { run(st, s, e.ours); });
      if (e.theirs)
        benchmark::RegisterBenchmark(key("libyuv", s, e.name).c_str(),
                                     [s, &e](benchmark::State &st) { run(st, s, e.theirs); });
    }
  BestRateReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  for (Size s : kSizes) print_table(list, s, reporter.best);
  benchmark::Shutdown();
  return 0;
}
