// The values the converters are known by (whites, blacks, primaries, the
// carry gradient, the floors of the packed-source forms): they hold the
// library, and so the model it is compared with, to the same numbers.
#include <gtest/gtest.h>

#include <vector>

#include "colorspace.h"

namespace {

using Bytes = std::vector<uint8_t>;

TEST(Quoted, WhitesBlacksAndPrimariesIntoYv12) {
  // Solid 4 x 4 pictures of `pixel`; 24-bit bytes are B G R.
  const struct {
    to_yv12_fn to;
    Bytes pixel;
    uint8_t y, u, v;
  } cases[] = {
      {rgb24_to_yv12_c, {255, 255, 255}, 235, 128, 128},
      {rgb24_to_yv12_c, {0, 0, 0}, 16, 128, 128},
      {rgb24_to_yv12_c, {0, 0, 255}, 81, 90, 239},
      {rgb24_to_yv12_c, {255, 0, 0}, 40, 239, 110},
      {rgb565_to_yv12_c, {0xFF, 0xFF}, 231, 126, 126},
      // The top bit of a 555 word is ignored: 0xFFFF and 0x7FFF read the same.
      {rgb555_to_yv12_c, {0xFF, 0xFF, 0xFF, 0x7F}, 229, 128, 128},
  };
  for (const auto &c : cases) {
    Bytes src(16 * (c.to == rgb24_to_yv12_c ? 3 : 2)), yuv(24);
    for (size_t i = 0; i < src.size(); i++) src[i] = c.pixel[i % c.pixel.size()];
    c.to(yuv.data(), yuv.data() + 16, yuv.data() + 20, src.data(), 4, 4, 4);
    Bytes want(16, c.y);
    want.resize(20, c.u), want.resize(24, c.v);
    EXPECT_EQ(yuv, want) << int(yuv[0]) << " " << int(yuv[16]) << " " << int(yuv[20]);
  }
}

// A 6 x 2 picture of one colour through each shape of source.
using Solid = void (*)(uint8_t *dst, const uint8_t *y, const uint8_t *u, const uint8_t *v);
template <auto fn>
void planar(uint8_t *d, const uint8_t *y, const uint8_t *u, const uint8_t *v) {
  fn(d, 6, y, u, v, 6, 3, 6, 2);
}
template <auto fn>
void yvyu(uint8_t *d, const uint8_t *y, const uint8_t *u, const uint8_t *v) {
  uint8_t src[24];
  for (int i = 0; i < 24; i += 4) src[i] = src[i + 2] = *y, src[i + 1] = *v, src[i + 3] = *u;
  fn(d, 6, src, 6, 6, 2);
}

TEST(Quoted, SolidColoursOutOfYuv) {
  colorspace_init();
  const Bytes gradient = {0x0C, 0x63, 0x0C, 0x63, 0x0C, 0x63, 0x2C, 0x63, 0x2C, 0x63, 0x2C, 0x63};
  const struct {
    const char *name;
    Solid convert;
    int bytes_per_pixel;
    uint8_t y, u, v;
    Bytes repeated;  // the expected bytes, repeated over the picture
  } cases[] = {
      // The shift floors: Y 235 gives 254; Y 255 clips from 278 and Y 0 from -19.
      {"rgb24 Y235", planar<yv12_to_rgb24_c>, 3, 235, 128, 128, {254}},
      {"rgb24 Y255", planar<yv12_to_rgb24_c>, 3, 255, 128, 128, {255}},
      {"rgb24 Y0", planar<yv12_to_rgb24_c>, 3, 0, 128, 128, {0}},
      // Terms of 97: the carry moves the step of the gradient; each line restarts.
      {"rgb565 Y100", planar<yv12_to_rgb565_c>, 2, 100, 128, 128, gradient},
      {"rgb555 Y235", planar<yv12_to_rgb555_c>, 2, 235, 128, 128, {0xFF, 0x7F}},
      // The 32-bit form takes V through u_src: the chroma roles swap, not the channels.
      {"rgb24 U200 V60", planar<yv12_to_rgb24_c>, 3, 128, 200, 60, {255, 157, 21}},
      {"rgb32 V60 U200", planar<yv12_to_rgb32_c>, 4, 128, 60, 200, {21, 157, 255, 0}},
      {"yv16 rgb32 V60 U200", planar<yv16_to_rgb32_c>, 4, 128, 60, 200, {21, 157, 255, 0}},
      // Black: the packed sources keep 0 out, the planar ones don't.
      {"yv16 rgb24 black", planar<yv16_to_rgb24_c>, 3, 16, 128, 128, {0}},
      {"yvyu rgb24 black", yvyu<yvyu_to_rgb24_c>, 3, 16, 128, 128, {1}},
      {"yvyu rgb24 Y255", yvyu<yvyu_to_rgb24_c>, 3, 255, 128, 128, {255}},
      // Five bits moved up by three: terms of 16, 17 and 278.
      {"yvyu rgb16 black", yvyu<yvyu_to_rgb16_c>, 3, 16, 128, 128, {8}},
      {"yvyu rgb16 Y30", yvyu<yvyu_to_rgb16_c>, 3, 30, 128, 128, {8}},
      {"yvyu rgb16 Y31", yvyu<yvyu_to_rgb16_c>, 3, 31, 128, 128, {16}},
      {"yvyu rgb16 Y255", yvyu<yvyu_to_rgb16_c>, 3, 255, 128, 128, {248}},
  };
  for (const auto &c : cases) {
    const Bytes y(12, c.y), u(6, c.u), v(6, c.v);
    Bytes out(12 * c.bytes_per_pixel), want(out.size());
    c.convert(out.data(), y.data(), u.data(), v.data());
    for (size_t i = 0; i < want.size(); i++) want[i] = c.repeated[i % c.repeated.size()];
    EXPECT_EQ(out, want) << c.name;
  }
}

}  // namespace
