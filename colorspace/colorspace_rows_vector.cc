// Vector row kernels, compiled once per instruction set and chosen at run
// time.  They reproduce the table arithmetic bit for bit: every table entry
// is a small constant times the sample, so a term split into a floor by 8192
// and a remainder fits 16-bit lanes, and the sum of the parts floors exactly.
// On AVX-512 with VNNI and VBMI, the parts in colorspace_rows_avx512-inl.hh
// take over the heavy steps: exact sums by multiply-add in 32-bit lanes and
// byte permutes across the whole vector.

// Scalable targets are left out: the carries of the 16-bit formats need the
// vector size at compile time.  The one-lane fallback keeps the plain
// kernels.  AVX-512 with VNNI and VBMI is a target of its own.
#ifndef HWY_DISABLED_TARGETS
#define HWY_DISABLED_TARGETS (HWY_SVE | HWY_SVE2 | HWY_SVE_256 | HWY_SVE2_128 | HWY_RVV)
#endif
#ifndef HWY_WANT_AVX3_DL
#define HWY_WANT_AVX3_DL
#endif

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "colorspace_rows_vector.cc"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

#include <cstring>
#include <functional>
#include <utility>
#include <vector>

#if defined(__arm__)
#include <sys/auxv.h>
#endif

#include "colorspace_rows.hh"

HWY_BEFORE_NAMESPACE();
namespace orlo::colorspace::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

#if HWY_TARGET == HWY_SCALAR
void FillRowKernels(RowKernels *) {}
#else

// One step covers as many pixels as a vector has bytes; the arithmetic runs
// on 16-bit lanes that each hold one pixel pair.
using D8 = hn::ScalableTag<uint8_t>;
using D16 = hn::Repartition<int16_t, D8>;
using DU16 = hn::Repartition<uint16_t, D8>;
using D8h = hn::Rebind<uint8_t, D16>;
using V8 = hn::Vec<D8>;
using V16 = hn::Vec<D16>;

// ---- YUV to RGB -----------------------------------------------------------
//
// A step takes N8 pixels as N8 / 2 pixel pairs: the even pixels in one set
// of 16-bit lanes, the odd ones in another, and the chroma of each pair in
// the lane of the pair, so chroma needs no widening and the terms of a chroma
// pair are formed once.  The two sets meet again byte-wise at the store.

struct Rgb16 {
  V16 b, g, r;
};

// For a constant k and a sample s, k s = 8192 floor(k s / 8192) + (k s mod
// 8192): the floor is the high half of (8 s) x k, the remainder the low 13
// bits of s x k.  The floor of a sum of such terms is the sum of the floors
// plus the floor of the sum of the remainders, all within 16 bits.
struct Split {
  V16 hi, lo;
};

HWY_INLINE Split SplitTerm(V16 s, int16_t k) {
  const D16 d;
  return {hn::MulHigh(hn::ShiftLeft<3>(s), hn::Set(d, k)),
          hn::And(hn::Mul(s, hn::Set(d, k)), hn::Set(d, 8191))};
}

// The chroma parts of the three terms: B_U, -(G_U + G_V), R_V.
struct ChromaSplit {
  Split b, g, r;
};

HWY_INLINE ChromaSplit ChromaTerms(V16 u, V16 v) {
  const D16 d;
  const V16 us = hn::Sub(u, hn::Set(d, 128)), vs = hn::Sub(v, hn::Set(d, 128));
  const Split gu = SplitTerm(us, -3203), gv = SplitTerm(vs, -6660);
  return {
      SplitTerm(us, 16531), {hn::Add(gu.hi, gv.hi), hn::Add(gu.lo, gv.lo)}, SplitTerm(vs, 13074)};
}

HWY_INLINE V16 Combine(const Split &y, const Split &c) {
  return hn::Add(hn::Add(y.hi, c.hi), hn::ShiftRight<13>(hn::Add(y.lo, c.lo)));
}

HWY_INLINE Rgb16 Terms(V16 y, const ChromaSplit &c) {
  const Split ys = SplitTerm(hn::Sub(y, hn::Set(D16(), 16)), 9535);
  return {Combine(ys, c.b), Combine(ys, c.g), Combine(ys, c.r)};
}

// Sources: Get gives the even and odd luma and the chroma of N8 / 2 pairs
// from pixel x on.  Tail copies what is left from pixel x into zeroed
// scratch and points there.
constexpr size_t kMaxStep = HWY_MAX_BYTES;

// Records of vectors are declared with braces (Pairs p{}), never through
// their implicit constructor: GCC builds that outside the NEON target on
// 32-bit ARM and then cannot inline the vectors' own constructors.
struct Pairs {
  V16 y_even, y_odd, u, v;
};

HWY_INLINE void SplitBytes(hn::Vec<DU16> w, V16 &low, V16 &high) {
  low = hn::BitCast(D16(), hn::And(w, hn::Set(DU16(), 0xFF)));
  high = hn::BitCast(D16(), hn::ShiftRight<8>(w));
}

#include "colorspace_rows_avx512-inl.hh"

struct PlanarSource {
  const uint8_t *y, *u, *v;
  HWY_INLINE void Get(size_t x, Pairs &p) const {
    SplitBytes(hn::LoadU(DU16(), reinterpret_cast<const uint16_t *>(y + x)), p.y_even, p.y_odd);
    p.u = hn::BitCast(D16(), hn::PromoteTo(DU16(), hn::LoadU(D8h(), u + x / 2)));
    p.v = hn::BitCast(D16(), hn::PromoteTo(DU16(), hn::LoadU(D8h(), v + x / 2)));
  }
#if HWY_TARGET == HWY_AVX3_DL
  HWY_INLINE void Terms(size_t x, Rgb16 &even, Rgb16 &odd) const {
    Lanes32 l;
    const __m256i cu = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(u + x / 2));
    const __m256i cv = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(v + x / 2));
    Gather<PlanarLayout>(_mm512_loadu_si512(y + x),
                         _mm512_inserti64x4(_mm512_castsi256_si512(cu), cv, 1), l);
    Terms32(l, even, odd);
  }
#endif
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
  HWY_INLINE void Get(size_t x, Pairs &p) const {
    SplitBytes(hn::LoadU(DU16(), reinterpret_cast<const uint16_t *>(y + x)), p.y_even, p.y_odd);
    SplitBytes(hn::LoadU(DU16(), reinterpret_cast<const uint16_t *>(uv + x)), p.u, p.v);
  }
#if HWY_TARGET == HWY_AVX3_DL
  HWY_INLINE void Terms(size_t x, Rgb16 &even, Rgb16 &odd) const {
    InterleavedTerms32(y + x, uv + x, even, odd);
  }
#endif
  InterleavedSource Tail(size_t x, size_t rem, uint8_t *scratch) const {
    std::memcpy(scratch, y + x, rem);
    std::memcpy(scratch + kMaxStep, uv + x, rem);
    return {scratch, scratch + kMaxStep};
  }
};

// Groups of Y0, V, Y1, U.
struct YvyuSource {
  const uint8_t *src;
  HWY_INLINE void Get(size_t x, Pairs &p) const {
    V8 luma, chroma;
    hn::LoadInterleaved2(D8(), src + 2 * x, luma, chroma);
    SplitBytes(hn::BitCast(DU16(), luma), p.y_even, p.y_odd);
    SplitBytes(hn::BitCast(DU16(), chroma), p.v, p.u);
  }
#if HWY_TARGET == HWY_AVX3_DL
  HWY_INLINE void Terms(size_t x, Rgb16 &even, Rgb16 &odd) const {
    YvyuTerms32(src + 2 * x, even, odd);
  }
#endif
  YvyuSource Tail(size_t x, size_t rem, uint8_t *scratch) const {
    std::memcpy(scratch, src + 2 * x, 2 * rem);
    return {scratch};
  }
};

// Even and odd values, each already within 0..255, back into pixel order.
HWY_INLINE V8 Bytes(V16 even, V16 odd) {
  return hn::BitCast(D8(), hn::Or(even, hn::ShiftLeft<8>(odd)));
}
HWY_INLINE V16 Clip(V16 c, int16_t low) {
  return hn::Min(hn::Max(c, hn::Set(D16(), low)), hn::Set(D16(), 255));
}

// How an unclipped term becomes a byte.  Wide works on 16-bit terms and
// leaves the clip to 0..255 to the store; Packed turns the even and odd
// terms into bytes in one, the clip by saturation.
struct ClipOnly {
  static HWY_INLINE V16 Wide(V16 c) { return c; }
#if HWY_TARGET == HWY_AVX3_DL
  static HWY_INLINE __m512i Packed(V16 e, V16 o) { return _mm512_packus_epi16(e.raw, o.raw); }
#endif
};
// The packed-source rule: 0 becomes 1.
struct FloorOne {
  static HWY_INLINE V16 Wide(V16 c) { return hn::Max(c, hn::Set(D16(), 1)); }
#if HWY_TARGET == HWY_AVX3_DL
  static HWY_INLINE __m512i Packed(V16 e, V16 o) {
    return _mm512_max_epu8(_mm512_packus_epi16(e.raw, o.raw), _mm512_set1_epi8(1));
  }
#endif
};
// max(floor(min(c, 255) x 31 / 255), 1) x 8.  floor(x x 31 / 255) is the
// high half of x x 7968 for every x from 0 to 255, at most 0 for x below 0
// and at least 31 for x above 255.
struct FiveBits {
  static HWY_INLINE V16 Quotient(V16 c) { return hn::MulHigh(c, hn::Set(D16(), 7968)); }
  static HWY_INLINE V16 Wide(V16 c) {
    const D16 d;
    return hn::ShiftLeft<3>(hn::Min(hn::Max(Quotient(c), hn::Set(d, 1)), hn::Set(d, 31)));
  }
#if HWY_TARGET == HWY_AVX3_DL
  // The quotients packed to bytes (negative ones to 0) are at most 64, as
  // the terms stay below 535; one look-up in a table of 128 holds them to
  // 1..31 and moves them up by three.
  static HWY_INLINE __m512i Packed(V16 e, V16 o) {
    alignas(64) static constexpr auto kTable = [] {
      struct {
        uint8_t b[128];
      } t{};
      for (int i = 0; i < 128; i++)
        t.b[i] = static_cast<uint8_t>(8 * (i < 1 ? 1 : i > 31 ? 31 : i));
      return t;
    }();
    const __m512i q = _mm512_packus_epi16(Quotient(e).raw, Quotient(o).raw);
    return _mm512_permutex2var_epi8(_mm512_load_si512(kTable.b), q,
                                    _mm512_load_si512(kTable.b + 64));
  }
#endif
};

// Stores the N8 pixels of one step as kBpp bytes each: channels a, b, c in
// that order and, for four bytes, a zero.
template <int kBpp, class Map = ClipOnly>
HWY_INLINE void StorePixels(uint8_t *d, V16 ae, V16 ao, V16 be, V16 bo, V16 ce, V16 co) {
#if HWY_TARGET == HWY_AVX3_DL
  const auto pack = [](V16 e, V16 o) { return Map::Packed(e, o); };
  StoreRouted<kBpp>(d, pack(ae, ao), pack(be, bo), pack(ce, co),
                    std::make_integer_sequence<int, kBpp>());
#else
  const auto bytes = [](V16 e, V16 o) {
    return Bytes(Clip(Map::Wide(e), 0), Clip(Map::Wide(o), 0));
  };
  const V8 a = bytes(ae, ao), b = bytes(be, bo), c = bytes(ce, co);
  if constexpr (kBpp == 3)
    hn::StoreInterleaved3(a, b, c, D8(), d);
  else
    hn::StoreInterleaved4(a, b, c, hn::Zero(D8()), D8(), d);
#endif
}

// Stores: Put writes the N8 pixels of one step.
template <class Map = ClipOnly>
struct PutBgr24 {
  static constexpr int kBpp = 3;
  HWY_INLINE void Put(uint8_t *d, const Rgb16 &e, const Rgb16 &o) {
    StorePixels<3, Map>(d, e.b, o.b, e.g, o.g, e.r, o.r);
  }
};
struct PutRgb0 {
  static constexpr int kBpp = 4;
  HWY_INLINE void Put(uint8_t *d, const Rgb16 &e, const Rgb16 &o) {
    StorePixels<4>(d, e.r, o.r, e.g, o.g, e.b, o.b);
  }
};

// The carry of a line: c_i = (c_{i-1} & 7) + t_i, so c_i & 7 is the running
// sum of the terms mod 8, and c_i = t_i + (sum of the terms before i) & 7.
// A prefix sum over the lanes (mod 2^16 is enough) replaces the serial
// chain; the lanes hold pixel pairs, so the sum before an odd pixel is the
// sum through its pair less its own term.
constexpr size_t kLanes16 = HWY_MAX_BYTES / 2;
using D64 = hn::Repartition<uint64_t, D16>;

// Lanes of 64 bits moved up by whole 128-bit blocks, zeros shifted in.
template <size_t kBlocks>
HWY_INLINE V16 BlocksUp(V16 v) {
  const D16 d;
  const D64 d64;
  alignas(64) static constexpr uint64_t kIdx[8] = {0, 0, 0, 0, 0, 1, 2, 3};
  alignas(64) static constexpr uint64_t kIdx1[8] = {0, 0, 0, 1, 2, 3, 4, 5};
  const uint64_t *idx = kBlocks == 1 ? kIdx1 : kIdx;
  const auto moved = hn::TableLookupLanes(hn::BitCast(d64, v), hn::SetTableIndices(d64, idx));
  return hn::BitCast(d, hn::IfThenZeroElse(hn::FirstN(d64, 2 * kBlocks), moved));
}

// Every lane gets the last lane of the vector.
HWY_INLINE V16 BroadcastLast(V16 p) {
  const V16 block_last = hn::Broadcast<7>(p);
  if constexpr (kLanes16 == 8) {
    return block_last;
  } else {
    const D64 d64;
    alignas(64) static constexpr uint64_t kLast[8] = {7, 7, 7, 7, 7, 7, 7, 7};
    alignas(64) static constexpr uint64_t kLast4[8] = {3, 3, 3, 3};
    const auto idx = hn::SetTableIndices(d64, kLanes16 == 16 ? kLast4 : kLast);
    return hn::BitCast(D16(), hn::TableLookupLanes(hn::BitCast(d64, block_last), idx));
  }
}

// Inclusive prefix sum over all lanes: within each block by lane shifts,
// then the totals of the blocks below added to each block.
HWY_INLINE V16 PrefixSum(V16 v) {
  const D16 d;
  V16 p = hn::Add(v, hn::ShiftLeftLanes<1>(d, v));
  p = hn::Add(p, hn::ShiftLeftLanes<2>(d, p));
  p = hn::Add(p, hn::ShiftLeftLanes<4>(d, p));
  if constexpr (kLanes16 > 8) {
    const V16 totals = hn::Broadcast<7>(p);
    V16 below = hn::Add(totals, BlocksUp<1>(totals));
    if constexpr (kLanes16 > 16) below = hn::Add(below, BlocksUp<2>(below));
    p = hn::Add(p, hn::Sub(below, totals));
  }
  return p;
}

struct LineCarry {
  V16 run;  // the sum of all terms so far, in every lane
  LineCarry() : run(hn::Zero(D16())) {}
  HWY_INLINE void Apply(V16 &even, V16 &odd) {
    const D16 d;
    const V16 pair = hn::Add(even, odd);
    const V16 p = hn::Add(PrefixSum(pair), run);
    const V16 seven = hn::Set(d, 7);
    const V16 before_even = hn::Sub(p, pair), before_odd = hn::Sub(p, odd);
    run = BroadcastLast(p);
    even = hn::Add(even, hn::And(before_even, seven));
    odd = hn::Add(odd, hn::And(before_odd, seven));
  }
};

// 16-bit words of the even and odd pixels, in pixel order.
HWY_INLINE void StoreWords(uint8_t *d, hn::Vec<DU16> even, hn::Vec<DU16> odd) {
#if HWY_TARGET == HWY_AVX3_DL
  alignas(64) static constexpr uint16_t kLow[32] = {0,  32, 1,  33, 2,  34, 3,  35, 4,  36, 5,
                                                    37, 6,  38, 7,  39, 8,  40, 9,  41, 10, 42,
                                                    11, 43, 12, 44, 13, 45, 14, 46, 15, 47};
  const __m512i low = _mm512_load_si512(kLow);
  const __m512i high = _mm512_add_epi16(low, _mm512_set1_epi16(16));
  _mm512_storeu_si512(d, _mm512_permutex2var_epi16(even.raw, low, odd.raw));
  _mm512_storeu_si512(d + 64, _mm512_permutex2var_epi16(even.raw, high, odd.raw));
#else
  hn::StoreInterleaved2(even, odd, DU16(), reinterpret_cast<uint16_t *>(d));
#endif
}

template <bool k565>
struct PutCarried16 {
  static constexpr int kBpp = 2;
  LineCarry cb, cg, cr;
  PutCarried16() : cb(), cg(), cr() {}
  static HWY_INLINE hn::Vec<DU16> Word(V16 b, V16 g, V16 r) {
    const DU16 du;
    const auto cb = hn::BitCast(du, Clip(b, 0)), cg = hn::BitCast(du, Clip(g, 0)),
               cr = hn::BitCast(du, Clip(r, 0));
    if constexpr (k565)
      return hn::Or(hn::Or(hn::And(hn::ShiftLeft<8>(cr), hn::Set(du, 0xF800)),
                           hn::And(hn::ShiftLeft<3>(cg), hn::Set(du, 0x07E0))),
                    hn::ShiftRight<3>(cb));
    else
      return hn::Or(hn::Or(hn::And(hn::ShiftLeft<7>(cr), hn::Set(du, 0x7C00)),
                           hn::And(hn::ShiftLeft<2>(cg), hn::Set(du, 0x03E0))),
                    hn::ShiftRight<3>(cb));
  }
  HWY_INLINE void Put(uint8_t *d, Rgb16 e, Rgb16 o) {
    cb.Apply(e.b, o.b);
    cg.Apply(e.g, o.g);
    cr.Apply(e.r, o.r);
    StoreWords(d, Word(e.b, e.g, e.r), Word(o.b, o.g, o.r));
  }
};

template <class Put, class Source>
HWY_INLINE void Step(Put &put, const Source &s, size_t x, uint8_t *d) {
#if HWY_TARGET == HWY_AVX3_DL
  Rgb16 even, odd;
  s.Terms(x, even, odd);
  put.Put(d, even, odd);
#else
  Pairs p{};
  s.Get(x, p);
  const ChromaSplit c = ChromaTerms(p.u, p.v);
  put.Put(d, Terms(p.y_even, c), Terms(p.y_odd, c));
#endif
}

// Whole steps in place; the rest of the row through scratch copies, with the
// state of the line (the carries) running on.
template <class Put, class Source>
HWY_INLINE void ToRgbRow(const Source &s, uint8_t *dst, int width) {
  const size_t n = hn::Lanes(D8()), w = static_cast<size_t>(width);
  Put put;
  size_t x = 0;
#if HWY_TARGET == HWY_AVX3_DL
  // Steps are independent but long chains of permutes and products; four
  // in one body keep the machine's queues full.
#pragma GCC unroll 4
#endif
  for (; x + n <= w; x += n) Step(put, s, x, dst + x * Put::kBpp);
  if (x < w) {
    alignas(64) uint8_t in[3 * kMaxStep] = {};
    alignas(64) uint8_t out[4 * kMaxStep];
    Step(put, s.Tail(x, w - x, in), 0, out);
    std::memcpy(dst + x * Put::kBpp, out, (w - x) * Put::kBpp);
  }
}

// Two lines over one chroma row: the chroma terms serve both.  Each line
// keeps its own state.
template <class Put>
void PlanarPairToRgb(const uint8_t *y0, const uint8_t *y1, const uint8_t *u, const uint8_t *v,
                     uint8_t *d0, uint8_t *d1, int width) {
  const size_t n = hn::Lanes(D8()), w = static_cast<size_t>(width);
  Put put0, put1;
  const auto step = [&](const uint8_t *ya, const uint8_t *yb, const uint8_t *cu, const uint8_t *cv,
                        uint8_t *da, uint8_t *db) {
#if HWY_TARGET == HWY_AVX3_DL
    Step(put0, PlanarSource{ya, cu, cv}, 0, da);
    Step(put1, PlanarSource{yb, cu, cv}, 0, db);
#else
    Pairs a{}, b{};
    PlanarSource{ya, cu, cv}.Get(0, a);
    SplitBytes(hn::LoadU(DU16(), reinterpret_cast<const uint16_t *>(yb)), b.y_even, b.y_odd);
    const ChromaSplit c = ChromaTerms(a.u, a.v);
    put0.Put(da, Terms(a.y_even, c), Terms(a.y_odd, c));
    put1.Put(db, Terms(b.y_even, c), Terms(b.y_odd, c));
#endif
  };
  size_t x = 0;
  for (; x + n <= w; x += n)
    step(y0 + x, y1 + x, u + x / 2, v + x / 2, d0 + x * Put::kBpp, d1 + x * Put::kBpp);
  if (x < w) {
    const size_t rem = w - x;
    alignas(64) uint8_t in[4 * kMaxStep] = {};
    alignas(64) uint8_t out[8 * kMaxStep];
    std::memcpy(in, y0 + x, rem);
    std::memcpy(in + kMaxStep, y1 + x, rem);
    std::memcpy(in + 2 * kMaxStep, u + x / 2, rem / 2);
    std::memcpy(in + 3 * kMaxStep, v + x / 2, rem / 2);
    step(in, in + kMaxStep, in + 2 * kMaxStep, in + 3 * kMaxStep, out, out + 4 * kMaxStep);
    std::memcpy(d0 + x * Put::kBpp, out, rem * Put::kBpp);
    std::memcpy(d1 + x * Put::kBpp, out + 4 * kMaxStep, rem * Put::kBpp);
  }
}

template <class Put>
void PlanarToRgb(const uint8_t *y, const uint8_t *u, const uint8_t *v, uint8_t *dst, int width) {
  ToRgbRow<Put>(PlanarSource{y, u, v}, dst, width);
}
void InterleavedToBgr24(const uint8_t *y, const uint8_t *uv, uint8_t *dst, int width) {
  ToRgbRow<PutBgr24<> >(InterleavedSource{y, uv}, dst, width);
}
template <class Put>
void YvyuToRgb(const uint8_t *src, uint8_t *dst, int width) {
  ToRgbRow<Put>(YvyuSource{src}, dst, width);
}

// ---- RGB into YV12 ---------------------------------------------------------
//
// The same pair layout: a step reads N8 pixels of two rows as even and odd
// pixels in 16-bit lanes, so the four pixels of a 2x2 block sit in one lane.

// r, g, b of the even or the odd pixels.
struct Rgb {
  hn::Vec<DU16> r, g, b;
};

enum class Fmt { k555, k565, k24, k32 };

template <Fmt F>
HWY_INLINE Rgb Channels16(hn::Vec<DU16> w) {
  const DU16 du;
  const auto f8 = hn::Set(du, 0xF8);
  if constexpr (F == Fmt::k555)
    return {hn::And(hn::ShiftRight<7>(w), f8), hn::And(hn::ShiftRight<2>(w), f8),
            hn::And(hn::ShiftLeft<3>(w), f8)};
  else
    return {hn::And(hn::ShiftRight<8>(w), f8), hn::And(hn::ShiftRight<3>(w), hn::Set(du, 0xFC)),
            hn::And(hn::ShiftLeft<3>(w), f8)};
}

template <Fmt F>
HWY_INLINE void Unpack(const uint8_t *p, Rgb &even, Rgb &odd) {
  const DU16 du;
  const auto low = [&](hn::Vec<DU16> v) { return hn::And(v, hn::Set(du, 0xFF)); };
  if constexpr (F == Fmt::k24) {
    V8 b, g, r;
    hn::LoadInterleaved3(D8(), p, b, g, r);
    even = {low(hn::BitCast(du, r)), low(hn::BitCast(du, g)), low(hn::BitCast(du, b))};
    odd = {hn::ShiftRight<8>(hn::BitCast(du, r)), hn::ShiftRight<8>(hn::BitCast(du, g)),
           hn::ShiftRight<8>(hn::BitCast(du, b))};
  } else if constexpr (F == Fmt::k32) {
    // As 16-bit words a pixel is B | G << 8, R | A << 8.
    hn::Vec<DU16> bg_e, ra_e, bg_o, ra_o;
    hn::LoadInterleaved4(du, reinterpret_cast<const uint16_t *>(p), bg_e, ra_e, bg_o, ra_o);
    even = {low(ra_e), hn::ShiftRight<8>(bg_e), low(bg_e)};
    odd = {low(ra_o), hn::ShiftRight<8>(bg_o), low(bg_o)};
  } else {
    hn::Vec<DU16> we, wo;
    hn::LoadInterleaved2(du, reinterpret_cast<const uint16_t *>(p), we, wo);
    even = Channels16<F>(we);
    odd = Channels16<F>(wo);
  }
}

// ((66 r + 129 g + 25 b) >> 8) + 16: at most 56100, exact in unsigned 16 bits.
HWY_INLINE hn::Vec<DU16> Luma(const Rgb &c) {
  const DU16 du;
  const auto sum = hn::Add(hn::Add(hn::Mul(c.r, hn::Set(du, 66)), hn::Mul(c.g, hn::Set(du, 129))),
                           hn::Mul(c.b, hn::Set(du, 25)));
  return hn::Add(hn::ShiftRight<8>(sum), hn::Set(du, 16));
}

// ((kr r4 + kg g4 + kb b4) >> 10) + 128 for sums of four up to 1020: each
// product splits into floor(k s / 1024), the high half of (32 s) x 2k, and
// the low ten bits of s x k, as for the lookup terms above.
HWY_INLINE hn::Vec<D8h> Chroma(V16 r4, V16 g4, V16 b4, int16_t kr, int16_t kg, int16_t kb) {
  const D16 d;
  const V16 low10 = hn::Set(d, 1023);
  const auto part = [&](V16 s, int16_t k, V16 &lo) {
    lo = hn::Add(lo, hn::And(hn::Mul(s, hn::Set(d, k)), low10));
    return hn::MulHigh(hn::ShiftLeft<5>(s), hn::Set(d, static_cast<int16_t>(2 * k)));
  };
  V16 lo = hn::Zero(d);
  const V16 hi = hn::Add(hn::Add(part(r4, kr, lo), part(g4, kg, lo)), part(b4, kb, lo));
  const V16 c = hn::Add(hn::Add(hi, hn::ShiftRight<10>(lo)), hn::Set(d, 128));
  return hn::DemoteTo(D8h(), c);
}

template <Fmt F>
constexpr int BytesPerPixel() {
  return F == Fmt::k24 ? 3 : F == Fmt::k32 ? 4 : 2;
}

template <Fmt F>
void RgbToYv12(const uint8_t *s0, const uint8_t *s1, uint8_t *y0, uint8_t *y1, uint8_t *u,
               uint8_t *v, int width) {
  constexpr int kBpp = BytesPerPixel<F>();
  const D8 d;
  const size_t n = hn::Lanes(d), w = static_cast<size_t>(width);
  size_t x = 0;
#if HWY_TARGET == HWY_AVX3_DL
  if constexpr (F == Fmt::k24 || F == Fmt::k32)
    for (; x + 64 <= w; x += 64)
      BgrToYv12Step<kBpp>(s0 + x * kBpp, s1 + x * kBpp, y0 + x, y1 + x, u + x / 2, v + x / 2);
#endif
  for (; x + n <= w; x += n) {
    Rgb ae{}, ao{}, be{}, bo{};  // braces: see Pairs
    Unpack<F>(s0 + x * kBpp, ae, ao);
    Unpack<F>(s1 + x * kBpp, be, bo);
    hn::StoreU(hn::BitCast(d, hn::Or(Luma(ae), hn::ShiftLeft<8>(Luma(ao)))), d, y0 + x);
    hn::StoreU(hn::BitCast(d, hn::Or(Luma(be), hn::ShiftLeft<8>(Luma(bo)))), d, y1 + x);
    const auto sum4 = [](hn::Vec<DU16> p, hn::Vec<DU16> q, hn::Vec<DU16> r, hn::Vec<DU16> t) {
      return hn::BitCast(D16(), hn::Add(hn::Add(p, q), hn::Add(r, t)));
    };
    const V16 r4 = sum4(ae.r, ao.r, be.r, bo.r), g4 = sum4(ae.g, ao.g, be.g, bo.g),
              b4 = sum4(ae.b, ao.b, be.b, bo.b);
    hn::StoreU(Chroma(r4, g4, b4, -38, -74, 112), D8h(), u + x / 2);
    hn::StoreU(Chroma(r4, g4, b4, 112, -94, -18), D8h(), v + x / 2);
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
    // (p + q) >> 1 is the rounded average less the bit that rounding added.
    const V8 avg = hn::Sub(hn::AverageRound(ca, cb), hn::And(hn::Xor(ca, cb), hn::Set(d, 1)));
    hn::Vec<D8h> first, second;
    SplitPairs(avg, first, second);
    if constexpr (!kYuyv) {
      hn::Vec<D8h> upper_v;
      SplitPairs(ca, first, upper_v);
    }
    hn::StoreU(first, D8h(), u + x / 2);
    hn::StoreU(second, D8h(), v + x / 2);
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
#if HWY_TARGET == HWY_AVX3_DL
  for (; x + 64 <= w; x += 64) PackStep<kYuyv>(y + x, u + x / 2, v + x / 2, dst + 2 * x);
#endif
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
#if HWY_TARGET == HWY_AVX3_DL
  k->copy = StringCopy;
#endif
  k->pair_to_rgb555 = PlanarPairToRgb<PutCarried16<false> >;
  k->pair_to_rgb565 = PlanarPairToRgb<PutCarried16<true> >;
  k->pair_to_bgr24 = PlanarPairToRgb<PutBgr24<> >;
  k->pair_to_rgb0 = PlanarPairToRgb<PutRgb0>;
  k->to_rgb555 = PlanarToRgb<PutCarried16<false> >;
  k->to_rgb565 = PlanarToRgb<PutCarried16<true> >;
  k->to_bgr24 = PlanarToRgb<PutBgr24<> >;
  k->to_rgb0 = PlanarToRgb<PutRgb0>;
  k->interleaved_to_bgr24 = InterleavedToBgr24;
  k->yvyu_to_bgr24 = YvyuToRgb<PutBgr24<FloorOne> >;
  k->yvyu_to_bgr16 = YvyuToRgb<PutBgr24<FiveBits> >;
}
#endif  // HWY_TARGET == HWY_SCALAR

}  // namespace orlo::colorspace::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace orlo::colorspace {

HWY_EXPORT(FillRowKernels);

namespace {
RowKernels vector_kernels;

// The instruction sets this processor runs.  Highway's own check never
// reports NEON on 32-bit ARM (it looks for hwcap names that glibc spells
// HWCAP_ARM_*), so there NEON with VFPv4 is read from the kernel's hwcap.
int64_t runnable_targets() {
  int64_t targets = hwy::SupportedTargets();
#if HWY_ARCH_ARM_V7 && defined(HWCAP_ARM_NEON) && defined(HWCAP_ARM_VFPv4)
  const unsigned long hw = getauxval(AT_HWCAP);
  if ((hw & HWCAP_ARM_NEON) != 0 && (hw & HWCAP_ARM_VFPv4) != 0) targets |= HWY_NEON;
#endif
  return targets;
}

// The kernels of the best of `targets`, the plain ones where it has none.
void fill_vector_kernels(int64_t targets) {
  vector_kernels = plain_row_kernels();
  hwy::GetChosenTarget().Update(targets);
  HWY_DYNAMIC_DISPATCH(FillRowKernels)(&vector_kernels);
}
}  // namespace

const RowKernels &vector_row_kernels() {
  static const bool filled = (fill_vector_kernels(runnable_targets()), true);
  (void)filled;
  return vector_kernels;
}

void for_each_vector_target(const std::function<void(const char *target)> &fn) {
  (void)vector_row_kernels();
  for (int64_t left = runnable_targets() & HWY_TARGETS; left != 0; left &= left - 1) {
    const int64_t target = left & -left;
    fill_vector_kernels(target);
    fn(hwy::TargetName(target));
  }
  fill_vector_kernels(runnable_targets());
}

}  // namespace orlo::colorspace
#endif
