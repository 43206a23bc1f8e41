/* The application sink element `kelappsink` (libgstkelapp.so).
 *
 * A GstBaseSink that queues what it renders (bounded by "max-buffers", with
 * "drop" dropping the oldest) and calls the render callback on its streaming
 * thread once per rendered buffer; the callback pulls that buffer.
 */
#ifndef KELAPP_SINK_H
#define KELAPP_SINK_H

#include <gst/gst.h>

G_BEGIN_DECLS

#if defined(__GNUC__)
#define KELAPP_API __attribute__((visibility("default")))
#else
#define KELAPP_API
#endif

typedef struct _GstKelAppSink GstKelAppSink;

KELAPP_API GType gst_kelapp_sink_get_type(void);
#define GST_TYPE_KELAPP_SINK (gst_kelapp_sink_get_type())
#define GST_KELAPP_SINK(obj) (G_TYPE_CHECK_INSTANCE_CAST((obj), GST_TYPE_KELAPP_SINK, GstKelAppSink))
#define GST_IS_KELAPP_SINK(obj) (G_TYPE_CHECK_INSTANCE_TYPE((obj), GST_TYPE_KELAPP_SINK))

/* Six pointers; only `render` is used by liborlo, the others stay NULL. */
typedef struct _GstKelAppSinkRenderCallbacks {
  void (*eos)(GstKelAppSink *sink, gpointer user_data);
  gint (*render)(GstKelAppSink *sink, gpointer user_data);
  gpointer reserved[4];
} GstKelAppSinkRenderCallbacks;

/* Seven pointers. */
typedef struct _GstKelAppSinkCallbacks {
  void (*eos)(GstKelAppSink *sink, gpointer user_data);
  gint (*event)(GstKelAppSink *sink, GstEvent *event, gpointer user_data);
  gint (*new_preroll)(GstKelAppSink *sink, gpointer user_data);
  gint (*render_report)(GstKelAppSink *sink, gint code, gpointer user_data);
  gpointer reserved[3];
} GstKelAppSinkCallbacks;

/* Code of the render report after a stepped frame has been rendered. */
#define GST_KELAPP_SINK_REPORT_STEP_RENDERED 35

/* Both tables are copied during the call. */
KELAPP_API void gst_kelapp_sink_set_render_callbacks(GstKelAppSink *sink,
                                                     const GstKelAppSinkRenderCallbacks *callbacks,
                                                     gpointer user_data, GDestroyNotify notify);
KELAPP_API void gst_kelapp_sink_set_callbacks(GstKelAppSink *sink,
                                              const GstKelAppSinkCallbacks *callbacks,
                                              gpointer user_data, GDestroyNotify notify);
/* The oldest queued buffer with a reference the caller owns, or NULL. */
KELAPP_API GstBuffer *gst_kelapp_sink_pull_buffer(GstKelAppSink *sink);

G_END_DECLS

#endif /* KELAPP_SINK_H */
