// A decoded picture: 8-bit I420 held by reference in the decoder's frame pool,
// shared by the compositor and the still-image encoders without copying.
#pragma once

#include <cstdint>
#include <memory>

extern "C" {
#include <libavutil/frame.h>
}

namespace ravel_soft {

struct av_frame_free_fn {
  void operator()(AVFrame *f) const { av_frame_free(&f); }
};
using frame_ptr = std::unique_ptr<AVFrame, av_frame_free_fn>;

struct picture {
  frame_ptr frame;   // planes 0, 1, 2: Y, U, V; chroma at half width and height
  uint64_t seq = 0;  // rises with every picture of the port, never 0 for a real one
  int width() const { return frame->width; }
  int height() const { return frame->height; }
  const uint8_t *plane(int i) const { return frame->data[i]; }
  int stride(int i) const { return frame->linesize[i]; }
};
using picture_ptr = std::shared_ptr<const picture>;

}  // namespace ravel_soft
