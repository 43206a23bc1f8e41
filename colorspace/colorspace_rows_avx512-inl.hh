// Row-kernel parts for AVX-512 with VBMI and VNNI, included once per
// target inside the target's namespace; only that target compiles them.
// Byte permutes across the whole vector put every byte where the next step
// wants it, and the multiply-adds sum luma and chroma products in 32-bit
// lanes, where the table arithmetic is exact.
#if HWY_TARGET == HWY_AVX3_DL

// ---- Stores -----------------------------------------------------------------
//
// The even and odd lanes of a channel are packed to bytes with saturation (the clip) in one step,
// and each output vector gathers its bytes from the packed channels in two. Packing leaves per
// 128-bit block the bytes of 8 even, then 8 odd pixels.
constexpr int PackedByte(int pixel) {
  const int pair = pixel >> 1;
  return 16 * (pair >> 3) + (pair & 7) + 8 * (pixel & 1);
}

// Output vector t of pixels of kBpp bytes: bytes 0 and 1 of a pixel from
// the first two channels, byte 2 from the third, byte 3 zero.
struct Route {
  alignas(64) uint8_t first_two[64];
  alignas(64) uint8_t third[64];
  uint64_t take_first_two = 0, take_third = 0;
};

template <int kBpp>
constexpr Route MakeRoute(int t) {
  Route r{};
  for (int i = 0; i < 64; i++) {
    const int q = 64 * t + i, pixel = q / kBpp, byte = q % kBpp;
    const auto at = static_cast<uint8_t>(PackedByte(pixel));
    if (byte < 2) {
      r.first_two[i] = static_cast<uint8_t>(at + 64 * byte);
      r.take_first_two |= uint64_t{1} << i;
    } else if (byte == 2) {
      r.third[i] = at;
      r.take_third |= uint64_t{1} << i;
    }
  }
  return r;
}

template <int kBpp, int t>
inline constexpr Route kRoute = MakeRoute<kBpp>(t);

template <int kBpp, int... t>
HWY_INLINE void StoreRouted(uint8_t *d, __m512i a, __m512i b, __m512i c,
                            std::integer_sequence<int, t...>) {
  const auto one = [&](const Route &r, uint8_t *to) {
    const __m512i ab =
        _mm512_maskz_permutex2var_epi8(r.take_first_two, a, _mm512_load_si512(r.first_two), b);
    _mm512_storeu_si512(
        to, _mm512_mask_permutexvar_epi8(ab, r.take_third, _mm512_load_si512(r.third), c));
  };
  (one(kRoute<kBpp, t>, d + 64 * t), ...);
}

// ---- Pixels as (luma, chroma) lanes -----------------------------------------
//
// A step of 64 pixels as 32-bit lanes, each a pixel's luma sample in the low
// 16 bits and one chroma sample in the high 16: [0] the even pixels of pairs
// 0-3 of each block of pairs, [1] of pairs 4-7, [2] and [3] the odd pixels.
// Packing [0] with [1] to 16 bits gives the pairs back in order.
struct Lanes32 {
  __m512i yu[4], yv[4];
};

// Where a layout keeps the bytes of a step, as indices into two source
// vectors of 64 bytes: luma of pixel p, U and V of pair k.
struct PlanarLayout {  // luma; then U and V, 32 samples each
  static constexpr int Luma(int p) { return p; }
  static constexpr int U(int k) { return 64 + k; }
  static constexpr int V(int k) { return 96 + k; }
};

struct GatherTable {
  alignas(64) uint8_t yu[4][64];
  alignas(64) uint8_t yv[4][64];
};

template <class L>
constexpr GatherTable MakeGather() {
  GatherTable t{};
  for (int q = 0; q < 4; q++)
    for (int lane = 0; lane < 16; lane++) {
      const int pair = 8 * (lane / 4) + 4 * (q & 1) + lane % 4, pixel = 2 * pair + (q >> 1);
      t.yu[q][4 * lane] = t.yv[q][4 * lane] = static_cast<uint8_t>(L::Luma(pixel));
      t.yu[q][4 * lane + 2] = static_cast<uint8_t>(L::U(pair));
      t.yv[q][4 * lane + 2] = static_cast<uint8_t>(L::V(pair));
    }
  return t;
}

template <class L>
inline constexpr GatherTable kGather = MakeGather<L>();

template <class L>
HWY_INLINE void Gather(__m512i a, __m512i b, Lanes32 &l) {
  constexpr __mmask64 kLowBytesOfWords = 0x5555555555555555ull;
#pragma GCC unroll 4
  for (int q = 0; q < 4; q++) {
    l.yu[q] =
        _mm512_maskz_permutex2var_epi8(kLowBytesOfWords, a, _mm512_load_si512(kGather<L>.yu[q]), b);
    l.yv[q] =
        _mm512_maskz_permutex2var_epi8(kLowBytesOfWords, a, _mm512_load_si512(kGather<L>.yv[q]), b);
  }
}

// ---- The colour terms by multiply-add ---------------------------------------
//
// (RGB_Y_tab[y] + B_U_tab[u]) >> 13 is (9535 y + 16531 u - 9535 x 16 -
// 16531 x 128) >> 13: one multiply-add of the lane pair (y, u) into a
// constant, exact in 32 bits.  Green takes a second one for v.
HWY_INLINE __m512i Coefs(int16_t luma, int16_t chroma) {
  return _mm512_set1_epi32(static_cast<int32_t>(
      (static_cast<uint32_t>(static_cast<uint16_t>(chroma)) << 16) | static_cast<uint16_t>(luma)));
}

// acc + the two products of each lane pair (vpdpwssd).  The target's
// compiler options name only the 256-bit form of VNNI, so the 512-bit one is
// written out; run-time dispatch picks this target only where the CPU has it.
HWY_INLINE __m512i DotAdd(__m512i acc, __m512i a, __m512i b) {
  asm("vpdpwssd %2, %1, %0" : "+v"(acc) : "v"(a), "v"(b));
  return acc;
}

HWY_INLINE void Terms32(const Lanes32 &l, Rgb16 &even, Rgb16 &odd) {
  const __m512i kb = _mm512_set1_epi32(-9535 * 16 - 16531 * 128);
  const __m512i kg = _mm512_set1_epi32(-9535 * 16 + (3203 + 6660) * 128);
  const __m512i kr = _mm512_set1_epi32(-9535 * 16 - 13074 * 128);
  __m512i b[4], g[4], r[4];
#pragma GCC unroll 4
  for (int q = 0; q < 4; q++) {
    b[q] = _mm512_srai_epi32(DotAdd(kb, l.yu[q], Coefs(9535, 16531)), 13);
    const __m512i gu = DotAdd(kg, l.yu[q], Coefs(9535, -3203));
    g[q] = _mm512_srai_epi32(DotAdd(gu, l.yv[q], Coefs(0, -6660)), 13);
    r[q] = _mm512_srai_epi32(DotAdd(kr, l.yv[q], Coefs(9535, 13074)), 13);
  }
  const auto pack = [](const __m512i *t, int q) { return V16{_mm512_packs_epi32(t[q], t[q + 1])}; };
  even = {pack(b, 0), pack(g, 0), pack(r, 0)};
  odd = {pack(b, 2), pack(g, 2), pack(r, 2)};
}

// Pair lanes: a 32-bit lane holds a pair's luma (Y0, Y1) in yy and its
// chroma in cc as 16-bit halves, U in the high half when kUHigh, all eight
// times the sample; [0] holds pairs 0-15, [1] pairs 16-31.  The sums then
// come out eight times as large, so that the high half of a lane is the
// term's floor by 8192, and no shift is needed before the halves are
// gathered in pair order.  With the samples' offsets (16, 128) taken off
// first, the sums are plain products with no constant to add.  The chroma
// sums of a pair are formed once and each pixel's luma added to them.
template <bool kUHigh>
HWY_INLINE void PairTerms32(const __m512i yy[2], const __m512i cc[2], Rgb16 &even, Rgb16 &odd) {
  const auto chroma = [](int16_t ku, int16_t kv) { return kUHigh ? Coefs(kv, ku) : Coefs(ku, kv); };
  const __m512i y_even = Coefs(9535, 0), y_odd = Coefs(0, 9535);
  __m512i t[6][2];  // b, g, r of the even pixels, then of the odd ones
#pragma GCC unroll 2
  for (int h = 0; h < 2; h++) {
    const __m512i y = _mm512_sub_epi16(yy[h], _mm512_set1_epi16(8 * 16));
    const __m512i c = _mm512_sub_epi16(cc[h], _mm512_set1_epi16(8 * 128));
    const __m512i terms[3] = {_mm512_madd_epi16(c, chroma(16531, 0)),
                              _mm512_madd_epi16(c, chroma(-3203, -6660)),
                              _mm512_madd_epi16(c, chroma(0, 13074))};
    const __m512i le = _mm512_madd_epi16(y, y_even), lo = _mm512_madd_epi16(y, y_odd);
#pragma GCC unroll 3
    for (int ch = 0; ch < 3; ch++) {
      t[ch][h] = _mm512_add_epi32(terms[ch], le);
      t[3 + ch][h] = _mm512_add_epi32(terms[ch], lo);
    }
  }
  const __m512i high_halves = _mm512_add_epi16(
      _mm512_slli_epi16(_mm512_set_epi16(31, 30, 29, 28, 27, 26, 25, 24, 23, 22, 21, 20, 19, 18, 17,
                                         16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0),
                        1),
      _mm512_set1_epi16(1));
  const auto gather = [&](int i) {
    return V16{_mm512_permutex2var_epi16(t[i][0], high_halves, t[i][1])};
  };
  even = {gather(0), gather(1), gather(2)};
  odd = {gather(3), gather(4), gather(5)};
}

// Packed Y0 V Y1 U groups are pair lanes already: shifts and masks split
// them, eight times the sample.
HWY_INLINE void YvyuTerms32(const uint8_t *p, Rgb16 &even, Rgb16 &odd) {
  const __m512i eight_times = _mm512_set1_epi32(0x07F807F8);
  __m512i yy[2], vu[2];
  for (int h = 0; h < 2; h++) {
    const __m512i groups = _mm512_loadu_si512(p + 64 * h);
    yy[h] = _mm512_and_si512(_mm512_slli_epi16(groups, 3), eight_times);
    vu[h] = _mm512_and_si512(_mm512_srli_epi16(groups, 5), eight_times);
  }
  PairTerms32<true>(yy, vu, even, odd);
}

// Luma and U, V pairs: the bytes of pair k are 2 k and 2 k + 1 on both
// rows, widened into the lanes of their half.
struct WidenTable {
  alignas(64) uint8_t idx[2][64];
};
constexpr WidenTable MakeWiden() {
  WidenTable t{};
  for (int h = 0; h < 2; h++)
    for (int lane = 0; lane < 16; lane++) {
      const int pair = 16 * h + lane;
      t.idx[h][4 * lane] = static_cast<uint8_t>(2 * pair);
      t.idx[h][4 * lane + 2] = static_cast<uint8_t>(2 * pair + 1);
    }
  return t;
}
inline constexpr WidenTable kWiden = MakeWiden();

HWY_INLINE void InterleavedTerms32(const uint8_t *y, const uint8_t *uv, Rgb16 &even, Rgb16 &odd) {
  constexpr __mmask64 kLowBytesOfWords = 0x5555555555555555ull;
  const __m512i luma = _mm512_loadu_si512(y), chroma = _mm512_loadu_si512(uv);
  __m512i yy[2], cc[2];
  for (int h = 0; h < 2; h++) {
    const __m512i idx = _mm512_load_si512(kWiden.idx[h]);
    yy[h] = _mm512_slli_epi16(_mm512_maskz_permutexvar_epi8(kLowBytesOfWords, idx, luma), 3);
    cc[h] = _mm512_slli_epi16(_mm512_maskz_permutexvar_epi8(kLowBytesOfWords, idx, chroma), 3);
  }
  PairTerms32<false>(yy, cc, even, odd);
}

// ---- Plane copies -----------------------------------------------------------
//
// Copies of a plane or more go faster by the string move than by the C
// library's vector loop, which takes over from it above 1 MB.
HWY_INLINE void StringCopy(uint8_t *dst, const uint8_t *src, size_t bytes) {
  if (bytes < 4096) {
    std::memcpy(dst, src, bytes);
    return;
  }
  asm volatile("rep movsb" : "+D"(dst), "+S"(src), "+c"(bytes) : : "memory");
}

// ---- YV12 rows to packed 4:2:2 ------------------------------------------------
//
// 64 pixels: luma in one vector, U then V in the other; each half of the
// output picks its bytes from both.
struct PackTable {
  alignas(64) uint8_t idx[2][64];
};

template <bool kYuyv>
constexpr PackTable MakePacking() {
  PackTable t{};
  for (int half = 0; half < 2; half++)
    for (int i = 0; i < 16; i++) {
      const int pair = 16 * half + i;
      uint8_t *group = t.idx[half] + 4 * i;
      group[kYuyv ? 0 : 1] = static_cast<uint8_t>(2 * pair);
      group[kYuyv ? 2 : 3] = static_cast<uint8_t>(2 * pair + 1);
      group[kYuyv ? 1 : 0] = static_cast<uint8_t>(64 + pair);
      group[kYuyv ? 3 : 2] = static_cast<uint8_t>(96 + pair);
    }
  return t;
}
template <bool kYuyv>
inline constexpr PackTable kPacking = MakePacking<kYuyv>();

template <bool kYuyv>
HWY_INLINE void PackStep(const uint8_t *y, const uint8_t *u, const uint8_t *v, uint8_t *dst) {
  const __m256i cu = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(u));
  const __m256i cv = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(v));
  const __m512i luma = _mm512_loadu_si512(y);
  const __m512i chroma = _mm512_inserti64x4(_mm512_castsi256_si512(cu), cv, 1);
  for (int half = 0; half < 2; half++)
    _mm512_storeu_si512(
        dst + 64 * half,
        _mm512_permutex2var_epi8(luma, _mm512_load_si512(kPacking<kYuyv>.idx[half]), chroma));
}

// ---- RGB into YV12 by byte dot products -------------------------------------
//
// A pixel as one 32-bit lane of bytes B, G, R and a fourth byte of weight 0.
// The luma sum 25 B + 129 G + 66 R takes two dot products (129 is no signed
// byte: 127 + 2), each chroma sum one; the chroma sums of a 2x2 block add
// the lanes of two rows, then neighbouring lanes.
HWY_INLINE __m512i ByteDotAdd(__m512i acc, __m512i pixels, __m512i coefs) {
  asm("vpdpbusd %2, %1, %0" : "+v"(acc) : "v"(pixels), "v"(coefs));
  return acc;
}

HWY_INLINE __m512i ByteCoefs(int b, int g, int r) {
  return _mm512_set1_epi32(static_cast<int32_t>(
      static_cast<uint8_t>(b) | static_cast<uint8_t>(g) << 8 | static_cast<uint8_t>(r) << 16));
}

// 24-bit pixels of a 64-pixel step as four vectors of 16 lanes: group k
// takes bytes 48 k to 48 k + 47 from the loaded vectors that hold them.
struct SpreadTable {
  alignas(64) uint8_t idx[4][64];
};
constexpr SpreadTable MakeSpread() {
  SpreadTable t{};
  constexpr int kFirst[4] = {0, 48, 32, 16};  // group's first byte in its sources
  for (int k = 0; k < 4; k++)
    for (int i = 0; i < 16; i++)
      for (int j = 0; j < 4; j++)
        t.idx[k][4 * i + j] = static_cast<uint8_t>(kFirst[k] + 3 * i + j % 3);
  return t;
}
inline constexpr SpreadTable kSpread = MakeSpread();

template <int kBpp>
HWY_INLINE void LoadBgrLanes(const uint8_t *p, __m512i lanes[4]) {
  const auto load = [&](int k) { return _mm512_loadu_si512(p + 64 * k); };
  const auto idx = [](int k) { return _mm512_load_si512(kSpread.idx[k]); };
  if constexpr (kBpp == 4) {
    for (int k = 0; k < 4; k++) lanes[k] = load(k);
  } else {
    const __m512i a = load(0), b = load(1), c = load(2);
    lanes[0] = _mm512_permutexvar_epi8(idx(0), a);
    lanes[1] = _mm512_permutex2var_epi8(a, idx(1), b);
    lanes[2] = _mm512_permutex2var_epi8(b, idx(2), c);
    lanes[3] = _mm512_permutexvar_epi8(idx(3), c);
  }
}

// Byte 4 i + 1 of two vectors, i = 0..31: bits 8-15 of each lane.
// Byte 8 i of two vectors, i = 0..15: the low byte of each even lane.
struct PickTable {
  alignas(64) uint8_t second_of_lanes[64];
  alignas(64) uint8_t first_of_even_lanes[64];
};
constexpr PickTable MakePick() {
  PickTable t{};
  for (int i = 0; i < 32; i++) t.second_of_lanes[i] = static_cast<uint8_t>(4 * i + 1);
  for (int i = 0; i < 16; i++) t.first_of_even_lanes[i] = static_cast<uint8_t>(8 * i);
  return t;
}
inline constexpr PickTable kPick = MakePick();

// ((66 r + 129 g + 25 b) >> 8) + 16 is bits 8-15 of the sum plus 16 << 8.
HWY_INLINE void StoreLuma(uint8_t *y, const __m512i lanes[4]) {
  const __m512i c1 = ByteCoefs(25, 127, 66), c2 = ByteCoefs(0, 2, 0);
  const __m512i k = _mm512_set1_epi32(16 << 8), idx = _mm512_load_si512(kPick.second_of_lanes);
  __m512i acc[4];
#pragma GCC unroll 4
  for (int q = 0; q < 4; q++) acc[q] = ByteDotAdd(ByteDotAdd(k, lanes[q], c1), lanes[q], c2);
  _mm256_storeu_si256(reinterpret_cast<__m256i *>(y),
                      _mm512_castsi512_si256(_mm512_permutex2var_epi8(acc[0], idx, acc[1])));
  _mm256_storeu_si256(reinterpret_cast<__m256i *>(y + 32),
                      _mm512_castsi512_si256(_mm512_permutex2var_epi8(acc[2], idx, acc[3])));
}

// ((sum of the block) >> 10) + 128: each lane of a pair starts at 64 << 10.
HWY_INLINE void StoreChroma(uint8_t *out, const __m512i top[4], const __m512i bottom[4],
                            __m512i coefs) {
  const __m512i k = _mm512_set1_epi32(64 << 10), idx = _mm512_load_si512(kPick.first_of_even_lanes);
  __m512i sum[4];
#pragma GCC unroll 4
  for (int q = 0; q < 4; q++) {
    const __m512i column = ByteDotAdd(ByteDotAdd(k, top[q], coefs), bottom[q], coefs);
    sum[q] = _mm512_srai_epi32(_mm512_add_epi32(column, _mm512_srli_epi64(column, 32)), 10);
  }
  _mm_storeu_si128(reinterpret_cast<__m128i *>(out),
                   _mm512_castsi512_si128(_mm512_permutex2var_epi8(sum[0], idx, sum[1])));
  _mm_storeu_si128(reinterpret_cast<__m128i *>(out + 16),
                   _mm512_castsi512_si128(_mm512_permutex2var_epi8(sum[2], idx, sum[3])));
}

// 64 pixels of two rows of bytes B, G, R (and one ignored, for kBpp 4).
template <int kBpp>
HWY_INLINE void BgrToYv12Step(const uint8_t *s0, const uint8_t *s1, uint8_t *y0, uint8_t *y1,
                              uint8_t *u, uint8_t *v) {
  __m512i top[4], bottom[4];
  LoadBgrLanes<kBpp>(s0, top);
  LoadBgrLanes<kBpp>(s1, bottom);
  StoreLuma(y0, top);
  StoreLuma(y1, bottom);
  StoreChroma(u, top, bottom, ByteCoefs(112, -74, -38));
  StoreChroma(v, top, bottom, ByteCoefs(-18, -94, 112));
}

#endif  // HWY_TARGET == HWY_AVX3_DL
