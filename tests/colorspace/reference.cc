#include "reference.hh"

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

// Source row for destination row k of a picture that may be read flipped.
long row_of(int k, int h, bool flip) { return flip ? h - 1 - k : k; }

enum Fmt { F555, F565, F24, F32 };

void unpack(Fmt f, const uint8_t *p, int &r, int &g, int &b) {
  if (f == F24 || f == F32) {
    b = p[0], g = p[1], r = p[2];
    return;
  }
  int w = p[0] + 256 * p[1];
  if (f == F555) {
    r = (w >> 7) & 0xF8, g = (w >> 2) & 0xF8, b = (w << 3) & 0xF8;
  } else {
    r = (w >> 8) & 0xF8, g = (w >> 3) & 0xFC, b = (w << 3) & 0xF8;
  }
}

void rgb_to_yv12(Fmt f, uint8_t *yo, uint8_t *uo, uint8_t *vo, const uint8_t *src, int w, int h,
                 int stride) {
  int bpp = f == F24 ? 3 : f == F32 ? 4 : 2;
  bool flip;
  if (f == F24 || f == F32) {
    flip = true;
  } else {
    flip = h < 0;
    if (h < 0) h = -h;
  }
  for (int k = 0; k < h / 2 * 2; k++) {
    const uint8_t *row = src + row_of(k, h, flip) * w * bpp;
    for (int x = 0; x < w; x++) {
      int r, g, b;
      unpack(f, row + x * bpp, r, g, b);
      yo[(long)k * stride + x] = (uint8_t)(((66 * r + 129 * g + 25 * b) >> 8) + 16);
    }
  }
  for (int k = 0; k < h / 2; k++) {
    for (int i = 0; i < w / 2; i++) {
      int r4 = 0, g4 = 0, b4 = 0;
      for (int dy = 0; dy < 2; dy++)
        for (int dx = 0; dx < 2; dx++) {
          int r, g, b;
          unpack(f, src + row_of(2 * k + dy, h, flip) * w * bpp + (2 * i + dx) * bpp, r, g, b);
          r4 += r, g4 += g, b4 += b;
        }
      uo[(long)k * (stride / 2) + i] = (uint8_t)(((-38 * r4 - 74 * g4 + 112 * b4) >> 10) + 128);
      vo[(long)k * (stride / 2) + i] = (uint8_t)(((112 * r4 - 94 * g4 - 18 * b4) >> 10) + 128);
    }
  }
}

// Groups of four bytes; offsets of Y0, U, Y1, V.
void packed_to_yv12(int oy0, int ou, int oy1, int ov, bool u_averaged, uint8_t *yo, uint8_t *uo,
                    uint8_t *vo, const uint8_t *src, int w, int h, int stride) {
  for (int k = 0; k < h / 2; k++) {
    const uint8_t *a = src + (long)(2 * k) * w * 2;
    const uint8_t *b = a + w * 2;
    for (int i = 0; i < w / 2; i++) {
      const uint8_t *ga = a + 4 * i, *gb = b + 4 * i;
      yo[(long)(2 * k) * stride + 2 * i] = ga[oy0];
      yo[(long)(2 * k) * stride + 2 * i + 1] = ga[oy1];
      yo[(long)(2 * k + 1) * stride + 2 * i] = gb[oy0];
      yo[(long)(2 * k + 1) * stride + 2 * i + 1] = gb[oy1];
      uo[(long)k * (stride / 2) + i] = u_averaged ? (ga[ou] + gb[ou]) >> 1 : ga[ou];
      vo[(long)k * (stride / 2) + i] = (ga[ov] + gb[ov]) >> 1;
    }
  }
}

// Pixel output of YUV to RGB: writes one pixel, given unclipped b, g, r and
// the line's carries.
enum Out { O555, O565, O24, O32 };

void put(Out o, uint8_t *d, int b, int g, int r, int carry[3]) {
  if (o == O555 || o == O565) {
    carry[0] = (carry[0] & 7) + b;
    carry[1] = (carry[1] & 7) + g;
    carry[2] = (carry[2] & 7) + r;
    int cb = clip(carry[0]), cg = clip(carry[1]), cr = clip(carry[2]);
    int word = o == O565 ? ((cr << 8) & 0xF800) | ((cg << 3) & 0x07E0) | (cb >> 3)
                         : ((cr << 7) & 0x7C00) | ((cg << 2) & 0x03E0) | (cb >> 3);
    d[0] = word & 0xFF;
    d[1] = word >> 8;
  } else if (o == O24) {
    d[0] = clip(b), d[1] = clip(g), d[2] = clip(r);
  } else {
    d[0] = clip(r), d[1] = clip(g), d[2] = clip(b), d[3] = 0;
  }
}

// 4:2:0 to RGB in row pairs; chroma from plane cu (U) and cv (V).
void yv12_to_rgb(Out o, int bpp, uint8_t *dst, int dst_stride, const uint8_t *ys, const uint8_t *cu,
                 const uint8_t *cv, int y_stride, int uv_stride, int w, int h) {
  bool flip = h < 0;
  if (flip) h = -h;
  for (int k = 0; k < h / 2; k++) {
    long crow = flip ? h / 2 - 1 - k : k;
    for (int line = 0; line < 2; line++) {
      long yrow = row_of(2 * k + line, h, flip);
      int carry[3] = {0, 0, 0};
      for (int x = 0; x < w; x++) {
        int y = ys[yrow * y_stride + x];
        int u = cu[crow * uv_stride + x / 2], v = cv[crow * uv_stride + x / 2];
        put(o, dst + (long)(2 * k + line) * dst_stride * bpp + x * bpp, term_b(y, u),
            term_g(y, u, v), term_r(y, v), carry);
      }
    }
  }
}

void yv16_to_rgb(Out o, int bpp, uint8_t *dst, int dst_stride, const uint8_t *ys, const uint8_t *cu,
                 const uint8_t *cv, int y_stride, int uv_stride, int w, int h) {
  bool flip = h < 0;
  if (flip) h = -h;
  for (int k = 0; k < h; k++) {
    long row = row_of(k, h, flip);
    int carry[3] = {0, 0, 0};
    for (int x = 0; x < w; x++) {
      int y = ys[row * y_stride + x], u = cu[row * uv_stride + x / 2],
          v = cv[row * uv_stride + x / 2];
      put(o, dst + (long)k * dst_stride * bpp + x * bpp, term_b(y, u), term_g(y, u, v),
          term_r(y, v), carry);
    }
  }
}

void yv12_to_packed(int oy0, int ou, int oy1, int ov, uint8_t *dst, int dst_stride,
                    const uint8_t *ys, const uint8_t *us, const uint8_t *vs, int y_stride,
                    int uv_stride, int w, int h) {
  bool flip = h < 0;
  if (flip) h = -h;
  for (int k = 0; k < h; k++) {
    long yrow = row_of(k, h, flip);
    long crow = flip ? h / 2 - 1 - k / 2 : k / 2;
    for (int i = 0; i < w / 2; i++) {
      uint8_t *g = dst + (long)k * dst_stride * 2 + 4 * i;
      g[oy0] = ys[yrow * y_stride + 2 * i];
      g[oy1] = ys[yrow * y_stride + 2 * i + 1];
      g[ou] = us[crow * uv_stride + i];
      g[ov] = vs[crow * uv_stride + i];
    }
  }
}

int no_zero(int c) { return c <= 0 ? 1 : c >= 255 ? 255 : c; }
int five_bits(int c) {
  if (c <= 8) return 8;
  return (int)((double)(c > 255 ? 255 : c) * 31.0 / 255.0) * 8;
}

void yvyu_to_rgb(int (*rule)(int), uint8_t *dst, int dst_stride, const uint8_t *src, int src_stride,
                 int w, int h) {
  bool flip = h < 0;
  if (flip) h = -h;
  for (int k = 0; k < h; k++) {
    const uint8_t *row = src + row_of(k, h, flip) * src_stride * 2;
    for (int x = 0; x < w; x++) {
      const uint8_t *g = row + (x / 2) * 4;
      int y = g[x % 2 == 0 ? 0 : 2], v = g[1], u = g[3];
      uint8_t *d = dst + (long)k * dst_stride * 3 + x * 3;
      d[0] = rule(term_b(y, u));
      d[1] = rule(term_g(y, u, v));
      d[2] = rule(term_r(y, v));
    }
  }
}

}  // namespace

void rgb555_to_yv12(uint8_t *y, uint8_t *u, uint8_t *v, const uint8_t *s, int w, int h, int st) {
  rgb_to_yv12(F555, y, u, v, s, w, h, st);
}
void rgb565_to_yv12(uint8_t *y, uint8_t *u, uint8_t *v, const uint8_t *s, int w, int h, int st) {
  rgb_to_yv12(F565, y, u, v, s, w, h, st);
}
void rgb24_to_yv12(uint8_t *y, uint8_t *u, uint8_t *v, const uint8_t *s, int w, int h, int st) {
  rgb_to_yv12(F24, y, u, v, s, w, h, st);
}
void rgb32_to_yv12(uint8_t *y, uint8_t *u, uint8_t *v, const uint8_t *s, int w, int h, int st) {
  rgb_to_yv12(F32, y, u, v, s, w, h, st);
}
void yuv_to_yv12(uint8_t *y, uint8_t *u, uint8_t *v, const uint8_t *s, int w, int h, int st) {
  for (int k = 0; k < h; k++) memcpy(y + (long)k * st, s + (long)k * w, w);
  const uint8_t *su = s + (long)w * h, *sv = su + (long)(w / 2) * (h / 2);
  for (int k = 0; k < h / 2; k++) {
    memcpy(u + (long)k * (st / 2), su + (long)k * (w / 2), w / 2);
    memcpy(v + (long)k * (st / 2), sv + (long)k * (w / 2), w / 2);
  }
}
void yuyv_to_yv12(uint8_t *y, uint8_t *u, uint8_t *v, const uint8_t *s, int w, int h, int st) {
  packed_to_yv12(0, 1, 2, 3, true, y, u, v, s, w, h, st);
}
void uyvy_to_yv12(uint8_t *y, uint8_t *u, uint8_t *v, const uint8_t *s, int w, int h, int st) {
  packed_to_yv12(1, 0, 3, 2, false, y, u, v, s, w, h, st);
}

#define ARGS                                                                                      \
  uint8_t *d, int ds, const uint8_t *ys, const uint8_t *us, const uint8_t *vs, int yst, int uvst, \
      int w, int h
void yv12_to_rgb555(ARGS) { yv12_to_rgb(O555, 2, d, ds, ys, us, vs, yst, uvst, w, h); }
void yv12_to_rgb565(ARGS) { yv12_to_rgb(O565, 2, d, ds, ys, us, vs, yst, uvst, w, h); }
void yv12_to_rgb24(ARGS) { yv12_to_rgb(O24, 3, d, ds, ys, us, vs, yst, uvst, w, h); }
void yv12_to_rgb32(ARGS) { yv12_to_rgb(O32, 4, d, ds, ys, vs, us, yst, uvst, w, h); }
void yv16_to_rgb24(ARGS) { yv16_to_rgb(O24, 3, d, ds, ys, us, vs, yst, uvst, w, h); }
void yv16_to_rgb32(ARGS) { yv16_to_rgb(O32, 4, d, ds, ys, vs, us, yst, uvst, w, h); }
void yv12_to_yuyv(ARGS) { yv12_to_packed(0, 1, 2, 3, d, ds, ys, us, vs, yst, uvst, w, h); }
void yv12_to_uyvy(ARGS) { yv12_to_packed(1, 0, 3, 2, d, ds, ys, us, vs, yst, uvst, w, h); }
void yv12_to_yuv(ARGS) {
  bool flip = h < 0;
  if (flip) h = -h;
  for (int k = 0; k < h; k++) memcpy(d + (long)k * ds, ys + row_of(k, h, flip) * yst, w);
  uint8_t *du = d + (long)h * ds, *dv = du + (long)(h / 2) * (ds / 2);
  for (int k = 0; k < h / 2; k++) {
    long crow = flip ? h / 2 - 1 - k : k;
    memcpy(du + (long)k * (ds / 2), us + crow * uvst, w / 2);
    memcpy(dv + (long)k * (ds / 2), vs + crow * uvst, w / 2);
  }
}
#undef ARGS

void yv16i_to_rgb24(uint8_t *dst, int dst_stride, const uint8_t *ys, const uint8_t *uvs,
                    int y_stride, int w, int h) {
  bool flip = h < 0;
  if (flip) h = -h;
  for (int k = 0; k < h; k++) {
    long row = row_of(k, h, flip);
    int carry[3] = {0, 0, 0};
    for (int x = 0; x < w; x++) {
      int y = ys[row * y_stride + x], u = uvs[row * y_stride + (x / 2) * 2],
          v = uvs[row * y_stride + (x / 2) * 2 + 1];
      put(O24, dst + (long)k * dst_stride * 3 + x * 3, term_b(y, u), term_g(y, u, v), term_r(y, v),
          carry);
    }
  }
}
void yvyu_to_rgb24(uint8_t *d, int ds, const uint8_t *s, int ss, int w, int h) {
  yvyu_to_rgb(no_zero, d, ds, s, ss, w, h);
}
void yvyu_to_rgb16(uint8_t *d, int ds, const uint8_t *s, int ss, int w, int h) {
  yvyu_to_rgb(five_bits, d, ds, s, ss, w, h);
}

}  // namespace ref
