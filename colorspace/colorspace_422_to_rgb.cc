// 4:2:2 sources to RGB, row by row: planar, planar with interleaved chroma,
// and packed Y0 V Y1 U.  A negative height reads from the last row up.
#include "colorspace.h"
#include "colorspace_rows.hh"

namespace orlo::colorspace {
namespace {

void yv16_to_rgb(YuvToRgbRow row, int bpp, uint8_t *dst, int dst_stride, const uint8_t *y_src,
                 const uint8_t *u_src, const uint8_t *v_src, int y_stride, int uv_stride, int width,
                 int height) {
  if (empty_picture(width, height)) return;
  ptrdiff_t y_pitch = y_stride, uv_pitch = uv_stride;
  if (height < 0) {
    height = -height;
    y_src += (height - 1) * y_pitch;
    u_src += (height - 1) * uv_pitch;
    v_src += (height - 1) * uv_pitch;
    y_pitch = -y_pitch;
    uv_pitch = -uv_pitch;
  }
  const ptrdiff_t d_pitch = pitch(dst_stride, bpp);
  for (int r = 0; r < height; r++)
    row(y_src + r * y_pitch, u_src + r * uv_pitch, v_src + r * uv_pitch, dst + r * d_pitch, width);
}

void yvyu_to_rgb(PackedToRgbRow row, uint8_t *dst, int dst_stride, const uint8_t *src,
                 int src_stride, int width, int height) {
  if (empty_picture(width, height)) return;
  ptrdiff_t s_pitch = pitch(src_stride, 2);
  if (height < 0) {
    height = -height;
    src += (height - 1) * s_pitch;
    s_pitch = -s_pitch;
  }
  const ptrdiff_t d_pitch = pitch(dst_stride, 3);
  for (int r = 0; r < height; r++) row(src + r * s_pitch, dst + r * d_pitch, width);
}

}  // namespace
}  // namespace orlo::colorspace

using namespace orlo::colorspace;

extern "C" {

void yv16_to_rgb24_c(uint8_t *dst, int dst_stride, const uint8_t *y_src, const uint8_t *u_src,
                     const uint8_t *v_src, int y_stride, int uv_stride, int width, int height) {
  yv16_to_rgb(row_kernels().to_bgr24, 3, dst, dst_stride, y_src, u_src, v_src, y_stride, uv_stride,
              width, height);
}

// As yv12_to_rgb32_c: the plane in u_src plays V, the one in v_src U.
void yv16_to_rgb32_c(uint8_t *dst, int dst_stride, const uint8_t *y_src, const uint8_t *u_src,
                     const uint8_t *v_src, int y_stride, int uv_stride, int width, int height) {
  yv16_to_rgb(row_kernels().to_rgb0, 4, dst, dst_stride, y_src, v_src, u_src, y_stride, uv_stride,
              width, height);
}

void yv16i_to_rgb24_c(uint8_t *dst, int dst_stride, const uint8_t *y_src, const uint8_t *uv_src,
                      int y_stride, int width, int height) {
  if (empty_picture(width, height)) return;
  const InterleavedToRgbRow row = row_kernels().interleaved_to_bgr24;
  ptrdiff_t y_pitch = y_stride;
  if (height < 0) {
    height = -height;
    y_src += (height - 1) * y_pitch;
    uv_src += (height - 1) * y_pitch;
    y_pitch = -y_pitch;
  }
  const ptrdiff_t d_pitch = pitch(dst_stride, 3);
  for (int r = 0; r < height; r++)
    row(y_src + r * y_pitch, uv_src + r * y_pitch, dst + r * d_pitch, width);
}

void yvyu_to_rgb24_c(uint8_t *dst, int dst_stride, const uint8_t *src, int src_stride, int width,
                     int height) {
  yvyu_to_rgb(row_kernels().yvyu_to_bgr24, dst, dst_stride, src, src_stride, width, height);
}

void yvyu_to_rgb16_c(uint8_t *dst, int dst_stride, const uint8_t *src, int src_stride, int width,
                     int height) {
  yvyu_to_rgb(row_kernels().yvyu_to_bgr16, dst, dst_stride, src, src_stride, width, height);
}

}  // extern "C"
