/* liborlo: the live pipe, live channels from `lumensrc` into a `kelappsink`.
 * Plain C; include it from C or C++.
 *
 * A pipe runs its pipeline on a thread of its own, which lasts to the end of
 * the process.  The functions below are for application threads and take no
 * lock.  A NULL handle is refused with a g_return_if_fail warning. */
#ifndef ORLO_LUMEN_PIPE_H
#define ORLO_LUMEN_PIPE_H

#include <glib.h>
#include <gst/gst.h>
#include <stdint.h>

#include "orlo_api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The pipe's record; read it through the functions below. */
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

/* Builds the pipeline on a new thread and returns once it stands; the
 * argument has no effect.  Result: the handle, which the application owns
 * until orlo_lumen_pipe_delete, or NULL. */
ORLO_API orlo_lumen_pipe_t *orlo_lumen_pipe_new(int unused);
/* PLAYING or NULL state, each waiting up to 10 s for the change.  Result 0
 * whatever GStreamer answers. */
ORLO_API int orlo_lumen_pipe_start(orlo_lumen_pipe_t *h_lumen_pipe);
ORLO_API int orlo_lumen_pipe_stop(orlo_lumen_pipe_t *h_lumen_pipe);
/* Drops the record's element references and frees the record; the pipeline
 * and its thread stay as they are, and a sink bound to the display stays
 * bound. */
ORLO_API void orlo_lumen_pipe_delete(orlo_lumen_pipe_t *h_lumen_pipe);
/* The source and the sink elements.  The references stay the record's: the
 * caller takes its own (gst_object_ref) to keep one beyond the pipe. */
ORLO_API GstElement *orlo_lumen_pipe_get_src(orlo_lumen_pipe_t *h_lumen_pipe);
ORLO_API GstElement *orlo_lumen_pipe_get_kelappsink(orlo_lumen_pipe_t *h_lumen_pipe);

/* Forwards to the source element: the result is the element's, unchanged.
 * Callbacks run on the element's threads with the element's arguments;
 * `user_data` stays the caller's.  set_live_audio_ch and set_dev_mac ignore
 * the handle; `mac` is read during the call only. */

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
/* Requests to the source by property: pause or resume one stream of a
 * channel, intra frames only for a channel.  No result. */
ORLO_API void orlo_lumen_pipe_pause_ch(orlo_lumen_pipe_t *h_lumen_pipe, int ch, int stream);
ORLO_API void orlo_lumen_pipe_resume_ch(orlo_lumen_pipe_t *h_lumen_pipe, int ch, int stream);
ORLO_API void orlo_lumen_pipe_i_only_req(orlo_lumen_pipe_t *h_lumen_pipe, int ch);

#ifdef __cplusplus
}
#endif

#endif /* ORLO_LUMEN_PIPE_H */
