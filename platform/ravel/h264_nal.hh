// What the engine reads of an H.264 access unit before decoding it.
#pragma once

#include <cstdint>

namespace ravel_soft {

// True when the Annex B access unit holds an IDR slice (NAL unit type 5): the
// point at which a port that lost step can start again.
bool has_idr_slice(const uint8_t *data, int32_t size);

}  // namespace ravel_soft
