// Control of a playback pipe that stands: parameters, state changes, frame
// stepping, the stream time and the render report.
#include <cstdio>

#include "caller_check.hh"
#include "kelsstsrc.h"
#include "pipes/sst_pipe_internal.hh"
#include "shared_word.hh"

namespace {

constexpr GstClockTime kStateWait = 10 * GST_SECOND;

gint64 to_ns(orlo_timeval_t tv) {
  return static_cast<gint64>(tv.tv_sec) * 1000000000 + static_cast<gint64>(tv.tv_usec) * 1000;
}

// The pattern of the four state operations: the source's stepping
// properties, the sink's clock sync where given (-1: left alone), the new
// state, and the wait where asked.  Outcomes are not looked at.
void drive(orlo_sst_pipe_t *h_sst_pipe, gint step, gint sync, GstState state, bool wait) {
  g_object_set(h_sst_pipe->src, "next-frame-mode", step, "cmd-next", step, nullptr);
  if (sync >= 0) g_object_set(h_sst_pipe->kelappsink, "sync", sync != 0, nullptr);
  gst_element_set_state(h_sst_pipe->pipeline, state);
  if (wait) gst_element_get_state(h_sst_pipe->pipeline, nullptr, nullptr, kStateWait);
}

}  // namespace

namespace orlo {

gint sst_pipe_render_report(GstKelAppSink * /*sink*/, gint code, gpointer user_data) {
  if (code != GST_KELAPP_SINK_REPORT_STEP_RENDERED) return 0;
  auto *h_sst_pipe = static_cast<orlo_sst_pipe_t *>(user_data);
  const uint64_t t = orlo_sst_pipe_get_timestamp(h_sst_pipe);
  store_word<uint64_t>(h_sst_pipe->last_timestamp, t);
  printf("last render time %s\r\n", format_pb_time(t).c_str());
  fflush(stdout);
  return 0;
}

}  // namespace orlo

extern "C" ORLO_API int orlo_sst_pipe_set_param(orlo_sst_pipe_t *h_sst_pipe, int rate, int dir,
                                                int rate_control, int hide, orlo_timeval_t begin,
                                                orlo_timeval_t end, orlo_timeval_t search,
                                                int ch_num, uint32_t ch_mask) {
  ORLO_RETURN_VAL_IF_FAIL(h_sst_pipe != NULL, -1);
  // "ch-mask" is 64 bits wide; the 32-bit argument is widened for it.
  g_object_set(h_sst_pipe->src, "pr-id", 0, "vtick-interval-usec", 33366, "rate", rate, "dir", dir,
               "rate-control", rate_control, "hide", hide, "begin-time", to_ns(begin), "end-time",
               to_ns(end), "search-time", to_ns(search), "time-offset", static_cast<gint64>(0),
               "ch-num", ch_num, "audio-ch", -1, "ch-mask", static_cast<guint64>(ch_mask), "mode",
               0, nullptr);
  return 0;
}

extern "C" ORLO_API int orlo_sst_pipe_start(orlo_sst_pipe_t *h_sst_pipe) {
  ORLO_RETURN_VAL_IF_FAIL(h_sst_pipe != NULL, -1);
  drive(h_sst_pipe, 0, 1, GST_STATE_PLAYING, true);
  return 0;
}

extern "C" ORLO_API int orlo_sst_pipe_pause(orlo_sst_pipe_t *h_sst_pipe) {
  ORLO_RETURN_VAL_IF_FAIL(h_sst_pipe != NULL, -1);
  drive(h_sst_pipe, 0, 1, GST_STATE_PAUSED, false);
  return 0;
}

extern "C" ORLO_API int orlo_sst_pipe_next(orlo_sst_pipe_t *h_sst_pipe) {
  ORLO_RETURN_VAL_IF_FAIL(h_sst_pipe != NULL, -1);
  drive(h_sst_pipe, 1, 0, GST_STATE_PLAYING, true);
  return 0;
}

extern "C" ORLO_API int orlo_sst_pipe_stop(orlo_sst_pipe_t *h_sst_pipe) {
  ORLO_RETURN_VAL_IF_FAIL(h_sst_pipe != NULL, -1);
  drive(h_sst_pipe, 0, -1, GST_STATE_NULL, true);
  return 0;
}

extern "C" ORLO_API uint64_t orlo_sst_pipe_get_timestamp(orlo_sst_pipe_t *h_sst_pipe) {
  ORLO_RETURN_VAL_IF_FAIL(h_sst_pipe != NULL, 0);
  gint64 position = 0;
  if (!gst_element_query_position(h_sst_pipe->kelappsink, GST_FORMAT_TIME, &position)) return 0;
  const uint64_t base_time = orlo::load_word(h_sst_pipe->base_time);
  if (orlo::load_word(h_sst_pipe->direction) == 0)
    return static_cast<uint64_t>(position) + base_time;
  return base_time - static_cast<uint64_t>(position);
}

extern "C" ORLO_API uint64_t orlo_sst_pipe_get_last_timestamp(orlo_sst_pipe_t *h_sst_pipe) {
  ORLO_RETURN_VAL_IF_FAIL(h_sst_pipe != NULL, 0);
  return orlo::load_word(h_sst_pipe->last_timestamp);
}

extern "C" ORLO_API GstBuffer *orlo_sst_pipe_get_iframe(const gchar *location, int ch, int flags,
                                                        orlo_timeval_t begin, orlo_timeval_t end) {
  return gst_kelsstsrc_get_first_iframe(location, ch, flags, to_ns(begin), to_ns(end));
}

extern "C" ORLO_API void orlo_sst_pipe_clear_status(orlo_sst_pipe_t *h_sst_pipe) {
  ORLO_RETURN_IF_FAIL(h_sst_pipe != NULL);
  orlo::store_word<uint64_t>(h_sst_pipe->eos_mask, 0);
  orlo::store_word<uint64_t>(h_sst_pipe->overlapped_mask, 0);
  orlo::store_word<uint64_t>(h_sst_pipe->norecord_mask, 0);
}

extern "C" ORLO_API void orlo_sst_pipe_delete(orlo_sst_pipe_t *h_sst_pipe) {
  if (h_sst_pipe == nullptr) {
    g_return_if_fail_warning(nullptr, "orlo_sst_pipe_delete", "h_sst_pipe != NULL");
    return;
  }
  gst_object_unref(h_sst_pipe->src);
  gst_object_unref(h_sst_pipe->kelappsink);
  g_free(h_sst_pipe);
}
