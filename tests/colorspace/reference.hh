// A plain model of the converters, written pixel by pixel from their
// description, for the tests to hold the library against. Each model has
// the argument list of the converter it is named after.
#pragma once

#include <cstdint>

namespace ref {

#define REF_TO_YV12(name) \
  void name(uint8_t *y, uint8_t *u, uint8_t *v, const uint8_t *src, int w, int h, int stride)
#define REF_FROM_YV12(name)                                                                        \
  void name(uint8_t *dst, int dst_stride, const uint8_t *ys, const uint8_t *us, const uint8_t *vs, \
            int y_stride, int uv_stride, int w, int h)
#define REF_PACKED(name) \
  void name(uint8_t *dst, int dst_stride, const uint8_t *src, int src_stride, int w, int h)
REF_TO_YV12(rgb555_to_yv12);
REF_TO_YV12(rgb565_to_yv12);
REF_TO_YV12(rgb24_to_yv12);
REF_TO_YV12(rgb32_to_yv12);
REF_TO_YV12(yuv_to_yv12);
REF_TO_YV12(yuyv_to_yv12);
REF_TO_YV12(uyvy_to_yv12);
REF_FROM_YV12(yv12_to_rgb555);
REF_FROM_YV12(yv12_to_rgb565);
REF_FROM_YV12(yv12_to_rgb24);
REF_FROM_YV12(yv12_to_rgb32);
REF_FROM_YV12(yv12_to_yuv);
REF_FROM_YV12(yv12_to_yuyv);
REF_FROM_YV12(yv12_to_uyvy);
REF_FROM_YV12(yv16_to_rgb24);
REF_FROM_YV12(yv16_to_rgb32);
REF_PACKED(yvyu_to_rgb24);
REF_PACKED(yvyu_to_rgb16);
void yv16i_to_rgb24(uint8_t *dst, int dst_stride, const uint8_t *ys, const uint8_t *uvs,
                    int y_stride, int w, int h);

}  // namespace ref
