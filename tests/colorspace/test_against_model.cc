// Every converter against the plain model, on random pictures of many sizes,
// strides and flips, with the plain kernels and with the vector kernels of
// every instruction set; every destination byte is compared, row gaps and
// guard bytes around each plane included.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "colorspace.h"
#include "colorspace_rows.hh"
#include "model.hh"

namespace {

constexpr size_t kGuard = 48;
using Planes = std::vector<std::vector<uint8_t>>;
uint8_t *at(Planes &p, size_t i) { return p[i].data() + kGuard; }

// Runs `call` once with the library (true) and once with the model (false)
// on the same random input and equal random destinations.
template <class Call>
bool same(const std::vector<size_t> &in_sizes, const std::vector<size_t> &out_sizes, Call call) {
  static std::mt19937 rng(7);
  auto random_planes = [](const std::vector<size_t> &sizes) {
    Planes p;
    for (size_t s : sizes) {
      p.emplace_back(s + 2 * kGuard);
      std::generate(p.back().begin(), p.back().end(), [] { return static_cast<uint8_t>(rng()); });
    }
    return p;
  };
  Planes in = random_planes(in_sizes), lib = random_planes(out_sizes), model = lib;
  call(true, in, lib);
  call(false, in, model);
  return lib == model;
}

// One converter on one size. The sizes of the buffers come from the width's
// magnitude, so that a width of 0 or less meets real buffers.  Planar
// pictures without row gaps lie, from three rows up, in one buffer Y, U, V.
using Check = bool (*)(int w, int h, int pad);
bool one_frame(int bpp, int h, int pad) { return bpp == 0 && pad == 0 && std::abs(h) > 2; }

template <auto lib, auto model, int bpp, bool flips>  // bpp 0: three planes back to back
bool into_yv12(int w, int h, int pad) {
  if (h < 0 && !flips) return true;
  const size_t aw = std::abs(w), ah = std::abs(h), stride = aw + pad, y_size = aw * ah;
  const size_t src = bpp ? aw * bpp * ah : y_size + 2 * (aw / 2) * (ah / 2);
  const size_t chroma = stride / 2 * (ah / 2 + 1);
  const bool frame = one_frame(bpp, h, pad);
  const std::vector<size_t> out =
      frame ? std::vector{src} : std::vector{stride * ah, chroma, chroma};
  return same({src}, out, [&](bool l, Planes &i, Planes &o) {
    uint8_t *y = at(o, 0), *u = frame ? y + y_size : at(o, 1);
    (l ? lib : model)(y, u, frame ? u + (src - y_size) / 2 : at(o, 2), at(i, 0), w, h, int(stride));
  });
}

// bpp 0: a planar destination with its stride in bytes.
template <auto lib, auto model, int bpp, bool full_chroma, bool odd_flip_ok>
bool from_planes(int w, int h, int pad) {
  const int aw = std::abs(w), ah = std::abs(h);
  if (h < 0 && ah % 2 && !odd_flip_ok) return true;  // packed 4:2:2 needs a row a flip can't give
  const bool frame = one_frame(bpp, h, pad);
  const size_t y_stride = pad ? aw + pad + 3 : aw, uv_stride = aw / 2 + pad, dst_stride = aw + pad;
  const size_t chroma =
      frame ? uv_stride * (ah / 2) : uv_stride * (full_chroma ? ah : (ah + 1) / 2);
  const size_t dst = bpp ? dst_stride * bpp * ah : dst_stride * ah + dst_stride / 2 * ah;
  const std::vector<size_t> in =
      frame ? std::vector{y_stride * ah + 2 * chroma} : std::vector{y_stride * ah, chroma, chroma};
  return same(in, {dst}, [&](bool l, Planes &i, Planes &o) {
    const uint8_t *y = at(i, 0), *u = frame ? y + y_stride * ah : at(i, 1);
    (l ? lib : model)(at(o, 0), int(dst_stride), y, u, frame ? u + chroma : at(i, 2), int(y_stride),
                      int(uv_stride), w, h);
  });
}

// The packed YVYU sources, and planar Y with interleaved 4:2:2 chroma lying
// behind it as a source of the same shape.
template <auto fn>
void yv16i(uint8_t *d, int ds, const uint8_t *s, int ss, int w, int h) {
  fn(d, ds, s, s + size_t(ss) * 2 * std::abs(h), ss, w, h);
}
template <auto lib, auto model>
bool packed(int w, int h, int pad) {
  const size_t ah = std::abs(h), src_stride = std::abs(w) + pad, dst_stride = std::abs(w) + pad / 2;
  return same({src_stride * 4 * ah}, {dst_stride * 3 * ah}, [&](bool l, Planes &i, Planes &o) {
    (l ? lib : model)(at(o, 0), int(dst_stride), at(i, 0), int(src_stride), w, h);
  });
}

// One row: the converter's name, its check, and the check's arguments after the converter.
// clang-format off
#define ROW(check, fn, ...) {#fn, check<fn, __VA_ARGS__>}
// clang-format on
using model::F555, model::F565, model::F24, model::F32, model::planes_to;
const std::pair<const char *, Check> kConverters[] = {
    ROW(into_yv12, rgb555_to_yv12_c, model::rgb_to_yv12<F555>, 2, true),
    ROW(into_yv12, rgb565_to_yv12_c, model::rgb_to_yv12<F565>, 2, true),
    ROW(into_yv12, rgb24_to_yv12_c, model::rgb_to_yv12<F24>, 3, false),
    ROW(into_yv12, rgb32_to_yv12_c, model::rgb_to_yv12<F32>, 4, false),
    ROW(into_yv12, yuv_to_yv12_c, model::yuv_to_yv12, 0, false),
    ROW(into_yv12, yuyv_to_yv12_c, model::packed_to_yv12<true>, 2, false),
    ROW(into_yv12, uyvy_to_yv12_c, model::packed_to_yv12<false>, 2, false),
    ROW(from_planes, yv12_to_rgb555_c, planes_to<F555, true>, 2, false, true),
    ROW(from_planes, yv12_to_rgb565_c, planes_to<F565, true>, 2, false, true),
    ROW(from_planes, yv12_to_rgb565_crop, planes_to<F565, true>, 2, false, true),
    ROW(from_planes, yv12_to_rgb24_c, planes_to<F24, true>, 3, false, true),
    ROW(from_planes, yv12_to_rgb32_c, planes_to<F32, true>, 4, false, true),
    ROW(from_planes, yv12_to_yuv_c, model::yv12_to_yuv, 0, false, true),
    ROW(from_planes, yv12_to_yuyv_c, planes_to<model::FYUYV, true>, 2, false, false),
    ROW(from_planes, yv12_to_uyvy_c, planes_to<model::FUYVY, true>, 2, false, false),
    ROW(from_planes, yv16_to_rgb24_c, planes_to<F24, false>, 3, true, true),
    ROW(from_planes, yv16_to_rgb32_c, planes_to<F32, false>, 4, true, true),
    ROW(packed, yvyu_to_rgb24_c, model::yvyu_to_rgb<model::no_zero>),
    ROW(packed, yvyu_to_rgb16_c, model::yvyu_to_rgb<model::five_bits>),
    ROW(packed, yv16i<yv16i_to_rgb24_c>, yv16i<model::yv16i_to_rgb24>),
};

// Widths of 0 or less and a height of 0 have no pixels: the model writes
// nothing, and neither may the library.  First the plain kernels, then the
// vector ones of every instruction set.
TEST(Converters, MatchTheModel) {
  const int widths[] = {-64, -4, 0, 2, 4, 6, 14, 30, 32, 34, 62, 64, 66, 98, 130, 254, 322, 1030};
  const int heights[] = {-6, -5, -2, -1, 0, 1, 2, 3, 4, 7};
  auto check_all = [&](const char *kernels) {
    for (const auto &[name, check] : kConverters)
      for (int w : widths)
        for (int h : heights)
          for (int pad : {0, 2, 38})
            if (!check(w, h, pad)) {
              ADD_FAILURE() << kernels << " " << name << " w=" << w << " h=" << h << " pad=" << pad;
              return;
            }
  };
  colorspace_init();
  orlo::colorspace::set_vector_kernels_enabled(false);
  check_all("plain");
  orlo::colorspace::set_vector_kernels_enabled(true);
  // On ARM the sets include NEON, found at run time: the armhf baseline leaves it out.
  std::vector<std::string> targets;
  orlo::colorspace::for_each_vector_target([&](const char *target) {
    targets.emplace_back(target);
    check_all(target);
  });
  ASSERT_FALSE(targets.empty());
#if defined(__arm__) || defined(__aarch64__)
  EXPECT_NE(std::find(targets.begin(), targets.end(), "NEON"), targets.end());
#endif
}

}  // namespace
