#include "h264_decoder.hh"

#include <glib.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libswscale/swscale.h>
}

#include "log_domain.hh"

namespace ravel_soft {

h264_decoder::h264_decoder() {
  open();
  if (ctx_ != nullptr) packet_ = av_packet_alloc();
}

void h264_decoder::open() {
  const AVCodec *codec = avcodec_find_decoder(AV_CODEC_ID_H264);
  if (codec == nullptr) {
    g_log(RAVEL_LOG_DOMAIN, G_LOG_LEVEL_WARNING, "no H.264 decoder in libavcodec");
    return;
  }
  AVCodecContext *ctx = avcodec_alloc_context3(codec);
  if (ctx == nullptr) return;
  // One thread: the engine already runs one decoder thread per port.
  ctx->thread_count = 1;
  ctx->max_pixels = max_pixels_;
  // No low-delay flag: with it, libavcodec hands pictures out in decoding
  // order and drops those of B frames that come out of order.  Streams
  // without B frames state a reorder depth of 0 and still leave at once.
  // Damage is reported rather than concealed, so that a broken frame is
  // counted and the port holds its last good picture.
  ctx->err_recognition = AV_EF_CRCCHECK | AV_EF_BITSTREAM | AV_EF_BUFFER | AV_EF_EXPLODE;
  if (avcodec_open2(ctx, codec, nullptr) < 0) {
    avcodec_free_context(&ctx);
    g_log(RAVEL_LOG_DOMAIN, G_LOG_LEVEL_WARNING, "cannot open the H.264 decoder");
    return;
  }
  ctx_ = ctx;
}

h264_decoder::~h264_decoder() {
  av_packet_free(&packet_);
  avcodec_free_context(&ctx_);
  sws_freeContext(sws_);
}

void h264_decoder::reset() {
  if (ctx_ == nullptr) return open();
  // The flush drops every picture of the old stream.  Its reorder depth
  // would stay and hold back the new stream's pictures: it goes by hand, and
  // the new stream's own parameter sets raise it again as far as they say.
  // The parameter sets stay known to the decoder, as they do to the port's
  // reader, and no new context (a megabyte zeroed) is made for each reset.
  avcodec_flush_buffers(ctx_);
  ctx_->has_b_frames = 0;
}

void h264_decoder::limit(int64_t pixels) {
  max_pixels_ = pixels;
  if (ctx_ != nullptr) ctx_->max_pixels = pixels;
}

bool h264_decoder::decode(const uint8_t *data, int32_t size, int64_t tag,
                          const std::function<void(std::shared_ptr<picture>, int64_t)> &out) {
  if (ctx_ == nullptr || packet_ == nullptr || size <= 0) return false;
  // The packet borrows the caller's bytes; libavcodec copies what it keeps,
  // so the frame buffer may go back as soon as this returns.
  packet_->data = const_cast<uint8_t *>(data);
  packet_->size = size;
  packet_->pts = tag;
  packet_->dts = tag;
  int ret = avcodec_send_packet(ctx_, packet_);
  av_packet_unref(packet_);
  bool good = ret >= 0;
  if (!receive(out)) good = false;
  return good;
}

bool h264_decoder::bring_out_one(
    const std::function<void(std::shared_ptr<picture>, int64_t)> &out) {
  if (ctx_ == nullptr || packet_ == nullptr) return false;
  // libavcodec hands out its first held picture for a unit that holds only
  // this, and keeps its references.
  static const uint8_t kEndOfSequence[] = {0, 0, 0, 1, 10};
  packet_->data = const_cast<uint8_t *>(kEndOfSequence);
  packet_->size = sizeof kEndOfSequence;
  int ret = avcodec_send_packet(ctx_, packet_);
  av_packet_unref(packet_);
  return receive(out) && ret >= 0;
}

bool h264_decoder::drain(const std::function<void(std::shared_ptr<picture>, int64_t)> &out) {
  if (ctx_ == nullptr) return false;
  avcodec_send_packet(ctx_, nullptr);
  bool good = receive(out);
  avcodec_flush_buffers(ctx_);
  return good;
}

bool h264_decoder::receive(const std::function<void(std::shared_ptr<picture>, int64_t)> &out) {
  bool good = true;
  for (;;) {
    frame_ptr frame(av_frame_alloc());
    if (!frame) return false;
    int ret = avcodec_receive_frame(ctx_, frame.get());
    if (ret == AVERROR(EAGAIN) || ret == AVERROR_EOF) return good;
    if (ret < 0) return false;
    if (frame->decode_error_flags != 0 || (frame->flags & AV_FRAME_FLAG_CORRUPT) != 0) {
      good = false;
      continue;
    }
    int64_t tag = frame->pts;
    std::shared_ptr<picture> pic = to_i420(std::move(frame));
    if (!pic) {
      good = false;
      continue;
    }
    out(std::move(pic), tag);
  }
}

std::shared_ptr<picture> h264_decoder::to_i420(frame_ptr frame) {
  auto pic = std::make_shared<picture>();
  if (frame->format == AV_PIX_FMT_YUV420P || frame->format == AV_PIX_FMT_YUVJ420P) {
    pic->frame = std::move(frame);
    return pic;
  }
  // Other layouts (4:2:2, 4:4:4, high bit depth) become 8-bit I420 once here,
  // so that everything downstream reads one layout.
  frame_ptr conv(av_frame_alloc());
  conv->format = AV_PIX_FMT_YUV420P;
  conv->width = frame->width;
  conv->height = frame->height;
  if (av_frame_get_buffer(conv.get(), 0) < 0) return nullptr;
  sws_ = sws_getCachedContext(sws_, frame->width, frame->height,
                              static_cast<AVPixelFormat>(frame->format), conv->width, conv->height,
                              AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr, nullptr, nullptr);
  if (sws_ == nullptr) return nullptr;
  sws_scale(sws_, frame->data, frame->linesize, 0, frame->height, conv->data, conv->linesize);
  conv->pts = frame->pts;
  pic->frame = std::move(conv);
  return pic;
}

}  // namespace ravel_soft
