// What one synthetic camera costs: process CPU time per second of live
// stream, with N cameras open (640 x 360 at 25 frames a second unless the
// arguments say otherwise), and from that how many cameras one core carries.
//
//   bench_lumensrc [--benchmark_filter=...]
// Counters: cpu_per_cam = CPU seconds per camera per second of stream (the
// share of one core); cams_per_core = 1 / cpu_per_cam; fps = frames delivered
// per second and camera.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "kel_buffers.h"
#include "lumen_src.h"

namespace {

double cpu_seconds() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
         static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

std::atomic<long> frames_seen{0};

GstPadProbeReturn count_frames(GstPad *, GstPadProbeInfo *info, gpointer) {
  if (GstKelListMeta *m = gst_kel_list_buffer_get_meta(GST_PAD_PROBE_INFO_BUFFER(info)))
    frames_seen += static_cast<long>(g_list_length(m->list));
  return GST_PAD_PROBE_OK;
}

// args: cameras, streams (1 main, 3 main and sub), width, height
void BM_SyntheticCameras(benchmark::State &state) {
  const int cameras = static_cast<int>(state.range(0));
  const int streams = static_cast<int>(state.range(1));
  const int width = static_cast<int>(state.range(2));
  const int height = static_cast<int>(state.range(3));
  const std::string launch = "lumensrc name=src width=" + std::to_string(width) +
                             " height=" + std::to_string(height) +
                             " ! fakesink name=out sync=false";
  GstElement *pipeline = gst_parse_launch(launch.c_str(), nullptr);
  GstElement *src = gst_bin_get_by_name(GST_BIN(pipeline), "src");
  GstElement *out = gst_bin_get_by_name(GST_BIN(pipeline), "out");
  GstPad *pad = gst_element_get_static_pad(out, "sink");
  gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, count_frames, nullptr, nullptr);
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  for (int cam = 0; cam < cameras; ++cam) gst_lumen_src_open_ch(src, cam, streams);
  std::this_thread::sleep_for(std::chrono::seconds(1));  // past the start-up

  double cpu = 0, wall = 0;
  long frames = 0;
  for (auto _ : state) {
    const long f0 = frames_seen;
    const double c0 = cpu_seconds();
    const auto w0 = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(4));
    const double span =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - w0).count();
    cpu += cpu_seconds() - c0;
    wall += span;
    frames += frames_seen - f0;
    state.SetIterationTime(span);
  }
  const double per_cam = cpu / wall / cameras;
  state.counters["cpu_per_cam"] = per_cam;
  state.counters["cams_per_core"] = per_cam > 0 ? 1.0 / per_cam : 0;
  state.counters["fps"] = static_cast<double>(frames) / wall / cameras;

  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(pad);
  gst_object_unref(out);
  gst_object_unref(src);
  gst_object_unref(pipeline);
}

BENCHMARK(BM_SyntheticCameras)
    ->ArgNames({"cams", "streams", "w", "h"})
    ->Args({1, LUMEN_SRC_OPEN_MAIN, 640, 360})
    ->Args({4, LUMEN_SRC_OPEN_MAIN, 640, 360})
    ->Args({4, LUMEN_SRC_OPEN_MAIN | LUMEN_SRC_OPEN_SUB, 640, 360})
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char **argv) {
  // The build's own elements, unless the caller points elsewhere.
  g_setenv("GST_PLUGIN_PATH", ORLO_PLUGIN_DIR, FALSE);
  gst_init(&argc, &argv);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
