/* The playback source element `kelsstsrc` (libgstkelsstsrc.so).
 *
 * Plays recorded channels as list buffers of frame buffers.  Its properties
 * are documented in platform/gst/kelsstsrc/gstkelsstsrc.cc, the recording
 * files (one H.264 Annex B file per channel, "<location>/chNN.h264", written
 * by the element `kelsstrec` of the same library) in
 * platform/gst/kelsstsrc/recording.hh.
 *
 * "ch-mask" is a 64-bit property (G_TYPE_UINT64), one bit per channel like
 * the status masks of the "KELPlayInfo" event; callers write it as a 64-bit
 * value in g_object_set.
 */
#ifndef KELSSTSRC_H
#define KELSSTSRC_H

#include <gst/gst.h>

G_BEGIN_DECLS

#if defined(__GNUC__)
#define KELSSTSRC_API __attribute__((visibility("default")))
#else
#define KELSSTSRC_API
#endif

KELSSTSRC_API GType gst_kelsstsrc_get_type(void);

/* The first intra frame of channel `ch` between `begin` and `end`
 * (nanoseconds of the recorder's clock; `end` 0: no bound), as a buddy buffer
 * in the frame format (24-byte header, then the access unit) that the caller
 * owns, or NULL (no recording, no intra frame in the span; logged).
 * `location` names the recordings folder (NULL: "recordings"); `flags` is
 * reserved and ignored. */
KELSSTSRC_API GstBuffer *gst_kelsstsrc_get_first_iframe(const gchar *location, gint ch, gint flags,
                                                        gint64 begin, gint64 end);

G_END_DECLS

#endif /* KELSSTSRC_H */
