// The software engine under a live load: N channels at 25 frames a second,
// decoded and composed into a mosaic on 1920 x 1080.
//
//   BM_LiveMosaic/N/R/H/K  N channels of H lines (640 x 360, 1280 x 720)
//                        paced in real time, K 0 synthetic streams, K 1 the
//                        files of libx264 (High, B frames, a busy noisy
//                        picture; skipped with a message without ffmpeg's
//                        libx264); reports the CPU the
//                        whole process used (cores busy), frames decoded per
//                        second, whether the engine kept up (no refusals, no
//                        frame skipped, every frame decoded), and the latency
//                        of channel 0's frames from the push to the compose
//                        pass that first shows them.  R 0 composes on
//                        arrival, R 25 on the former fixed tick of 25
//                        whole-display passes a second.
//   BM_Live1080Largest/K 1920 x 1080 channels of kind K: counts double until
//                        one misses real time, then halve the step between
//                        the last that kept up and that one; reports the
//                        largest count that kept up (`largest_real_time`).
//                        Beyond the engine's 18 ports a port carries more
//                        than one channel's frames (a faster stream): the
//                        same decoding work.
//   BM_DecodeFlatOut     16 ports of 640 x 360 fed as fast as the engine takes
//                        frames; frames per second, and from it the number of
//                        25 fps channels that fit on the cores in use.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "bench_streams.hh"
#include "ravel_soft.h"

namespace engine_bench {
namespace {

constexpr int kSeconds = 6;
constexpr int kEnginePorts = 18;
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

struct live_result {
  bool real_time = false;
  double cores = 0, ms_per_frame = 0, decoded_fps = 0, compose_per_s = 0, wall = 0;
  uint64_t refused = 0, skipped = 0, errors = 0;
  std::vector<double> latency_ms;  // empty when not measured
};

// Waits (with a deadline) until the first n ports have decoded what they
// hold, so that a run does not start with the backlog of the one before.
void settle(int n) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  for (;;) {
    uint64_t queued = 0;
    for (int p = 0; p < n; p++) {
      ravel_soft_port_stats_t s;
      ravel_soft_port_stats(engine(), p, &s);
      queued += s.queued;
    }
    if (queued == 0 || std::chrono::steady_clock::now() > deadline) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

// n channels of `height` lines at 25 fps for `seconds`; each starts at an
// intra frame and runs in step with the others.  Channel c goes to port
// c % 18: a port with k channels is fed k frames of its stream a tick.
live_result run_live(int n, int height, int kind, int rate, int seconds = kSeconds) {
  const int ports = std::min(n, kEnginePorts);
  std::vector<const std::vector<ravel_synth::frame> *> chs;
  for (int p = 0; p < ports; p++) chs.push_back(frames_of(kind, height, p % kVariants));
  mosaic(ports);
  ravel_soft_set_compose_rate(engine(), rate);
  settle(ports);
  const int kTotal = seconds * 25;
  live_result r;
  totals before = sum(ports);
  uint64_t passes0 = ravel_soft_compose_passes(engine());
  double cpu0 = process_cpu_seconds();
  auto t0 = std::chrono::steady_clock::now();
  ravel_soft_port_stats_t first;
  ravel_soft_port_stats(engine(), 0, &first);
  latency_watch watch(kTotal);
  for (int i = 0; i < kTotal; i++) {
    std::this_thread::sleep_until(t0 + std::chrono::milliseconds(40 * i));
    watch.pushed(i);
    // A live source does not wait: a refused frame is a frame lost.
    for (int c = 0; c < n; c++) {
      const int p = c % ports;
      const size_t k = static_cast<size_t>(i) * ((n - 1 - p) / ports + 1) + c / ports;
      if (put(p, (*chs[p])[k % chs[p]->size()]) != 0) r.refused++;
    }
  }
  std::this_thread::sleep_until(t0 + std::chrono::milliseconds(40 * kTotal));
  std::vector<double> latency_ms = watch.finish();
  // Pictures are matched to pushes by number, which holds for streams whose
  // pictures leave in push order (the synthetic 360-line ones) and only
  // while channel 0 loses no frame.
  ravel_soft_port_stats_t s0;
  ravel_soft_port_stats(engine(), 0, &s0);
  if (height == 360 && kind == kSynthetic && s0.skipped == first.skipped &&
      s0.refused == first.refused)
    r.latency_ms = std::move(latency_ms);
  r.wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  double cpu = process_cpu_seconds() - cpu0;
  totals after = sum(ports);
  uint64_t decoded = after.decoded - before.decoded;
  r.cores = cpu / r.wall;
  r.ms_per_frame = 1000.0 * cpu / static_cast<double>(decoded ? decoded : 1);
  r.decoded_fps = static_cast<double>(decoded) / r.wall;
  r.compose_per_s = static_cast<double>(ravel_soft_compose_passes(engine()) - passes0) / r.wall;
  r.skipped = after.skipped - before.skipped;
  r.errors = after.errors - before.errors;
  // Frames still queued at the end (up to the queue's depth) do not count
  // against it.
  r.real_time = r.refused == 0 && r.skipped == 0 &&
                decoded + uint64_t{RAVEL_SOFT_QUEUE_DEPTH} * ports >= uint64_t(n) * kTotal;
  return r;
}

bool have_streams(benchmark::State &state, int kind, int height) {
  std::string why = streams_missing(kind, height);
  if (why.empty()) return true;
  state.SkipWithError(("no " + std::string(kind_name(kind)) + " streams: " + why).c_str());
  return false;
}

void BM_LiveMosaic(benchmark::State &state) {
  const int n = static_cast<int>(state.range(0));
  const int rate = static_cast<int>(state.range(1));
  const int height = static_cast<int>(state.range(2));
  const int kind = static_cast<int>(state.range(3));
  if (!have_streams(state, kind, height)) return;
  for (auto _ : state) {
    live_result r = run_live(n, height, kind, rate);
    if (!r.latency_ms.empty()) {
      state.counters["latency_p50_ms"] = r.latency_ms[r.latency_ms.size() / 2];
      state.counters["latency_p99_ms"] = r.latency_ms[r.latency_ms.size() * 99 / 100];
    }
    state.counters["channels"] = n;
    state.counters["height"] = height;
    state.counters["cpu_cores"] = r.cores;
    state.counters["cpu_ms_per_frame"] = r.ms_per_frame;
    state.counters["decoded_fps"] = r.decoded_fps;
    state.counters["compose_per_s"] = r.compose_per_s;
    state.counters["refused"] = static_cast<double>(r.refused);
    state.counters["skipped"] = static_cast<double>(r.skipped);
    state.counters["decode_errors"] = static_cast<double>(r.errors);
    state.counters["real_time"] = r.real_time ? 1 : 0;
    state.SetIterationTime(r.wall);
  }
  state.SetLabel(kind_name(kind));
}
BENCHMARK(BM_LiveMosaic)
    ->ArgNames({"n", "rate", "h", "x264"})
    ->Args({16, 0, 360, kSynthetic})  // also warms the ports up for the two that follow
    ->Args({16, 25, 360, kSynthetic})
    ->Args({16, 0, 360, kSynthetic})
    ->Args({16, 0, 720, kSynthetic})
    ->Args({16, 0, 720, kX264})
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kSecond);

// 1920 x 1080 channels at doubling counts until the engine no longer keeps
// up, then halving steps between; `largest_real_time` is the largest count
// that did (0: not even one).  `cores_at_<n>` and `real_time_at_<n>` tell
// each count's run.
void BM_Live1080Largest(benchmark::State &state) {
  const int kind = static_cast<int>(state.range(0));
  if (!have_streams(state, kind, 1080)) return;
  // A port's queue takes at most its depth of frames in one tick.
  constexpr int kTop = kEnginePorts * RAVEL_SOFT_QUEUE_DEPTH;
  constexpr int kRunSeconds = 4;
  for (auto _ : state) {
    int largest = 0, missed = kTop + 1;
    double wall = 0;
    auto run = [&](int n) {
      live_result r = run_live(n, 1080, kind, 0, kRunSeconds);
      wall += r.wall;
      state.counters["cores_at_" + std::to_string(n)] = r.cores;
      state.counters["real_time_at_" + std::to_string(n)] = r.real_time ? 1 : 0;
      (r.real_time ? largest : missed) = n;
      return r.real_time;
    };
    for (int n = 1; n <= kTop && run(n);) n *= 2;
    while (missed - largest > 1) run((largest + missed) / 2);
    state.counters["largest_real_time"] = largest;
    state.SetIterationTime(wall);
  }
  state.SetLabel(kind_name(kind));
}
BENCHMARK(BM_Live1080Largest)
    ->ArgName("x264")
    ->Arg(kSynthetic)
    ->Arg(kX264)
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
