// Encodes synthetic pictures with libavcodec's libx264 wrapper.
#include "synth_stream.hh"

#include <algorithm>
#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libavutil/log.h>
#include <libavutil/opt.h>
}

namespace ravel_synth {
namespace {

struct codec_ctx_free {
  void operator()(AVCodecContext *c) const { avcodec_free_context(&c); }
};
struct frame_free {
  void operator()(AVFrame *f) const { av_frame_free(&f); }
};
struct packet_free {
  void operator()(AVPacket *p) const { av_packet_free(&p); }
};

struct yuv {
  uint8_t y, u, v;
};

yuv to_yuv(rgb c) {
  auto clamp = [](int v) { return static_cast<uint8_t>(std::clamp(v, 0, 255)); };
  int y = ((66 * c.r + 129 * c.g + 25 * c.b + 128) >> 8) + 16;
  int u = ((-38 * c.r - 74 * c.g + 112 * c.b + 128) >> 8) + 128;
  int v = ((112 * c.r - 94 * c.g - 18 * c.b + 128) >> 8) + 128;
  return {clamp(y), clamp(u), clamp(v)};
}

void paint(AVFrame *f, yuv c, yuv right, int index, bool pattern) {
  const int half = f->width / 2;
  for (int y = 0; y < f->height; y++) {
    uint8_t *row = f->data[0] + y * f->linesize[0];
    for (int x = 0; x < f->width; x++) {
      // A diagonal texture that moves by a few pixels a frame: real work for
      // motion search and the decoder, with the tint still dominant.
      int t = pattern ? (((x + y + 3 * index) & 31) - 16) + (((x * 7 + y * 13) ^ index) & 7) : 0;
      row[x] = static_cast<uint8_t>(std::clamp((x < half ? c.y : right.y) + t, 16, 235));
    }
  }
  for (int y = 0; y < f->height / 2; y++) {
    uint8_t *u = f->data[1] + y * f->linesize[1];
    uint8_t *v = f->data[2] + y * f->linesize[2];
    for (int x = 0; x < f->width / 2; x++) {
      u[x] = x < half / 2 ? c.u : right.u;
      v[x] = x < half / 2 ? c.v : right.v;
    }
  }
}

}  // namespace

rgb through_yuv(rgb colour) {
  yuv c = to_yuv(colour);
  auto clamp = [](int v) { return static_cast<uint8_t>(std::clamp(v, 0, 255)); };
  int y = c.y - 16, u = c.u - 128, v = c.v - 128;
  return {clamp((298 * y + 409 * v + 128) >> 8), clamp((298 * y - 100 * u - 208 * v + 128) >> 8),
          clamp((298 * y + 516 * u + 128) >> 8)};
}

std::vector<frame> encode(rgb colour, const stream_options &opt) {
  std::vector<frame> out;
  // The encoder's summaries are noise in test and benchmark output.
  if (av_log_get_level() > AV_LOG_ERROR) av_log_set_level(AV_LOG_ERROR);
  const AVCodec *codec = avcodec_find_encoder_by_name("libx264");
  if (codec == nullptr) return out;
  std::unique_ptr<AVCodecContext, codec_ctx_free> ctx(avcodec_alloc_context3(codec));
  ctx->width = opt.width;
  ctx->height = opt.height;
  ctx->pix_fmt = AV_PIX_FMT_YUV420P;
  ctx->time_base = {1, 25};
  ctx->framerate = {25, 1};
  ctx->gop_size = opt.gop;
  ctx->max_b_frames = opt.b_frames;
  ctx->thread_count = 1;
  if (opt.bitrate_kbps > 0) ctx->bit_rate = opt.bitrate_kbps * 1000LL;
  av_opt_set(ctx->priv_data, "preset", "ultrafast", 0);
  // SPS and PPS ahead of every intra frame, as a camera sends them.
  if (opt.b_frames == 0) {
    av_opt_set(ctx->priv_data, "tune", "zerolatency", 0);
    av_opt_set(ctx->priv_data, "profile", "baseline", 0);
    av_opt_set(ctx->priv_data, "x264-params", "repeat-headers=1:scenecut=0", 0);
  } else {
    // A fixed pattern of B frames, as a recorder's High-profile file has.
    av_opt_set(ctx->priv_data, "profile", "high", 0);
    av_opt_set(ctx->priv_data, "x264-params",
               "repeat-headers=1:scenecut=0:b-adapt=0:b-pyramid=none:ref=2", 0);
  }
  if (avcodec_open2(ctx.get(), codec, nullptr) < 0) return out;

  std::unique_ptr<AVFrame, frame_free> pic(av_frame_alloc());
  pic->format = AV_PIX_FMT_YUV420P;
  pic->width = opt.width;
  pic->height = opt.height;
  if (av_frame_get_buffer(pic.get(), 0) < 0) return out;
  std::unique_ptr<AVPacket, packet_free> pkt(av_packet_alloc());
  const yuv c = to_yuv(colour);
  const yuv right = opt.right != nullptr ? to_yuv(*opt.right) : c;

  auto drain = [&] {
    while (avcodec_receive_packet(ctx.get(), pkt.get()) == 0) {
      frame f;
      f.data.assign(pkt->data, pkt->data + pkt->size);
      f.intra = (pkt->flags & AV_PKT_FLAG_KEY) != 0;
      out.push_back(std::move(f));
      av_packet_unref(pkt.get());
    }
  };
  for (int i = 0; i < opt.frames; i++) {
    if (av_frame_make_writable(pic.get()) < 0) return {};
    const yuv ci = opt.colours != nullptr ? to_yuv(opt.colours[i]) : c;
    paint(pic.get(), ci, opt.colours != nullptr ? ci : right, i, opt.pattern);
    pic->pts = i;
    if (avcodec_send_frame(ctx.get(), pic.get()) < 0) return {};
    drain();
  }
  avcodec_send_frame(ctx.get(), nullptr);
  drain();
  return out;
}

}  // namespace ravel_synth
