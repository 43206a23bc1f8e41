// Conversions into YV12: the walks over row pairs, flips and plane copies.
#include <cstring>

#include "colorspace.h"
#include "colorspace_rows.hh"

namespace orlo::colorspace {
namespace {

// Feeds a two-row kernel with n = height / 2 row pairs.  first is the source
// row that becomes destination row 0; step is the signed byte distance from
// one source row to the one that goes below it in the destination.
void pairs_to_yv12(ToYv12Row row, uint8_t *y_out, uint8_t *u_out, uint8_t *v_out,
                   const uint8_t *first, ptrdiff_t step, int width, int height, int stride) {
  if (empty_picture(width, height)) return;
  const int pairs = height / 2;
  const ptrdiff_t y_pitch = stride;
  const ptrdiff_t uv_pitch = stride / 2;
  for (int k = 0; k < pairs; k++) {
    const uint8_t *s0 = first + 2 * k * step;
    row(s0, s0 + step, y_out + 2 * k * y_pitch, y_out + (2 * k + 1) * y_pitch, u_out + k * uv_pitch,
        v_out + k * uv_pitch, width);
  }
}

// 16-bit sources start at row 0 and flip on a negative height.
void rgb16_to_yv12(ToYv12Row row, uint8_t *y_out, uint8_t *u_out, uint8_t *v_out,
                   const uint8_t *src, int width, int height, int stride) {
  if (empty_picture(width, height)) return;
  ptrdiff_t step = pitch(width, 2);
  if (height < 0) {
    height = -height;
    src += (height - 1) * step;
    step = -step;
  }
  if (height < 2) return;
  pairs_to_yv12(row, y_out, u_out, v_out, src, step, width, height, stride);
}

// 24- and 32-bit sources are stored bottom-up.
void bottom_up_to_yv12(ToYv12Row row, int bpp, uint8_t *y_out, uint8_t *u_out, uint8_t *v_out,
                       const uint8_t *src, int width, int height, int stride) {
  if (empty_picture(width, height) || height < 2) return;
  const ptrdiff_t step = pitch(width, bpp);
  pairs_to_yv12(row, y_out, u_out, v_out, src + (height - 1) * step, -step, width, height, stride);
}

}  // namespace
}  // namespace orlo::colorspace

using namespace orlo::colorspace;

extern "C" {

void rgb555_to_yv12_c(uint8_t *y_out, uint8_t *u_out, uint8_t *v_out, const uint8_t *src, int width,
                      int height, int stride) {
  rgb16_to_yv12(row_kernels().rgb555_to_yv12, y_out, u_out, v_out, src, width, height, stride);
}

void rgb565_to_yv12_c(uint8_t *y_out, uint8_t *u_out, uint8_t *v_out, const uint8_t *src, int width,
                      int height, int stride) {
  rgb16_to_yv12(row_kernels().rgb565_to_yv12, y_out, u_out, v_out, src, width, height, stride);
}

void rgb24_to_yv12_c(uint8_t *y_out, uint8_t *u_out, uint8_t *v_out, const uint8_t *src, int width,
                     int height, int stride) {
  bottom_up_to_yv12(row_kernels().bgr24_to_yv12, 3, y_out, u_out, v_out, src, width, height,
                    stride);
}

void rgb32_to_yv12_c(uint8_t *y_out, uint8_t *u_out, uint8_t *v_out, const uint8_t *src, int width,
                     int height, int stride) {
  bottom_up_to_yv12(row_kernels().bgr32_to_yv12, 4, y_out, u_out, v_out, src, width, height,
                    stride);
}

void yuyv_to_yv12_c(uint8_t *y_out, uint8_t *u_out, uint8_t *v_out, const uint8_t *src, int width,
                    int height, int stride) {
  pairs_to_yv12(row_kernels().yuyv_to_yv12, y_out, u_out, v_out, src, pitch(width, 2), width,
                height, stride);
}

void uyvy_to_yv12_c(uint8_t *y_out, uint8_t *u_out, uint8_t *v_out, const uint8_t *src, int width,
                    int height, int stride) {
  pairs_to_yv12(row_kernels().uyvy_to_yv12, y_out, u_out, v_out, src, pitch(width, 2), width,
                height, stride);
}

// Source planes Y, U, V back to back without row gaps.  A destination laid
// out the same way takes the whole picture in one copy.
void yuv_to_yv12_c(uint8_t *y_out, uint8_t *u_out, uint8_t *v_out, const uint8_t *src, int width,
                   int height, int stride) {
  if (empty_picture(width, height) || height < 0) return;
  const CopyBytes copy = row_kernels().copy;
  const int w2 = width / 2, h2 = height / 2;
  const ptrdiff_t y_size = static_cast<ptrdiff_t>(width) * height;
  const ptrdiff_t chroma_size = static_cast<ptrdiff_t>(w2) * h2;
  if (stride == width && planes_back_to_back(y_out, u_out, v_out, y_size, chroma_size)) {
    copy(y_out, src, static_cast<size_t>(y_size + 2 * chroma_size));
    return;
  }
  const uint8_t *u_src = src + y_size;
  copy_rows(copy, y_out, stride, src, width, width, height);
  copy_rows(copy, u_out, stride / 2, u_src, w2, w2, h2);
  copy_rows(copy, v_out, stride / 2, u_src + chroma_size, w2, w2, h2);
}

}  // extern "C"
