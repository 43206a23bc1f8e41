/* liborlo: the display handle, the region layouts, the stream delivery and
 * the still images.  Plain C; include it from C or C++. */
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
ORLO_API orlo_display_t *orlo_display_new(const int32_t *formats, int32_t engine_opt,
                                          int32_t ch_count, int32_t reserved, int32_t n_display_ids,
                                          int32_t h_audio, const orlo_display_cfg_t *cfg);
ORLO_API int orlo_display_stop(orlo_display_t *h_display);
ORLO_API int orlo_display_start(orlo_display_t *h_display, const orlo_vr_t *vr);

/* ---- region layout ---- */
ORLO_API int orlo_display_get_user_vr(orlo_display_t *h_display, int mode, int x, int y, int width,
                                      int height, const int *channels, const int *flags,
                                      orlo_vr_t *vr);
ORLO_API void orlo_display_get_incrop_position(unsigned *out_x, unsigned *out_crop_w,
                                               unsigned *out_y, unsigned *out_crop_h,
                                               unsigned in_width, unsigned in_height,
                                               unsigned disp_w, unsigned disp_h, unsigned crop_x,
                                               unsigned crop_width, unsigned crop_y,
                                               unsigned crop_height, unsigned align);

/* ---- geometry change ---- */
ORLO_API int orlo_display_change(orlo_display_t *h_display, const orlo_vr_t *vr, int reserved,
                                 int mode);

/* ---- display mode transitions ---- */
ORLO_API int orlo_display_set_user_config(orlo_display_t *h_display, int mode, int *need_start);
ORLO_API int orlo_display_mode_change(orlo_display_t *h_display, int mode);
ORLO_API int orlo_display_mode_start(orlo_display_t *h_display, int mode);
ORLO_API int orlo_display_decode_change(orlo_display_t *h_display, const orlo_decode_cfg_t *table);

/* ---- engine control ---- */
ORLO_API int orlo_capture_start(orlo_display_t *h_display, int ch);
ORLO_API int orlo_capture_stop(orlo_display_t *h_display, int ch);
ORLO_API int orlo_display_register_get_encode_stream(orlo_display_t *h_display, void *callback,
                                                     void *user_data);
ORLO_API int orlo_display_register_captmode_change(orlo_display_t *h_display, void *callback,
                                                   void *user_data);
ORLO_API int orlo_display_register_get_encode_mosaic_stream(orlo_display_t *h_display,
                                                            void *callback, void *user_data,
                                                            int stream);
ORLO_API int orlo_display_encode_change(orlo_display_t *h_display, int ch, int stream, void *param);
ORLO_API int orlo_display_set_encode_bitrate(orlo_display_t *h_display, int ch, int stream,
                                             int bitrate);
ORLO_API int orlo_display_get_encode_bitrate(orlo_display_t *h_display, int ch, int stream,
                                             int *bitrate);
ORLO_API int orlo_display_md_set_param(orlo_display_t *h_display, int ch, void *param, int size);
ORLO_API int orlo_display_set_time(orlo_display_t *h_display, uint64_t time, int word);
ORLO_API uintptr_t orlo_display_get_hostcomm_addr(orlo_display_t *h_display, int which, int size);
ORLO_API int orlo_display_sys_time_init(uint64_t time);
ORLO_API int orlo_display_sys_time_sync(uint64_t time);
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
ORLO_API int orlo_display_check_processor(orlo_display_t *h_display, int which, int timeout);
ORLO_API int orlo_display_print_statistics(orlo_display_t *h_display, int which, int flags);
ORLO_API int orlo_display_bc_control(int value);
ORLO_API int orlo_display_grpx_set_alpha(int alpha);

/* ---- stream delivery ---- */
ORLO_API int orlo_display_bind_src_pipe(orlo_display_t *h_display, GstElement *sink,
                                        int kelappsink_idx);
ORLO_API uint32_t orlo_get_pb_timestamp(int port);
ORLO_API void orlo_set_pb_timestamp(int port, uint32_t timestamp);
ORLO_API int ravel_audio_new(int nonblock);
ORLO_API int ravel_put_audio_stream(int h_audio, GstBuffer *buffer, const void *data, int size);
ORLO_API int orlo_display_audio_change(orlo_display_t *h_display, int audio_ch, int audio_all);

/* ---- still images ---- */
ORLO_API int orlo_display_decode_image(orlo_display_t *h_display, GstBuffer *iframe, int width,
                                       int height, int reserved, uint8_t *dst);
ORLO_API int orlo_display_get_jpeg_snapshot(orlo_display_t *h_display, int ch, unsigned mode,
                                            int dispmode, uint32_t dstn, uint32_t timeimg,
                                            void **out_buf, uint32_t *out_word2,
                                            uint32_t *out_word3, uint32_t *out_word4,
                                            uint32_t *out_word5);
ORLO_API int orlo_display_jpeg_live_stream_start(orlo_display_t *h_display, const int *table,
                                                 int arg);
ORLO_API int orlo_display_jpeg_live_stream_change(orlo_display_t *h_display, const int *table);
ORLO_API int orlo_display_jpeg_live_stream_all_stop(orlo_display_t *h_display);

/* ---- bring-up routine ---- */
ORLO_API void test_orlo_display_new(void);
ORLO_API extern uint8_t test_rgb24_buf[27648];

#ifdef __cplusplus
}
#endif

#endif /* ORLO_DISPLAY_H */
