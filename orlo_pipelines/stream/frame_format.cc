// The frame format: a list member read as header and payload.
#include <cstring>

#include "kel_buffers.h"
#include "stream/stream_delivery.hh"

namespace orlo {

namespace {

template <typename T>
T field(const uint8_t *header, int offset) {
  T v;
  std::memcpy(&v, header + offset, sizeof v);
  return v;
}

}  // namespace

bool read_frame(GstBuffer *member, frame &out) {
  const GstKelBuddyMeta *meta = gst_kel_buddy_buffer_get_meta(member);
  if (meta == nullptr) return false;
  if (meta->data == nullptr || meta->size < static_cast<gsize>(FRAME_HEADER_BYTES)) {
    g_warning("%s:%d: frame buffer of %" G_GSIZE_FORMAT " bytes is shorter than its header\n",
              __func__, __LINE__, meta->data == nullptr ? 0 : meta->size);
    return false;
  }
  const uint8_t *header = meta->data;
  const uint32_t size = field<uint32_t>(header, FRAME_SIZE_OFFSET);
  const gsize held = meta->size - FRAME_HEADER_BYTES;
  if (size > held || size > static_cast<uint32_t>(G_MAXINT32)) {
    g_warning("%s:%d: frame header claims %u payload bytes, the buffer holds %" G_GSIZE_FORMAT "\n",
              __func__, __LINE__, size, held);
    return false;
  }
  out.buffer = member;
  out.payload = header + FRAME_HEADER_BYTES;
  out.size = static_cast<int32_t>(size);
  out.channel = field<uint8_t>(header, FRAME_CHANNEL_OFFSET);
  out.type = field<uint8_t>(header, FRAME_TYPE_OFFSET);
  out.timestamp = field<uint32_t>(header, FRAME_TIMESTAMP_OFFSET);
  return true;
}

}  // namespace orlo
