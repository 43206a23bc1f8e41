/* The live source element `lumensrc` (libgstlumensrc.so).
 *
 * A live source (is-live, timestamps from the running time at delivery) that
 * delivers list buffers of frame buffers, one list per wake-up holding every
 * frame that the open channels produced since the last one.  Each member is a
 * buddy buffer: the 24-byte frame header, then the payload.  Each change to
 * PLAYING first delivers one empty list, so that the sink of a live pipeline
 * completes its state change before any camera is open; on that change every
 * stream also restarts at an intra frame.
 *
 * Cameras and channels.  A camera is opened by its number, 0..15.  It has two
 * streams: the main stream (stream 0) at the element's "width" x "height" and
 * the sub stream (stream 1) at half of each.  A frame's header channel is
 * camera + 16 * stream, so camera 3 delivers channels 3 and 19; this is what
 * "stream" selects in a request.  Video is H.264 byte-stream, one access unit a
 * frame: type 1 for an IDR frame, every "key-interval" frames, type 0 for the
 * others.  The main stream of the camera chosen by
 * gst_lumen_src_set_live_audio_ch also carries audio frames, type 10, header
 * channel = camera, 40 ms of signed 16-bit mono PCM at 8000 Hz (640 bytes).
 *
 * Header words: channel (byte 0), payload size (bytes 4..7), type (byte 8),
 * timestamp (bytes 12..15: milliseconds of the monotonic clock, wrapping),
 * sequence number of the frame in its channel (bytes 16..19).  Other bytes 0.
 *
 * Sources.  Out of the box a camera is synthetic: a moving ball on a field of
 * the camera's own colour with the camera number drawn on it, encoded by x264.
 * Writing "uri" gives the channel named by the "channel" and "stream" words a
 * real source instead (any address that uridecodebin opens: rtsp://, file://,
 * http://), re-encoded to the stream's size, rate and intra interval; an empty
 * or NULL "uri" makes it synthetic again.  It takes effect at the next open.
 *
 * Real sources behave like cameras.  A file plays at its own rate (its
 * timestamps) and from its start again at its end; "loop" = FALSE ends the
 * camera there instead ("lost: end of stream").  A source that can't be
 * started, fails, or sends no frame for "silence-timeout" ms (5000) loses its
 * signal: the camera stays open and its source is tried again after 1, 2, 4,
 * 8, 16, then every 30 s, with one message a try (domain "lumensrc"); the
 * first frame back is an intra frame.  "no-signal" (read-only) has bit n set
 * while camera n is open without a signal, and "signal-changed" (camera,
 * present) is emitted on the element's own thread when it goes or comes back.
 * A consumer that does not take the frames costs the oldest inter frames (and
 * those of their channel up to its next intra frame), never the queue's bound.
 *
 * Requests by property, written in one g_object_set in this order:
 *   "channel", "stream", then "pause" = 1: the channel sends nothing.
 *   "channel", "stream", then "resume" = 1: the channel sends again, starting
 *       at an intra frame that it asks its encoder for; it also ends intra-only.
 *   "ionlych" = channel (0..31): that channel sends only its intra frames until
 *       it is resumed; "ionlych" = -1 ends intra-only on every channel, each
 *       restarting at an intra frame.
 * A request for a channel that is not open is refused with a warning.
 *
 * Results.  The functions below give 0 on success and -1 on a refusal, which
 * is also logged as a warning (domain "lumensrc"): an element that is no
 * lumensrc, a camera number outside 0..15, a camera opened twice or closed
 * while closed, a source address that no element reads.  Other cameras go on.
 *
 * Callbacks.  All six have the shape GstLumenSrcCallback; a setter replaces
 * the earlier callback and user data (NULL turns it off).  They run on the
 * element's own threads, never with an element lock held, and may call the
 * functions below, except that a handoff callback must not close its own
 * camera (it runs on that camera's thread).  `data` is valid during the call
 * only.
 *   cmd:        channel events: ch = camera, data = a NUL-terminated text,
 *               size = its length: "opened", "closed", "lost: <reason>" when
 *               a source loses its signal (the reason as GStreamer gives it:
 *               refused, not found, no frame for 5.0 s ...), "resumed" when it
 *               is back.
 *   handoff:    every frame that the element is about to deliver, on the
 *               stream's encoding thread: ch = header channel, data = the
 *               frame (header and payload), size = 24 + payload size.  Frames
 *               dropped by pause or intra-only are not seen.
 *   header_x:   once a stream has started: ch = header channel, data = the
 *               caps of the encoded stream as text, size = its length.
 *   motion, alarm, onvif_meta: stored; synthetic and decoded sources have no
 *               motion detector, alarm input or ONVIF metadata, so the element
 *               never calls them.
 */
#ifndef LUMEN_SRC_H
#define LUMEN_SRC_H

#include <gst/gst.h>

G_BEGIN_DECLS

#if defined(__GNUC__)
#define LUMEN_API __attribute__((visibility("default")))
#else
#define LUMEN_API
#endif

#define LUMEN_SRC_MAX_CAMERA 16
#define LUMEN_SRC_MAX_CHANNEL 32

/* Bits of the third argument of gst_lumen_src_open_ch; 0 takes the element's
 * "streams" property (both streams unless changed). */
#define LUMEN_SRC_OPEN_MAIN 1
#define LUMEN_SRC_OPEN_SUB 2

typedef void (*GstLumenSrcCallback)(gint ch, gpointer data, gint size, gpointer user_data);

LUMEN_API GType gst_lumen_src_get_type(void);
#define GST_TYPE_LUMEN_SRC (gst_lumen_src_get_type())
#define GST_IS_LUMEN_SRC(obj) (G_TYPE_CHECK_INSTANCE_TYPE((obj), GST_TYPE_LUMEN_SRC))

LUMEN_API gint gst_lumen_src_open_ch(GstElement *src, gint ch, gint streams);
/* Closes every open stream of the camera; `flags` is not read. */
LUMEN_API gint gst_lumen_src_close_ch(GstElement *src, gint ch, gint flags);
LUMEN_API gint gst_lumen_src_set_cmd_callback(GstElement *src, GstLumenSrcCallback cb,
                                              gpointer user_data);
LUMEN_API gint gst_lumen_src_set_motion_callback(GstElement *src, GstLumenSrcCallback cb,
                                                 gpointer user_data);
LUMEN_API gint gst_lumen_src_set_alarm_callback(GstElement *src, GstLumenSrcCallback cb,
                                                gpointer user_data);
LUMEN_API gint gst_lumen_src_set_handoff_callback(GstElement *src, GstLumenSrcCallback cb,
                                                  gpointer user_data);
LUMEN_API gint gst_lumen_src_set_header_x_callback(GstElement *src, GstLumenSrcCallback cb,
                                                   gpointer user_data);
LUMEN_API gint gst_lumen_src_set_onvif_meta_callback(GstElement *src, GstLumenSrcCallback cb,
                                                     gpointer user_data);
/* Talk-back audio to an open camera.  The stand-in has no speaker to feed: it
 * checks the arguments and gives the number of bytes taken, or -1. */
LUMEN_API gint gst_lumen_src_send_audio(GstElement *src, gint ch, gconstpointer data, gint size);
/* The camera whose audio is delivered, in every lumensrc of the process; -1
 * (the start value) for none.  Gives 0, or -1 for a number outside -1..15. */
LUMEN_API gint gst_lumen_src_set_live_audio_ch(gint ch);
/* The device's MAC address, 1..32 bytes, kept for the process (cameras of a
 * real recorder are paired with it; the stand-in only keeps it). */
LUMEN_API gint gst_lumen_src_set_dev_mac(const gchar *mac, gint len);

G_END_DECLS

#endif /* LUMEN_SRC_H */
