// The live pipe: its record, the pipeline thread that builds and then parks,
// and start, stop and delete.
#include <atomic>

#include "caller_check.hh"
#include "orlo_lumen_pipe.h"
#include "pipes/pipe_thread.hh"
#include "shared_word.hh"

namespace {

constexpr char kLaunchFormat[] =
    "lumensrc name=livelumensrc ! kelappsink caps=\"%s\" name=lumen_app_sink";
constexpr char kCaps[] = "video/x-h264";
constexpr GstClockTime kStateWait = 10000000000ULL;  // 10 s

// The pipeline thread.  It builds the pipeline, publishes it through
// `thread_ready`, and then only keeps a main loop of its own running: the
// loop has no sources and nothing quits it, so the thread stays parked for
// the life of the process.  It never touches the record after publishing.
gpointer pipeline_thread(gpointer data) {
  auto *h_lumen_pipe = static_cast<orlo_lumen_pipe_t *>(data);
  orlo::raise_pipe_thread_priority();

  gchar *launch = g_strdup_printf(kLaunchFormat, kCaps);
  h_lumen_pipe->pipeline = gst_parse_launch(launch, nullptr);
  g_free(launch);
  if (h_lumen_pipe->pipeline == nullptr) g_error("cannot make lumen pipeline\n");

  h_lumen_pipe->src = gst_bin_get_by_name(GST_BIN(h_lumen_pipe->pipeline), "livelumensrc");
  h_lumen_pipe->kelappsink = gst_bin_get_by_name(GST_BIN(h_lumen_pipe->pipeline), "lumen_app_sink");

  g_object_set(h_lumen_pipe->kelappsink, "sync", FALSE, nullptr);
  g_object_set(h_lumen_pipe->kelappsink, "drop", TRUE, nullptr);
  g_object_set(h_lumen_pipe->kelappsink, "max-buffers", 3u, nullptr);
  g_object_set(h_lumen_pipe->kelappsink, "priority", 99, nullptr);

  // Release: the caller that reads 1 also sees the three element fields.
  orlo::store_word(h_lumen_pipe->thread_ready, int32_t{1}, std::memory_order_release);

  orlo::park_pipe_thread();
  return nullptr;
}

}  // namespace

extern "C" {

orlo_lumen_pipe_t *orlo_lumen_pipe_new(int /*unused*/) {
  auto *h_lumen_pipe = static_cast<orlo_lumen_pipe_t *>(g_try_malloc0(sizeof(orlo_lumen_pipe_t)));
  if (h_lumen_pipe == nullptr) {
    g_return_if_fail_warning(nullptr, "orlo_lumen_pipe_new", "h_lumen_pipe != NULL");
    return nullptr;
  }
  h_lumen_pipe->h_thread = orlo::start_pipe_thread("lumen-pipe", pipeline_thread, h_lumen_pipe,
                                                   h_lumen_pipe->thread_ready);
  if (h_lumen_pipe->h_thread == nullptr) {
    g_return_if_fail_warning(nullptr, "orlo_lumen_pipe_new", "h_lumen_pipe->h_thread != NULL");
    g_free(h_lumen_pipe);
    return nullptr;
  }
  return h_lumen_pipe;
}

int orlo_lumen_pipe_start(orlo_lumen_pipe_t *h_lumen_pipe) {
  ORLO_RETURN_VAL_IF_FAIL(h_lumen_pipe != NULL, -1);
  gst_element_set_state(h_lumen_pipe->pipeline, GST_STATE_PLAYING);
  gst_element_get_state(h_lumen_pipe->pipeline, nullptr, nullptr, kStateWait);
  return 0;
}

int orlo_lumen_pipe_stop(orlo_lumen_pipe_t *h_lumen_pipe) {
  ORLO_RETURN_VAL_IF_FAIL(h_lumen_pipe != NULL, -1);
  gst_element_set_state(h_lumen_pipe->pipeline, GST_STATE_NULL);
  gst_element_get_state(h_lumen_pipe->pipeline, nullptr, nullptr, kStateWait);
  return 0;
}

// Frees the record only: the pipeline and its parked thread stay.
void orlo_lumen_pipe_delete(orlo_lumen_pipe_t *h_lumen_pipe) {
  if (h_lumen_pipe == nullptr) {
    g_return_if_fail_warning(nullptr, "orlo_lumen_pipe_delete", "h_lumen_pipe != NULL");
    return;
  }
  gst_object_unref(h_lumen_pipe->src);
  gst_object_unref(h_lumen_pipe->kelappsink);
  g_free(h_lumen_pipe);
}

GstElement *orlo_lumen_pipe_get_src(orlo_lumen_pipe_t *h_lumen_pipe) {
  ORLO_RETURN_VAL_IF_FAIL(h_lumen_pipe != NULL, nullptr);
  return h_lumen_pipe->src;
}

GstElement *orlo_lumen_pipe_get_kelappsink(orlo_lumen_pipe_t *h_lumen_pipe) {
  ORLO_RETURN_VAL_IF_FAIL(h_lumen_pipe != NULL, nullptr);
  return h_lumen_pipe->kelappsink;
}

}  // extern "C"
