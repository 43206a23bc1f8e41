// Block letters drawn into an 8-bit plane: the words on a NO SIGNAL tile.
#pragma once

#include <cstdint>
#include <string_view>

namespace ravel_soft {

// Width in pixels of `text` at `scale` pixels per font dot.
int text_width(std::string_view text, int scale);
// Height in pixels of one line at `scale`.
int text_height(int scale);
// Writes `value` at every dot of `text` whose top left corner is (x, y) of a
// plane of `stride` bytes a row, clipped to `width` x `height`.  Letters
// without a glyph are left blank.
void draw_text(uint8_t *plane, int stride, int width, int height, int x, int y,
               std::string_view text, int scale, uint8_t value);

}  // namespace ravel_soft
