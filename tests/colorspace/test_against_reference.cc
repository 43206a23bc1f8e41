// Every converter against the plain model, on random pictures of many sizes,
// strides and flips, with the vector kernels and with the plain ones.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "colorspace.h"
#include "colorspace_rows.hh"
#include "harness.hh"
#include "reference.hh"

using cstest::Buffer;

namespace {

const int kWidths[] = {2, 4, 6, 14, 30, 32, 34, 62, 64, 66, 98, 130, 254, 322, 1030};
const int kHeights[] = {-6, -5, -2, -1, 0, 1, 2, 3, 4, 7};
const int kPads[] = {0, 2, 38};

class Converters : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    colorspace_init();
    orlo::colorspace::set_vector_kernels_enabled(GetParam());
  }
  void TearDown() override { orlo::colorspace::set_vector_kernels_enabled(true); }
  // The plain kernels once, or the vector kernels of every instruction set
  // this machine has.
  template <class F>
  void for_each_kernel_set(F check) {
    if (!GetParam()) return check();
    orlo::colorspace::for_each_vector_target([&](const char *target) {
      SCOPED_TRACE(target);
      check();
    });
  }
};

std::string where(const char *name, int w, int h, int pad, long at, const char *plane) {
  return std::string(name) + " w=" + std::to_string(w) + " h=" + std::to_string(h) +
         " pad=" + std::to_string(pad) + " " + plane + " byte " + std::to_string(at);
}

// ---- into YV12 ----------------------------------------------------------

using ToYv12 = void (*)(uint8_t *, uint8_t *, uint8_t *, const uint8_t *, int, int, int);

struct ToCase {
  const char *name;
  ToYv12 lib, model;
  int bpp;  // 0: three planes back to back
  bool flips;
};

void check_to_yv12(const ToCase &c) {
  std::mt19937 rng(7);
  for (int w : kWidths)
    for (int h : kHeights) {
      if (h < 0 && !c.flips) continue;
      for (int pad : kPads) {
        const int ah = std::abs(h), stride = w + pad;
        const size_t src_size =
            c.bpp ? size_t(w) * c.bpp * ah : size_t(w) * ah + 2 * size_t(w / 2) * (ah / 2);
        Buffer src(src_size, rng);
        Buffer y(size_t(stride) * ah, rng), u(size_t(stride / 2) * (ah / 2 + 1), rng),
            v(size_t(stride / 2) * (ah / 2 + 1), rng);
        Buffer y2 = y, u2 = u, v2 = v;
        c.lib(y.data(), u.data(), v.data(), src.data(), w, h, stride);
        c.model(y2.data(), u2.data(), v2.data(), src.data(), w, h, stride);
        long d;
        ASSERT_EQ(d = cstest::first_difference(y, y2), -1) << where(c.name, w, h, pad, d, "Y");
        ASSERT_EQ(d = cstest::first_difference(u, u2), -1) << where(c.name, w, h, pad, d, "U");
        ASSERT_EQ(d = cstest::first_difference(v, v2), -1) << where(c.name, w, h, pad, d, "V");
      }
    }
}

TEST_P(Converters, IntoYv12MatchTheModel) {
  const ToCase cases[] = {
      {"rgb555_to_yv12_c", rgb555_to_yv12_c, ref::rgb555_to_yv12, 2, true},
      {"rgb565_to_yv12_c", rgb565_to_yv12_c, ref::rgb565_to_yv12, 2, true},
      {"rgb24_to_yv12_c", rgb24_to_yv12_c, ref::rgb24_to_yv12, 3, false},
      {"rgb32_to_yv12_c", rgb32_to_yv12_c, ref::rgb32_to_yv12, 4, false},
      {"yuv_to_yv12_c", yuv_to_yv12_c, ref::yuv_to_yv12, 0, false},
      {"yuyv_to_yv12_c", yuyv_to_yv12_c, ref::yuyv_to_yv12, 2, false},
      {"uyvy_to_yv12_c", uyvy_to_yv12_c, ref::uyvy_to_yv12, 2, false},
  };
  for_each_kernel_set([&] {
    for (const auto &c : cases) check_to_yv12(c);
  });
}

// ---- out of YV12 and planar 4:2:2 ----------------------------------------

using FromYv12 = void (*)(uint8_t *, int, const uint8_t *, const uint8_t *, const uint8_t *, int,
                          int, int, int);

struct FromCase {
  const char *name;
  FromYv12 lib, model;
  int bpp;           // 0: planar destination, stride in bytes
  bool full_chroma;  // 4:2:2: one chroma row per luma row
  bool odd_flip_ok;  // packed 4:2:2 needs a chroma row that a flip can't give
};

void check_from_yv12(const FromCase &c) {
  std::mt19937 rng(11);
  for (int w : kWidths)
    for (int h : kHeights) {
      const int ah = std::abs(h);
      if (h < 0 && ah % 2 && !c.odd_flip_ok) continue;
      for (int pad : kPads) {
        const int y_stride = w + pad + 3, uv_stride = w / 2 + pad;
        const int dst_stride = w + pad;
        const int chroma_rows = c.full_chroma ? ah : (ah + 1) / 2;
        Buffer ys(size_t(y_stride) * ah, rng), us(size_t(uv_stride) * chroma_rows, rng),
            vs(size_t(uv_stride) * chroma_rows, rng);
        const size_t dst_size = c.bpp ? size_t(dst_stride) * c.bpp * ah
                                      : size_t(dst_stride) * ah + size_t(dst_stride / 2) * ah;
        Buffer d(dst_size, rng);
        Buffer d2 = d;
        c.lib(d.data(), dst_stride, ys.data(), us.data(), vs.data(), y_stride, uv_stride, w, h);
        c.model(d2.data(), dst_stride, ys.data(), us.data(), vs.data(), y_stride, uv_stride, w, h);
        long at;
        ASSERT_EQ(at = cstest::first_difference(d, d2), -1) << where(c.name, w, h, pad, at, "dst");
      }
    }
}

TEST_P(Converters, OutOfYv12MatchTheModel) {
  const FromCase cases[] = {
      {"yv12_to_rgb555_c", yv12_to_rgb555_c, ref::yv12_to_rgb555, 2, false, true},
      {"yv12_to_rgb565_c", yv12_to_rgb565_c, ref::yv12_to_rgb565, 2, false, true},
      {"yv12_to_rgb565_crop", yv12_to_rgb565_crop, ref::yv12_to_rgb565, 2, false, true},
      {"yv12_to_rgb24_c", yv12_to_rgb24_c, ref::yv12_to_rgb24, 3, false, true},
      {"yv12_to_rgb32_c", yv12_to_rgb32_c, ref::yv12_to_rgb32, 4, false, true},
      {"yv12_to_yuv_c", yv12_to_yuv_c, ref::yv12_to_yuv, 0, false, true},
      {"yv12_to_yuyv_c", yv12_to_yuyv_c, ref::yv12_to_yuyv, 2, false, false},
      {"yv12_to_uyvy_c", yv12_to_uyvy_c, ref::yv12_to_uyvy, 2, false, false},
      {"yv16_to_rgb24_c", yv16_to_rgb24_c, ref::yv16_to_rgb24, 3, true, true},
      {"yv16_to_rgb32_c", yv16_to_rgb32_c, ref::yv16_to_rgb32, 4, true, true},
  };
  for_each_kernel_set([&] {
    for (const auto &c : cases) check_from_yv12(c);
  });
}

// ---- interleaved chroma and packed sources -------------------------------

// The packed YVYU sources, and planar Y with interleaved 4:2:2 chroma as a
// second "source" of the same shape.
using Packed = void (*)(uint8_t *, int, const uint8_t *, int, int, int);
template <void (*lib)(uint8_t *, int, const uint8_t *, const uint8_t *, int, int, int)>
void yv16i(uint8_t *d, int ds, const uint8_t *s, int ss, int w, int h) {
  lib(d, ds, s, s + size_t(ss) * 2 * std::abs(h), ss, w, h);
}

void check_packed_sources() {
  const struct {
    const char *name;
    Packed lib, model;
  } cases[] = {{"yvyu_to_rgb24_c", yvyu_to_rgb24_c, ref::yvyu_to_rgb24},
               {"yvyu_to_rgb16_c", yvyu_to_rgb16_c, ref::yvyu_to_rgb16},
               {"yv16i_to_rgb24_c", yv16i<yv16i_to_rgb24_c>, yv16i<ref::yv16i_to_rgb24>}};
  std::mt19937 rng(17);
  for (const auto &c : cases)
    for (int w : kWidths)
      for (int h : kHeights)
        for (int pad : kPads) {
          const int ah = std::abs(h), src_stride = w + pad, dst_stride = w + pad / 2;
          Buffer s(size_t(src_stride) * 4 * ah, rng);
          Buffer d(size_t(dst_stride) * 3 * ah, rng);
          Buffer d2 = d;
          c.lib(d.data(), dst_stride, s.data(), src_stride, w, h);
          c.model(d2.data(), dst_stride, s.data(), src_stride, w, h);
          long at;
          ASSERT_EQ(at = cstest::first_difference(d, d2), -1)
              << where(c.name, w, h, pad, at, "dst");
        }
}

TEST_P(Converters, PackedAndInterleavedSourcesMatchTheModel) {
  for_each_kernel_set(check_packed_sources);
}

INSTANTIATE_TEST_SUITE_P(Kernels, Converters, ::testing::Values(true, false),
                         [](const auto &info) { return info.param ? "Vector" : "Plain"; });

// On ARM the vector kernels include NEON (the device's ARMv7 has it, found at
// run time since the armhf baseline leaves it out), so the cases above hold
// the NEON kernels against the model.
TEST(VectorTargets, IncludeNeonOnArm) {
  std::vector<std::string> names;
  orlo::colorspace::for_each_vector_target([&](const char *t) { names.emplace_back(t); });
  ASSERT_FALSE(names.empty());
#if defined(__arm__) || defined(__aarch64__)
  EXPECT_NE(std::find(names.begin(), names.end(), "NEON"), names.end())
      << "kernel sets: " << testing::PrintToString(names);
#endif
}

}  // namespace
