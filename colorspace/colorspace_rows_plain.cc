// Plain row kernels: one sample at a time, straight from the tables.
#include <algorithm>
#include <cstring>

#include "colorspace.h"
#include "colorspace_rows.hh"

namespace orlo::colorspace {
namespace {

// ---- RGB into YV12: 2x2 blocks, sums of four for chroma ----------------

enum class Rgb { k555, k565, k24, k32 };

template <Rgb F>
inline void unpack(const uint8_t *p, int &r, int &g, int &b) {
  if constexpr (F == Rgb::k555 || F == Rgb::k565) {
    const int w = p[0] | (p[1] << 8);
    if constexpr (F == Rgb::k555) {
      r = (w >> 7) & 0xF8;
      g = (w >> 2) & 0xF8;
    } else {
      r = (w >> 8) & 0xF8;
      g = (w >> 3) & 0xFC;
    }
    b = (w << 3) & 0xF8;
  } else {
    b = p[0];
    g = p[1];
    r = p[2];
  }
}

template <Rgb F>
constexpr int bytes_per_pixel() {
  return F == Rgb::k24 ? 3 : F == Rgb::k32 ? 4 : 2;
}

inline uint8_t luma(int r, int g, int b) {
  return static_cast<uint8_t>(((66 * r + 129 * g + 25 * b) >> 8) + 16);
}

template <Rgb F>
void rgb_to_yv12_row(const uint8_t *s0, const uint8_t *s1, uint8_t *y0, uint8_t *y1, uint8_t *u,
                     uint8_t *v, int width) {
  constexpr int kBpp = bytes_per_pixel<F>();
  for (int i = 0; i < width / 2; i++) {
    int r4 = 0, g4 = 0, b4 = 0;
    const uint8_t *src[2] = {s0 + 2 * i * kBpp, s1 + 2 * i * kBpp};
    uint8_t *dst[2] = {y0 + 2 * i, y1 + 2 * i};
    for (int line = 0; line < 2; line++) {
      for (int k = 0; k < 2; k++) {
        int r, g, b;
        unpack<F>(src[line] + k * kBpp, r, g, b);
        dst[line][k] = luma(r, g, b);
        r4 += r;
        g4 += g;
        b4 += b;
      }
    }
    u[i] = static_cast<uint8_t>(((-38 * r4 - 74 * g4 + 112 * b4) >> 10) + 128);
    v[i] = static_cast<uint8_t>(((112 * r4 - 94 * g4 - 18 * b4) >> 10) + 128);
  }
}

// ---- Packed 4:2:2 to and from planes -------------------------------------

// Byte offsets of Y0, U, Y1, V within a group.
struct Yuyv {
  static constexpr int y0 = 0, u = 1, y1 = 2, v = 3;
};
struct Uyvy {
  static constexpr int u = 0, y0 = 1, v = 2, y1 = 3;
};

// YUYV averages both chroma samples over the two rows; UYVY averages V and
// takes U from the upper row alone.
template <class L>
void packed_to_yv12_row(const uint8_t *a, const uint8_t *b, uint8_t *y0, uint8_t *y1, uint8_t *u,
                        uint8_t *v, int width) {
  for (int i = 0; i < width / 2; i++, a += 4, b += 4) {
    y0[2 * i] = a[L::y0];
    y0[2 * i + 1] = a[L::y1];
    y1[2 * i] = b[L::y0];
    y1[2 * i + 1] = b[L::y1];
    if constexpr (L::u == Yuyv::u)
      u[i] = static_cast<uint8_t>((a[L::u] + b[L::u]) >> 1);
    else
      u[i] = a[L::u];
    v[i] = static_cast<uint8_t>((a[L::v] + b[L::v]) >> 1);
  }
}

template <class L>
void to_packed_row(const uint8_t *y, const uint8_t *u, const uint8_t *v, uint8_t *dst, int width) {
  for (int i = 0; i < width / 2; i++, dst += 4) {
    dst[L::y0] = y[2 * i];
    dst[L::u] = u[i];
    dst[L::y1] = y[2 * i + 1];
    dst[L::v] = v[i];
  }
}

// ---- YUV to RGB: base colour terms and the stores ------------------------

struct ChromaTerms {
  int32_t b, g, r;
};

inline ChromaTerms chroma_terms(uint8_t u, uint8_t v) {
  return {B_U_tab[u], G_U_tab[u] + G_V_tab[v], R_V_tab[v]};
}

inline uint8_t clip(int c) { return static_cast<uint8_t>(std::clamp(c, 0, 255)); }

// Stores one pixel from the unclipped terms; some keep state along the row.
struct StoreBgr24 {
  static constexpr int kBpp = 3;
  void operator()(uint8_t *d, int b, int g, int r) {
    d[0] = clip(b);
    d[1] = clip(g);
    d[2] = clip(r);
  }
};
struct StoreRgb0 {
  static constexpr int kBpp = 4;
  void operator()(uint8_t *d, int b, int g, int r) {
    d[0] = clip(r);
    d[1] = clip(g);
    d[2] = clip(b);
    d[3] = 0;
  }
};
// The bits that packing drops go on to the next pixel of the line.
template <bool k565>
struct StoreCarried16 {
  static constexpr int kBpp = 2;
  int cb = 0, cg = 0, cr = 0;
  void operator()(uint8_t *d, int b, int g, int r) {
    cb = (cb & 7) + b;
    cg = (cg & 7) + g;
    cr = (cr & 7) + r;
    unsigned w;
    if constexpr (k565)
      w = ((clip(cr) << 8) & 0xF800) | ((clip(cg) << 3) & 0x07E0) | (clip(cb) >> 3);
    else
      w = ((clip(cr) << 7) & 0x7C00) | ((clip(cg) << 2) & 0x03E0) | (clip(cb) >> 3);
    d[0] = static_cast<uint8_t>(w);
    d[1] = static_cast<uint8_t>(w >> 8);
  }
};
// The packed-source rules keep 0 out of the output.
inline uint8_t floor_one(int c) { return static_cast<uint8_t>(c <= 0 ? 1 : c >= 255 ? 255 : c); }
struct StoreBgr24NoZero {
  static constexpr int kBpp = 3;
  void operator()(uint8_t *d, int b, int g, int r) {
    d[0] = floor_one(b);
    d[1] = floor_one(g);
    d[2] = floor_one(r);
  }
};
inline uint8_t five_bits(int c) {
  return static_cast<uint8_t>(c <= 8 ? 8 : std::min(c, 255) * 31 / 255 * 8);
}
struct StoreBgr16In24 {
  static constexpr int kBpp = 3;
  void operator()(uint8_t *d, int b, int g, int r) {
    d[0] = five_bits(b);
    d[1] = five_bits(g);
    d[2] = five_bits(r);
  }
};

template <class Store>
inline void pixel_pair(Store &store, uint8_t *d, uint8_t y0, uint8_t y1, ChromaTerms c) {
  const int32_t t0 = RGB_Y_tab[y0];
  store(d, (t0 + c.b) >> 13, (t0 - c.g) >> 13, (t0 + c.r) >> 13);
  const int32_t t1 = RGB_Y_tab[y1];
  store(d + Store::kBpp, (t1 + c.b) >> 13, (t1 - c.g) >> 13, (t1 + c.r) >> 13);
}

template <class Store>
void yuv_to_rgb_row(const uint8_t *y, const uint8_t *u, const uint8_t *v, uint8_t *dst, int width) {
  Store store;
  for (int i = 0; i < width / 2; i++)
    pixel_pair(store, dst + 2 * i * Store::kBpp, y[2 * i], y[2 * i + 1], chroma_terms(u[i], v[i]));
}

template <class Store>
void yuv_pair_to_rgb_row(const uint8_t *y0, const uint8_t *y1, const uint8_t *u, const uint8_t *v,
                         uint8_t *d0, uint8_t *d1, int width) {
  yuv_to_rgb_row<Store>(y0, u, v, d0, width);
  yuv_to_rgb_row<Store>(y1, u, v, d1, width);
}

void interleaved_to_bgr24_row(const uint8_t *y, const uint8_t *uv, uint8_t *dst, int width) {
  StoreBgr24 store;
  for (int i = 0; i < width / 2; i++)
    pixel_pair(store, dst + 6 * i, y[2 * i], y[2 * i + 1], chroma_terms(uv[2 * i], uv[2 * i + 1]));
}

// Groups of Y0, V, Y1, U.
template <class Store>
void yvyu_to_rgb_row(const uint8_t *src, uint8_t *dst, int width) {
  Store store;
  for (int i = 0; i < width / 2; i++, src += 4)
    pixel_pair(store, dst + 6 * i, src[0], src[2], chroma_terms(src[3], src[1]));
}

void copy_bytes(uint8_t *dst, const uint8_t *src, size_t bytes) { std::memcpy(dst, src, bytes); }

}  // namespace

const RowKernels &plain_row_kernels() {
  static const RowKernels kernels = {
      rgb_to_yv12_row<Rgb::k555>,
      rgb_to_yv12_row<Rgb::k565>,
      rgb_to_yv12_row<Rgb::k24>,
      rgb_to_yv12_row<Rgb::k32>,
      packed_to_yv12_row<Yuyv>,
      packed_to_yv12_row<Uyvy>,
      to_packed_row<Yuyv>,
      to_packed_row<Uyvy>,
      copy_bytes,
      yuv_pair_to_rgb_row<StoreCarried16<false>>,
      yuv_pair_to_rgb_row<StoreCarried16<true>>,
      yuv_pair_to_rgb_row<StoreBgr24>,
      yuv_pair_to_rgb_row<StoreRgb0>,
      yuv_to_rgb_row<StoreCarried16<false>>,
      yuv_to_rgb_row<StoreCarried16<true>>,
      yuv_to_rgb_row<StoreBgr24>,
      yuv_to_rgb_row<StoreRgb0>,
      interleaved_to_bgr24_row,
      yvyu_to_rgb_row<StoreBgr24NoZero>,
      yvyu_to_rgb_row<StoreBgr16In24>,
  };
  return kernels;
}

}  // namespace orlo::colorspace
