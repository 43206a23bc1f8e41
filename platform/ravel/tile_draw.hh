// Drawing one region of a composed display: its picture scaled into the
// region, black without one, or the NO SIGNAL tile.
#pragma once

#include "compositor.hh"

namespace ravel_soft {

// The region's rectangle on a canvas, clipped and kept to even pixels;
// empty (w or h 0) when nothing of it is on the canvas.
struct rect {
  int x, y, w, h;
};
rect clip_region(const ravel_region_t &r, const canvas &c);
bool overlap(const rect &a, const rect &b);

void draw_tile(canvas &c, const ravel_region_t &r, const tile_source &src);

}  // namespace ravel_soft
