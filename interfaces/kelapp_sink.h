/* The application sink element `kelappsink` (libgstkelapp.so).
 *
 * A GstBaseSink that queues what it renders and hands it to the application:
 *
 * - Every rendered buffer is appended to the sink's queue.  "max-buffers"
 *   bounds the queue (0: no bound).  When the queue is full, "drop" = TRUE
 *   drops the oldest queued buffer; "drop" = FALSE makes the streaming thread
 *   wait until a pull makes room or the sink flushes or stops.
 * - After queueing, the render callback (the second pointer of the table of
 *   six) is called on the streaming thread with (sink, user data).  It is
 *   expected to call gst_kelapp_sink_pull_buffer once, which gives the oldest
 *   queued buffer.  Each sink has its own lock and thread, so two sinks may
 *   call their render callbacks at the same time.
 * - Serialized events (segment, caps, EOS, custom downstream events such as
 *   the playback source's "KELPlayInfo") reach the event callback of the
 *   table of seven, on the streaming thread, in stream order, before the sink
 *   handles them itself.  The event is borrowed for the call.
 * - A buffer carrying GST_KELAPP_SINK_BUFFER_FLAG_STEP is a stepped frame: once
 *   its render callback has returned, the sink calls the render report (slot
 *   3 of the table of seven) with GST_KELAPP_SINK_REPORT_STEP_RENDERED.
 * - A flush (flush-start / flush-stop) and the way down to READY or NULL
 *   release every queued buffer; finalizing the sink releases the rest and
 *   calls the destroy notifies of both tables.
 *
 * Properties:
 *   "caps"        GstCaps, the caps the sink accepts (NULL: any).
 *   "sync"        the base sink's clock synchronisation.  "enable-last-sample"
 *                 starts FALSE: a pulled buffer is not kept alive behind the queue.
 *   "drop"        gboolean, FALSE: drop the oldest buffer when the queue is full.
 *   "max-buffers" guint, 0: the bound of the queue (0 = unbounded).
 *   "priority"    gint, 0: the real-time priority that the device's element
 *                 gives its streaming thread (the pipes ask for 97 and 99).
 *                 The stand-in stores and reports it but leaves the thread's
 *                 scheduling alone: a host build has no right to SCHED_FIFO.
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
#define GST_KELAPP_SINK(obj) \
  (G_TYPE_CHECK_INSTANCE_CAST((obj), GST_TYPE_KELAPP_SINK, GstKelAppSink))
#define GST_IS_KELAPP_SINK(obj) (G_TYPE_CHECK_INSTANCE_TYPE((obj), GST_TYPE_KELAPP_SINK))

/* Six pointers; only `render` is used by liborlo, the others stay NULL.
 * `eos` is called when the end of the stream reaches the sink. */
typedef struct _GstKelAppSinkRenderCallbacks {
  void (*eos)(GstKelAppSink *sink, gpointer user_data);
  gint (*render)(GstKelAppSink *sink, gpointer user_data);
  gpointer reserved[4];
} GstKelAppSinkRenderCallbacks;

/* Seven pointers.  `new_preroll` is called when the sink prerolls (the
 * buffer is not queued then: it is queued when it is rendered). */
typedef struct _GstKelAppSinkCallbacks {
  void (*eos)(GstKelAppSink *sink, gpointer user_data);
  gint (*event)(GstKelAppSink *sink, GstEvent *event, gpointer user_data);
  gint (*new_preroll)(GstKelAppSink *sink, gpointer user_data);
  gint (*render_report)(GstKelAppSink *sink, gint code, gpointer user_data);
  gpointer reserved[3];
} GstKelAppSinkCallbacks;

/* Codes of the render report. */
/* A buffer that the source marked as a stepped frame (the last render of a
 * step) has been rendered. */
#define GST_KELAPP_SINK_REPORT_STEP_RENDERED 35

/* Set by a source on a buffer that it delivers as one step of frame-by-frame
 * play: GST_BUFFER_FLAG_SET(buf, GST_KELAPP_SINK_BUFFER_FLAG_STEP). */
#define GST_KELAPP_SINK_BUFFER_FLAG_STEP ((GstBufferFlags)GST_BUFFER_FLAG_LAST)

/* Both tables are copied during the call; `notify`, if not NULL, is called
 * on `user_data` when the table is replaced or the sink is finalized. */
KELAPP_API void gst_kelapp_sink_set_render_callbacks(GstKelAppSink *sink,
                                                     const GstKelAppSinkRenderCallbacks *callbacks,
                                                     gpointer user_data, GDestroyNotify notify);
KELAPP_API void gst_kelapp_sink_set_callbacks(GstKelAppSink *sink,
                                              const GstKelAppSinkCallbacks *callbacks,
                                              gpointer user_data, GDestroyNotify notify);
/* The oldest queued buffer with a reference the caller owns, or NULL when the
 * queue is empty.  Never waits. */
KELAPP_API GstBuffer *gst_kelapp_sink_pull_buffer(GstKelAppSink *sink);

G_END_DECLS

#endif /* KELAPP_SINK_H */
