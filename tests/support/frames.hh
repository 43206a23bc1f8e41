// Frames in the sources' format and a count of freed buffers, for the tests
// that feed the render worker or the decoders.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "kel_buffers.h"

namespace testing_support {

// A frame buffer: the 24-byte header, then `payload`.
inline GstBuffer *make_frame(uint8_t channel, uint8_t type, const std::string &payload,
                             uint32_t timestamp = 0) {
  std::vector<uint8_t> bytes(24 + payload.size(), 0xEE);  // unread header bytes are junk
  const auto size = static_cast<uint32_t>(payload.size());
  bytes[0] = channel;
  std::memcpy(&bytes[4], &size, 4);
  bytes[8] = type;
  std::memcpy(&bytes[12], &timestamp, 4);
  std::memcpy(bytes.data() + 24, payload.data(), payload.size());
  return gst_kel_buddy_buffer_new_copy(bytes.data(), bytes.size());
}

// Counts finalized buffers; one finalized twice shows as a count above `watched`.
struct free_counter {
  std::atomic<int> watched{0}, freed{0};
  GstBuffer *watch(GstBuffer *b) {
    watched++;
    gst_mini_object_weak_ref(
        GST_MINI_OBJECT_CAST(b),
        [](gpointer self, GstMiniObject *) { static_cast<free_counter *>(self)->freed++; }, this);
    return b;
  }
};

}  // namespace testing_support
