// Converters handed a picture with no pixels (a width of 0 or less, or a
// height of 0) write nothing and don't crash, whatever the other arguments.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "colorspace.h"

namespace {

// Every plane, source and destination, points into one arena; a converter
// that wrote anything would change it.
struct Arena {
  std::vector<uint8_t> bytes = std::vector<uint8_t>(1 << 17, 0xA5);
  uint8_t *at(size_t offset) { return bytes.data() + (1 << 16) + offset; }
};

using Call = std::function<void(Arena &, int w, int h)>;

template <auto fn>
Call into_yv12() {
  return
      [](Arena &a, int w, int h) { fn(a.at(0), a.at(4096), a.at(8192), a.at(16384), w, h, 192); };
}
template <auto fn>
Call out_of_yv12() {
  return [](Arena &a, int w, int h) {
    fn(a.at(0), 64, a.at(16384), a.at(24576), a.at(28672), 64, 32, w, h);
  };
}

TEST(EmptyPictures, WriteNothing) {
  colorspace_init();
  const std::vector<std::pair<std::string, Call>> converters = {
      {"rgb555_to_yv12_c", into_yv12<rgb555_to_yv12_c>()},
      {"rgb565_to_yv12_c", into_yv12<rgb565_to_yv12_c>()},
      {"rgb24_to_yv12_c", into_yv12<rgb24_to_yv12_c>()},
      {"rgb32_to_yv12_c", into_yv12<rgb32_to_yv12_c>()},
      {"yuv_to_yv12_c", into_yv12<yuv_to_yv12_c>()},
      {"yuyv_to_yv12_c", into_yv12<yuyv_to_yv12_c>()},
      {"uyvy_to_yv12_c", into_yv12<uyvy_to_yv12_c>()},
      {"yv12_to_rgb555_c", out_of_yv12<yv12_to_rgb555_c>()},
      {"yv12_to_rgb565_c", out_of_yv12<yv12_to_rgb565_c>()},
      {"yv12_to_rgb565_crop", out_of_yv12<yv12_to_rgb565_crop>()},
      {"yv12_to_rgb24_c", out_of_yv12<yv12_to_rgb24_c>()},
      {"yv12_to_rgb32_c", out_of_yv12<yv12_to_rgb32_c>()},
      {"yv12_to_yuv_c", out_of_yv12<yv12_to_yuv_c>()},
      {"yv12_to_yuyv_c", out_of_yv12<yv12_to_yuyv_c>()},
      {"yv12_to_uyvy_c", out_of_yv12<yv12_to_uyvy_c>()},
      {"yv16_to_rgb24_c", out_of_yv12<yv16_to_rgb24_c>()},
      {"yv16_to_rgb32_c", out_of_yv12<yv16_to_rgb32_c>()},
      {"yv16i_to_rgb24_c",
       [](Arena &a, int w, int h) {
         yv16i_to_rgb24_c(a.at(0), 64, a.at(16384), a.at(24576), 64, w, h);
       }},
      {"yvyu_to_rgb24_c",
       [](Arena &a, int w, int h) { yvyu_to_rgb24_c(a.at(0), 64, a.at(16384), 64, w, h); }},
      {"yvyu_to_rgb16_c",
       [](Arena &a, int w, int h) { yvyu_to_rgb16_c(a.at(0), 64, a.at(16384), 64, w, h); }},
  };
  const struct {
    int w, h;
  } sizes[] = {{-64, 4}, {-4, 4}, {-2, -4}, {0, 4}, {0, -4}, {64, 0}, {-64, 0}};
  for (const auto &[name, call] : converters)
    for (const auto s : sizes) {
      Arena arena;
      const std::vector<uint8_t> before = arena.bytes;
      call(arena, s.w, s.h);
      EXPECT_EQ(arena.bytes, before) << name << " w=" << s.w << " h=" << s.h;
    }
}

}  // namespace
