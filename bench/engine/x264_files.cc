#include "x264_files.hh"

#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "bench_streams.hh"

namespace engine_bench {
namespace {

bool exists(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && st.st_size > 0;
}

std::string run_output(const std::string &command) {
  std::string out;
  FILE *p = popen(command.c_str(), "r");
  if (p == nullptr) return out;
  char chunk[4096];
  size_t n;
  while ((n = fread(chunk, 1, sizeof chunk, p)) > 0) out.append(chunk, n);
  pclose(p);
  return out;
}

// About what cameras send at these sizes: 1, 2 and 4 Mbit/s.
int kbps_of(int height) { return height <= 360 ? 1000 : height <= 720 ? 2000 : 4000; }

bool make(const std::string &path, int height, int variant) {
  const int width = width_of(height);
  const std::string tmp = path + ".part";
  char cmd[1024];
  // Noise over testsrc2, a different grain per variant; a fixed GOP with no
  // scene cuts, so that the loop's first frame is an intra frame.
  std::snprintf(cmd, sizeof cmd,
                "ffmpeg -nostdin -hide_banner -loglevel error -y -f lavfi -i "
                "'testsrc2=size=%dx%d:rate=25,noise=alls=10:allf=t:all_seed=%d' -frames:v %d "
                "-c:v libx264 -preset veryfast -profile:v high -pix_fmt yuv420p -bf 3 -g 38 "
                "-keyint_min 38 -sc_threshold 0 -b:v %dk -maxrate %dk -bufsize %dk -f h264 '%s'",
                width, height, 1 + variant, kX264Frames, kbps_of(height), kbps_of(height) * 3 / 2,
                kbps_of(height) * 2, tmp.c_str());
  std::fprintf(stderr, "making %s with libx264\n", path.c_str());
  if (std::system(cmd) != 0 || !exists(tmp)) {
    std::remove(tmp.c_str());
    return false;
  }
  return std::rename(tmp.c_str(), path.c_str()) == 0;
}

// Splits an Annex B file into access units with libavcodec's parser.
std::vector<ravel_synth::frame> split(const std::string &bytes) {
  std::vector<ravel_synth::frame> frames;
  const AVCodec *codec = avcodec_find_decoder(AV_CODEC_ID_H264);
  AVCodecParserContext *parser = av_parser_init(AV_CODEC_ID_H264);
  AVCodecContext *ctx = avcodec_alloc_context3(codec);
  if (parser == nullptr || ctx == nullptr) return frames;
  const auto *at = reinterpret_cast<const uint8_t *>(bytes.data());
  int left = static_cast<int>(bytes.size());
  for (;;) {
    uint8_t *out = nullptr;
    int out_size = 0;
    int used =
        av_parser_parse2(parser, ctx, &out, &out_size, at, left, AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
    if (out_size > 0) frames.push_back({{out, out + out_size}, parser->key_frame == 1});
    if (left == 0) break;  // the call with no input handed out the last unit
    at += used;
    left -= used;
  }
  av_parser_close(parser);
  avcodec_free_context(&ctx);
  return frames;
}

}  // namespace

std::string x264_missing() {
  static const std::string why = [] {
    std::string encoders = run_output("ffmpeg -hide_banner -encoders 2>/dev/null");
    if (encoders.empty())
      return std::string("ffmpeg not found (scripts/install-deps.sh installs it)");
    if (encoders.find("libx264") == std::string::npos)
      return std::string("ffmpeg has no libx264 encoder");
    return std::string();
  }();
  return why;
}

const std::vector<ravel_synth::frame> *x264_stream(int height, int variant) {
  static std::mutex lock;
  static std::map<std::pair<int, int>, std::vector<ravel_synth::frame>> made;
  if (!x264_missing().empty()) return nullptr;
  std::lock_guard<std::mutex> g(lock);
  auto &frames = made[{height, variant}];
  if (frames.empty()) {
    mkdir(ENGINE_BENCH_CACHE, 0755);
    char name[64];
    std::snprintf(name, sizeof name, "/testsrc2-%dx%d-%d.h264", width_of(height), height, variant);
    const std::string path = std::string(ENGINE_BENCH_CACHE) + name;
    if (!exists(path) && !make(path, height, variant)) return nullptr;
    std::ifstream in(path, std::ios::binary);
    frames = split(std::string(std::istreambuf_iterator<char>(in), {}));
    if (frames.empty() || !frames.front().intra) {
      std::fprintf(stderr, "%s holds no stream that starts at an intra frame\n", path.c_str());
      frames.clear();
      return nullptr;
    }
  }
  return &frames;
}

}  // namespace engine_bench
