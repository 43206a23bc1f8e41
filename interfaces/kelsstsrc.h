/* The playback source element `kelsstsrc` (libgstkelsstsrc.so).
 *
 * Plays recorded channels as list buffers of frame buffers.  Its properties
 * and recordings are documented in platform/gst/kelsstsrc.
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
 * (nanoseconds of the recorder's clock), as a buddy buffer the caller owns,
 * or NULL.  `location` names the recordings; `flags` is reserved. */
KELSSTSRC_API GstBuffer *gst_kelsstsrc_get_first_iframe(const gchar *location, gint ch,
                                                        gint flags, gint64 begin, gint64 end);

G_END_DECLS

#endif /* KELSSTSRC_H */
