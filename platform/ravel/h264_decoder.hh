// One libavcodec H.264 decoder: access units in, I420 pictures out.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "picture.hh"

struct AVCodecContext;
struct AVPacket;
struct SwsContext;

namespace ravel_soft {

class h264_decoder {
 public:
  h264_decoder();
  ~h264_decoder();
  h264_decoder(const h264_decoder &) = delete;
  h264_decoder &operator=(const h264_decoder &) = delete;

  bool ok() const { return ctx_ != nullptr; }

  // Decodes one access unit tagged `tag`.  Every finished picture goes to
  // `out` with the tag of the unit that it came from.  False when the unit
  // or a picture that came out of it was damaged: those pictures are not
  // handed out.
  bool decode(const uint8_t *data, int32_t size, int64_t tag,
              const std::function<void(std::shared_ptr<picture>, int64_t)> &out);
  // Hands out the first picture that the decoder holds back for reordering
  // (an end-of-sequence unit does so), and goes on with the stream.
  bool bring_out_one(const std::function<void(std::shared_ptr<picture>, int64_t)> &out);
  // Hands out what the decoder still holds (end of a one-shot decode).
  bool drain(const std::function<void(std::shared_ptr<picture>, int64_t)> &out);
  // Forgets the stream, before a fresh start at an intra frame.
  void reset();
  // Pictures above `pixels` are damage (an SPS that claims them would make
  // libavcodec allocate for them); kMaxPixels unless lowered.
  void limit(int64_t pixels);
  static constexpr int64_t kMaxPixels = 4096 * 2304;

 private:
  void open();
  bool receive(const std::function<void(std::shared_ptr<picture>, int64_t)> &out);
  std::shared_ptr<picture> to_i420(frame_ptr frame);

  AVCodecContext *ctx_ = nullptr;
  AVPacket *packet_ = nullptr;
  SwsContext *sws_ = nullptr;
  int64_t max_pixels_ = kMaxPixels;
};

}  // namespace ravel_soft
