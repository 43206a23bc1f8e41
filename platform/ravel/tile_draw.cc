#include "tile_draw.hh"

#include <libyuv/planar_functions.h>
#include <libyuv/scale.h>

#include <algorithm>
#include <string>

#include "tile_text.hh"

namespace ravel_soft {
namespace {

// Regions are laid out in a space of 1920 x 1080; the crop fields stay in it.
constexpr int kLayoutWidth = 1920;
constexpr int kLayoutHeight = 1080;

// The part of the picture that a region shows: the whole picture, or the
// crop rectangle mapped from layout space onto the picture.
rect source_rect(const ravel_region_t &r, const picture &pic) {
  int pw = pic.width(), ph = pic.height();
  rect s{0, 0, pw, ph};
  if (r.crop_x >= 0 && r.crop_y >= 0 && r.crop_width > 0 && r.crop_height > 0) {
    s.x = static_cast<int>(int64_t{r.crop_x} * pw / kLayoutWidth) & ~1;
    s.y = static_cast<int>(int64_t{r.crop_y} * ph / kLayoutHeight) & ~1;
    s.w = static_cast<int>(int64_t{r.crop_width} * pw / kLayoutWidth);
    s.h = static_cast<int>(int64_t{r.crop_height} * ph / kLayoutHeight);
    s.x = std::min(s.x, pw - 2);
    s.y = std::min(s.y, ph - 2);
    s.w = std::clamp(s.w, 2, pw - s.x);
    s.h = std::clamp(s.h, 2, ph - s.y);
  }
  return s;
}

struct planes {
  uint8_t *y, *u, *v;
  int stride_y, stride_c;
};

planes at(canvas &c, const rect &d) {
  const int cw2 = c.width / 2;
  return {c.y.data() + static_cast<size_t>(d.y) * c.width + d.x,
          c.u.data() + static_cast<size_t>(d.y / 2) * cw2 + d.x / 2,
          c.v.data() + static_cast<size_t>(d.y / 2) * cw2 + d.x / 2, c.width, cw2};
}

void fill(const planes &p, const rect &d, uint8_t y) {
  libyuv::SetPlane(p.y, p.stride_y, d.w, d.h, y);
  libyuv::SetPlane(p.u, p.stride_c, d.w / 2, d.h / 2, 128);
  libyuv::SetPlane(p.v, p.stride_c, d.w / 2, d.h / 2, 128);
}

// A dark tile with the region's number and the words NO SIGNAL, centred.
void draw_no_signal(canvas &c, const ravel_region_t &r, const rect &d) {
  planes p = at(c, d);
  fill(p, d, 40);
  const std::string number = "CH " + std::to_string(r.ch);
  const std::string words = "NO SIGNAL";
  int scale = std::max(1, d.w * 6 / 10 / std::max(1, text_width(words, 1)));
  scale = std::min(scale, std::max(1, d.h / (4 * text_height(1))));
  int line = text_height(scale);
  int top = (d.h - 3 * line) / 2;
  draw_text(p.y, p.stride_y, d.w, d.h, (d.w - text_width(number, scale)) / 2, top, number, scale,
            235);
  draw_text(p.y, p.stride_y, d.w, d.h, (d.w - text_width(words, scale)) / 2, top + 2 * line, words,
            scale, 235);
}

// The picture scaled into the clipped rectangle; a region that reaches past
// the display shows the matching part of its source, not a squeezed whole.
void draw_picture(canvas &c, const ravel_region_t &r, const rect &d, const picture &pic) {
  rect s = source_rect(r, pic);
  if (d.x != r.x || d.y != r.y || d.w != r.width || d.h != r.height) {
    // The clip rounds to even pixels, so that it may start a pixel before
    // the region (an odd x or y): the source then starts at its edge, never
    // before it.  Kept in 64 bits until the picture bounds them.
    const int64_t pw = pic.width(), ph = pic.height();
    const int64_t from_x = s.x + (int64_t{d.x} - r.x) * s.w / r.width;
    const int64_t from_y = s.y + (int64_t{d.y} - r.y) * s.h / r.height;
    const int x = static_cast<int>(std::clamp(from_x, int64_t{0}, pw - 2)) & ~1;
    const int y = static_cast<int>(std::clamp(from_y, int64_t{0}, ph - 2)) & ~1;
    const int64_t sw = int64_t{d.w} * s.w / r.width, sh = int64_t{d.h} * s.h / r.height;
    s = {x, y, static_cast<int>(std::clamp(sw, int64_t{2}, pw - x)),
         static_cast<int>(std::clamp(sh, int64_t{2}, ph - y))};
  }
  planes p = at(c, d);
  const uint8_t *sy = pic.plane(0) + static_cast<size_t>(s.y) * pic.stride(0) + s.x;
  const uint8_t *su = pic.plane(1) + static_cast<size_t>(s.y / 2) * pic.stride(1) + s.x / 2;
  const uint8_t *sv = pic.plane(2) + static_cast<size_t>(s.y / 2) * pic.stride(2) + s.x / 2;
  libyuv::I420Scale(sy, pic.stride(0), su, pic.stride(1), sv, pic.stride(2), s.w, s.h, p.y,
                    p.stride_y, p.u, p.stride_c, p.v, p.stride_c, d.w, d.h,
                    libyuv::kFilterBilinear);
}

}  // namespace

rect clip_region(const ravel_region_t &r, const canvas &c) {
  // Chroma is at half resolution: the rectangle keeps to even pixels.
  int x0 = std::max(r.x, 0) & ~1, y0 = std::max(r.y, 0) & ~1;
  int x1 = static_cast<int>(std::min<int64_t>(int64_t{r.x} + r.width, c.width)) & ~1;
  int y1 = static_cast<int>(std::min<int64_t>(int64_t{r.y} + r.height, c.height)) & ~1;
  if (r.width <= 0 || r.height <= 0 || x1 <= x0 || y1 <= y0) return {0, 0, 0, 0};
  return {x0, y0, x1 - x0, y1 - y0};
}

bool overlap(const rect &a, const rect &b) {
  return a.w > 0 && b.w > 0 && a.x < b.x + b.w && b.x < a.x + a.w && a.y < b.y + b.h &&
         b.y < a.y + a.h;
}

void draw_tile(canvas &c, const ravel_region_t &r, const tile_source &src) {
  rect d = clip_region(r, c);
  if (d.w == 0) return;
  if (src.no_signal) {
    draw_no_signal(c, r, d);
  } else if (!src.pic) {
    fill(at(c, d), d, 16);
  } else {
    draw_picture(c, r, d, *src.pic);
  }
}

}  // namespace ravel_soft
