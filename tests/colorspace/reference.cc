#include "reference.hh"

#include <cstdlib>
#include <cstring>

namespace ref {
namespace {

// The base colour terms, from the table formulas.
int term_b(int y, int u) { return (9535 * (y - 16) + 16531 * (u - 128)) >> 13; }
int term_g(int y, int u, int v) {
  return (9535 * (y - 16) - (3203 * (u - 128) + 6660 * (v - 128))) >> 13;
}
int term_r(int y, int v) { return (9535 * (y - 16) + 13074 * (v - 128)) >> 13; }
int clip(int c) { return c < 0 ? 0 : c > 255 ? 255 : c; }

// Source row of destination row k, read from the bottom when flipped, and
// the 4:2:0 chroma row that goes with it.
long row_of(int k, int h, bool flip) { return flip ? h - 1 - k : k; }
long chroma_row(int k, int h, bool flip) { return flip ? h / 2 - 1 - k / 2 : k / 2; }

enum Fmt { F555, F565, F24, F32 };

void unpack(Fmt f, const uint8_t *p, int c[3]) {
  const int w = p[0] | p[1] << 8;
  if (f == F555) {
    c[0] = (w >> 7) & 0xF8, c[1] = (w >> 2) & 0xF8, c[2] = (w << 3) & 0xF8;
  } else if (f == F565) {
    c[0] = (w >> 8) & 0xF8, c[1] = (w >> 3) & 0xFC, c[2] = (w << 3) & 0xF8;
  } else {
    c[0] = p[2], c[1] = p[1], c[2] = p[0];
  }
}

void rgb_to_yv12(Fmt f, uint8_t *yo, uint8_t *uo, uint8_t *vo, const uint8_t *src, int w, int h,
                 int stride) {
  const int bpp = f == F24 ? 3 : f == F32 ? 4 : 2;
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

// Groups of four bytes with Y0, U, Y1 and V at the offsets o.
void packed_to_yv12(const int o[4], bool u_averaged, uint8_t *yo, uint8_t *uo, uint8_t *vo,
                    const uint8_t *src, int w, int h, int stride) {
  for (int k = 0; k < h / 2; k++)
    for (int i = 0; i < w / 2; i++) {
      const uint8_t *a = src + (2L * k * w + 2 * i) * 2, *b = a + w * 2;
      for (int dy = 0; dy < 2; dy++)
        for (int dx = 0; dx < 2; dx++)
          yo[(2L * k + dy) * stride + 2 * i + dx] = (dy ? b : a)[o[2 * dx]];
      const long at = long(k) * (stride / 2) + i;
      uo[at] = static_cast<uint8_t>(u_averaged ? (a[o[1]] + b[o[1]]) >> 1 : a[o[1]]);
      vo[at] = static_cast<uint8_t>((a[o[3]] + b[o[3]]) >> 1);
    }
}

// One RGB pixel from unclipped terms; the 16-bit forms carry their line's
// low bits along.
enum Out { O555, O565, O24, O32 };
int bytes_of(Out o) { return o == O24 ? 3 : o == O32 ? 4 : 2; }

void put(Out o, uint8_t *d, int b, int g, int r, int carry[3]) {
  if (o == O24) {
    d[0] = clip(b), d[1] = clip(g), d[2] = clip(r);
  } else if (o == O32) {
    d[0] = clip(r), d[1] = clip(g), d[2] = clip(b), d[3] = 0;
  } else {
    const int c[3] = {carry[0] = (carry[0] & 7) + b, carry[1] = (carry[1] & 7) + g,
                      carry[2] = (carry[2] & 7) + r};
    const int cb = clip(c[0]), cg = clip(c[1]), cr = clip(c[2]);
    const int word = o == O565 ? ((cr << 8) & 0xF800) | ((cg << 3) & 0x07E0) | (cb >> 3)
                               : ((cr << 7) & 0x7C00) | ((cg << 2) & 0x03E0) | (cb >> 3);
    d[0] = word & 0xFF, d[1] = static_cast<uint8_t>(word >> 8);
  }
}

// Where the chroma of a luma row lies: the U and V samples of pixel x are at
// column x / 2 * step of their row; 4:2:0 rows serve two luma rows.
struct Chroma {
  const uint8_t *u, *v;
  int stride, step;
  bool half_height;
};

void yuv_to_rgb(Out o, uint8_t *dst, int ds, const uint8_t *ys, int yst, Chroma c, int w, int h) {
  const bool flip = h < 0;
  h = std::abs(h);
  for (int k = 0; k < (c.half_height ? h / 2 * 2 : h); k++) {
    const long row = row_of(k, h, flip), crow = c.half_height ? chroma_row(k, h, flip) : row;
    int carry[3] = {0, 0, 0};
    for (int x = 0; x < w; x++) {
      const int y = ys[row * yst + x], u = c.u[crow * c.stride + x / 2 * c.step],
                v = c.v[crow * c.stride + x / 2 * c.step];
      put(o, dst + (long(k) * ds + x) * bytes_of(o), term_b(y, u), term_g(y, u, v), term_r(y, v),
          carry);
    }
  }
}

void yv12_to_packed(const int o[4], uint8_t *dst, int ds, const uint8_t *ys, const uint8_t *us,
                    const uint8_t *vs, int yst, int uvst, int w, int h) {
  const bool flip = h < 0;
  h = std::abs(h);
  for (int k = 0; k < h; k++)
    for (int i = 0; i < w / 2; i++) {
      uint8_t *g = dst + long(k) * ds * 2 + 4 * i;
      const long yrow = row_of(k, h, flip), crow = chroma_row(k, h, flip);
      g[o[0]] = ys[yrow * yst + 2 * i], g[o[2]] = ys[yrow * yst + 2 * i + 1];
      g[o[1]] = us[crow * uvst + i], g[o[3]] = vs[crow * uvst + i];
    }
}

int no_zero(int c) { return c <= 0 ? 1 : c >= 255 ? 255 : c; }
int five_bits(int c) { return c <= 8 ? 8 : int((c > 255 ? 255 : c) * 31.0 / 255.0) * 8; }

void yvyu_to_rgb(int (*rule)(int), uint8_t *dst, int ds, const uint8_t *src, int ss, int w, int h) {
  const bool flip = h < 0;
  h = std::abs(h);
  for (int k = 0; k < h; k++)
    for (int x = 0; x < w; x++) {
      const uint8_t *g = src + row_of(k, h, flip) * ss * 2 + x / 2 * 4;
      const int y = g[x % 2 * 2], v = g[1], u = g[3];
      uint8_t *d = dst + (long(k) * ds + x) * 3;
      d[0] = rule(term_b(y, u)), d[1] = rule(term_g(y, u, v)), d[2] = rule(term_r(y, v));
    }
}

const int kYuyv[4] = {0, 1, 2, 3}, kUyvy[4] = {1, 0, 3, 2};

}  // namespace

REF_TO_YV12(rgb555_to_yv12) { rgb_to_yv12(F555, y, u, v, src, w, h, stride); }
REF_TO_YV12(rgb565_to_yv12) { rgb_to_yv12(F565, y, u, v, src, w, h, stride); }
REF_TO_YV12(rgb24_to_yv12) { rgb_to_yv12(F24, y, u, v, src, w, h, stride); }
REF_TO_YV12(rgb32_to_yv12) { rgb_to_yv12(F32, y, u, v, src, w, h, stride); }
REF_TO_YV12(yuyv_to_yv12) { packed_to_yv12(kYuyv, true, y, u, v, src, w, h, stride); }
REF_TO_YV12(uyvy_to_yv12) { packed_to_yv12(kUyvy, false, y, u, v, src, w, h, stride); }
REF_TO_YV12(yuv_to_yv12) {
  for (int k = 0; k < h; k++) memcpy(y + long(k) * stride, src + long(k) * w, w);
  const uint8_t *su = src + long(w) * h, *sv = su + long(w / 2) * (h / 2);
  for (int k = 0; k < h / 2; k++) {
    memcpy(u + long(k) * (stride / 2), su + long(k) * (w / 2), w / 2);
    memcpy(v + long(k) * (stride / 2), sv + long(k) * (w / 2), w / 2);
  }
}

// The 32-bit forms take V through their u_src and U through their v_src.
#define REF_TO_RGB(name, out, c0, c1, half)                                             \
  REF_FROM_YV12(name) {                                                                 \
    yuv_to_rgb(out, dst, dst_stride, ys, y_stride, {c0, c1, uv_stride, 1, half}, w, h); \
  }
REF_TO_RGB(yv12_to_rgb555, O555, us, vs, true)
REF_TO_RGB(yv12_to_rgb565, O565, us, vs, true)
REF_TO_RGB(yv12_to_rgb24, O24, us, vs, true)
REF_TO_RGB(yv12_to_rgb32, O32, vs, us, true)
REF_TO_RGB(yv16_to_rgb24, O24, us, vs, false)
REF_TO_RGB(yv16_to_rgb32, O32, vs, us, false)
void yv16i_to_rgb24(uint8_t *dst, int dst_stride, const uint8_t *ys, const uint8_t *uvs,
                    int y_stride, int w, int h) {
  yuv_to_rgb(O24, dst, dst_stride, ys, y_stride, {uvs, uvs + 1, y_stride, 2, false}, w, h);
}
REF_FROM_YV12(yv12_to_yuyv) {
  yv12_to_packed(kYuyv, dst, dst_stride, ys, us, vs, y_stride, uv_stride, w, h);
}
REF_FROM_YV12(yv12_to_uyvy) {
  yv12_to_packed(kUyvy, dst, dst_stride, ys, us, vs, y_stride, uv_stride, w, h);
}
REF_FROM_YV12(yv12_to_yuv) {
  const bool flip = h < 0;
  h = std::abs(h);
  for (int k = 0; k < h; k++)
    memcpy(dst + long(k) * dst_stride, ys + row_of(k, h, flip) * y_stride, w);
  uint8_t *du = dst + long(h) * dst_stride, *dv = du + long(h / 2) * (dst_stride / 2);
  for (int k = 0; k < h / 2; k++) {
    const long crow = chroma_row(2 * k, h, flip) * uv_stride;
    memcpy(du + long(k) * (dst_stride / 2), us + crow, w / 2);
    memcpy(dv + long(k) * (dst_stride / 2), vs + crow, w / 2);
  }
}
REF_PACKED(yvyu_to_rgb24) { yvyu_to_rgb(no_zero, dst, dst_stride, src, src_stride, w, h); }
REF_PACKED(yvyu_to_rgb16) { yvyu_to_rgb(five_bits, dst, dst_stride, src, src_stride, w, h); }

}  // namespace ref
