// The playback pipe: its record, the pipeline thread that builds
// "kelsstsrc ! kelappsink", and the play-info status that reaches the record
// through the sink's event callback.
#include <cstdio>

#include "caller_check.hh"
#include "pipes/pipe_thread.hh"
#include "pipes/sst_pipe_internal.hh"
#include "shared_word.hh"

namespace {

gint sst_pipe_event(GstKelAppSink * /*sink*/, GstEvent *event, gpointer user_data) {
  auto *h_sst_pipe = static_cast<orlo_sst_pipe_t *>(user_data);
  const GstStructure *s = gst_event_get_structure(event);
  if (s == nullptr || !gst_structure_has_name(s, "KELPlayInfo")) return 0;
  // A missing field keeps the value it would replace.
  guint64 eos = orlo::load_word(h_sst_pipe->eos_mask);
  guint64 overlapped = orlo::load_word(h_sst_pipe->overlapped_mask);
  guint64 norecord = orlo::load_word(h_sst_pipe->norecord_mask);
  GstClockTime base_time = 0;
  gint direction = orlo::load_word(h_sst_pipe->direction);
  gst_structure_get_clock_time(s, "eos-status", &eos);
  gst_structure_get_clock_time(s, "overlapped-status", &overlapped);
  gst_structure_get_clock_time(s, "norecord-status", &norecord);
  gst_structure_get_clock_time(s, "base-time", &base_time);
  gst_structure_get_int(s, "direction", &direction);
  orlo::store_word<uint64_t>(h_sst_pipe->eos_mask, eos);
  orlo::store_word<uint64_t>(h_sst_pipe->overlapped_mask, overlapped);
  orlo::store_word<uint64_t>(h_sst_pipe->norecord_mask, norecord);
  if (base_time != 0) {
    orlo::store_word<uint64_t>(h_sst_pipe->base_time, base_time);
    printf("==========================%s, %08x\r\n", orlo::format_pb_time(base_time).c_str(),
           static_cast<unsigned>(reinterpret_cast<uintptr_t>(h_sst_pipe)));
    fflush(stdout);
  }
  orlo::store_word<int32_t>(h_sst_pipe->direction, direction);
  return 0;
}

gint sst_pipe_new_preroll(GstKelAppSink * /*sink*/, gpointer /*user_data*/) { return 0; }

// The pipeline thread: builds the pipeline, then stays parked in a loop of
// its own that nothing quits.
gpointer sst_pipe_thread(gpointer data) {
  auto *h_sst_pipe = static_cast<orlo_sst_pipe_t *>(data);
  orlo::raise_pipe_thread_priority();

  gchar *launch = g_strdup_printf(
      "kelsstsrc name=playsstsrc ! kelappsink caps=\"%s\" name=sst_app_sink", "video/x-h264");
  GstElement *pipeline = gst_parse_launch(launch, nullptr);
  g_free(launch);
  if (pipeline == nullptr) g_error("cannot make sst pipeline\n");
  h_sst_pipe->pipeline = pipeline;
  h_sst_pipe->src = gst_bin_get_by_name(GST_BIN(pipeline), "playsstsrc");
  puts("------------------------------ g_object set !!!!!!!!!!!!!!");
  fflush(stdout);
  // "ch-mask" is 64 bits wide, the width of the status masks.
  g_object_set(h_sst_pipe->src, "pr-id", 0, "vtick-interval-usec", 1000000, "open-rate", 1, "rate",
               1, "dir", 0, "rate-control", 0, "hide", 1, "ch-num", 4, "audio-ch", -1, "ch-mask",
               static_cast<guint64>(15), "mode", 0, "begin-time", static_cast<gint64>(0),
               "end-time", static_cast<gint64>(0), "search-time", static_cast<gint64>(0),
               "time-offset", static_cast<gint64>(0), "next-frame-mode", 0, nullptr);
  h_sst_pipe->kelappsink = gst_bin_get_by_name(GST_BIN(pipeline), "sst_app_sink");
  g_object_set(h_sst_pipe->kelappsink, "sync", TRUE, nullptr);
  g_object_set(h_sst_pipe->kelappsink, "drop", TRUE, nullptr);
  g_object_set(h_sst_pipe->kelappsink, "priority", 97, nullptr);
  g_object_set(h_sst_pipe->kelappsink, "max-buffers", 3u, nullptr);
  // Publishes the fields above to the creator polling for it.
  orlo::store_word<int32_t>(h_sst_pipe->thread_ready, 1, std::memory_order_release);

  orlo::park_pipe_thread();
  return nullptr;
}

}  // namespace

extern "C" ORLO_API orlo_sst_pipe_t *orlo_sst_pipe_new(void) {
  GstKelAppSinkCallbacks callbacks = {};
  callbacks.event = sst_pipe_event;
  callbacks.new_preroll = sst_pipe_new_preroll;
  callbacks.render_report = orlo::sst_pipe_render_report;

  auto *h_sst_pipe = static_cast<orlo_sst_pipe_t *>(g_try_malloc0(sizeof(orlo_sst_pipe_t)));
  if (h_sst_pipe == nullptr) {
    g_return_if_fail_warning(nullptr, "orlo_sst_pipe_new", "h_sst_pipe != NULL");
    return nullptr;
  }
  h_sst_pipe->h_thread =
      orlo::start_pipe_thread("sst_pipe", sst_pipe_thread, h_sst_pipe, h_sst_pipe->thread_ready);
  if (h_sst_pipe->h_thread == nullptr) {
    g_return_if_fail_warning(nullptr, "orlo_sst_pipe_new", "h_sst_pipe->h_thread != NULL");
    g_free(h_sst_pipe);
    return nullptr;
  }
  orlo::store_word<int32_t>(h_sst_pipe->direction, 0);
  orlo::store_word<uint64_t>(h_sst_pipe->last_timestamp, 0);
  orlo::store_word<uint64_t>(h_sst_pipe->base_time, 0);
  g_message("h_sst_pipe= !!!!!!!!!!!!!! %08x\n",
            static_cast<unsigned>(reinterpret_cast<uintptr_t>(h_sst_pipe)));
  gst_kelapp_sink_set_callbacks(GST_KELAPP_SINK(h_sst_pipe->kelappsink), &callbacks, h_sst_pipe,
                                nullptr);
  return h_sst_pipe;
}

extern "C" ORLO_API GstElement *orlo_sst_pipe_get_src(orlo_sst_pipe_t *h_sst_pipe) {
  ORLO_RETURN_VAL_IF_FAIL(h_sst_pipe != NULL, nullptr);
  return h_sst_pipe->src;
}

extern "C" ORLO_API GstElement *orlo_sst_pipe_get_kelappsink(orlo_sst_pipe_t *h_sst_pipe) {
  ORLO_RETURN_VAL_IF_FAIL(h_sst_pipe != NULL, nullptr);
  return h_sst_pipe->kelappsink;
}

extern "C" ORLO_API uint64_t orlo_sst_pipe_get_eos_mask(orlo_sst_pipe_t *h_sst_pipe) {
  ORLO_RETURN_VAL_IF_FAIL(h_sst_pipe != NULL, 0);
  return orlo::load_word(h_sst_pipe->eos_mask);
}

extern "C" ORLO_API uint64_t orlo_sst_pipe_get_overlapped_mask(orlo_sst_pipe_t *h_sst_pipe) {
  ORLO_RETURN_VAL_IF_FAIL(h_sst_pipe != NULL, 0);
  return orlo::load_word(h_sst_pipe->overlapped_mask);
}

extern "C" ORLO_API uint64_t orlo_sst_pipe_get_norecord_mask(orlo_sst_pipe_t *h_sst_pipe) {
  ORLO_RETURN_VAL_IF_FAIL(h_sst_pipe != NULL, 0);
  return orlo::load_word(h_sst_pipe->norecord_mask);
}
