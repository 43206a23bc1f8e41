// Conversions out of YV12: to RGB in row pairs, to packed 4:2:2 row by row,
// and to one contiguous planar buffer.
#include <cstring>

#include "colorspace.h"
#include "colorspace_rows.hh"

namespace orlo::colorspace {
namespace {

// The source planes as the walk sees them, already turned for a flip.
struct Yv12Source {
  const uint8_t *y, *u, *v;
  ptrdiff_t y_pitch, uv_pitch;
  int height;
};

// A negative height reads the planes from their last rows up.
Yv12Source yv12_source(const uint8_t *y_src, const uint8_t *u_src, const uint8_t *v_src,
                       int y_stride, int uv_stride, int height) {
  Yv12Source s{y_src, u_src, v_src, y_stride, uv_stride, height};
  if (height < 0) {
    s.height = -height;
    s.y += (s.height - 1) * s.y_pitch;
    s.u += (s.height / 2 - 1) * s.uv_pitch;
    s.v += (s.height / 2 - 1) * s.uv_pitch;
    s.y_pitch = -s.y_pitch;
    s.uv_pitch = -s.uv_pitch;
  }
  return s;
}

// Both lines of a pair use the same chroma row; each line keeps its own
// carries, so they never cross from one line to the other.
void yv12_to_rgb(YuvPairToRgbRow row, int bpp, uint8_t *dst, int dst_stride, const uint8_t *y_src,
                 const uint8_t *u_src, const uint8_t *v_src, int y_stride, int uv_stride, int width,
                 int height) {
  if (empty_picture(width, height) || height / 2 == 0) return;
  const Yv12Source s = yv12_source(y_src, u_src, v_src, y_stride, uv_stride, height);
  const ptrdiff_t d_pitch = pitch(dst_stride, bpp);
  for (int k = 0; k < s.height / 2; k++) {
    const uint8_t *u = s.u + k * s.uv_pitch, *v = s.v + k * s.uv_pitch;
    const uint8_t *y = s.y + 2 * k * s.y_pitch;
    uint8_t *d = dst + 2 * k * d_pitch;
    row(y, y + s.y_pitch, u, v, d, d + d_pitch, width);
  }
}

// Every row is done; rows 2k and 2k + 1 share chroma row k.
void yv12_to_packed(ToPackedRow row, uint8_t *dst, int dst_stride, const uint8_t *y_src,
                    const uint8_t *u_src, const uint8_t *v_src, int y_stride, int uv_stride,
                    int width, int height) {
  if (empty_picture(width, height)) return;
  const Yv12Source s = yv12_source(y_src, u_src, v_src, y_stride, uv_stride, height);
  const ptrdiff_t d_pitch = pitch(dst_stride, 2);
  for (int r = 0; r < s.height; r++) {
    const ptrdiff_t c = (r / 2) * s.uv_pitch;
    row(s.y + r * s.y_pitch, s.u + c, s.v + c, dst + r * d_pitch, width);
  }
}

}  // namespace
}  // namespace orlo::colorspace

using namespace orlo::colorspace;

extern "C" {

void yv12_to_rgb555_c(uint8_t *dst, int dst_stride, const uint8_t *y_src, const uint8_t *u_src,
                      const uint8_t *v_src, int y_stride, int uv_stride, int width, int height) {
  yv12_to_rgb(row_kernels().pair_to_rgb555, 2, dst, dst_stride, y_src, u_src, v_src, y_stride,
              uv_stride, width, height);
}

void yv12_to_rgb565_c(uint8_t *dst, int dst_stride, const uint8_t *y_src, const uint8_t *u_src,
                      const uint8_t *v_src, int y_stride, int uv_stride, int width, int height) {
  yv12_to_rgb(row_kernels().pair_to_rgb565, 2, dst, dst_stride, y_src, u_src, v_src, y_stride,
              uv_stride, width, height);
}

// Cropping is the caller's business, through pointers, strides and sizes.
void yv12_to_rgb565_crop(uint8_t *dst, int dst_stride, const uint8_t *y_src, const uint8_t *u_src,
                         const uint8_t *v_src, int y_stride, int uv_stride, int width, int height) {
  yv12_to_rgb565_c(dst, dst_stride, y_src, u_src, v_src, y_stride, uv_stride, width, height);
}

void yv12_to_rgb24_c(uint8_t *dst, int dst_stride, const uint8_t *y_src, const uint8_t *u_src,
                     const uint8_t *v_src, int y_stride, int uv_stride, int width, int height) {
  yv12_to_rgb(row_kernels().pair_to_bgr24, 3, dst, dst_stride, y_src, u_src, v_src, y_stride,
              uv_stride, width, height);
}

// The plane in u_src plays V and the one in v_src plays U.
void yv12_to_rgb32_c(uint8_t *dst, int dst_stride, const uint8_t *y_src, const uint8_t *u_src,
                     const uint8_t *v_src, int y_stride, int uv_stride, int width, int height) {
  yv12_to_rgb(row_kernels().pair_to_rgb0, 4, dst, dst_stride, y_src, v_src, u_src, y_stride,
              uv_stride, width, height);
}

void yv12_to_yuyv_c(uint8_t *dst, int dst_stride, const uint8_t *y_src, const uint8_t *u_src,
                    const uint8_t *v_src, int y_stride, int uv_stride, int width, int height) {
  yv12_to_packed(row_kernels().to_yuyv, dst, dst_stride, y_src, u_src, v_src, y_stride, uv_stride,
                 width, height);
}

void yv12_to_uyvy_c(uint8_t *dst, int dst_stride, const uint8_t *y_src, const uint8_t *u_src,
                    const uint8_t *v_src, int y_stride, int uv_stride, int width, int height) {
  yv12_to_packed(row_kernels().to_uyvy, dst, dst_stride, y_src, u_src, v_src, y_stride, uv_stride,
                 width, height);
}

// Y rows, then height / 2 rows of U and of V, each at dst_stride / 2.
// Source planes that already lie so go over in one copy.
void yv12_to_yuv_c(uint8_t *dst, int dst_stride, const uint8_t *y_src, const uint8_t *u_src,
                   const uint8_t *v_src, int y_stride, int uv_stride, int width, int height) {
  if (empty_picture(width, height)) return;
  const CopyBytes copy = row_kernels().copy;
  const int w2 = width / 2;
  if (height > 0 && y_stride == width && dst_stride == width && uv_stride == w2) {
    const ptrdiff_t y_size = static_cast<ptrdiff_t>(width) * height;
    const ptrdiff_t chroma_size = static_cast<ptrdiff_t>(w2) * (height / 2);
    if (planes_back_to_back(y_src, u_src, v_src, y_size, chroma_size)) {
      copy(dst, y_src, static_cast<size_t>(y_size + 2 * chroma_size));
      return;
    }
  }
  const Yv12Source s = yv12_source(y_src, u_src, v_src, y_stride, uv_stride, height);
  const ptrdiff_t d_pitch = dst_stride, c_pitch = dst_stride / 2;
  const int h2 = s.height / 2;
  copy_rows(copy, dst, d_pitch, s.y, s.y_pitch, width, s.height);
  uint8_t *u_dst = dst + s.height * d_pitch;
  uint8_t *v_dst = u_dst + h2 * c_pitch;
  copy_rows(copy, u_dst, c_pitch, s.u, s.uv_pitch, w2, h2);
  copy_rows(copy, v_dst, c_pitch, s.v, s.uv_pitch, w2, h2);
}

}  // extern "C"
