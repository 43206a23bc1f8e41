// Row kernels of the converters.  Every converter is a planar loop (the
// walk over rows, flips and strides) that feeds one row kernel per row or
// pair of rows; the kernels come in a plain version that reads the lookup
// tables and, where it pays, a vector version.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>

namespace orlo::colorspace {

// Two source rows (rows lie back to back) into two Y rows and one row of
// each chroma plane.  width is even.
using ToYv12Row = void (*)(const uint8_t *src0, const uint8_t *src1, uint8_t *y0, uint8_t *y1,
                           uint8_t *u, uint8_t *v, int width);

// One luma row and one row of each chroma plane, chroma at half width, into
// one packed RGB row.
using YuvToRgbRow = void (*)(const uint8_t *y, const uint8_t *u, const uint8_t *v, uint8_t *dst,
                             int width);

// Two luma rows over one chroma row (4:2:0) into two packed RGB rows; each
// row is converted as by a YuvToRgbRow, the chroma terms formed once.
using YuvPairToRgbRow = void (*)(const uint8_t *y0, const uint8_t *y1, const uint8_t *u,
                                 const uint8_t *v, uint8_t *d0, uint8_t *d1, int width);

// One luma row and a chroma row of alternating U and V into packed RGB.
using InterleavedToRgbRow = void (*)(const uint8_t *y, const uint8_t *uv, uint8_t *dst, int width);

// One packed Y0 V Y1 U row into packed RGB.
using PackedToRgbRow = void (*)(const uint8_t *src, uint8_t *dst, int width);

// Bytes from one place to another that doesn't overlap it.
using CopyBytes = void (*)(uint8_t *dst, const uint8_t *src, size_t bytes);

// One luma row and one row of each chroma plane into one packed 4:2:2 row.
using ToPackedRow = void (*)(const uint8_t *y, const uint8_t *u, const uint8_t *v, uint8_t *dst,
                             int width);

struct RowKernels {
  ToYv12Row rgb555_to_yv12;
  ToYv12Row rgb565_to_yv12;
  ToYv12Row bgr24_to_yv12;
  ToYv12Row bgr32_to_yv12;
  ToYv12Row yuyv_to_yv12;
  ToYv12Row uyvy_to_yv12;
  ToPackedRow to_yuyv;
  ToPackedRow to_uyvy;
  CopyBytes copy;
  // The table-driven ones.  Vector versions hold only while the tables carry
  // the values that colorspace_init writes.
  YuvPairToRgbRow pair_to_rgb555;
  YuvPairToRgbRow pair_to_rgb565;
  YuvPairToRgbRow pair_to_bgr24;
  YuvPairToRgbRow pair_to_rgb0;
  YuvToRgbRow to_rgb555;  // carries the dropped low bits along the row
  YuvToRgbRow to_rgb565;  // the same
  YuvToRgbRow to_bgr24;   // bytes B G R, clipped
  YuvToRgbRow to_rgb0;    // bytes R G B 0, clipped
  InterleavedToRgbRow interleaved_to_bgr24;
  PackedToRgbRow yvyu_to_bgr24;  // values 1..255
  PackedToRgbRow yvyu_to_bgr16;  // five-bit values moved up by three
};

// The plain kernels: the tables read per sample, as the arithmetic is told.
const RowKernels &plain_row_kernels();

// The vector kernels for this machine, plain where none is written.
const RowKernels &vector_row_kernels();

// The kernels every converter runs: the plain ones until the tables are
// filled, then the vector ones (unless switched off).  One atomic load.
const RowKernels &row_kernels();

// Called by colorspace_init once the tables hold their values.
void tables_ready();

// For tests: runs fn once with the vector kernels of each instruction set
// that this machine supports, then restores the best one.  Not thread-safe.
void for_each_vector_target(const std::function<void(const char *target)> &fn);

// For tests and benchmarks: false makes row_kernels() give the plain set.
// Not for use while converters run on other threads.
void set_vector_kernels_enabled(bool enabled);

// A width of 0 or less, or a zero height, leaves every destination as it
// was; the walks check this before they compute a single row address.
inline bool empty_picture(int width, int height) { return width <= 0 || height == 0; }

// Byte pitch as a signed size, so that row offsets never overflow int.
inline ptrdiff_t pitch(int stride, int bytes_per_unit) {
  return static_cast<ptrdiff_t>(stride) * bytes_per_unit;
}

// Copies rows of bytes between planes; rows that lie back to back on both
// sides go in one piece.
inline void copy_rows(CopyBytes copy, uint8_t *dst, ptrdiff_t dst_pitch, const uint8_t *src,
                      ptrdiff_t src_pitch, int bytes, int rows) {
  if (rows <= 0 || bytes <= 0) return;
  if (dst_pitch == bytes && src_pitch == bytes) {
    copy(dst, src, static_cast<size_t>(bytes) * rows);
    return;
  }
  for (int r = 0; r < rows; r++) copy(dst + r * dst_pitch, src + r * src_pitch, bytes);
}

// Whether a 4:2:0 picture's three planes, packed without row gaps, lie one
// after the other in the order Y, U, V.
inline bool planes_back_to_back(const uint8_t *y, const uint8_t *u, const uint8_t *v,
                                ptrdiff_t y_size, ptrdiff_t chroma_size) {
  return u == y + y_size && v == u + chroma_size;
}

}  // namespace orlo::colorspace
