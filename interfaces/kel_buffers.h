/* The two buffer types that the stream elements deliver.
 *
 * A buddy buffer is one frame: a GstBuffer carrying a GstKelBuddyMeta that
 * keeps the address and length of its bytes, so that a reader needs no map per
 * access.  The bytes are the 24-byte frame header and the payload.
 *
 * A list buffer is the unit that a sink delivers: a GstBuffer with no memory
 * of its own carrying a GstKelListMeta whose `list` holds the member buffers.
 * We carry the members in a meta rather than using GstBufferList so that one
 * delivery is one GstBuffer all the way: it has one timestamp for the sink's
 * clock sync, one slot in the sink's bounded queue, and one object for
 * gst_kelapp_sink_pull_buffer to hand over.  The meta holds one reference on
 * each member; members live as long as the list buffer.
 *
 * libgstkelbuddy.so and libgstkellistbuffer.so (platform/gst) implement this.
 */
#ifndef KEL_BUFFERS_H
#define KEL_BUFFERS_H

#include <gst/gst.h>

G_BEGIN_DECLS

#if defined(__GNUC__)
#define KEL_API __attribute__((visibility("default")))
#else
#define KEL_API
#endif

/* ---- buddy buffer ---- */
typedef struct _GstKelBuddyMeta {
  GstMeta meta;
  guint8 *data;
  gsize size;
} GstKelBuddyMeta;

/* The meta API type: the type test of a buddy buffer. */
KEL_API GType gst_kel_buddy_buffer_get_type(void);
KEL_API const GstMetaInfo *gst_kel_buddy_meta_get_info(void);

/* A new frame buffer of `size` zeroed bytes, readable at the meta's `data`. */
KEL_API GstBuffer *gst_kel_buddy_buffer_new(gsize size);
/* A new frame buffer holding a copy of `size` bytes from `data`. */
KEL_API GstBuffer *gst_kel_buddy_buffer_new_copy(gconstpointer data, gsize size);
/* The meta, or NULL when `buffer` is NULL or no buddy buffer. */
KEL_API GstKelBuddyMeta *gst_kel_buddy_buffer_get_meta(GstBuffer *buffer);

#define GST_IS_KEL_BUDDY_BUFFER(b) (gst_kel_buddy_buffer_get_meta(b) != NULL)

/* ---- list buffer ---- */
typedef struct _GstKelListMeta {
  GstMeta meta;
  GList *list; /* of GstBuffer*, one reference each; NULL when empty */
} GstKelListMeta;

KEL_API GType gst_kel_list_buffer_get_type(void);
KEL_API const GstMetaInfo *gst_kel_list_meta_get_info(void);

/* A new, empty list buffer. */
KEL_API GstBuffer *gst_kel_list_buffer_new(void);
/* Appends `member`, taking over the caller's reference. The list buffer must
 * be writable (not yet shared). */
KEL_API void gst_kel_list_buffer_append(GstBuffer *list_buffer, GstBuffer *member);
/* The meta, or NULL when `buffer` is NULL or no list buffer. */
KEL_API GstKelListMeta *gst_kel_list_buffer_get_meta(GstBuffer *buffer);

#define GST_IS_KEL_LIST_BUFFER(b) (gst_kel_list_buffer_get_meta(b) != NULL)

G_END_DECLS

#endif /* KEL_BUFFERS_H */
