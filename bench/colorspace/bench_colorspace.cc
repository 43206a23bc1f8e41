// Megapixels per second of every converter at 1920 x 1080, run beside the
// nearest libyuv function and a memcpy of the converter's output size. The
// closing table gives the ratio of each converter to its counterpart.
#include <benchmark/benchmark.h>
#include <libyuv.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "colorspace.h"
#include "colorspace_rows.hh"

namespace {

constexpr int kW = 1920, kH = 1080;
constexpr double kMegapixels = kW * double(kH) / 1e6;

// Source and destination planes big enough for any layout at 4 bytes a pixel.
struct Pictures {
  std::vector<uint8_t> src, y, u, v, dst, dst2;
  Pictures()
      : src(kW * kH * 4),
        y(kW * kH),
        u(kW * kH / 2),
        v(kW * kH / 2),
        dst(kW * kH * 4),
        dst2(kW * kH * 4) {
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

struct Entry {
  std::string name;    // ours
  std::string libyuv;  // counterpart
  int out_bytes;       // output bytes per pixel x 2 (so 4:2:0 gives 3)
  std::function<void(Pictures &)> ours, theirs;
};

#define FROM(fn) \
  [](Pictures &p) { fn(p.dst.data(), kW, p.y.data(), p.u.data(), p.v.data(), kW, kW / 2, kW, kH); }
#define FROM422(fn) \
  [](Pictures &p) { fn(p.dst.data(), kW, p.y.data(), p.u.data(), p.v.data(), kW, kW / 2, kW, kH); }
#define TO(fn) [](Pictures &p) { fn(p.y.data(), p.u.data(), p.v.data(), p.src.data(), kW, kH, kW); }

std::vector<Entry> entries() {
  using namespace libyuv;
  auto to_i420 = [](auto f, int bpp) {
    return [f, bpp](Pictures &p) {
      f(p.src.data(), kW * bpp, p.y.data(), kW, p.u.data(), kW / 2, p.v.data(), kW / 2, kW, kH);
    };
  };
  auto from_i420 = [](auto f, int bpp) {
    return [f, bpp](Pictures &p) {
      f(p.y.data(), kW, p.u.data(), kW / 2, p.v.data(), kW / 2, p.dst.data(), kW * bpp, kW, kH);
    };
  };
  auto copy_i420 = [](Pictures &p) {
    I420Copy(p.src.data(), kW, p.src.data() + kW * kH, kW / 2, p.src.data() + kW * kH * 5 / 4,
             kW / 2, p.y.data(), kW, p.u.data(), kW / 2, p.v.data(), kW / 2, kW, kH);
  };
  return {
      {"rgb555_to_yv12_c", "ARGB1555ToI420", 3, TO(rgb555_to_yv12_c), to_i420(ARGB1555ToI420, 2)},
      {"rgb565_to_yv12_c", "RGB565ToI420", 3, TO(rgb565_to_yv12_c), to_i420(RGB565ToI420, 2)},
      {"rgb24_to_yv12_c", "RGB24ToI420", 3, TO(rgb24_to_yv12_c), to_i420(RGB24ToI420, 3)},
      {"rgb32_to_yv12_c", "ARGBToI420", 3, TO(rgb32_to_yv12_c), to_i420(ARGBToI420, 4)},
      {"yuv_to_yv12_c", "I420Copy", 3, TO(yuv_to_yv12_c), copy_i420},
      {"yuyv_to_yv12_c", "YUY2ToI420", 3, TO(yuyv_to_yv12_c), to_i420(YUY2ToI420, 2)},
      {"uyvy_to_yv12_c", "UYVYToI420", 3, TO(uyvy_to_yv12_c), to_i420(UYVYToI420, 2)},
      {"yv12_to_rgb555_c", "I420ToARGB1555", 4, FROM(yv12_to_rgb555_c),
       from_i420(I420ToARGB1555, 2)},
      {"yv12_to_rgb565_c", "I420ToRGB565", 4, FROM(yv12_to_rgb565_c), from_i420(I420ToRGB565, 2)},
      {"yv12_to_rgb565_crop", "I420ToRGB565", 4, FROM(yv12_to_rgb565_crop),
       from_i420(I420ToRGB565, 2)},
      {"yv12_to_rgb24_c", "I420ToRGB24", 6, FROM(yv12_to_rgb24_c), from_i420(I420ToRGB24, 3)},
      {"yv12_to_rgb32_c", "I420ToABGR", 8, FROM(yv12_to_rgb32_c), from_i420(I420ToABGR, 4)},
      {"yv12_to_yuv_c", "I420Copy", 3,
       [](Pictures &p) {
         yv12_to_yuv_c(p.dst.data(), kW, p.y.data(), p.u.data(), p.v.data(), kW, kW / 2, kW, kH);
       },
       [](Pictures &p) {
         I420Copy(p.y.data(), kW, p.u.data(), kW / 2, p.v.data(), kW / 2, p.dst.data(), kW,
                  p.dst.data() + kW * kH, kW / 2, p.dst.data() + kW * kH * 5 / 4, kW / 2, kW, kH);
       }},
      {"yv12_to_yuyv_c", "I420ToYUY2", 4, FROM(yv12_to_yuyv_c), from_i420(I420ToYUY2, 2)},
      {"yv12_to_uyvy_c", "I420ToUYVY", 4, FROM(yv12_to_uyvy_c), from_i420(I420ToUYVY, 2)},
      {"yv16_to_rgb24_c", "I422ToRGB24", 6, FROM422(yv16_to_rgb24_c), from_i420(I422ToRGB24, 3)},
      {"yv16_to_rgb32_c", "I422ToABGR", 8, FROM422(yv16_to_rgb32_c), from_i420(I422ToABGR, 4)},
      {"yv16i_to_rgb24_c", "NV12ToRGB24", 6,
       [](Pictures &p) {
         yv16i_to_rgb24_c(p.dst.data(), kW, p.y.data(), p.src.data(), kW, kW, kH);
       },
       [](Pictures &p) {
         NV12ToRGB24(p.y.data(), kW, p.src.data(), kW, p.dst.data(), kW * 3, kW, kH);
       }},
      {"yvyu_to_rgb24_c", "YUY2ToARGB", 6,
       [](Pictures &p) { yvyu_to_rgb24_c(p.dst.data(), kW, p.src.data(), kW, kW, kH); },
       [](Pictures &p) { YUY2ToARGB(p.src.data(), kW * 2, p.dst.data(), kW * 4, kW, kH); }},
      {"yvyu_to_rgb16_c", "YUY2ToARGB", 6,
       [](Pictures &p) { yvyu_to_rgb16_c(p.dst.data(), kW, p.src.data(), kW, kW, kH); },
       [](Pictures &p) { YUY2ToARGB(p.src.data(), kW * 2, p.dst.data(), kW * 4, kW, kH); }},
  };
}

void run(benchmark::State &state, const std::function<void(Pictures &)> &fn) {
  Pictures &p = pics();
  for (auto _ : state) {
    fn(p);
    benchmark::ClobberMemory();
  }
  state.counters["MP/s"] =
      benchmark::Counter(kMegapixels * double(state.iterations()), benchmark::Counter::kIsRate);
}

// Collects the rates to print the ratios behind the usual output.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  std::map<std::string, double> rate;
  void ReportRuns(const std::vector<Run> &runs) override {
    for (const auto &r : runs) {
      auto it = r.counters.find("MP/s");
      if (it != r.counters.end()) rate[r.benchmark_name()] = it->second.value;
    }
    ConsoleReporter::ReportRuns(runs);
  }
};

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  const auto list = entries();
  std::map<int, bool> copies;
  for (const auto &e : list) {
    benchmark::RegisterBenchmark(("orlo/" + e.name).c_str(), [&e](benchmark::State &s) {
      orlo::colorspace::set_vector_kernels_enabled(true);
      run(s, e.ours);
    })->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("plain/" + e.name).c_str(), [&e](benchmark::State &s) {
      orlo::colorspace::set_vector_kernels_enabled(false);
      run(s, e.ours);
      orlo::colorspace::set_vector_kernels_enabled(true);
    })->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("libyuv/" + e.name + "/" + e.libyuv).c_str(),
                                 [&e](benchmark::State &s) { run(s, e.theirs); })
        ->Unit(benchmark::kMillisecond);
    if (!copies[e.out_bytes]) {
      copies[e.out_bytes] = true;
      const int half_bytes = e.out_bytes;
      benchmark::RegisterBenchmark(("memcpy/" + std::to_string(half_bytes) + "_half_bytes").c_str(),
                                   [half_bytes](benchmark::State &s) {
                                     run(s, [half_bytes](Pictures &p) {
                                       std::memcpy(p.dst.data(), p.dst2.data(),
                                                   size_t(kW) * kH * half_bytes / 2);
                                     });
                                   })
          ->Unit(benchmark::kMillisecond);
    }
  }
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  std::printf("\n%-20s %9s %9s %-16s %9s %7s %9s\n", "converter", "MP/s", "plain", "libyuv", "MP/s",
              "ratio", "memcpy");
  for (const auto &e : list) {
    const double ours = reporter.rate["orlo/" + e.name];
    const double plain = reporter.rate["plain/" + e.name];
    const double theirs = reporter.rate["libyuv/" + e.name + "/" + e.libyuv];
    const double copy = reporter.rate["memcpy/" + std::to_string(e.out_bytes) + "_half_bytes"];
    std::printf("%-20s %9.1f %9.1f %-16s %9.1f %7.2f %9.1f\n", e.name.c_str(), ours, plain,
                e.libyuv.c_str(), theirs, theirs > 0 ? ours / theirs : 0.0, copy);
  }
  benchmark::Shutdown();
  return 0;
}
