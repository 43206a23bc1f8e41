// A plain model of the converters, written pixel by pixel from their
// description, for the tests to hold the library against.
#pragma once

#include <cstdint>

namespace ref {

void rgb555_to_yv12(uint8_t *y, uint8_t *u, uint8_t *v, const uint8_t *src, int w, int h,
                    int stride);
void rgb565_to_yv12(uint8_t *y, uint8_t *u, uint8_t *v, const uint8_t *src, int w, int h,
                    int stride);
void rgb24_to_yv12(uint8_t *y, uint8_t *u, uint8_t *v, const uint8_t *src, int w, int h,
                   int stride);
void rgb32_to_yv12(uint8_t *y, uint8_t *u, uint8_t *v, const uint8_t *src, int w, int h,
                   int stride);
void yuv_to_yv12(uint8_t *y, uint8_t *u, uint8_t *v, const uint8_t *src, int w, int h, int stride);
void yuyv_to_yv12(uint8_t *y, uint8_t *u, uint8_t *v, const uint8_t *src, int w, int h, int stride);
void uyvy_to_yv12(uint8_t *y, uint8_t *u, uint8_t *v, const uint8_t *src, int w, int h, int stride);

#define REF_FROM_YV12(name)                                                                        \
  void name(uint8_t *dst, int dst_stride, const uint8_t *ys, const uint8_t *us, const uint8_t *vs, \
            int y_stride, int uv_stride, int w, int h)
REF_FROM_YV12(yv12_to_rgb555);
REF_FROM_YV12(yv12_to_rgb565);
REF_FROM_YV12(yv12_to_rgb24);
REF_FROM_YV12(yv12_to_rgb32);
REF_FROM_YV12(yv12_to_yuv);
REF_FROM_YV12(yv12_to_yuyv);
REF_FROM_YV12(yv12_to_uyvy);
REF_FROM_YV12(yv16_to_rgb24);
REF_FROM_YV12(yv16_to_rgb32);
#undef REF_FROM_YV12

void yv16i_to_rgb24(uint8_t *dst, int dst_stride, const uint8_t *ys, const uint8_t *uvs,
                    int y_stride, int w, int h);
void yvyu_to_rgb24(uint8_t *dst, int dst_stride, const uint8_t *src, int src_stride, int w, int h);
void yvyu_to_rgb16(uint8_t *dst, int dst_stride, const uint8_t *src, int src_stride, int w, int h);

}  // namespace ref
