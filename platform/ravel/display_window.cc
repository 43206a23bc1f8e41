#include "display_window.hh"

#include <gst/app/gstappsrc.h>
#include <libyuv/convert_argb.h>

#include <cstdlib>
#include <cstring>

#include "log_domain.hh"

namespace ravel_soft {

bool graphical_display_available() {
  const char *x11 = std::getenv("DISPLAY");
  const char *wayland = std::getenv("WAYLAND_DISPLAY");
  return (x11 != nullptr && *x11 != '\0') || (wayland != nullptr && *wayland != '\0');
}

display_window::~display_window() { close(); }

bool display_window::open(int width, int height, const char *title, const char *sink) {
  if (pipeline_) return true;
  gst_init(nullptr, nullptr);
  // The window gets RGB converted here exactly as the pictures written to
  // PNG are: handed YUV, GStreamer takes HD sizes for BT.709 and rounds its
  // own way, and the window's colours drift from the pictures'.
  gchar *launch = g_strdup_printf(
      "appsrc name=src is-live=true do-timestamp=true format=time "
      "caps=\"video/x-raw,format=BGRx,width=%d,height=%d,framerate=0/1\" "
      "! queue leaky=downstream max-size-buffers=2 ! %s",
      width, height, sink);
  GError *error = nullptr;
  GstElement *made = gst_parse_launch(launch, &error);
  g_free(launch);
  // The launch gives a floating reference; sinking it makes it ours.
  auto pipeline = orlo::adopt(made != nullptr ? GST_ELEMENT(gst_object_ref_sink(made)) : nullptr);
  if (!pipeline || error != nullptr) {
    g_log(RAVEL_LOG_DOMAIN, G_LOG_LEVEL_WARNING, "cannot build the window of %s: %s", title,
          error != nullptr ? error->message : "unknown");
    g_clear_error(&error);
    return false;
  }
  if (gst_element_set_state(pipeline.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
    g_log(RAVEL_LOG_DOMAIN, G_LOG_LEVEL_WARNING, "the window of %s does not start", title);
    gst_element_set_state(pipeline.get(), GST_STATE_NULL);
    return false;
  }
  src_ = orlo::adopt(gst_bin_get_by_name(GST_BIN(pipeline.get()), "src"));
  pipeline_ = std::move(pipeline);
  return true;
}

void display_window::push(const canvas &c) {
  if (!src_) return;
  // g_malloc does not fail (it aborts), so neither does the buffer that wraps it.
  const size_t size = static_cast<size_t>(c.width) * c.height * 4;
  auto *bgrx = static_cast<uint8_t *>(g_malloc(size));
  // libyuv's "ARGB" is B, G, R, A in memory: GStreamer's BGRx.
  libyuv::I420ToARGB(c.y.data(), c.width, c.u.data(), c.width / 2, c.v.data(), c.width / 2, bgrx,
                     c.width * 4, c.width, c.height);
  // The buffer owns the memory; the source takes the buffer.
  gst_app_src_push_buffer(GST_APP_SRC(src_.get()), gst_buffer_new_wrapped(bgrx, size));
}

void display_window::close() {
  if (!pipeline_) return;
  gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
  src_.reset();
  pipeline_.reset();
}

}  // namespace ravel_soft
