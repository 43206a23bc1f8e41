#include "h264_nal.hh"

namespace ravel_soft {

bool has_idr_slice(const uint8_t *data, int32_t size) {
  // Start codes are 00 00 01 (a four-byte code ends the same way); the NAL
  // header byte follows, its low five bits the unit type.
  for (int32_t i = 0; i + 3 < size; i++) {
    if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) {
      if ((data[i + 3] & 0x1f) == 5) return true;
      i += 2;
    }
  }
  return false;
}

}  // namespace ravel_soft
