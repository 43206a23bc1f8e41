// Vector row kernels, compiled once per instruction set and chosen at run
// time.  They reproduce the table arithmetic bit for bit: every table entry
// is a small constant times the sample, so a term split into a floor by 8192
// and a remainder fits 16-bit lanes, and the sum of the parts floors exactly.

// 512-bit and scalable targets are left out: the carries of the 16-bit
// formats are written for blocks of 128 and 256 bits.  The one-lane fallback
// keeps the plain kernels.
#ifndef HWY_DISABLED_TARGETS
#define HWY_DISABLED_TARGETS \
  (HWY_AVX3 | HWY_AVX3_DL | HWY_SVE | HWY_SVE2 | HWY_SVE_256 | HWY_SVE2_128 | HWY_RVV)
#endif

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "colorspace_rows_vector.cc"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

#include <cstring>
#include <functional>
#include <vector>

#include "colorspace_rows.hh"

HWY_BEFORE_NAMESPACE();
namespace orlo::colorspace::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

#if HWY_TARGET == HWY_SCALAR
void FillRowKernels(RowKernels *) {}
#else

// One step covers a full vector of bytes in pixels; the arithmetic runs on
// two halves of 16-bit lanes.
using D8 = hn::ScalableTag<uint8_t>;
using D16 = hn::Repartition<int16_t, D8>;
using DU16 = hn::Repartition<uint16_t, D8>;
using DU32 = hn::Repartition<uint32_t, D8>;
using D32 = hn::Repartition<int32_t, D8>;
using D8h = hn::Rebind<uint8_t, D16>;
using D8q = hn::Rebind<uint8_t, D32>;
using V8 = hn::Vec<D8>;
using V16 = hn::Vec<D16>;

// ---- YUV to RGB -----------------------------------------------------------

struct Rgb16 {
  V16 b, g, r;
};

// The base colour terms of luma y and chroma u, v (one per lane):
// floor((9535 y' + 16531 u') / 8192) and so on.  For a constant k and a
// sample s, k s = 8192 floor(k s / 8192) + (k s mod 8192); the floor is the
// high half of (8 s) x k, the remainder the low 13 bits of s x k.
HWY_INLINE Rgb16 Terms(V16 y, V16 u, V16 v) {
  const D16 d;
  const V16 low13 = hn::Set(d, 8191);
  const V16 ys = hn::Sub(y, hn::Set(d, 16));
  const V16 us = hn::Sub(u, hn::Set(d, 128));
  const V16 vs = hn::Sub(v, hn::Set(d, 128));
  const V16 y8 = hn::ShiftLeft<3>(ys), u8 = hn::ShiftLeft<3>(us), v8 = hn::ShiftLeft<3>(vs);
  const V16 hy = hn::MulHigh(y8, hn::Set(d, 9535));
  const V16 ly = hn::And(hn::Mul(ys, hn::Set(d, 9535)), low13);
  const V16 lb = hn::And(hn::Mul(us, hn::Set(d, 16531)), low13);
  const V16 lgu = hn::And(hn::Mul(us, hn::Set(d, -3203)), low13);
  const V16 lgv = hn::And(hn::Mul(vs, hn::Set(d, -6660)), low13);
  const V16 lr = hn::And(hn::Mul(vs, hn::Set(d, 13074)), low13);
  Rgb16 t;
  t.b =
      hn::Add(hn::Add(hy, hn::MulHigh(u8, hn::Set(d, 16531))), hn::ShiftRight<13>(hn::Add(ly, lb)));
  t.g = hn::Add(
      hn::Add(hy, hn::Add(hn::MulHigh(u8, hn::Set(d, -3203)), hn::MulHigh(v8, hn::Set(d, -6660)))),
      hn::ShiftRight<13>(hn::Add(ly, hn::Add(lgu, lgv))));
  t.r =
      hn::Add(hn::Add(hy, hn::MulHigh(v8, hn::Set(d, 13074))), hn::ShiftRight<13>(hn::Add(ly, lr)));
  return t;
}

// Each 16-bit lane of a 32-bit lane pair from the low (or high) half.
HWY_INLINE V16 DupLow(hn::Vec<DU32> w) {
  const auto lo = hn::And(w, hn::Set(DU32(), 0xFFFFu));
  return hn::BitCast(D16(), hn::Or(lo, hn::ShiftLeft<16>(lo)));
}
HWY_INLINE V16 DupHigh(hn::Vec<DU32> w) {
  const auto hi = hn::ShiftRight<16>(w);
  return hn::BitCast(D16(), hn::Or(hi, hn::ShiftLeft<16>(hi)));
}

// Sources: Get fills luma and per-pixel chroma for pixels [x, x + half);
// Tail copies what is left from pixel x into zeroed scratch and points there.
constexpr size_t kMaxStep = HWY_MAX_BYTES;

struct PlanarSource {
  const uint8_t *y, *u, *v;
  HWY_INLINE void Get(size_t x, V16 &ly, V16 &lu, V16 &lv) const {
    ly = hn::BitCast(D16(), hn::PromoteTo(DU16(), hn::LoadU(D8h(), y + x)));
    const auto wu = hn::PromoteTo(DU32(), hn::LoadU(D8q(), u + x / 2));
    const auto wv = hn::PromoteTo(DU32(), hn::LoadU(D8q(), v + x / 2));
    lu = DupLow(wu);
    lv = DupLow(wv);
  }
  PlanarSource Tail(size_t x, size_t rem, uint8_t *scratch) const {
    std::memcpy(scratch, y + x, rem);
    std::memcpy(scratch + kMaxStep, u + x / 2, rem / 2);
    std::memcpy(scratch + 2 * kMaxStep, v + x / 2, rem / 2);
    return {scratch, scratch + kMaxStep, scratch + 2 * kMaxStep};
  }
};

// Luma, and a chroma row of U, V pairs.
struct InterleavedSource {
  const uint8_t *y, *uv;
  HWY_INLINE void Get(size_t x, V16 &ly, V16 &lu, V16 &lv) const {
    ly = hn::BitCast(D16(), hn::PromoteTo(DU16(), hn::LoadU(D8h(), y + x)));
    const auto w = hn::BitCast(DU32(), hn::PromoteTo(DU16(), hn::LoadU(D8h(), uv + x)));
    lu = DupLow(w);
    lv = DupHigh(w);
  }
  InterleavedSource Tail(size_t x, size_t rem, uint8_t *scratch) const {
    std::memcpy(scratch, y + x, rem);
    std::memcpy(scratch + kMaxStep, uv + x, rem);
    return {scratch, scratch + kMaxStep};
  }
};

// Groups of Y0, V, Y1, U.
struct YvyuSource {
  const uint8_t *src;
  HWY_INLINE void Get(size_t x, V16 &ly, V16 &lu, V16 &lv) const {
    const auto w = hn::LoadU(DU16(), reinterpret_cast<const uint16_t *>(src + 2 * x));
    ly = hn::BitCast(D16(), hn::And(w, hn::Set(DU16(), 0xFF)));
    const auto c = hn::BitCast(DU32(), hn::ShiftRight<8>(w));  // V | U << 16
    lv = DupLow(c);
    lu = DupHigh(c);
  }
  YvyuSource Tail(size_t x, size_t rem, uint8_t *scratch) const {
    std::memcpy(scratch, src + 2 * x, 2 * rem);
    return {scratch};
  }
};

HWY_INLINE V8 Bytes(V16 lo, V16 hi) {
  return hn::Combine(D8(), hn::DemoteTo(D8h(), hi), hn::DemoteTo(D8h(), lo));
}

// Stores: Put writes the pixels [0, N8) of one step from two halves.
struct PutBgr24 {
  static constexpr int kBpp = 3;
  HWY_INLINE void Put(uint8_t *d, const Rgb16 &lo, const Rgb16 &hi) {
    hn::StoreInterleaved3(Bytes(lo.b, hi.b), Bytes(lo.g, hi.g), Bytes(lo.r, hi.r), D8(), d);
  }
};
struct PutRgb0 {
  static constexpr int kBpp = 4;
  HWY_INLINE void Put(uint8_t *d, const Rgb16 &lo, const Rgb16 &hi) {
    hn::StoreInterleaved4(Bytes(lo.r, hi.r), Bytes(lo.g, hi.g), Bytes(lo.b, hi.b), hn::Zero(D8()),
                          D8(), d);
  }
};
struct PutBgr24NoZero {
  static constexpr int kBpp = 3;
  static HWY_INLINE V16 F(V16 c) { return hn::Max(c, hn::Set(D16(), 1)); }
  HWY_INLINE void Put(uint8_t *d, const Rgb16 &lo, const Rgb16 &hi) {
    hn::StoreInterleaved3(Bytes(F(lo.b), F(hi.b)), Bytes(F(lo.g), F(hi.g)), Bytes(F(lo.r), F(hi.r)),
                          D8(), d);
  }
};
// max(floor(clamp(c) x 31 / 255), 1) x 8; x / 255 is (x + 1 + (x >> 8)) >> 8
// for every x up to 255 x 31.
struct PutBgr16In24 {
  static constexpr int kBpp = 3;
  static HWY_INLINE V16 F(V16 c) {
    const D16 d;
    const V16 m = hn::Min(hn::Max(c, hn::Zero(d)), hn::Set(d, 255));
    const V16 x = hn::Mul(m, hn::Set(d, 31));
    const V16 q = hn::ShiftRight<8>(hn::Add(hn::Add(x, hn::Set(d, 1)), hn::ShiftRight<8>(x)));
    return hn::ShiftLeft<3>(hn::Max(q, hn::Set(d, 1)));
  }
  HWY_INLINE void Put(uint8_t *d, const Rgb16 &lo, const Rgb16 &hi) {
    hn::StoreInterleaved3(Bytes(F(lo.b), F(hi.b)), Bytes(F(lo.g), F(hi.g)), Bytes(F(lo.r), F(hi.r)),
                          D8(), d);
  }
};

// The carry of a line: c_i = (c_{i-1} & 7) + t_i, so c_i & 7 is the running
// sum of the terms mod 8, and c_i = t_i + (sum of the terms before i) & 7.
// A prefix sum in the lanes (mod 2^16 is enough) replaces the serial chain.
constexpr size_t kLanes16 = HWY_MAX_BYTES / 2;
static_assert(kLanes16 == 8 || kLanes16 == 16, "carries are written for 128 and 256 bits");

struct LineCarry {
  V16 run;  // the sum of all terms so far, in every lane
  LineCarry() : run(hn::Zero(D16())) {}
  HWY_INLINE V16 Apply(V16 t) {
    const D16 d;
    V16 p = hn::Add(t, hn::ShiftLeftLanes<1>(d, t));
    p = hn::Add(p, hn::ShiftLeftLanes<2>(d, p));
    p = hn::Add(p, hn::ShiftLeftLanes<4>(d, p));
    if constexpr (kLanes16 == 16) {
      // The shifts stay within 128-bit blocks: carry the lower block over.
      p = hn::Add(p, hn::ConcatLowerLower(d, hn::Broadcast<7>(p), hn::Zero(d)));
    }
    p = hn::Add(p, run);
    const V16 before = hn::Sub(p, t);
    if constexpr (kLanes16 == 16) {
      const V16 last = hn::Broadcast<7>(p);
      run = hn::ConcatUpperUpper(d, last, last);
    } else {
      run = hn::Broadcast<7>(p);
    }
    return hn::Add(t, hn::And(before, hn::Set(d, 7)));
  }
};

template <bool k565>
struct PutCarried16 {
  static constexpr int kBpp = 2;
  LineCarry cb, cg, cr;
  PutCarried16() : cb(), cg(), cr() {}
  HWY_INLINE void Half(uint8_t *d, const Rgb16 &t) {
    const D16 d16;
    const auto clip = [&](V16 c) {
      return hn::BitCast(DU16(), hn::Min(hn::Max(c, hn::Zero(d16)), hn::Set(d16, 255)));
    };
    const auto b = clip(cb.Apply(t.b)), g = clip(cg.Apply(t.g)), r = clip(cr.Apply(t.r));
    const DU16 du;
    hn::Vec<DU16> w;
    if constexpr (k565) {
      w = hn::Or(hn::Or(hn::And(hn::ShiftLeft<8>(r), hn::Set(du, 0xF800)),
                        hn::And(hn::ShiftLeft<3>(g), hn::Set(du, 0x07E0))),
                 hn::ShiftRight<3>(b));
    } else {
      w = hn::Or(hn::Or(hn::And(hn::ShiftLeft<7>(r), hn::Set(du, 0x7C00)),
                        hn::And(hn::ShiftLeft<2>(g), hn::Set(du, 0x03E0))),
                 hn::ShiftRight<3>(b));
    }
    hn::StoreU(w, du, reinterpret_cast<uint16_t *>(d));
  }
  HWY_INLINE void Put(uint8_t *d, const Rgb16 &lo, const Rgb16 &hi) {
    Half(d, lo);
    Half(d + 2 * hn::Lanes(D16()), hi);
  }
};

template <class Put, class Source>
HWY_INLINE void Step(Put &put, const Source &s, size_t x, uint8_t *d) {
  const size_t half = hn::Lanes(D16());
  V16 y, u, v;
  s.Get(x, y, u, v);
  const Rgb16 lo = Terms(y, u, v);
  s.Get(x + half, y, u, v);
  const Rgb16 hi = Terms(y, u, v);
  put.Put(d, lo, hi);
}

// Whole steps in place; the rest of the row through scratch copies, with the
// state of the line (the carries) running on.
template <class Put, class Source>
HWY_INLINE void ToRgbRow(const Source &s, uint8_t *dst, int width) {
  const size_t n = hn::Lanes(D8()), w = static_cast<size_t>(width);
  Put put;
  size_t x = 0;
  for (; x + n <= w; x += n) Step(put, s, x, dst + x * Put::kBpp);
  if (x < w) {
    alignas(64) uint8_t in[3 * kMaxStep] = {};
    alignas(64) uint8_t out[4 * kMaxStep];
    Step(put, s.Tail(x, w - x, in), 0, out);
    std::memcpy(dst + x * Put::kBpp, out, (w - x) * Put::kBpp);
  }
}

template <class Put>
void PlanarToRgb(const uint8_t *y, const uint8_t *u, const uint8_t *v, uint8_t *dst, int width) {
  ToRgbRow<Put>(PlanarSource{y, u, v}, dst, width);
}
void InterleavedToBgr24(const uint8_t *y, const uint8_t *uv, uint8_t *dst, int width) {
  ToRgbRow<PutBgr24>(InterleavedSource{y, uv}, dst, width);
}
template <class Put>
void YvyuToRgb(const uint8_t *src, uint8_t *dst, int width) {
  ToRgbRow<Put>(YvyuSource{src}, dst, width);
}

// ---- RGB into YV12 ---------------------------------------------------------

// r, g, b of the N8 / 2 pixels of one half, as 16-bit lanes.
struct Rgb {
  hn::Vec<DU16> r, g, b;
};

enum class Fmt { k555, k565, k24, k32 };

template <Fmt F>
HWY_INLINE Rgb Unpack(const uint8_t *p) {
  const DU16 du;
  Rgb c;
  if constexpr (F == Fmt::k24 || F == Fmt::k32) {
    hn::Vec<D8h> b, g, r, a;
    if constexpr (F == Fmt::k24)
      hn::LoadInterleaved3(D8h(), p, b, g, r);
    else
      hn::LoadInterleaved4(D8h(), p, b, g, r, a);
    c.r = hn::PromoteTo(du, r);
    c.g = hn::PromoteTo(du, g);
    c.b = hn::PromoteTo(du, b);
  } else {
    const auto w = hn::LoadU(du, reinterpret_cast<const uint16_t *>(p));
    const auto f8 = hn::Set(du, 0xF8);
    if constexpr (F == Fmt::k555) {
      c.r = hn::And(hn::ShiftRight<7>(w), f8);
      c.g = hn::And(hn::ShiftRight<2>(w), f8);
    } else {
      c.r = hn::And(hn::ShiftRight<8>(w), f8);
      c.g = hn::And(hn::ShiftRight<3>(w), hn::Set(du, 0xFC));
    }
    c.b = hn::And(hn::ShiftLeft<3>(w), f8);
  }
  return c;
}

// ((66 r + 129 g + 25 b) >> 8) + 16: at most 56100, exact in unsigned 16 bits.
HWY_INLINE hn::Vec<DU16> Luma(const Rgb &c) {
  const DU16 du;
  const auto sum = hn::Add(hn::Add(hn::Mul(c.r, hn::Set(du, 66)), hn::Mul(c.g, hn::Set(du, 129))),
                           hn::Mul(c.b, hn::Set(du, 25)));
  return hn::Add(hn::ShiftRight<8>(sum), hn::Set(du, 16));
}

// Sums of horizontal neighbours: 32-bit lanes, one per chroma sample.
HWY_INLINE hn::Vec<D32> PairSums(hn::Vec<DU16> v) {
  const auto w = hn::BitCast(DU32(), v);
  return hn::BitCast(D32(), hn::Add(hn::And(w, hn::Set(DU32(), 0xFFFF)), hn::ShiftRight<16>(w)));
}

HWY_INLINE hn::Vec<D8q> Chroma(hn::Vec<D32> r4, hn::Vec<D32> g4, hn::Vec<D32> b4, int kr, int kg,
                               int kb) {
  const D32 d;
  const auto sum = hn::Add(hn::Add(hn::Mul(r4, hn::Set(d, kr)), hn::Mul(g4, hn::Set(d, kg))),
                           hn::Mul(b4, hn::Set(d, kb)));
  return hn::DemoteTo(D8q(), hn::Add(hn::ShiftRight<10>(sum), hn::Set(d, 128)));
}

template <Fmt F>
constexpr int BytesPerPixel() {
  return F == Fmt::k24 ? 3 : F == Fmt::k32 ? 4 : 2;
}

template <Fmt F>
void RgbToYv12(const uint8_t *s0, const uint8_t *s1, uint8_t *y0, uint8_t *y1, uint8_t *u,
               uint8_t *v, int width) {
  constexpr int kBpp = BytesPerPixel<F>();
  const size_t n = hn::Lanes(D16()), w = static_cast<size_t>(width);
  size_t x = 0;
  for (; x + n <= w; x += n) {
    const Rgb a = Unpack<F>(s0 + x * kBpp), b = Unpack<F>(s1 + x * kBpp);
    hn::StoreU(hn::DemoteTo(D8h(), hn::BitCast(D16(), Luma(a))), D8h(), y0 + x);
    hn::StoreU(hn::DemoteTo(D8h(), hn::BitCast(D16(), Luma(b))), D8h(), y1 + x);
    const auto r4 = PairSums(hn::Add(a.r, b.r)), g4 = PairSums(hn::Add(a.g, b.g)),
               b4 = PairSums(hn::Add(a.b, b.b));
    hn::StoreU(Chroma(r4, g4, b4, -38, -74, 112), D8q(), u + x / 2);
    hn::StoreU(Chroma(r4, g4, b4, 112, -94, -18), D8q(), v + x / 2);
  }
  if (x < w) {
    const auto plain = F == Fmt::k555   ? plain_row_kernels().rgb555_to_yv12
                       : F == Fmt::k565 ? plain_row_kernels().rgb565_to_yv12
                       : F == Fmt::k24  ? plain_row_kernels().bgr24_to_yv12
                                        : plain_row_kernels().bgr32_to_yv12;
    plain(s0 + x * kBpp, s1 + x * kBpp, y0 + x, y1 + x, u + x / 2, v + x / 2,
          static_cast<int>(w - x));
  }
}

// ---- Packed 4:2:2 to and from planes --------------------------------------

// Chroma bytes alternate first, second: split into two half vectors.
HWY_INLINE void SplitPairs(V8 c, hn::Vec<D8h> &first, hn::Vec<D8h> &second) {
  const auto w = hn::BitCast(DU16(), c);
  first = hn::DemoteTo(D8h(), hn::BitCast(D16(), hn::And(w, hn::Set(DU16(), 0xFF))));
  second = hn::DemoteTo(D8h(), hn::BitCast(D16(), hn::ShiftRight<8>(w)));
}

// YUYV averages U and V over the two rows; UYVY takes U from the upper row.
template <bool kYuyv>
void PackedToYv12(const uint8_t *a, const uint8_t *b, uint8_t *y0, uint8_t *y1, uint8_t *u,
                  uint8_t *v, int width) {
  const D8 d;
  const size_t n = hn::Lanes(d), w = static_cast<size_t>(width);
  size_t x = 0;
  for (; x + n <= w; x += n) {
    V8 ya, ca, yb, cb;
    if constexpr (kYuyv) {
      hn::LoadInterleaved2(d, a + 2 * x, ya, ca);
      hn::LoadInterleaved2(d, b + 2 * x, yb, cb);
    } else {
      hn::LoadInterleaved2(d, a + 2 * x, ca, ya);
      hn::LoadInterleaved2(d, b + 2 * x, cb, yb);
    }
    hn::StoreU(ya, d, y0 + x);
    hn::StoreU(yb, d, y1 + x);
    hn::Vec<D8h> ua, va, ub, vb;
    SplitPairs(ca, ua, va);
    SplitPairs(cb, ub, vb);
    const auto avg = [](hn::Vec<D8h> p, hn::Vec<D8h> q) {
      return hn::Add(hn::And(p, q), hn::ShiftRight<1>(hn::Xor(p, q)));
    };
    hn::StoreU(kYuyv ? avg(ua, ub) : ua, D8h(), u + x / 2);
    hn::StoreU(avg(va, vb), D8h(), v + x / 2);
  }
  if (x < w) {
    const auto plain = kYuyv ? plain_row_kernels().yuyv_to_yv12 : plain_row_kernels().uyvy_to_yv12;
    plain(a + 2 * x, b + 2 * x, y0 + x, y1 + x, u + x / 2, v + x / 2, static_cast<int>(w - x));
  }
}

template <bool kYuyv>
void ToPacked(const uint8_t *y, const uint8_t *u, const uint8_t *v, uint8_t *dst, int width) {
  const D8 d;
  const DU16 du;
  const size_t n = hn::Lanes(d), w = static_cast<size_t>(width);
  size_t x = 0;
  for (; x + n <= w; x += n) {
    const auto lu = hn::PromoteTo(du, hn::LoadU(D8h(), u + x / 2));
    const auto lv = hn::PromoteTo(du, hn::LoadU(D8h(), v + x / 2));
    const V8 c = hn::BitCast(d, hn::Or(lu, hn::ShiftLeft<8>(lv)));  // U, V byte pairs
    const V8 luma = hn::LoadU(d, y + x);
    if constexpr (kYuyv)
      hn::StoreInterleaved2(luma, c, d, dst + 2 * x);
    else
      hn::StoreInterleaved2(c, luma, d, dst + 2 * x);
  }
  if (x < w) {
    const auto plain = kYuyv ? plain_row_kernels().to_yuyv : plain_row_kernels().to_uyvy;
    plain(y + x, u + x / 2, v + x / 2, dst + 2 * x, static_cast<int>(w - x));
  }
}

void FillRowKernels(RowKernels *k) {
  k->rgb555_to_yv12 = RgbToYv12<Fmt::k555>;
  k->rgb565_to_yv12 = RgbToYv12<Fmt::k565>;
  k->bgr24_to_yv12 = RgbToYv12<Fmt::k24>;
  k->bgr32_to_yv12 = RgbToYv12<Fmt::k32>;
  k->yuyv_to_yv12 = PackedToYv12<true>;
  k->uyvy_to_yv12 = PackedToYv12<false>;
  k->to_yuyv = ToPacked<true>;
  k->to_uyvy = ToPacked<false>;
  k->to_rgb555 = PlanarToRgb<PutCarried16<false> >;
  k->to_rgb565 = PlanarToRgb<PutCarried16<true> >;
  k->to_bgr24 = PlanarToRgb<PutBgr24>;
  k->to_rgb0 = PlanarToRgb<PutRgb0>;
  k->interleaved_to_bgr24 = InterleavedToBgr24;
  k->yvyu_to_bgr24 = YvyuToRgb<PutBgr24NoZero>;
  k->yvyu_to_bgr16 = YvyuToRgb<PutBgr16In24>;
}
#endif  // HWY_TARGET == HWY_SCALAR

}  // namespace orlo::colorspace::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace orlo::colorspace {

HWY_EXPORT(FillRowKernels);

namespace {
RowKernels vector_kernels;

void fill_vector_kernels() {
  vector_kernels = plain_row_kernels();
  HWY_DYNAMIC_DISPATCH(FillRowKernels)(&vector_kernels);
}
}  // namespace

const RowKernels &vector_row_kernels() {
  static const bool filled = (fill_vector_kernels(), true);
  (void)filled;
  return vector_kernels;
}

void for_each_vector_target(const std::function<void(const char *target)> &fn) {
  (void)vector_row_kernels();
  const std::vector<int64_t> targets = hwy::SupportedAndGeneratedTargets();
  for (int64_t target : targets) {
    hwy::SetSupportedTargetsForTest(target);
    fill_vector_kernels();
    fn(hwy::TargetName(target));
  }
  hwy::SetSupportedTargetsForTest(0);
  fill_vector_kernels();
}

}  // namespace orlo::colorspace
#endif
