/* The media engine: every call that liborlo makes into it.
 *
 * On the device the engine is a closed library; here libravel.so.0 under
 * platform/ravel stands in for it.  Both answer these declarations, so a
 * device build swaps the library without touching liborlo.
 *
 * Results are signed and negative for failure unless a call says otherwise.
 */
#ifndef RAVEL_H
#define RAVEL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define RAVEL_API __attribute__((visibility("default")))
#else
#define RAVEL_API
#endif

typedef struct ravel ravel_t;

/* Hands a frame buffer back once the engine is done with it: exactly once
 * for every frame that ravel_put_decode_stream accepted. */
typedef void (*ravel_release_fn)(void *buffer);

/* A finished JPEG.  `pbuf` points at the word that holds the address of the
 * JPEG data (released with free()); the five words that follow are the
 * engine's, named here by what the software engine
 * (platform/ravel/ravel_soft.h) puts there: the engine port, the JPEG's size
 * in bytes, its width and height, and the port's time stamp from
 * ravel_set_jpeg_timestamp; a NULL address (size 0) when there was no
 * picture to encode.  liborlo passes them on as they come. */
typedef void (*ravel_jpeg_cb)(void **pbuf, uint32_t port, uint32_t jpeg_size, uint32_t width,
                              uint32_t height, uint32_t timestamp);

/* A decoded picture, packed YVYU, released with g_free().  `pimage` points
 * at the word that holds its address (NULL in the software engine when the
 * frame gave no picture); the picture has the frame's own size. */
typedef void (*ravel_image_cb)(void **pimage);

/* One region of a display: 11 signed words, 44 bytes. */
typedef struct ravel_region {
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
} ravel_region_t;

/* One decoder pipe record, 36 bytes; the decoder block holds 18 of them. */
typedef struct ravel_dec_config {
  int32_t word[9];
} ravel_dec_config_t;

#define RAVEL_DEC_CONFIG_COUNT 18
#define RAVEL_ENC_CONFIG_BYTES 4176

/* Control records, copied by the caller before each call. */
typedef struct ravel_mask_entry {
  int32_t word[7];
} ravel_mask_entry_t;

typedef struct ravel_mask {
  int32_t reserved; /* not set by the caller */
  int32_t count;
  ravel_mask_entry_t entry[4];
} ravel_mask_t;

typedef struct ravel_roi {
  uint8_t bytes[212];
} ravel_roi_t;

typedef struct ravel_dnr {
  int32_t word[5];
} ravel_dnr_t;

typedef struct ravel_datetime_format {
  uint8_t bytes[8];
} ravel_datetime_format_t;

#define RAVEL_IP_OSD_TEXT_MAX 43
typedef struct ravel_ip_osd {
  int32_t enable;
  char text[RAVEL_IP_OSD_TEXT_MAX + 1];
} ravel_ip_osd_t;

/* Bring-up and pipes. */
RAVEL_API ravel_t *ravel_new(const int32_t *formats, int32_t engine_opt, int32_t ch_count,
                             int32_t n_display_ids, int32_t reserved0, ravel_release_fn release,
                             int32_t reserved1, int32_t reserved2, int32_t reserved3,
                             int32_t word24, const int32_t *display_ids, int32_t engine_word,
                             const int32_t *engine_block);
RAVEL_API int32_t ravel_init_dec_config_param(ravel_t *engine, ravel_dec_config_t *dec_block);
RAVEL_API int32_t ravel_init_enc_config_param(ravel_t *engine, void *enc_block);
RAVEL_API int32_t ravel_change_pipe_config(ravel_t *engine, ravel_dec_config_t *dec_block,
                                           int32_t count, void *enc_block, int32_t ch_count);
RAVEL_API int32_t ravel_start(ravel_t *engine);
RAVEL_API int32_t ravel_stop(ravel_t *engine);

/* Displays and streams. */
RAVEL_API int32_t ravel_change_geometry(ravel_t *engine, const ravel_region_t *regions,
                                        int32_t count, int32_t display, int32_t playback);
RAVEL_API int32_t ravel_put_decode_stream(ravel_t *engine, int32_t port, void *buffer,
                                          const uint8_t *data, int32_t size, int32_t reserved0,
                                          ravel_jpeg_cb jpeg_cb, ravel_image_cb image_cb,
                                          int32_t reserved1, int32_t reserved2);

/* Still images. */
RAVEL_API int32_t ravel_jpeg_enc(ravel_t *engine, int32_t ch, int32_t flag, ravel_jpeg_cb cb);
RAVEL_API int32_t ravel_set_jpeg_dstntimeimg(ravel_t *engine, int32_t ch, uint32_t dstn,
                                             uint32_t timeimg);
RAVEL_API int32_t ravel_set_jpeg_timestamp(ravel_t *engine, int32_t port, uint32_t timestamp);
RAVEL_API int32_t ravel_pause_frame(ravel_t *engine, int32_t port);

/* Capture and encoding. */
RAVEL_API int32_t ravel_capture_drv_start(ravel_t *engine, int32_t ch);
RAVEL_API int32_t ravel_capture_drv_stop(ravel_t *engine, int32_t ch);
RAVEL_API int32_t ravel_register_get_encode_stream(ravel_t *engine, void *callback,
                                                   void *user_data);
RAVEL_API int32_t ravel_register_captmode_change(ravel_t *engine, void *callback, void *user_data);
RAVEL_API int32_t ravel_register_encode_mosaic_stream(ravel_t *engine, void *callback,
                                                      void *user_data, int32_t stream,
                                                      int32_t reserved);
RAVEL_API int32_t ravel_encode_change(ravel_t *engine, int32_t ch, int32_t stream, void *param);
RAVEL_API int32_t ravel_set_encode_bitrate(ravel_t *engine, int32_t ch, int32_t stream,
                                           int32_t bitrate);
RAVEL_API int32_t ravel_get_encode_bitrate(ravel_t *engine, int32_t ch, int32_t stream,
                                           int32_t *bitrate);
RAVEL_API int32_t ravel_motion_detect_config_param(ravel_t *engine, int32_t ch, void *param,
                                                   int32_t size);

/* Clocks. */
RAVEL_API int32_t ravel_set_time(ravel_t *engine, int32_t word, uint64_t time, int32_t word2);
RAVEL_API int32_t ravel_set_sys_time_init(uint64_t time);
RAVEL_API int32_t ravel_set_sys_time_sync(uint64_t time);
RAVEL_API uintptr_t ravel_get_hostcomm_addr(ravel_t *engine, int32_t which, int32_t size);

/* Display and on-screen display. */
RAVEL_API int32_t ravel_set_display_enable(ravel_t *engine, int32_t display, int32_t enable);
RAVEL_API int32_t ravel_set_osd_enable(ravel_t *engine, int32_t ch, int32_t osd, int32_t enable);
RAVEL_API int32_t ravel_set_osd_option(ravel_t *engine, int32_t ch, int32_t option, int32_t value);
RAVEL_API int32_t ravel_set_mask(ravel_t *engine, const ravel_mask_t *mask);
RAVEL_API int32_t ravel_set_ROI_coordinate(ravel_t *engine, const ravel_roi_t *roi);
RAVEL_API int32_t ravel_set_dnr(ravel_t *engine, const ravel_dnr_t *dnr);
RAVEL_API int32_t ravel_set_mirror(ravel_t *engine, const int32_t *mirror);
RAVEL_API int32_t ravel_set_rotate(ravel_t *engine, const int32_t *rotate);
RAVEL_API int32_t ravel_set_datetime_format(ravel_t *engine, const ravel_datetime_format_t *format);
RAVEL_API int32_t ravel_set_ip_osd_enable(ravel_t *engine, const ravel_ip_osd_t *osd);

/* Health and statistics. */
RAVEL_API int32_t ravel_check_alive_m3(ravel_t *engine, int32_t which, int32_t timeout);
RAVEL_API int32_t ravel_print_statistics(ravel_t *engine, int32_t which, int32_t flags);

#ifdef __cplusplus
}
#endif

#endif /* RAVEL_H */
