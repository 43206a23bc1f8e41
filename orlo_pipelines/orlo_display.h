/* liborlo: the display handle, the region layouts, the stream delivery and
 * the still images.  Plain C; include it from C or C++.
 *
 * What holds for every function here unless its comment says otherwise:
 * - Results: 0 is success and -1 a refusal; the reason goes to the log
 *   (g_log, warning level).  Failures never reach the application through a
 *   callback.  A NULL handle is refused with a g_return_if_fail warning.
 * - Ownership: the caller keeps whatever it passes; the library copies what
 *   it needs beyond the call.
 * - Threads: any application thread may call.  The handle's `mutex` is not
 *   recursive, so nothing that takes it (orlo_display_bind_src_pipe,
 *   orlo_display_decode_change, orlo_display_decode_image) may be called from
 *   an orlo_first_cb_t, which runs with it held. */
#ifndef ORLO_DISPLAY_H
#define ORLO_DISPLAY_H

#include <glib.h>
#include <gst/gst.h>
#include <stdint.h>

#include "orlo_api.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ORLO_MAX_VR 37
#define ORLO_MAX_SLOT 84
#define ORLO_MAX_PORT 18
#define ORLO_MAX_SINK 8
#define ORLO_MAX_PLAYBACK_CHANNEL 32

/* One region of the mosaic: 11 signed words, 44 bytes, read by the engine as
 * it stands. A list is always ORLO_MAX_VR records; it ends at the first `ch`
 * of -1. */
typedef struct orlo_vr {
  int32_t ch;
  int32_t x;
  int32_t y;
  int32_t width;
  int32_t height;
  int32_t layer;
  int32_t crop_x;
  int32_t crop_width;
  int32_t crop_y;
  int32_t crop_height;
  int32_t flag;
} orlo_vr_t;

/* Called on the sink's streaming thread, with the render lock held, when a
 * slot that waited for its first intra frame gets one. */
typedef void (*orlo_first_cb_t)(int slot);

/* One stream slot's record of a decode table (ORLO_MAX_SLOT of them); only
 * the first four words are read. */
typedef struct orlo_decode_cfg {
  int32_t port;
  int32_t sync;
  int32_t enable;
  orlo_first_cb_t first_cb;
  int32_t reserved[7];
} orlo_decode_cfg_t;

/* Creation options, read during orlo_display_new only. */
typedef struct orlo_display_cfg {
  int32_t display_ids[4];
  int32_t engine_word;
  int32_t engine_block[4];
} orlo_display_cfg_t;

/* The display handle: one per process, from orlo_display_new to the end of
 * the process. */
typedef struct orlo_display {
  orlo_vr_t vr[ORLO_MAX_VR];
  int32_t audio_all;
  int32_t audio_ch;
  int32_t h_audio;
  GstElement *sinks[ORLO_MAX_SINK];
  int32_t ch_port[ORLO_MAX_SLOT];
  int32_t ch_enable[ORLO_MAX_SLOT];
  int32_t ch_wait_first[ORLO_MAX_SLOT];
  int32_t ch_sync[ORLO_MAX_SLOT];
  int32_t ch_wait_sync[ORLO_MAX_SLOT];
  int32_t ch_jpeg_live[ORLO_MAX_SLOT];
  orlo_first_cb_t ch_first_cb[ORLO_MAX_SLOT];
  int32_t jpeg_live_arg;
  GMutex *mutex;
  GCond *cond_image;
  GMutex *mutex_image;
  int32_t config_mode;
  int32_t engine_started;
  int32_t channels[ORLO_MAX_VR];
  int32_t disp_width;
  int32_t disp_height;
  int32_t ch_count;
  int32_t main_port;
  int32_t port_state[ORLO_MAX_PORT];
  GMutex *mutex_jpegsnap;
  GMutex *mutex_jpeg;
  GCond *cond_jpeg;
} orlo_display_t;

/* ---- handle and engine bring-up ---- */
/* Initialises GStreamer and the colour tables, creates the engine and the one
 * display handle.  `formats` (not NULL) goes on to the engine, which may read
 * entries behind the first; `cfg` may be NULL and is read during the call
 * only; `h_audio` is a descriptor from ravel_audio_new or -1 for no audio (0
 * is refused).  Result: the handle, which the application owns to the end of
 * the process (nothing frees it), or NULL when the engine cannot be created.
 * Call once, before any other function of this header, from one thread. */
ORLO_API orlo_display_t *orlo_display_new(const int32_t *formats, int32_t engine_opt,
                                          int32_t ch_count, int32_t reserved, int32_t n_display_ids,
                                          int32_t h_audio, const orlo_display_cfg_t *cfg);
/* Stops the engine; it stays stopped (a later mode selection does not start
 * it again).  h_display may be NULL.  Result 0.  Takes no lock: a render
 * pass may still be running while it stops. */
ORLO_API int orlo_display_stop(orlo_display_t *h_display);
/* Copies the ORLO_MAX_VR records of `vr` into the handle and logs; starts
 * nothing (orlo_display_mode_start starts the engine, orlo_display_change
 * sets the regions).  Result 0, or -1 for a NULL argument. */
ORLO_API int orlo_display_start(orlo_display_t *h_display, const orlo_vr_t *vr);

/* ---- region layout ---- */
/* Computes the regions of display `mode` for a mosaic at x, y of width x
 * height in the 1920 x 1080 space.  `channels` holds a channel per region of
 * the mode, `flags` ORLO_MAX_VR words copied into `flag`; `vr` receives all
 * ORLO_MAX_VR records (the caller's storage).  Result 0, or -1 when the size
 * is refused. */
ORLO_API int orlo_display_get_user_vr(orlo_display_t *h_display, int mode, int x, int y, int width,
                                      int height, const int *channels, const int *flags,
                                      orlo_vr_t *vr);
/* Scales a crop rectangle from display coordinates (disp_w x disp_h) to
 * those of an in_width x in_height input frame, each result rounded up to a
 * multiple of `align` (a power of two); a division by zero gives 0.  Writes
 * the four results through the pointers.  Pure computation: any thread. */
ORLO_API void orlo_display_get_incrop_position(unsigned *out_x, unsigned *out_crop_w,
                                               unsigned *out_y, unsigned *out_crop_h,
                                               unsigned in_width, unsigned in_height,
                                               unsigned disp_w, unsigned disp_h, unsigned crop_x,
                                               unsigned crop_width, unsigned crop_y,
                                               unsigned crop_height, unsigned align);

/* ---- geometry change ---- */
/* Scales the region list `vr` (made for display `mode` in the 1920 x 1080
 * space) to the display, repairs overlaps and hands it to the engine; the
 * caller's list is not changed.  Result 0, or the engine's negative result. */
ORLO_API int orlo_display_change(orlo_display_t *h_display, const orlo_vr_t *vr, int reserved,
                                 int mode);

/* ---- display mode transitions ---- */
/* Records `mode`; *need_start receives 1 when the caller has to start the
 * engine (the first selection), else 0.  Result 0, or -1 when need_start is
 * NULL. */
ORLO_API int orlo_display_set_user_config(orlo_display_t *h_display, int mode, int *need_start);
/* Selects display `mode`; the first selection also configures and starts the
 * engine, later ones only record the mode.  The two names are one operation.
 * Result 0.  Takes no lock: render passes run on during the change. */
ORLO_API int orlo_display_mode_change(orlo_display_t *h_display, int mode);
ORLO_API int orlo_display_mode_start(orlo_display_t *h_display, int mode);
/* Copies the ORLO_MAX_SLOT records of `table` into the stream-slot tables,
 * under the handle's `mutex` (so between two render passes).  The
 * `first_cb` pointers are kept and called later on a sink's streaming
 * thread.  Result 0. */
ORLO_API int orlo_display_decode_change(orlo_display_t *h_display, const orlo_decode_cfg_t *table);

/* ---- engine control ----
 * Each forwards its arguments to the engine.  Unless noted: result 0, or -1
 * when the engine is not created ("ravel has not been created!") or refuses
 * (logged).  Records passed by pointer are copied before they reach the
 * engine; callbacks registered here are called on the engine's threads. */
ORLO_API int orlo_capture_start(orlo_display_t *h_display, int ch);
ORLO_API int orlo_capture_stop(orlo_display_t *h_display, int ch);
ORLO_API int orlo_display_register_get_encode_stream(orlo_display_t *h_display, void *callback,
                                                     void *user_data);
ORLO_API int orlo_display_register_captmode_change(orlo_display_t *h_display, void *callback,
                                                   void *user_data);
ORLO_API int orlo_display_register_get_encode_mosaic_stream(orlo_display_t *h_display,
                                                            void *callback, void *user_data,
                                                            int stream);
/* Result: the engine's own, also when negative. */
ORLO_API int orlo_display_encode_change(orlo_display_t *h_display, int ch, int stream, void *param);
ORLO_API int orlo_display_set_encode_bitrate(orlo_display_t *h_display, int ch, int stream,
                                             int bitrate);
ORLO_API int orlo_display_get_encode_bitrate(orlo_display_t *h_display, int ch, int stream,
                                             int *bitrate);
ORLO_API int orlo_display_md_set_param(orlo_display_t *h_display, int ch, void *param, int size);
/* Result: the engine's when not negative, else -1. */
ORLO_API int orlo_display_set_time(orlo_display_t *h_display, uint64_t time, int word);
/* Result: the address the engine gives, or 0 on failure. */
ORLO_API uintptr_t orlo_display_get_hostcomm_addr(orlo_display_t *h_display, int which, int size);
/* No handle.  A time of 0 is refused with -1; else the engine's result. */
ORLO_API int orlo_display_sys_time_init(uint64_t time);
ORLO_API int orlo_display_sys_time_sync(uint64_t time);
/* From here to orlo_display_set_embedded_ip_osd_enable: plain forwards, the
 * engine's result as it comes, with no test for a created engine. */
ORLO_API int orlo_display_push_dec_frame_buffer(orlo_display_t *h_display, int port);
ORLO_API int orlo_display_set_enable(orlo_display_t *h_display, int ignored, int enable);
ORLO_API int orlo_display_set_embedded_osd_enable(orlo_display_t *h_display, int ch, int osd,
                                                  int enable);
ORLO_API int orlo_display_set_embedded_osd_option(orlo_display_t *h_display, int ch, int option,
                                                  int value);
ORLO_API int orlo_display_set_mask(orlo_display_t *h_display, const void *mask);
ORLO_API int orlo_display_set_roi(orlo_display_t *h_display, const void *roi);
ORLO_API int orlo_display_set_dnr(orlo_display_t *h_display, const void *dnr);
ORLO_API int orlo_display_set_mirror(orlo_display_t *h_display, const int32_t *mirror);
ORLO_API int orlo_display_set_rotate(orlo_display_t *h_display, const int32_t *rotate);
ORLO_API int orlo_display_set_datetime_format(orlo_display_t *h_display, const void *format);
ORLO_API int orlo_display_set_embedded_ip_osd_enable(orlo_display_t *h_display, const void *osd);
/* 0 without asking the engine until it has been started once; then the
 * engine's result. */
ORLO_API int orlo_display_check_processor(orlo_display_t *h_display, int which, int timeout);
ORLO_API int orlo_display_print_statistics(orlo_display_t *h_display, int which, int flags);
/* Does nothing; gives `value` back. */
ORLO_API int orlo_display_bc_control(int value);
/* Sets the alpha of the graphics plane through the framebuffer driver
 * ("/dev/fb0").  No handle.  Result 0, or -1 when the device refuses. */
ORLO_API int orlo_display_grpx_set_alpha(int alpha);

/* ---- stream delivery ---- */
/* Binds a pipe's `kelappsink` (from orlo_lumen_pipe_get_kelappsink or
 * orlo_sst_pipe_get_kelappsink) at index 0..ORLO_MAX_SINK-1: 0 live, 1
 * playback; other indexes walk their frames but push no video.  The handle
 * takes its own reference on the sink and keeps it for its life (there is
 * no unbind).  From then on the render worker runs on the sink's streaming
 * thread.  Result 0, or -1 for a bad index, an index already bound or an
 * element that is not a kelappsink. */
ORLO_API int orlo_display_bind_src_pipe(orlo_display_t *h_display, GstElement *sink,
                                        int kelappsink_idx);
/* The last playback time stamp of a port: 0 for a port above 31.  A plain
 * word, no lock: any thread. */
ORLO_API uint32_t orlo_get_pb_timestamp(int port);
/* Stores it; a port above 31 is ignored. */
ORLO_API void orlo_set_pb_timestamp(int port, uint32_t timestamp);
/* Opens the sound device "/dev/dsp" for writing (non-blocking if `nonblock`).
 * Result: the descriptor, for orlo_display_new, or 0 on failure.  The
 * library never closes it. */
ORLO_API int ravel_audio_new(int nonblock);
/* Writes `size` bytes at `data` to the device `h_audio`.  Takes over the
 * caller's reference to `buffer` (which holds `data`) and drops it in every
 * case.  Result: what write() gave, or 0 without a device. */
ORLO_API int ravel_put_audio_stream(int h_audio, GstBuffer *buffer, const void *data, int size);
/* Chooses the channel whose audio plays (`audio_all` nonzero: all).  Stored
 * without a lock and without checks; holds from the next audio frame.
 * Result 0. */
ORLO_API int orlo_display_audio_change(orlo_display_t *h_display, int audio_ch, int audio_all);

/* ---- still images ---- */
/* Decodes the intra frame `iframe` (not NULL) through the engine into the
 * caller's RGB24 buffer `dst` of 3 x width x height bytes (bytes B, G, R;
 * `width` is also the stride).  Takes over the caller's reference to
 * `iframe` on every path.  Blocks up to 1 s for the engine's answer, so not
 * from a streaming thread.  Result 0 when `dst` holds the picture, else -1. */
ORLO_API int orlo_display_decode_image(orlo_display_t *h_display, GstBuffer *iframe, int width,
                                       int height, int reserved, uint8_t *dst);
/* A JPEG of channel `ch` from the engine (`mode` 0..3; `dispmode` the
 * display mode in force, read in modes 2 and 3).  Blocks up to 5 s for the
 * answer.  Result 0: *out_buf and the four words are set and the caller owns
 * the buffer (release it with free()); -1 on failure (nothing written); -2
 * when another snapshot is under way. */
ORLO_API int orlo_display_get_jpeg_snapshot(orlo_display_t *h_display, int ch, unsigned mode,
                                            int dispmode, uint32_t dstn, uint32_t timeimg,
                                            void **out_buf, uint32_t *out_word2,
                                            uint32_t *out_word3, uint32_t *out_word4,
                                            uint32_t *out_word5);
/* The JPEG live-stream selection: ORLO_MAX_SLOT words copied into the handle
 * (`arg` kept by start, left by the others; all_stop clears the words).
 * Result 0.  No lock: a reader on another thread may see a mix. */
ORLO_API int orlo_display_jpeg_live_stream_start(orlo_display_t *h_display, const int *table,
                                                 int arg);
ORLO_API int orlo_display_jpeg_live_stream_change(orlo_display_t *h_display, const int *table);
ORLO_API int orlo_display_jpeg_live_stream_all_stop(orlo_display_t *h_display);

/* ---- bring-up routine ---- */
/* Brings the display and one live pipe up (waits for the file "./zebstart"
 * first) and returns once the pipe is bound; keeps neither handle.  Calls
 * plug_and_detect_init, which the platform supplies. */
ORLO_API void test_orlo_display_new(void);
/* 27648 bytes, zero at load; the library neither reads nor writes them. */
ORLO_API extern uint8_t test_rgb24_buf[27648];

#ifdef __cplusplus
}
#endif

#endif /* ORLO_DISPLAY_H */
