// The live pipe's calls into its source element: forwarding calls, which give
// the element's result unchanged, and requests written as properties.
#include "caller_check.hh"
#include "lumen_src.h"
#include "orlo_lumen_pipe.h"

extern "C" {

int orlo_lumen_pipe_open_ch(orlo_lumen_pipe_t *h_lumen_pipe, int ch) {
  ORLO_RETURN_VAL_IF_FAIL(h_lumen_pipe != NULL, -1);
  return gst_lumen_src_open_ch(h_lumen_pipe->src, ch, 0);
}

int orlo_lumen_pipe_close_ch(orlo_lumen_pipe_t *h_lumen_pipe, int ch) {
  ORLO_RETURN_VAL_IF_FAIL(h_lumen_pipe != NULL, -1);
  return gst_lumen_src_close_ch(h_lumen_pipe->src, ch, 0);
}

int orlo_lumen_pipe_set_cmd_callback(orlo_lumen_pipe_t *h_lumen_pipe, orlo_lumen_callback_t cb,
                                     void *user_data) {
  ORLO_RETURN_VAL_IF_FAIL(h_lumen_pipe != NULL, -1);
  return gst_lumen_src_set_cmd_callback(h_lumen_pipe->src, cb, user_data);
}

int orlo_lumen_pipe_set_motion_callback(orlo_lumen_pipe_t *h_lumen_pipe, orlo_lumen_callback_t cb,
                                        void *user_data) {
  ORLO_RETURN_VAL_IF_FAIL(h_lumen_pipe != NULL, -1);
  return gst_lumen_src_set_motion_callback(h_lumen_pipe->src, cb, user_data);
}

int orlo_lumen_pipe_set_alarm_callback(orlo_lumen_pipe_t *h_lumen_pipe, orlo_lumen_callback_t cb,
                                       void *user_data) {
  ORLO_RETURN_VAL_IF_FAIL(h_lumen_pipe != NULL, -1);
  return gst_lumen_src_set_alarm_callback(h_lumen_pipe->src, cb, user_data);
}

int orlo_lumen_pipe_set_src_handoff(orlo_lumen_pipe_t *h_lumen_pipe, orlo_lumen_callback_t cb,
                                    void *user_data) {
  ORLO_RETURN_VAL_IF_FAIL(h_lumen_pipe != NULL, -1);
  return gst_lumen_src_set_handoff_callback(h_lumen_pipe->src, cb, user_data);
}

int orlo_lumen_pipe_set_header_x_callback(orlo_lumen_pipe_t *h_lumen_pipe, orlo_lumen_callback_t cb,
                                          void *user_data) {
  ORLO_RETURN_VAL_IF_FAIL(h_lumen_pipe != NULL, -1);
  return gst_lumen_src_set_header_x_callback(h_lumen_pipe->src, cb, user_data);
}

int orlo_lumen_pipe_set_onvif_meta_callback(orlo_lumen_pipe_t *h_lumen_pipe,
                                            orlo_lumen_callback_t cb, void *user_data) {
  ORLO_RETURN_VAL_IF_FAIL(h_lumen_pipe != NULL, -1);
  return gst_lumen_src_set_onvif_meta_callback(h_lumen_pipe->src, cb, user_data);
}

int orlo_lumen_pipe_send_audio(orlo_lumen_pipe_t *h_lumen_pipe, int ch, const void *data,
                               int size) {
  ORLO_RETURN_VAL_IF_FAIL(h_lumen_pipe != NULL, -1);
  ORLO_RETURN_VAL_IF_FAIL(data != NULL || size <= 0, -1);
  return gst_lumen_src_send_audio(h_lumen_pipe->src, ch, data, size);
}

// These two concern every source of the process; the handle is not read.
int orlo_lumen_pipe_set_live_audio_ch(orlo_lumen_pipe_t * /*h_lumen_pipe*/, int ch) {
  return gst_lumen_src_set_live_audio_ch(ch);
}

int orlo_lumen_pipe_set_dev_mac(orlo_lumen_pipe_t * /*h_lumen_pipe*/, const char *mac, int len) {
  return gst_lumen_src_set_dev_mac(mac, len);
}

// The element takes the words of a request in one call, in this order.
void orlo_lumen_pipe_pause_ch(orlo_lumen_pipe_t *h_lumen_pipe, int ch, int stream) {
  ORLO_RETURN_IF_FAIL(h_lumen_pipe != NULL);
  g_object_set(h_lumen_pipe->src, "channel", ch, "stream", stream, "pause", 1, nullptr);
}

void orlo_lumen_pipe_resume_ch(orlo_lumen_pipe_t *h_lumen_pipe, int ch, int stream) {
  ORLO_RETURN_IF_FAIL(h_lumen_pipe != NULL);
  g_object_set(h_lumen_pipe->src, "channel", ch, "stream", stream, "resume", 1, nullptr);
}

void orlo_lumen_pipe_i_only_req(orlo_lumen_pipe_t *h_lumen_pipe, int ch) {
  ORLO_RETURN_IF_FAIL(h_lumen_pipe != NULL);
  g_object_set(h_lumen_pipe->src, "ionlych", ch, nullptr);
}

}  // extern "C"
