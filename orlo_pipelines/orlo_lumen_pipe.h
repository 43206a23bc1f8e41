/* liborlo: the live pipe, live channels from `lumensrc` into a `kelappsink`.
 * Plain C; include it from C or C++. */
#ifndef ORLO_LUMEN_PIPE_H
#define ORLO_LUMEN_PIPE_H

#include <glib.h>
#include <gst/gst.h>
#include <stdint.h>

#include "orlo_api.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct orlo_lumen_pipe {
  GThread *h_thread;
  GstElement *src;
  GstElement *kelappsink;
  GstElement *pipeline;
  int32_t thread_ready;
} orlo_lumen_pipe_t;

/* The element's callback shape (interfaces/lumen_src.h says what each
 * callback sees); the pipe passes it through unchanged. */
typedef void (*orlo_lumen_callback_t)(int ch, void *data, int size, void *user_data);

ORLO_API orlo_lumen_pipe_t *orlo_lumen_pipe_new(int unused);
ORLO_API int orlo_lumen_pipe_start(orlo_lumen_pipe_t *h_lumen_pipe);
ORLO_API int orlo_lumen_pipe_stop(orlo_lumen_pipe_t *h_lumen_pipe);
ORLO_API void orlo_lumen_pipe_delete(orlo_lumen_pipe_t *h_lumen_pipe);
ORLO_API GstElement *orlo_lumen_pipe_get_src(orlo_lumen_pipe_t *h_lumen_pipe);
ORLO_API GstElement *orlo_lumen_pipe_get_kelappsink(orlo_lumen_pipe_t *h_lumen_pipe);

ORLO_API int orlo_lumen_pipe_open_ch(orlo_lumen_pipe_t *h_lumen_pipe, int ch);
ORLO_API int orlo_lumen_pipe_close_ch(orlo_lumen_pipe_t *h_lumen_pipe, int ch);
ORLO_API int orlo_lumen_pipe_set_cmd_callback(orlo_lumen_pipe_t *h_lumen_pipe,
                                              orlo_lumen_callback_t cb, void *user_data);
ORLO_API int orlo_lumen_pipe_set_motion_callback(orlo_lumen_pipe_t *h_lumen_pipe,
                                                 orlo_lumen_callback_t cb, void *user_data);
ORLO_API int orlo_lumen_pipe_set_alarm_callback(orlo_lumen_pipe_t *h_lumen_pipe,
                                                orlo_lumen_callback_t cb, void *user_data);
ORLO_API int orlo_lumen_pipe_set_src_handoff(orlo_lumen_pipe_t *h_lumen_pipe,
                                             orlo_lumen_callback_t cb, void *user_data);
ORLO_API int orlo_lumen_pipe_set_header_x_callback(orlo_lumen_pipe_t *h_lumen_pipe,
                                                   orlo_lumen_callback_t cb, void *user_data);
ORLO_API int orlo_lumen_pipe_set_onvif_meta_callback(orlo_lumen_pipe_t *h_lumen_pipe,
                                                     orlo_lumen_callback_t cb, void *user_data);
ORLO_API int orlo_lumen_pipe_send_audio(orlo_lumen_pipe_t *h_lumen_pipe, int ch, const void *data,
                                        int size);
ORLO_API int orlo_lumen_pipe_set_live_audio_ch(orlo_lumen_pipe_t *h_lumen_pipe, int ch);
ORLO_API int orlo_lumen_pipe_set_dev_mac(orlo_lumen_pipe_t *h_lumen_pipe, const char *mac, int len);
ORLO_API void orlo_lumen_pipe_pause_ch(orlo_lumen_pipe_t *h_lumen_pipe, int ch, int stream);
ORLO_API void orlo_lumen_pipe_resume_ch(orlo_lumen_pipe_t *h_lumen_pipe, int ch, int stream);
ORLO_API void orlo_lumen_pipe_i_only_req(orlo_lumen_pipe_t *h_lumen_pipe, int ch);

#ifdef __cplusplus
}
#endif

#endif /* ORLO_LUMEN_PIPE_H */
