#include "bench_streams.hh"

#include <atomic>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <map>
#include <mutex>
#include <utility>

#include "ravel_soft.h"
#include "x264_files.hh"

namespace engine_bench {
namespace {

std::atomic<uint64_t> releases{0};
void on_release(void *) { releases++; }

double seconds_of(clockid_t clock) {
  timespec t;
  clock_gettime(clock, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

}  // namespace

int width_of(int height) { return height * 16 / 9; }

const std::vector<ravel_synth::frame> &stream(int height, int variant) {
  static std::mutex lock;
  static std::map<std::pair<int, int>, std::vector<ravel_synth::frame>> made;
  std::lock_guard<std::mutex> g(lock);
  auto &frames = made[{height, variant}];
  if (frames.empty()) {
    ravel_synth::stream_options opt;
    opt.width = width_of(height);
    opt.height = height;
    opt.frames = kFrames;
    opt.gop = 25;
    opt.pattern = true;
    // About what cameras send: 1, 2 and 4 Mbit/s.
    opt.bitrate_kbps = height <= 360 ? 1000 : height <= 720 ? 2000 : 4000;
    opt.b_frames = height <= 360 ? 0 : 2;
    auto c = static_cast<uint8_t>(40 + variant * 10);
    frames = ravel_synth::encode({c, static_cast<uint8_t>(255 - c), 128}, opt);
  }
  return frames;
}

const std::vector<ravel_synth::frame> *frames_of(int kind, int height, int variant) {
  if (kind == kX264) return x264_stream(height, variant % 2);
  return &stream(height, variant);
}

std::string streams_missing(int kind, int height) {
  std::string why;
  if (kind == kX264) why = x264_missing();
  if (why.empty() &&
      (frames_of(kind, height, 0) == nullptr || frames_of(kind, height, 1) == nullptr))
    why = "the files could not be made";
  if (!why.empty())
    std::fprintf(stderr, "skipped: no %s streams: %s\n", kind_name(kind), why.c_str());
  return why;
}

const char *kind_name(int kind) { return kind == kX264 ? "libx264 file" : "synthetic"; }

ravel_t *engine() {
  static ravel_t *e = [] {
    int32_t formats[1] = {0};
    ravel_t *made = ravel_new(formats, 0, 16, 0, 0, on_release, 0, 0, 0, 24, nullptr, 6, nullptr);
    ravel_start(made);
    return made;
  }();
  return e;
}

uint64_t released() { return releases.load(); }

void mosaic(int n) {
  int side = static_cast<int>(std::ceil(std::sqrt(n)));
  std::vector<ravel_region_t> regions;
  for (int i = 0; i < n; i++) {
    int w = 1920 / side, h = 1080 / side;
    regions.push_back({i, (i % side) * w, (i / side) * h, w, h, 1, -1, -1, -1, -1, 0});
  }
  ravel_change_geometry(engine(), regions.data(), n, 0, 0);
}

int32_t put(int port, const ravel_synth::frame &f) {
  auto *data = const_cast<uint8_t *>(f.data.data());
  return ravel_put_decode_stream(engine(), port, data, data, static_cast<int32_t>(f.data.size()), 0,
                                 nullptr, nullptr, 0, 0);
}

double process_cpu_seconds() { return seconds_of(CLOCK_PROCESS_CPUTIME_ID); }
double thread_cpu_seconds() { return seconds_of(CLOCK_THREAD_CPUTIME_ID); }

}  // namespace engine_bench
