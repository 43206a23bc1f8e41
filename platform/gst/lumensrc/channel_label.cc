// Camera numbers in a 3x5 block font, so that a viewer of the mosaic can tell
// the channels apart without any font library.
#include "channel_label.hh"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <string>

namespace lumen {
namespace {

// Rows of each digit, top to bottom, three bits a row (bit 2 = left column).
constexpr std::array<std::array<uint8_t, 5>, 10> kDigits = {{
    {7, 5, 5, 5, 7},  // 0
    {2, 6, 2, 2, 7},  // 1
    {7, 1, 7, 4, 7},  // 2
    {7, 1, 7, 1, 7},  // 3
    {5, 5, 7, 1, 1},  // 4
    {7, 4, 7, 1, 7},  // 5
    {7, 4, 7, 5, 7},  // 6
    {7, 1, 1, 1, 1},  // 7
    {7, 5, 7, 5, 7},  // 8
    {7, 5, 7, 1, 7},  // 9
}};

constexpr uint8_t kInk = 235;
constexpr uint8_t kPaper = 16;

void fill(uint8_t *plane, int stride, int width, int height, int x, int y, int w, int h,
          uint8_t value) {
  const int x0 = std::clamp(x, 0, width), x1 = std::clamp(x + w, 0, width);
  const int y0 = std::clamp(y, 0, height), y1 = std::clamp(y + h, 0, height);
  for (int row = y0; row < y1; ++row)
    std::memset(plane + static_cast<ptrdiff_t>(row) * stride + x0, value,
                static_cast<size_t>(x1 - x0));
}

}  // namespace

void draw_channel_label(GstVideoFrame *frame, int number) {
  auto *luma = static_cast<uint8_t *>(GST_VIDEO_FRAME_PLANE_DATA(frame, 0));
  const int stride = GST_VIDEO_FRAME_PLANE_STRIDE(frame, 0);
  const int width = GST_VIDEO_FRAME_COMP_WIDTH(frame, 0);
  const int height = GST_VIDEO_FRAME_COMP_HEIGHT(frame, 0);
  const std::string digits = std::to_string(number < 0 ? 0 : number);
  const int cell = std::max(2, height / 24);  // one font pixel
  const int margin = cell;
  const int advance = 4 * cell;
  const int box_w = static_cast<int>(digits.size()) * advance + margin;
  const int box_h = 5 * cell + 2 * margin;
  fill(luma, stride, width, height, margin, margin, box_w, box_h, kPaper);
  int x = 2 * margin;
  for (char c : digits) {
    const auto &glyph = kDigits[static_cast<size_t>(c - '0')];
    for (int row = 0; row < 5; ++row)
      for (int col = 0; col < 3; ++col)
        if (glyph[static_cast<size_t>(row)] & (4 >> col))
          fill(luma, stride, width, height, x + col * cell, 2 * margin + row * cell, cell, cell,
               kInk);
    x += advance;
  }
}

}  // namespace lumen
