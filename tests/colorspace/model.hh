// A plain model of the converters, written pixel by pixel from their
// description, for the tests to hold the library against.  Each model has
// the argument list of the converter it stands for; a picture with no
// pixels (a width of 0 or less, a height of 0) writes nothing.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace model {

// The base colour terms, from the table formulas.
inline int term_b(int y, int u) { return (9535 * (y - 16) + 16531 * (u - 128)) >> 13; }
inline int term_g(int y, int u, int v) {
  return (9535 * (y - 16) - (3203 * (u - 128) + 6660 * (v - 128))) >> 13;
}
inline int term_r(int y, int v) { return (9535 * (y - 16) + 13074 * (v - 128)) >> 13; }
inline int clip(int c) { return std::clamp(c, 0, 255); }

// Source row of destination row k, read from the bottom when flipped, and
// the 4:2:0 chroma row that goes with it.
inline long row_of(int k, int h, bool flip) { return flip ? h - 1 - k : k; }
inline long chroma_row(int k, int h, bool flip) { return flip ? h / 2 - 1 - k / 2 : k / 2; }

// Pixel forms: 16-bit words 555 and 565, bytes B G R, bytes R G B 0 (out)
// or B G R X (in), and the packed 4:2:2 groups (out).
enum Fmt { F555, F565, F24, F32, FYUYV, FUYVY };
constexpr int bytes_of(Fmt f) { return f == F24 ? 3 : f == F32 ? 4 : 2; }

inline void unpack(Fmt f, const uint8_t *p, int c[3]) {
  const int w = p[0] | p[1] << 8;
  if (f == F555) {
    c[0] = (w >> 7) & 0xF8, c[1] = (w >> 2) & 0xF8, c[2] = (w << 3) & 0xF8;
  } else if (f == F565) {
    c[0] = (w >> 8) & 0xF8, c[1] = (w >> 3) & 0xFC, c[2] = (w << 3) & 0xF8;
  } else {
    c[0] = p[2], c[1] = p[1], c[2] = p[0];
  }
}

// 24- and 32-bit sources are stored bottom-up, 16-bit ones flip on a
// negative height.
template <Fmt f>
void rgb_to_yv12(uint8_t *yo, uint8_t *uo, uint8_t *vo, const uint8_t *src, int w, int h,
                 int stride) {
  const int bpp = bytes_of(f);
  const bool flip = bpp > 2 || h < 0;
  h = std::abs(h);
  for (int k = 0; k < h / 2; k++)
    for (int i = 0; i < w / 2; i++) {
      int sum[3] = {0, 0, 0};
      for (int dy = 0; dy < 2; dy++)
        for (int dx = 0; dx < 2; dx++) {
          int c[3];
          unpack(f, src + (row_of(2 * k + dy, h, flip) * w + 2 * i + dx) * bpp, c);
          yo[(2L * k + dy) * stride + 2 * i + dx] =
              static_cast<uint8_t>(((66 * c[0] + 129 * c[1] + 25 * c[2]) >> 8) + 16);
          for (int n = 0; n < 3; n++) sum[n] += c[n];
        }
      const long at = long(k) * (stride / 2) + i;
      uo[at] = static_cast<uint8_t>(((-38 * sum[0] - 74 * sum[1] + 112 * sum[2]) >> 10) + 128);
      vo[at] = static_cast<uint8_t>(((112 * sum[0] - 94 * sum[1] - 18 * sum[2]) >> 10) + 128);
    }
}

// Groups of four bytes Y0 U Y1 V (YUYV) or U Y0 V Y1 (UYVY).
constexpr int kYuyv[4] = {0, 1, 2, 3}, kUyvy[4] = {1, 0, 3, 2};

// YUYV averages U over the two rows, UYVY takes the upper row's.
template <bool yuyv>
void packed_to_yv12(uint8_t *yo, uint8_t *uo, uint8_t *vo, const uint8_t *src, int w, int h,
                    int stride) {
  const int *o = yuyv ? kYuyv : kUyvy;
  for (int k = 0; k < h / 2; k++)
    for (int i = 0; i < w / 2; i++) {
      const uint8_t *a = src + (2L * k * w + 2 * i) * 2, *b = a + w * 2;
      for (int dy = 0; dy < 2; dy++)
        for (int dx = 0; dx < 2; dx++)
          yo[(2L * k + dy) * stride + 2 * i + dx] = (dy ? b : a)[o[2 * dx]];
      const long at = long(k) * (stride / 2) + i;
      uo[at] = static_cast<uint8_t>(yuyv ? (a[o[1]] + b[o[1]]) >> 1 : a[o[1]]);
      vo[at] = static_cast<uint8_t>((a[o[3]] + b[o[3]]) >> 1);
    }
}

// The planes Y, U, V of a 4:2:0 picture; destination row k of a plane
// comes from source row k, or from the bottom up on a negative height.
inline void copy_planes(uint8_t *const d[3], const long d_pitch[2], const uint8_t *const s[3],
                        const long s_pitch[2], int w, int h) {
  const bool flip = h < 0;
  h = std::abs(h);
  for (int p = 0; p < 3 && w > 0; p++)
    for (int k = 0; k < (p ? h / 2 : h); k++)
      memcpy(d[p] + k * d_pitch[p > 0],
             s[p] + (p ? chroma_row(2 * k, h, flip) : row_of(k, h, flip)) * s_pitch[p > 0],
             p ? w / 2 : w);
}

inline void yuv_to_yv12(uint8_t *y, uint8_t *u, uint8_t *v, const uint8_t *src, int w, int h,
                        int stride) {
  const uint8_t *su = src + long(w) * h, *s[3] = {src, su, su + long(w / 2) * (h / 2)};
  const long d_pitch[2] = {stride, stride / 2}, s_pitch[2] = {w, w / 2};
  uint8_t *const d[3] = {y, u, v};
  copy_planes(d, d_pitch, s, s_pitch, w, h);
}

inline void yv12_to_yuv(uint8_t *dst, int dst_stride, const uint8_t *ys, const uint8_t *us,
                        const uint8_t *vs, int y_stride, int uv_stride, int w, int h) {
  uint8_t *du = dst + long(std::abs(h)) * dst_stride,
          *dv = du + long(std::abs(h) / 2) * (dst_stride / 2);
  const long d_pitch[2] = {dst_stride, dst_stride / 2}, s_pitch[2] = {y_stride, uv_stride};
  uint8_t *const d[3] = {dst, du, dv};
  const uint8_t *const s[3] = {ys, us, vs};
  copy_planes(d, d_pitch, s, s_pitch, w, h);
}

inline int no_zero(int c) { return c <= 0 ? 1 : c >= 255 ? 255 : c; }
inline int five_bits(int c) { return c <= 8 ? 8 : int((c > 255 ? 255 : c) * 31.0 / 255.0) * 8; }

// Pixel x of a row from its samples.  RGB comes from the unclipped terms:
// the 16-bit forms carry their line's low bits along, the 24-bit one bounds
// each channel by its rule.  Two packed 4:2:2 pixels share a group.
inline void put(Fmt f, int (*rule)(int), uint8_t *d, int x, int y, int u, int v, int carry[3]) {
  const int b = term_b(y, u), g = term_g(y, u, v), r = term_r(y, v);
  if (f >= FYUYV) {
    const int *o = f == FYUYV ? kYuyv : kUyvy;
    d -= 2 * (x & 1), d[o[2 * (x & 1)]] = y, d[o[1]] = u, d[o[3]] = v;
  } else if (f == F24) {
    d[0] = rule(b), d[1] = rule(g), d[2] = rule(r);
  } else if (f == F32) {
    d[0] = clip(r), d[1] = clip(g), d[2] = clip(b), d[3] = 0;
  } else {
    const int cb = clip(carry[0] = (carry[0] & 7) + b), cg = clip(carry[1] = (carry[1] & 7) + g),
              cr = clip(carry[2] = (carry[2] & 7) + r);
    const int word = f == F565 ? ((cr << 8) & 0xF800) | ((cg << 3) & 0x07E0) | (cb >> 3)
                               : ((cr << 7) & 0x7C00) | ((cg << 2) & 0x03E0) | (cb >> 3);
    d[0] = word & 0xFF, d[1] = static_cast<uint8_t>(word >> 8);
  }
}

// Where the samples lie: sample x of row r is p[r * pitch + x / div * step].
struct Plane {
  const uint8_t *p;
  long pitch;
  int div, step;
  int at(long r, int x) const { return p[r * pitch + x / div * step]; }
};

// Rows of pixels; 4:2:0 chroma (half_height) serves two luma rows, and
// RGB leaves an odd last row alone.
inline void yuv_to_rgb(Fmt f, int (*rule)(int), uint8_t *dst, int ds, const Plane &y,
                       const Plane &u, const Plane &v, bool half_height, int w, int h) {
  const bool flip = h < 0;
  h = std::abs(h);
  for (int k = 0; k < (half_height && f < FYUYV ? h / 2 * 2 : h); k++) {
    const long row = row_of(k, h, flip), crow = half_height ? chroma_row(k, h, flip) : row;
    int carry[3] = {0, 0, 0};
    for (int x = 0; x < w; x++) {
      const int ly = y.at(row, x), lu = u.at(crow, x), lv = v.at(crow, x);
      put(f, rule, dst + (long(k) * ds + x) * bytes_of(f), x, ly, lu, lv, carry);
    }
  }
}

// YV12 (4:2:0) and YV16 (4:2:2) planes into pixels; the 32-bit forms take
// V through their u_src and U through their v_src.
template <Fmt f, bool half_height>
void planes_to(uint8_t *dst, int dst_stride, const uint8_t *ys, const uint8_t *us,
               const uint8_t *vs, int y_stride, int uv_stride, int w, int h) {
  if (f == F32) std::swap(us, vs);
  yuv_to_rgb(f, clip, dst, dst_stride, {ys, y_stride, 1, 1}, {us, uv_stride, 2, 1},
             {vs, uv_stride, 2, 1}, half_height, w, h);
}

// Y plane, then U V pairs at the luma pitch.
inline void yv16i_to_rgb24(uint8_t *dst, int dst_stride, const uint8_t *ys, const uint8_t *uvs,
                           int y_stride, int w, int h) {
  yuv_to_rgb(F24, clip, dst, dst_stride, {ys, y_stride, 1, 1}, {uvs, y_stride, 2, 2},
             {uvs + 1, y_stride, 2, 2}, false, w, h);
}

// Packed Y0 V Y1 U.
template <int (*rule)(int)>
void yvyu_to_rgb(uint8_t *dst, int ds, const uint8_t *src, int ss, int w, int h) {
  const long pitch = 2L * ss;
  yuv_to_rgb(F24, rule, dst, ds, {src, pitch, 1, 2}, {src + 3, pitch, 2, 4}, {src + 1, pitch, 2, 4},
             false, w, h);
}

}  // namespace model
