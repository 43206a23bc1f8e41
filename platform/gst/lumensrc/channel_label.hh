// Draws a camera's number onto its synthetic picture.
#pragma once

#include <gst/video/video.h>

namespace lumen {

// Writes `number` in large digits on a dark box near the top-left corner of
// the luma plane of `frame` (any planar YUV format).
void draw_channel_label(GstVideoFrame *frame, int number);

}  // namespace lumen
