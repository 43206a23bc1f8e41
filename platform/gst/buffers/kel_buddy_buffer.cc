// The frame ("buddy") buffer: a GstBuffer whose meta keeps the address and
// length of its bytes.
#include <cstring>

#include "kel_buffers.h"

namespace {

gboolean buddy_meta_init(GstMeta *meta, gpointer /*params*/, GstBuffer * /*buffer*/) {
  auto *m = reinterpret_cast<GstKelBuddyMeta *>(meta);
  m->data = nullptr;
  m->size = 0;
  return TRUE;
}

// A copy of a buddy buffer is a buddy buffer over the copy's own bytes.
gboolean buddy_meta_transform(GstBuffer *dest, GstMeta *meta, GstBuffer * /*buffer*/, GQuark type,
                              gpointer /*data*/) {
  if (!GST_META_TRANSFORM_IS_COPY(type)) return FALSE;
  auto *src = reinterpret_cast<GstKelBuddyMeta *>(meta);
  auto *m = reinterpret_cast<GstKelBuddyMeta *>(
      gst_buffer_add_meta(dest, gst_kel_buddy_meta_get_info(), nullptr));
  if (m == nullptr) return FALSE;
  GstMapInfo map;
  if (gst_buffer_get_size(dest) >= src->size && gst_buffer_map(dest, &map, GST_MAP_READ)) {
    // System memory keeps its address after the unmap; the buffer keeps it
    // alive.
    m->data = map.data;
    m->size = src->size;
    gst_buffer_unmap(dest, &map);
  }
  return TRUE;
}

}  // namespace

extern "C" GType gst_kel_buddy_buffer_get_type(void) {
  static GType type = 0;
  static const gchar *tags[] = {nullptr};
  if (g_once_init_enter(&type)) {
    GType t = gst_meta_api_type_register("GstKelBuddyBufferAPI", tags);
    g_once_init_leave(&type, t);
  }
  return type;
}

extern "C" const GstMetaInfo *gst_kel_buddy_meta_get_info(void) {
  static const GstMetaInfo *info = nullptr;
  if (g_once_init_enter(&info)) {
    const GstMetaInfo *i =
        gst_meta_register(gst_kel_buddy_buffer_get_type(), "GstKelBuddyMeta",
                          sizeof(GstKelBuddyMeta), buddy_meta_init, nullptr, buddy_meta_transform);
    g_once_init_leave(&info, i);
  }
  return info;
}

extern "C" GstBuffer *gst_kel_buddy_buffer_new(gsize size) {
  // Plain system memory, so that the address found once stays valid for the
  // life of the buffer.
  guint8 *bytes = static_cast<guint8 *>(g_malloc0(size > 0 ? size : 1));
  GstBuffer *buffer = gst_buffer_new_wrapped(bytes, size);
  auto *m = reinterpret_cast<GstKelBuddyMeta *>(
      gst_buffer_add_meta(buffer, gst_kel_buddy_meta_get_info(), nullptr));
  m->data = bytes;
  m->size = size;
  return buffer;
}

extern "C" GstBuffer *gst_kel_buddy_buffer_new_copy(gconstpointer data, gsize size) {
  GstBuffer *buffer = gst_kel_buddy_buffer_new(size);
  if (size > 0) std::memcpy(gst_kel_buddy_buffer_get_meta(buffer)->data, data, size);
  return buffer;
}

extern "C" GstKelBuddyMeta *gst_kel_buddy_buffer_get_meta(GstBuffer *buffer) {
  if (buffer == nullptr || !GST_IS_BUFFER(buffer)) return nullptr;
  return reinterpret_cast<GstKelBuddyMeta *>(
      gst_buffer_get_meta(buffer, gst_kel_buddy_buffer_get_type()));
}
