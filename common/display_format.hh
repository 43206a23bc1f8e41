// Display format numbers and the size of the first display for each: the
// library and the engine must agree on them.
#pragma once

#include <cstdint>

namespace orlo {

struct display_size {
  int width;
  int height;
};

// {0, 0} when the number is not a supported format.
constexpr display_size size_of_format(int32_t format) {
  switch (format) {
    case 0:
    case 1:
    case 9:
    case 11:
      return {1920, 1080};
    case 3:
    case 10:
    case 15:
      return {1280, 720};
    case 4:
    case 13:
      return {1280, 1024};
    case 6:
    case 17:
      return {800, 600};
    case 18:
    case 19:
      return {640, 480};
    case 7:
      return {720, 576};
    case 8:
      return {720, 480};
    default:
      return {0, 0};
  }
}

}  // namespace orlo
