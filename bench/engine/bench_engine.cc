// The software engine under a live load: N channels of 640 x 360 at 25 frames
// a second, decoded and composed into a mosaic on 1920 x 1080.
//
//   BM_LiveMosaic/N/R   frames paced in real time; reports the CPU the whole
//                       process used (cores busy), frames decoded per second,
//                       whether the engine kept up (no refusals, every frame
//                       decoded), and the latency of channel 0's frames from
//                       the push to the compose pass that first shows them.
//                       R 0 composes on arrival, R 25 on the former fixed
//                       tick of 25 whole-display passes a second.
//   BM_DecodeFlatOut    16 ports fed as fast as the engine takes frames;
//                       frames per second, and from it the number of 25 fps
//                       channels that fit on the cores the machine has.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <ctime>
#include <thread>
#include <vector>

#include "ravel.h"
#include "ravel_soft.h"
#include "synth_stream.hh"

namespace {

constexpr int kWidth = 640;
constexpr int kHeight = 360;
constexpr int kFrames = 50;  // two seconds, an intra frame every second; played in a loop

struct channel {
  std::vector<ravel_synth::frame> frames;
};

std::atomic<uint64_t> released{0};
void on_release(void *) { released++; }

ravel_t *engine() {
  static ravel_t *e = [] {
    int32_t formats[1] = {0};
    ravel_t *made = ravel_new(formats, 0, 16, 0, 0, on_release, 0, 0, 0, 24, nullptr, 6, nullptr);
    ravel_start(made);
    return made;
  }();
  return e;
}

const std::vector<channel> &channels() {
  static std::vector<channel> all = [] {
    std::vector<channel> out(RAVEL_SOFT_PORTS);
    for (int i = 0; i < RAVEL_SOFT_PORTS; i++) {
      ravel_synth::stream_options opt;
      opt.width = kWidth;
      opt.height = kHeight;
      opt.frames = kFrames;
      opt.gop = 25;
      opt.pattern = true;
      opt.bitrate_kbps = 1000;
      uint8_t c = static_cast<uint8_t>(40 + i * 10);
      out[i].frames = ravel_synth::encode({c, static_cast<uint8_t>(255 - c), 128}, opt);
    }
    return out;
  }();
  return all;
}

// A square mosaic big enough for n channels, on display 0.
void mosaic(int n) {
  int side = static_cast<int>(std::ceil(std::sqrt(n)));
  std::vector<ravel_region_t> regions;
  for (int i = 0; i < n; i++) {
    int w = 1920 / side, h = 1080 / side;
    regions.push_back({i, (i % side) * w, (i / side) * h, w, h, 1, -1, -1, -1, -1, 0});
  }
  ravel_change_geometry(engine(), regions.data(), n, 0, 0);
}

double cpu_seconds() {
  timespec t;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

struct totals {
  uint64_t decoded = 0, refused = 0, shown = 0, errors = 0;
};
totals sum(int n) {
  totals t;
  for (int p = 0; p < n; p++) {
    ravel_soft_port_stats_t s;
    ravel_soft_port_stats(engine(), p, &s);
    t.decoded += s.decoded;
    t.refused += s.refused;
    t.shown += s.shown;
    t.errors += s.decode_errors;
  }
  return t;
}

void BM_LiveMosaic(benchmark::State &state) {
  const int n = static_cast<int>(state.range(0));
  const auto &chs = channels();
  mosaic(n);
  ravel_soft_set_compose_rate(engine(), static_cast<int32_t>(state.range(1)));
  constexpr int kSeconds = 6;
  for (auto _ : state) {
    // Each channel starts at an intra frame and runs in step at 25 fps.
    totals before = sum(n);
    uint64_t passes0 = ravel_soft_compose_passes(engine());
    double cpu0 = cpu_seconds();
    auto t0 = std::chrono::steady_clock::now();
    uint64_t refused = 0;
    // Channel 0's pictures are numbered by the port in decoding order; the
    // watcher matches the last one shown to the time of its push.
    constexpr int kTotal = kSeconds * 25;
    std::vector<std::atomic<int64_t>> pushed_ns(kTotal);
    std::vector<double> latency_ms;
    std::atomic<bool> done{false};
    ravel_soft_port_stats_t s0;
    ravel_soft_port_stats(engine(), 0, &s0);
    const uint64_t base = s0.decoded;
    auto ns = [] {
      return std::chrono::duration_cast<std::chrono::nanoseconds>(
                 std::chrono::steady_clock::now().time_since_epoch())
          .count();
    };
    std::thread watcher([&] {
      uint64_t seen = base;
      while (!done) {
        ravel_soft_port_stats_t s;
        ravel_soft_port_stats(engine(), 0, &s);
        if (s.last_shown > seen && s.last_shown - base <= kTotal) {
          int64_t at = pushed_ns[s.last_shown - base - 1].load();
          if (at != 0) latency_ms.push_back(static_cast<double>(ns() - at) / 1e6);
          seen = s.last_shown;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
    });
    for (int i = 0; i < kTotal; i++) {
      std::this_thread::sleep_until(t0 + std::chrono::milliseconds(40 * i));
      pushed_ns[i] = ns();
      for (int p = 0; p < n; p++) {
        const auto &f = chs[p].frames[i % kFrames];
        auto *data = const_cast<uint8_t *>(f.data.data());
        // A live source does not wait: a refused frame is a frame lost.
        if (ravel_put_decode_stream(engine(), p, data, data, static_cast<int32_t>(f.data.size()), 0,
                                    nullptr, nullptr, 0, 0) != 0)
          refused++;
      }
    }
    std::this_thread::sleep_until(t0 + std::chrono::milliseconds(40 * kSeconds * 25));
    done = true;
    watcher.join();
    std::sort(latency_ms.begin(), latency_ms.end());
    if (!latency_ms.empty()) {
      state.counters["latency_p50_ms"] = latency_ms[latency_ms.size() / 2];
      state.counters["latency_p99_ms"] = latency_ms[latency_ms.size() * 99 / 100];
      state.counters["latency_samples"] = static_cast<double>(latency_ms.size());
    }
    double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    double cpu = cpu_seconds() - cpu0;
    totals after = sum(n);
    uint64_t decoded = after.decoded - before.decoded;
    state.counters["channels"] = n;
    state.counters["cpu_cores"] = cpu / wall;
    state.counters["cpu_ms_per_frame"] = 1000.0 * cpu / static_cast<double>(decoded ? decoded : 1);
    state.counters["decoded_fps"] = static_cast<double>(decoded) / wall;
    state.counters["target_fps"] = 25.0 * n;
    state.counters["compose_per_s"] =
        static_cast<double>(ravel_soft_compose_passes(engine()) - passes0) / wall;
    state.counters["refused"] = static_cast<double>(refused);
    state.counters["decode_errors"] = static_cast<double>(after.errors - before.errors);
    state.counters["real_time"] = refused == 0 && decoded + static_cast<uint64_t>(n) >=
                                                      static_cast<uint64_t>(n) * kSeconds * 25
                                      ? 1
                                      : 0;
    state.SetIterationTime(wall);
  }
}
BENCHMARK(BM_LiveMosaic)
    ->Args({16, 25})
    ->Args({16, 0})
    ->Args({18, 0})
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kSecond);

void BM_DecodeFlatOut(benchmark::State &state) {
  constexpr int n = 16;
  const auto &chs = channels();
  mosaic(n);
  ravel_soft_set_compose_rate(engine(), 0);
  constexpr int kPerPort = 300;
  for (auto _ : state) {
    totals before = sum(n);
    double cpu0 = cpu_seconds();
    auto t0 = std::chrono::steady_clock::now();
    // Round robin over the ports: a port whose queue is full is passed over
    // for now, so that no port waits for another.
    std::vector<int> next(n, 0);
    for (int left = n * kPerPort; left > 0;) {
      bool took = false;
      for (int p = 0; p < n; p++) {
        if (next[p] == kPerPort) continue;
        const auto &f = chs[p].frames[next[p] % kFrames];
        auto *data = const_cast<uint8_t *>(f.data.data());
        if (ravel_put_decode_stream(engine(), p, data, data, static_cast<int32_t>(f.data.size()), 0,
                                    nullptr, nullptr, 0, 0) == 0) {
          next[p]++;
          left--;
          took = true;
        }
      }
      if (!took) std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    uint64_t target = before.decoded + uint64_t{n} * kPerPort;
    while (sum(n).decoded < target) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    double cpu = cpu_seconds() - cpu0;
    double fps = static_cast<double>(n * kPerPort) / wall;
    state.counters["decoded_fps"] = fps;
    state.counters["cpu_cores"] = cpu / wall;
    state.counters["cpu_ms_per_frame"] = 1000.0 * cpu / (n * kPerPort);
    // 25 fps channels that the cores of this machine carry, decoding and
    // composing included.
    double bytes = 0;
    for (const auto &f : chs[0].frames) bytes += static_cast<double>(f.data.size());
    state.counters["kbit_per_s_per_channel"] = bytes * 8 * 25 / kFrames / 1000;
    state.counters["channels_real_time"] = fps / 25.0;
    state.counters["channels_on_2_cores"] = 2.0 / (cpu / (n * kPerPort) * 25.0);
    state.SetIterationTime(wall);
  }
}
BENCHMARK(BM_DecodeFlatOut)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
