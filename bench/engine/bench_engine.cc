// The software engine under a live load: N channels at 25 frames a second,
// decoded and composed into a mosaic on 1920 x 1080.
//
//   BM_LiveMosaic/N/R/H  N channels of H lines (640 x 360, 1280 x 720,
//                        1920 x 1080) paced in real time; reports the CPU the
//                        whole process used (cores busy), frames decoded per
//                        second, whether the engine kept up (no refusals, no
//                        frame skipped, every frame decoded), and the latency
//                        of channel 0's frames from the push to the compose
//                        pass that first shows them.  R 0 composes on
//                        arrival, R 25 on the former fixed tick of 25
//                        whole-display passes a second.
//   BM_DecodeFlatOut     16 ports of 640 x 360 fed as fast as the engine takes
//                        frames; frames per second, and from it the number of
//                        25 fps channels that fit on the cores in use.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "bench_streams.hh"
#include "ravel_soft.h"

namespace engine_bench {
namespace {

constexpr int kSeconds = 6;
constexpr int kVariants = 4;  // distinct streams; ports share them

struct totals {
  uint64_t decoded = 0, refused = 0, skipped = 0, errors = 0;
};
totals sum(int n) {
  totals t;
  for (int p = 0; p < n; p++) {
    ravel_soft_port_stats_t s;
    ravel_soft_port_stats(engine(), p, &s);
    t.decoded += s.decoded;
    t.refused += s.refused;
    t.skipped += s.skipped;
    t.errors += s.decode_errors;
  }
  return t;
}

int64_t now_ns() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// Channel 0's pictures are numbered by the port in presentation order, which
// is push order for these streams; the watcher matches the last one shown to
// the time of its push.
class latency_watch {
 public:
  explicit latency_watch(int total) : pushed_ns_(static_cast<size_t>(total)) {
    ravel_soft_port_stats_t s;
    ravel_soft_port_stats(engine(), 0, &s);
    base_ = s.pictures;
    thread_ = std::thread([this] { run(); });
  }
  void pushed(int i) { pushed_ns_[static_cast<size_t>(i)] = now_ns(); }
  std::vector<double> finish() {
    done_ = true;
    thread_.join();
    std::sort(ms_.begin(), ms_.end());
    return ms_;
  }

 private:
  void run() {
    uint64_t seen = base_;
    while (!done_) {
      ravel_soft_port_stats_t s;
      ravel_soft_port_stats(engine(), 0, &s);
      if (s.last_shown > seen && s.last_shown - base_ <= pushed_ns_.size()) {
        int64_t at = pushed_ns_[s.last_shown - base_ - 1].load();
        if (at != 0) ms_.push_back(static_cast<double>(now_ns() - at) / 1e6);
        seen = s.last_shown;
      }
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  }
  std::vector<std::atomic<int64_t>> pushed_ns_;
  uint64_t base_ = 0;
  std::vector<double> ms_;
  std::atomic<bool> done_{false};
  std::thread thread_;
};

void BM_LiveMosaic(benchmark::State &state) {
  const int n = static_cast<int>(state.range(0));
  const int height = static_cast<int>(state.range(2));
  std::vector<const std::vector<ravel_synth::frame> *> chs;
  for (int p = 0; p < n; p++) chs.push_back(&stream(height, p % kVariants));
  mosaic(n);
  ravel_soft_set_compose_rate(engine(), static_cast<int32_t>(state.range(1)));
  constexpr int kTotal = kSeconds * 25;
  for (auto _ : state) {
    // Each channel starts at an intra frame and runs in step at 25 fps.
    totals before = sum(n);
    uint64_t passes0 = ravel_soft_compose_passes(engine());
    double cpu0 = process_cpu_seconds();
    auto t0 = std::chrono::steady_clock::now();
    uint64_t refused = 0;
    ravel_soft_port_stats_t first;
    ravel_soft_port_stats(engine(), 0, &first);
    const uint64_t skipped0 = first.skipped, refused0 = first.refused;
    latency_watch watch(kTotal);
    for (int i = 0; i < kTotal; i++) {
      std::this_thread::sleep_until(t0 + std::chrono::milliseconds(40 * i));
      watch.pushed(i);
      // A live source does not wait: a refused frame is a frame lost.
      for (int p = 0; p < n; p++)
        if (put(p, (*chs[p])[i % kFrames]) != 0) refused++;
    }
    std::this_thread::sleep_until(t0 + std::chrono::milliseconds(40 * kTotal));
    std::vector<double> latency_ms = watch.finish();
    // Pictures are matched to pushes by number: a frame skipped or refused
    // on channel 0 would shift the match, so such a run has no latency.
    ravel_soft_port_stats_t s0;
    ravel_soft_port_stats(engine(), 0, &s0);
    if (!latency_ms.empty() && height == 360 && s0.skipped == skipped0 && s0.refused == refused0) {
      state.counters["latency_p50_ms"] = latency_ms[latency_ms.size() / 2];
      state.counters["latency_p99_ms"] = latency_ms[latency_ms.size() * 99 / 100];
    }
    double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    double cpu = process_cpu_seconds() - cpu0;
    totals after = sum(n);
    uint64_t decoded = after.decoded - before.decoded;
    state.counters["channels"] = n;
    state.counters["height"] = height;
    state.counters["cpu_cores"] = cpu / wall;
    state.counters["cpu_ms_per_frame"] = 1000.0 * cpu / static_cast<double>(decoded ? decoded : 1);
    state.counters["decoded_fps"] = static_cast<double>(decoded) / wall;
    state.counters["compose_per_s"] =
        static_cast<double>(ravel_soft_compose_passes(engine()) - passes0) / wall;
    state.counters["refused"] = static_cast<double>(refused);
    state.counters["skipped"] = static_cast<double>(after.skipped - before.skipped);
    state.counters["decode_errors"] = static_cast<double>(after.errors - before.errors);
    // Frames still queued at the end (up to the queue's depth) do not count
    // against it.
    state.counters["real_time"] =
        refused == 0 && after.skipped == before.skipped &&
                decoded + uint64_t{RAVEL_SOFT_QUEUE_DEPTH} * n >= uint64_t(n) * kTotal
            ? 1
            : 0;
    state.SetIterationTime(wall);
  }
}
BENCHMARK(BM_LiveMosaic)
    ->ArgNames({"n", "rate", "h"})
    ->Args({16, 0, 360})  // also warms the ports up for the two that follow
    ->Args({16, 25, 360})
    ->Args({16, 0, 360})
    ->Args({16, 0, 720})
    ->Args({4, 0, 1080})
    ->Args({6, 0, 1080})
    ->Args({8, 0, 1080})
    ->Args({10, 0, 1080})
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kSecond);

void BM_DecodeFlatOut(benchmark::State &state) {
  constexpr int n = 16;
  std::vector<const std::vector<ravel_synth::frame> *> chs;
  for (int p = 0; p < n; p++) chs.push_back(&stream(360, p % kVariants));
  mosaic(n);
  ravel_soft_set_compose_rate(engine(), 0);
  constexpr int kPerPort = 300;
  for (auto _ : state) {
    totals before = sum(n);
    double cpu0 = process_cpu_seconds();
    auto t0 = std::chrono::steady_clock::now();
    // Round robin over the ports: a port whose queue is full is passed over
    // for now, so that no port waits for another.
    std::vector<int> next(n, 0);
    for (int left = n * kPerPort; left > 0;) {
      bool took = false;
      for (int p = 0; p < n; p++) {
        if (next[p] == kPerPort) continue;
        if (put(p, (*chs[p])[next[p] % kFrames]) == 0) {
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
    double cpu = process_cpu_seconds() - cpu0;
    double fps = static_cast<double>(n * kPerPort) / wall;
    state.counters["decoded_fps"] = fps;
    state.counters["cpu_cores"] = cpu / wall;
    state.counters["cpu_ms_per_frame"] = 1000.0 * cpu / (n * kPerPort);
    state.counters["channels_real_time"] = fps / 25.0;
    state.counters["channels_on_2_cores"] = 2.0 / (cpu / (n * kPerPort) * 25.0);
    state.SetIterationTime(wall);
  }
}
BENCHMARK(BM_DecodeFlatOut)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

}  // namespace
}  // namespace engine_bench

BENCHMARK_MAIN();
