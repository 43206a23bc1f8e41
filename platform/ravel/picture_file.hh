// Writing a composed display to a picture file.
#pragma once

#include <cstdint>

namespace ravel_soft {

// PNG, 8-bit RGB; false (with a log line) when the file can't be written.
bool write_png(const char *path, const uint8_t *rgb, int width, int height, int stride);

}  // namespace ravel_soft
