// The live mosaic end to end, as the demo runs it: N synthetic cameras of
// 640 x 360 at 25 frames a second through the live pipe, the render worker
// and the software engine, decoded and composed into 1920 x 1080 (mode 9).
//
// Mosaic/N: the process's CPU time per second of wall time (`cpu_cores`, 1.0
// is one core busy; the cameras' own x264 encoders run in this process and
// are included), the pictures decoded a second in all and per channel, and
// `realtime` 1 when every channel decoded at least 95% of its 25 frames a
// second.
// Sources/N: the same cameras with every stream slot off, so nothing is
// pushed: the encoders' share of the CPU, to subtract.
// Latency/N: source element to composed display, one frame at a time: a
// channel is paused until it is quiet, then resumed; from the moment the
// element hands off its next frame to the moment that picture has reached
// display 0 (the port's `last_shown` moves), median and 99th percentile.
//
// One display per process, so the cases share one display, engine and pipe
// and only change which cameras are open.
#include <benchmark/benchmark.h>
#include <glib.h>
#include <gst/gst.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <vector>

#include <orlo/orlo_display.h>
#include <orlo/orlo_lumen_pipe.h>
#include "ravel_soft.h"

namespace {

using clock_type = std::chrono::steady_clock;

constexpr int kMaxCameras = 16;

double cpu_seconds() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
         static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

struct rig {
  orlo_display_t *h_display = nullptr;
  orlo_lumen_pipe_t *pipe = nullptr;
  ravel_t *engine = nullptr;
  int open = 0;
  // Latency probe: the channel watched, and when its next frame was handed
  // off (monotonic microseconds, 0 while none).
  std::atomic<int> probe_ch{-1};
  std::atomic<int64_t> probe_t0{0};
};

rig &the_rig() {
  static rig r;
  if (r.h_display != nullptr) return r;
  setenv("GST_PLUGIN_PATH", ORLO_PLUGIN_DIR, 0);
  const int32_t formats[1] = {0};  // 1920 x 1080
  r.h_display = orlo_display_new(formats, 0, kMaxCameras, 0, 1, -1, nullptr);
  r.engine = ravel_soft_engine();
  orlo_display_mode_start(r.h_display, 9);
  int channels[ORLO_MAX_VR], flags[ORLO_MAX_VR] = {};
  for (int i = 0; i < ORLO_MAX_VR; ++i) channels[i] = i < kMaxCameras ? i : -1;
  orlo_vr_t vr[ORLO_MAX_VR];
  orlo_display_get_user_vr(r.h_display, 9, 0, 0, 1920, 1080, channels, flags, vr);
  orlo_display_change(r.h_display, vr, 0, 9);
  r.pipe = orlo_lumen_pipe_new(0);
  g_object_set(orlo_lumen_pipe_get_src(r.pipe), "width", 640, "height", 360, "framerate", 25,
               "streams", 1, nullptr);
  orlo_lumen_pipe_set_src_handoff(
      r.pipe,
      [](int ch, void *, int, void *user) {
        auto *self = static_cast<rig *>(user);
        if (ch != self->probe_ch.load()) return;
        int64_t none = 0;
        self->probe_t0.compare_exchange_strong(none, g_get_monotonic_time());
      },
      &r);
  orlo_lumen_pipe_start(r.pipe);
  orlo_display_bind_src_pipe(r.h_display, orlo_lumen_pipe_get_kelappsink(r.pipe), 0);
  return r;
}

// Cameras 0..n-1 open; slots 16..16+n-1 on ports 0..n-1 when `decode`.
void configure(rig &r, int n, bool decode) {
  for (int j = r.open; j < n; ++j) orlo_lumen_pipe_open_ch(r.pipe, j);
  for (int j = n; j < r.open; ++j) orlo_lumen_pipe_close_ch(r.pipe, j);
  r.open = n;
  std::vector<orlo_decode_cfg_t> table(ORLO_MAX_SLOT);
  for (int j = 0; j < n; ++j) {
    table[static_cast<size_t>(16 + j)].port = j;
    table[static_cast<size_t>(16 + j)].enable = decode ? 1 : 0;
  }
  orlo_display_decode_change(r.h_display, table.data());
  std::this_thread::sleep_for(std::chrono::seconds(3));  // encoders up, first intra frames
}

std::vector<ravel_soft_port_stats_t> stats(rig &r) {
  std::vector<ravel_soft_port_stats_t> s(RAVEL_SOFT_PORTS);
  for (int p = 0; p < RAVEL_SOFT_PORTS; ++p)
    ravel_soft_port_stats(r.engine, p, &s[static_cast<size_t>(p)]);
  return s;
}

void run_window(benchmark::State &state, bool decode) {
  rig &r = the_rig();
  const int n = static_cast<int>(state.range(0));
  configure(r, n, decode);
  for (auto _ : state) {
    const auto before = stats(r);
    const uint64_t passes0 = ravel_soft_compose_passes(r.engine);
    const double cpu0 = cpu_seconds();
    const auto t0 = clock_type::now();
    std::this_thread::sleep_for(std::chrono::seconds(10));
    const double wall = std::chrono::duration<double>(clock_type::now() - t0).count();
    const double cpu = cpu_seconds() - cpu0;
    const auto after = stats(r);
    double decoded = 0, refused = 0, slowest = 1e9;
    for (int p = 0; p < n; ++p) {
      const double d = static_cast<double>(after[static_cast<size_t>(p)].decoded -
                                           before[static_cast<size_t>(p)].decoded);
      decoded += d;
      refused += static_cast<double>(after[static_cast<size_t>(p)].refused -
                                     before[static_cast<size_t>(p)].refused);
      slowest = std::min(slowest, d / wall);
    }
    state.SetIterationTime(wall);
    state.counters["cpu_cores"] = cpu / wall;
    state.counters["decoded_fps"] = decoded / wall;
    state.counters["slowest_ch_fps"] = decode ? slowest : 0;
    state.counters["refused_fps"] = refused / wall;
    state.counters["compose_fps"] =
        static_cast<double>(ravel_soft_compose_passes(r.engine) - passes0) / wall;
    state.counters["realtime"] = decode && slowest >= 0.95 * 25 ? 1 : 0;
  }
}

void BM_Mosaic(benchmark::State &state) { run_window(state, true); }
void BM_Sources(benchmark::State &state) { run_window(state, false); }

void BM_Latency(benchmark::State &state) {
  rig &r = the_rig();
  const int n = static_cast<int>(state.range(0));
  configure(r, n, true);
  std::vector<double> ms;
  for (auto _ : state) {
    const auto start = clock_type::now();
    for (int trial = 0; trial < 120; ++trial) {
      const int ch = trial % n;
      orlo_lumen_pipe_pause_ch(r.pipe, ch, 0);
      std::this_thread::sleep_for(std::chrono::milliseconds(150));  // queues drain
      ravel_soft_port_stats_t s{};
      ravel_soft_port_stats(r.engine, ch, &s);
      const uint64_t shown_before = s.last_shown;
      r.probe_t0.store(0);
      r.probe_ch.store(ch);
      orlo_lumen_pipe_resume_ch(r.pipe, ch, 0);
      const auto give_up = clock_type::now() + std::chrono::seconds(3);
      while (clock_type::now() < give_up) {
        ravel_soft_port_stats(r.engine, ch, &s);
        if (s.last_shown != shown_before && r.probe_t0.load() != 0) break;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
      const int64_t t1 = g_get_monotonic_time();
      r.probe_ch.store(-1);
      if (s.last_shown != shown_before && r.probe_t0.load() != 0)
        ms.push_back(static_cast<double>(t1 - r.probe_t0.load()) / 1000.0);
    }
    state.SetIterationTime(std::chrono::duration<double>(clock_type::now() - start).count());
  }
  std::sort(ms.begin(), ms.end());
  if (ms.empty()) {
    state.SkipWithError("no frame reached the display");
    return;
  }
  state.counters["samples"] = static_cast<double>(ms.size());
  state.counters["median_ms"] = ms[ms.size() / 2];
  state.counters["p99_ms"] = ms[std::min(ms.size() - 1, ms.size() * 99 / 100)];
  state.counters["max_ms"] = ms.back();
  state.counters["over_500ms"] =
      static_cast<double>(std::count_if(ms.begin(), ms.end(), [](double v) { return v > 500; }));
}

}  // namespace

BENCHMARK(BM_Mosaic)->Arg(4)->Arg(8)->Arg(12)->Arg(16)->Iterations(1)->UseManualTime()->Unit(
    benchmark::kSecond);
BENCHMARK(BM_Sources)->Arg(16)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
BENCHMARK(BM_Latency)->Arg(4)->Arg(16)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

// The pipeline threads and the engine last to the end of the process, so it
// ends without running destructors under them.
int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  fflush(stdout);
  _exit(0);
}
