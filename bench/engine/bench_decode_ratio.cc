// The engine's cost over the decoder's: the CPU the whole engine spends per
// decoded frame on one port, against a bare libavcodec decode loop on the
// same stream, both on one thread, in the same run, on one CPU.  The
// engine's CPU is that of its threads and of its calls on the feeding
// thread; the feeding thread's own waits for room in the port's queue are
// the benchmark's.
//
//   BM_EngineOverBareDecode/H/K H = 360, 720, 1080 lines; K 0 the synthetic
//                               streams, K 1 the files of libx264 (skipped
//                               with a message without ffmpeg's libx264);
//                               reports both costs in ms per frame and their
//                               ratio.  The two take turns, seven times
//                               each, of at least 0.4 s of decoding, and the
//                               medians count: on a shared machine a single
//                               pass of either is at the mercy of the
//                               neighbours.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <sched.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "bench_streams.hh"
#include "ravel_soft.h"

namespace engine_bench {
namespace {

constexpr int kTurns = 7;
constexpr int kPort = 17;  // in no region: decoding only
// Each turn decodes the stream this long at least (bare CPU): a short turn
// measures the neighbours and the clock more than the decoder.
constexpr double kTurnSeconds = 0.4;

// The bare loop's decoder stays open from turn to turn, as the engine's port
// decoder does; a fresh one would pay for its picture pool's first pages in
// every turn, which the engine pays once.
class bare_decoder {
 public:
  bare_decoder() {
    const AVCodec *codec = avcodec_find_decoder(AV_CODEC_ID_H264);
    ctx_ = avcodec_alloc_context3(codec);
    ctx_->thread_count = 1;
    // Opened as the engine opens its decoders: damage reported rather than
    // concealed costs the decoder a few per cent, which is the decoder's
    // work, not the engine's.
    ctx_->err_recognition = AV_EF_CRCCHECK | AV_EF_BITSTREAM | AV_EF_BUFFER | AV_EF_EXPLODE;
    avcodec_open2(ctx_, codec, nullptr);
    pkt_ = av_packet_alloc();
    pic_ = av_frame_alloc();
  }
  ~bare_decoder() {
    av_frame_free(&pic_);
    av_packet_free(&pkt_);
    avcodec_free_context(&ctx_);
  }
  bare_decoder(const bare_decoder &) = delete;
  bare_decoder &operator=(const bare_decoder &) = delete;

  // CPU ms per frame in, as for the engine: the last pictures stay in the decoder.
  double ms_per_frame(const std::vector<ravel_synth::frame> &frames, int rounds) {
    const double cpu0 = thread_cpu_seconds();
    int out = 0;
    for (int r = 0; r < rounds; r++) {
      for (const auto &f : frames) {
        pkt_->data = const_cast<uint8_t *>(f.data.data());
        pkt_->size = static_cast<int>(f.data.size());
        avcodec_send_packet(ctx_, pkt_);
        while (avcodec_receive_frame(ctx_, pic_) == 0) {
          out++;
          av_frame_unref(pic_);
        }
      }
    }
    const double cpu = thread_cpu_seconds() - cpu0;
    benchmark::DoNotOptimize(out);
    return 1000.0 * cpu / static_cast<double>(static_cast<uint64_t>(rounds) * frames.size());
  }

 private:
  AVCodecContext *ctx_ = nullptr;
  AVPacket *pkt_ = nullptr;
  AVFrame *pic_ = nullptr;
};

double engine_ms_per_frame(const std::vector<ravel_synth::frame> &frames, int rounds) {
  ravel_soft_port_stats_t s{};
  ravel_soft_port_stats(engine(), kPort, &s);
  const uint64_t target = s.decoded + static_cast<uint64_t>(rounds) * frames.size();
  const double others0 = process_cpu_seconds() - thread_cpu_seconds();
  double in_calls = 0;  // this thread's CPU inside the engine's calls
  auto push = [&](const ravel_synth::frame &f) {
    const double t0 = thread_cpu_seconds();
    const int32_t r = put(kPort, f);
    in_calls += thread_cpu_seconds() - t0;
    return r;
  };
  for (int r = 0; r < rounds; r++) {
    for (const auto &f : frames) {
      while (push(f) != 0) std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
  }
  while (s.decoded < target) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ravel_soft_port_stats(engine(), kPort, &s);
  }
  const double cpu = process_cpu_seconds() - thread_cpu_seconds() - others0 + in_calls;
  return 1000.0 * cpu / static_cast<double>(static_cast<uint64_t>(rounds) * frames.size());
}

// Every thread of the process on one CPU for the scope's life, then back.
// Both sides then decode on the same core, and the engine's hand-offs
// between the feeder and the port's thread cost what they cost there; spread
// over two idle virtual CPUs, each wake-up would also pay for the other CPU
// coming out of its idle state, which swings the ratio from run to run.
class one_cpu {
 public:
  one_cpu() {
    CPU_ZERO(&all_);
    sched_getaffinity(0, sizeof all_, &all_);
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(sched_getcpu(), &one);
    set_all(one);
  }
  ~one_cpu() { set_all(all_); }
  one_cpu(const one_cpu &) = delete;
  one_cpu &operator=(const one_cpu &) = delete;

 private:
  static void set_all(const cpu_set_t &set) {
    DIR *tasks = opendir("/proc/self/task");
    if (tasks == nullptr) return;
    while (dirent *e = readdir(tasks)) {
      if (e->d_name[0] == '.') continue;
      sched_setaffinity(static_cast<pid_t>(std::atoi(e->d_name)), sizeof set, &set);
    }
    closedir(tasks);
  }
  cpu_set_t all_;
};

void BM_EngineOverBareDecode(benchmark::State &state) {
  const int height = static_cast<int>(state.range(0));
  const int kind = static_cast<int>(state.range(1));
  std::string why = streams_missing(kind, height);
  if (!why.empty()) {
    state.SkipWithError(("no " + std::string(kind_name(kind)) + " streams: " + why).c_str());
    return;
  }
  const auto &frames = *frames_of(kind, height, 0);
  engine();
  one_cpu pinned;
  bare_decoder bare_dec;
  // One warm-up pass each, which also sizes the turns.
  const double first = bare_dec.ms_per_frame(frames, 1);
  const int rounds =
      std::max(1, static_cast<int>(std::ceil(kTurnSeconds * 1000.0 /
                                             (first * static_cast<double>(frames.size())))));
  engine_ms_per_frame(frames, 1);
  for (auto _ : state) {
    std::vector<double> bares, engines;
    for (int t = 0; t < kTurns; t++) {
      bares.push_back(bare_dec.ms_per_frame(frames, rounds));
      engines.push_back(engine_ms_per_frame(frames, rounds));
    }
    std::sort(bares.begin(), bares.end());
    std::sort(engines.begin(), engines.end());
    double bare = bares[kTurns / 2];
    double eng = engines[kTurns / 2];
    state.counters["bare_ms_per_frame"] = bare;
    state.counters["engine_ms_per_frame"] = eng;
    state.counters["ratio"] = eng / bare;
    state.counters["width"] = width_of(height);
    state.counters["height"] = height;
    state.counters["frames_per_turn"] =
        static_cast<double>(rounds) * static_cast<double>(frames.size());
  }
  state.SetLabel(kind_name(kind));
}
BENCHMARK(BM_EngineOverBareDecode)
    ->ArgNames({"h", "x264"})
    ->Args({360, kSynthetic})
    ->Args({720, kSynthetic})
    ->Args({1080, kSynthetic})
    ->Args({360, kX264})
    ->Args({720, kX264})
    ->Args({1080, kX264})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace engine_bench
