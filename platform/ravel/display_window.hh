// A window that shows one composed display, through GStreamer
// (appsrc ! videoconvert ! autovideosink).  Only on request, and only where a
// graphical display exists; or through a sink of the caller's choice.
#pragma once

#include <gst/gst.h>

#include "compositor.hh"
#include "ref_ptr.hh"

namespace ravel_soft {

class display_window {
 public:
  display_window() = default;
  ~display_window();
  display_window(const display_window &) = delete;
  display_window &operator=(const display_window &) = delete;

  // The window's default end of the pipeline.
  static constexpr const char *kWindowSink = "videoconvert ! autovideosink sync=false";

  // False when the pipeline can't start.  `sink` is the end of the pipeline
  // that takes the display's I420 pictures.
  bool open(int width, int height, const char *title, const char *sink);
  // Hands one composed picture to the window (compositor thread).
  void push(const canvas &c);
  void close();

 private:
  orlo::ref_ptr<GstElement> pipeline_;
  orlo::ref_ptr<GstElement> src_;
};

// True when a window could be shown: an X11 or Wayland display is named.
bool graphical_display_available();

}  // namespace ravel_soft
