// The list buffer: a GstBuffer with no memory of its own whose meta holds the
// member frames, one reference each.
#include "kel_buffers.h"

namespace {

gboolean list_meta_init(GstMeta *meta, gpointer /*params*/, GstBuffer * /*buffer*/) {
  reinterpret_cast<GstKelListMeta *>(meta)->list = nullptr;
  return TRUE;
}

void list_meta_free(GstMeta *meta, GstBuffer * /*buffer*/) {
  auto *m = reinterpret_cast<GstKelListMeta *>(meta);
  g_list_free_full(m->list, reinterpret_cast<GDestroyNotify>(gst_mini_object_unref));
  m->list = nullptr;
}

// A copy shares the members, with a reference of its own on each.
gboolean list_meta_transform(GstBuffer *dest, GstMeta *meta, GstBuffer * /*buffer*/, GQuark type,
                             gpointer /*data*/) {
  if (!GST_META_TRANSFORM_IS_COPY(type)) return FALSE;
  auto *src = reinterpret_cast<GstKelListMeta *>(meta);
  auto *m = reinterpret_cast<GstKelListMeta *>(
      gst_buffer_add_meta(dest, gst_kel_list_meta_get_info(), nullptr));
  if (m == nullptr) return FALSE;
  m->list = g_list_copy_deep(
      src->list,
      [](gconstpointer p, gpointer) -> gpointer {
        return gst_mini_object_ref(GST_MINI_OBJECT_CAST(const_cast<gpointer>(p)));
      },
      nullptr);
  return TRUE;
}

}  // namespace

extern "C" GType gst_kel_list_buffer_get_type(void) {
  static GType type = 0;
  static const gchar *tags[] = {nullptr};
  if (g_once_init_enter(&type)) {
    GType t = gst_meta_api_type_register("GstKelListBufferAPI", tags);
    g_once_init_leave(&type, t);
  }
  return type;
}

extern "C" const GstMetaInfo *gst_kel_list_meta_get_info(void) {
  static const GstMetaInfo *info = nullptr;
  if (g_once_init_enter(&info)) {
    const GstMetaInfo *i =
        gst_meta_register(gst_kel_list_buffer_get_type(), "GstKelListMeta", sizeof(GstKelListMeta),
                          list_meta_init, list_meta_free, list_meta_transform);
    g_once_init_leave(&info, i);
  }
  return info;
}

extern "C" GstBuffer *gst_kel_list_buffer_new(void) {
  GstBuffer *buffer = gst_buffer_new();
  gst_buffer_add_meta(buffer, gst_kel_list_meta_get_info(), nullptr);
  return buffer;
}

extern "C" void gst_kel_list_buffer_append(GstBuffer *list_buffer, GstBuffer *member) {
  GstKelListMeta *m = gst_kel_list_buffer_get_meta(list_buffer);
  g_return_if_fail(m != nullptr);
  g_return_if_fail(member != nullptr);
  m->list = g_list_append(m->list, member);
}

extern "C" GstKelListMeta *gst_kel_list_buffer_get_meta(GstBuffer *buffer) {
  if (buffer == nullptr || !GST_IS_BUFFER(buffer)) return nullptr;
  return reinterpret_cast<GstKelListMeta *>(
      gst_buffer_get_meta(buffer, gst_kel_list_buffer_get_type()));
}
