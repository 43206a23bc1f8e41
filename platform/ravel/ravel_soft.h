/* What the software engine (libravel.so.0 of this project) offers beyond the
 * engine calls of ravel.h: pictures of the composed displays, a window,
 * statistics and test hooks.  The device's engine has none of this; only
 * programs that run over the software engine (the demo, tests, benchmarks)
 * include this header.
 *
 * How the software engine answers the calls of ravel.h:
 *
 * - Ports.  18 engine ports, 0..17, each with its own H.264 decoder and
 *   thread.  ravel_put_decode_stream queues the frame (an Annex B access unit
 *   at `data`, `size` bytes) on a queue of RAVEL_SOFT_QUEUE_DEPTH frames and
 *   returns 0; a full queue, a bad argument, or an engine not between
 *   ravel_start and ravel_stop gives -1 and leaves the frame with the caller.
 *   Every accepted buffer goes back through the release function exactly
 *   once, on the port's thread, as soon as the decoder has read it (at
 *   ravel_stop, queued frames go back undecoded).
 * - A port starts at an intra frame, and starts again at one after a frame
 *   that went missing before it reached the port (H.264 frame_num skips a
 *   number after a reference picture), a damaged or truncated frame, or a
 *   frame that names a parameter set never seen.  Until then it decodes
 *   nothing and keeps showing its last good picture: frames passed over
 *   count as `skipped`, the damaged frame itself as a decode error, as does
 *   a frame with neither a slice nor a parameter set in it.
 * - Every accepted frame is counted in exactly one column: decoded,
 *   decode_errors, skipped, flushed (still queued when its port was reset
 *   or the engine stopped) or queued (in the port now).  ravel_soft_port_stats
 *   reads them at one instant, so accepted is their sum.
 * - ravel_change_pipe_config resets every port: frames queued then go back
 *   undecoded (flushed) and the port starts again at an intra frame.
 * - Pictures leave the decoder in presentation order (streams with B
 *   frames are reordered), each as soon as the frames it waits for are in,
 *   and, on a port that a region shows, at the source's pace: a picture
 *   becomes the port's latest no sooner than 3/4 of the mean gap between
 *   the port's incoming frames after the one before, and only once a
 *   compose pass has taken that one.  A picture that comes later than that
 *   is shown at once (no delay on a steady live stream), a burst is spread
 *   out, and a frame step shows its picture at once.  Up to 4 pictures
 *   wait; more are shown early.  A port that no region shows makes each
 *   picture its latest at once.
 * - Regions.  ravel_change_geometry takes up to 37 regions for display 0 (the
 *   size of the display format given to ravel_new) or display 2 (1280 x 720).
 *   A region's `ch` is read as an engine port number; a region whose port
 *   has no picture, or whose `ch` is no port (below 0, above 17), is black.
 *   Layer 2 is drawn above layer 1 (in general: ascending `layer`, then list
 *   order).  The crop fields, when all four are set (x, y >= 0, width,
 *   height > 0), select a part of the picture given in the layout space of
 *   1920 x 1080 that stands for the whole picture.  `flag` is not read.
 *   While the engine runs, the compositor redraws a port's tiles (and the
 *   tiles that lie above them) when the port has a new picture, at most 60
 *   times a second; nothing is drawn while nothing changes.
 * - NO SIGNAL.  A port whose signal is lost shows, in every region that
 *   names it, a dark tile with "CH <n>" (n the region's `ch`) and the words
 *   NO SIGNAL instead of its frozen picture.  A port loses its signal when
 *   ravel_soft_set_port_signal says so, or by itself when it has a picture
 *   and gets no frame for the signal time-out (5 s unless set); its next
 *   picture ends the state.  The port statistics carry it (`no_signal`).
 * - JPEG callback words (ravel_jpeg_cb): the address of the JPEG data
 *   (malloc'ed, released with free(); NULL when no picture could be encoded,
 *   which tells the waiting caller at once), then
 *     word1  the engine port,
 *     word2  the size of the JPEG data in bytes (0 with a NULL address),
 *     word3  the picture's width in pixels,
 *     word4  the picture's height in lines,
 *     word5  the port's time stamp from ravel_set_jpeg_timestamp (as it was
 *            when the frame was queued, for a frame's jpeg_cb; as it is when
 *            the request is served, for ravel_jpeg_enc).
 *   The callback runs on an engine thread: a port's thread for a jpeg_cb
 *   given with a frame (once that frame is decoded), the JPEG thread for
 *   ravel_jpeg_enc.
 * - ravel_jpeg_enc(engine, port, flag, cb): -1 when the port has no picture
 *   yet; else the request is served from the port's latest picture 20 ms
 *   later, or at once by ravel_pause_frame on that port (so that the
 *   settings made right after the request apply to it).  `flag` is kept
 *   with the request and does not change the picture.
 * - image_cb with a frame: the frame is decoded by a decoder of its own (the
 *   port's stream is not disturbed, nothing is shown) and handed over as
 *   packed Y V Y U, 2 bytes a pixel, rows of width x 2 bytes, allocated with
 *   g_malloc (g_free releases it); the address is NULL when the frame gave
 *   no picture.
 * - ravel_print_statistics prints, for every port that saw a frame, the
 *   columns of ravel_soft_port_stats_t (the signal as "ok" or "NONE") and
 *   the rates since the previous printout.
 */
#ifndef RAVEL_SOFT_H
#define RAVEL_SOFT_H

#include <stdint.h>

#include "ravel.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define RAVEL_SOFT_API __attribute__((visibility("default")))
#else
#define RAVEL_SOFT_API
#endif

#define RAVEL_SOFT_PORTS 18
#define RAVEL_SOFT_QUEUE_DEPTH 6

typedef struct ravel_soft_port_stats {
  /* accepted = decoded + decode_errors + skipped + flushed + queued */
  uint64_t accepted;      /* frames taken by ravel_put_decode_stream */
  uint64_t refused;       /* frames refused by it (not accepted) */
  uint64_t decoded;       /* frames decoded without damage */
  uint64_t decode_errors; /* damaged or truncated frames */
  uint64_t skipped;       /* frames passed over while waiting for an intra frame */
  uint64_t flushed;       /* frames still queued when the port was reset or the engine stopped */
  uint64_t queued;        /* frames in the port now */
  uint64_t pictures;      /* good pictures out of the decoder */
  uint64_t shown;         /* distinct pictures that reached a composed display */
  uint64_t released;      /* buffers given back through the release function */
  uint64_t last_shown;    /* the last picture that reached a display, counted from 1 in the
                             order the port's pictures left its decoder; 0 for none */
  int32_t width;          /* of the latest picture; 0 without one */
  int32_t height;
  int32_t no_signal; /* 1 while the port's tiles show NO SIGNAL */
} ravel_soft_port_stats_t;

/* The engine that ravel_new made in this process, NULL before. */
RAVEL_SOFT_API ravel_t *ravel_soft_engine(void);

/* Counters of one port.  0, or -1 for a bad port. */
RAVEL_SOFT_API int32_t ravel_soft_port_stats(ravel_t *engine, int32_t port,
                                             ravel_soft_port_stats_t *out);
/* Compose passes since creation that drew something or were asked for. */
RAVEL_SOFT_API uint64_t ravel_soft_compose_passes(ravel_t *engine);

/* Size of engine display 0 or 2.  0, or -1 for another display number. */
RAVEL_SOFT_API int32_t ravel_soft_display_size(ravel_t *engine, int32_t display, int32_t *width,
                                               int32_t *height);
/* Copies the last composed picture of a display as R, G, B bytes, `stride`
 * bytes a row (at least 3 x width).  0 or -1. */
RAVEL_SOFT_API int32_t ravel_soft_read_display(ravel_t *engine, int32_t display, uint8_t *rgb,
                                               int32_t stride);
/* Writes the last composed picture of a display to `path` as PNG.  0, or -1
 * (logged) when the file can't be written. */
RAVEL_SOFT_API int32_t ravel_soft_write_display(ravel_t *engine, int32_t display, const char *path);
/* Waits until the pictures decoded before the call have been shown in their
 * turn, then asks for a compose pass and waits until it has ended: what was
 * pushed and decoded before the call is then on the displays.  0, or -1
 * after `timeout_ms` (the engine does not run). */
RAVEL_SOFT_API int32_t ravel_soft_wait_compose(ravel_t *engine, int32_t timeout_ms);
/* Shows a display in a window (GStreamer autovideosink) from now on.  0, or
 * -1 when no graphical display is available (DISPLAY / WAYLAND_DISPLAY) or
 * the window can't be made; the engine is headless until this is called. */
RAVEL_SOFT_API int32_t ravel_soft_show_window(ravel_t *engine, int32_t display);
/* The same path as the window's, ending in `sink`, a gst-launch description
 * (for instance "videoconvert ! video/x-raw,format=RGB ! filesink
 * location=f.rgb"): what reaches it is the display as BGRx, converted
 * from the display's YUV exactly as ravel_soft_read_display converts it.  0 (also when a window or
 * sink shows the display already), or -1 when the pipeline can't be made. */
RAVEL_SOFT_API int32_t ravel_soft_show_display_through(ravel_t *engine, int32_t display,
                                                       const char *sink);

/* Tells a port whether its source is there.  0: its tiles show NO SIGNAL
 * until its next picture or a call with 1; 1: its picture is shown again,
 * and the time-out below counts from now.  0, or -1 for a bad port. */
RAVEL_SOFT_API int32_t ravel_soft_set_port_signal(ravel_t *engine, int32_t port, int32_t present);
/* How long a port with a picture may go without a frame before it shows NO
 * SIGNAL by itself, in milliseconds; 0 turns this off.  5000 unless set.
 * 0, or -1 for a negative time. */
RAVEL_SOFT_API int32_t ravel_soft_set_signal_timeout(ravel_t *engine, int32_t timeout_ms);
/* For comparisons: `per_second` > 0 composes on a fixed tick instead, a
 * whole display redrawn whenever anything on it changed; 0 goes back to
 * composing on arrival.  0 or -1. */
RAVEL_SOFT_API int32_t ravel_soft_set_compose_rate(ravel_t *engine, int32_t per_second);

/* Test hook: a held port takes no frame from its queue, so that the queue
 * fills and pushes are refused; 0 lets it go on.  0 or -1. */
RAVEL_SOFT_API int32_t ravel_soft_hold_port(ravel_t *engine, int32_t port, int32_t hold);

#ifdef __cplusplus
}
#endif

#endif /* RAVEL_SOFT_H */
