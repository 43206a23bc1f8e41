// Thumbnail decode: one stored intra frame through the engine's decoder on
// port 0, with a callback in place of the display, then to RGB24.
#include <unistd.h>

#include "colorspace.h"
#include "display/display_state.hh"
#include "glib_lock.hh"
#include "ref_ptr.hh"
#include "stream/stream_delivery.hh"

// The engine's callback for a decoded picture; runs on an engine thread.
void _cb_get_disp_image(void **pimage);

namespace {

// The decoded picture from the engine, packed YVYU, NULL while there is none.
// One word serves all callers: the caller allows one decode at a time.
std::atomic<void *> g_image_result{nullptr};

constexpr int kTries = 21;
constexpr gint64 kWait = G_TIME_SPAN_SECOND;

}  // namespace

void _cb_get_disp_image(void **pimage) {
  void *picture = pimage != nullptr ? *pimage : nullptr;
  g_warning("##################################### _cb_get_disp_image %08x\n",
            static_cast<unsigned>(reinterpret_cast<uintptr_t>(picture)));
  orlo::mutex_guard lock(g_display->mutex_image);
  // A picture that nobody took (its caller timed out) is released here
  // rather than lost.
  g_free(g_image_result.exchange(picture));
  g_cond_signal(g_display->cond_image);
}

extern "C" ORLO_API int orlo_display_decode_image(orlo_display_t *h_display, GstBuffer *iframe,
                                                  int width, int height, int /*reserved*/,
                                                  uint8_t *dst) {
  static const char *const self = "orlo_display_decode_image";
  if (iframe == nullptr) {
    g_return_if_fail_warning(nullptr, self, "iframe");
    return -1;
  }
  // The reference is ours on every path; it passes to the engine when the
  // engine accepts the frame.
  orlo::ref_ptr<GstBuffer> frame = orlo::adopt(iframe);
  if (h_display == nullptr || dst == nullptr || width <= 0 || height <= 0) {
    g_return_if_fail_warning(nullptr, self,
                             "h_display != NULL && dst != NULL && width > 0 && height > 0");
    return -1;
  }

  {
    orlo::mutex_guard lock(h_display->mutex_image);
    g_free(g_image_result.exchange(nullptr));
  }

  // The frame comes as the sources deliver it: a frame buffer with its header.
  orlo::frame view;
  if (!orlo::read_frame(frame.get(), view)) {
    g_warning("%s: get thumbnail image failed (cannot decode this!!)\n", self);
    return -1;
  }

  int result = -1;
  for (int tries = kTries; tries > 0; tries--) {
    {
      orlo::mutex_guard lock(h_display->mutex);
      result = _put_decode_stream(0, frame.get(), view.payload, view.size, nullptr,
                                  _cb_get_disp_image, view.channel, view.type);
    }
    if (result != -1) break;
    usleep(1000);
  }
  if (result == -1) {
    g_warning("ravel push failed at port %d\n", 0);
    g_warning("%s: get thumbnail image failed (cannot decode this!!)\n", self);
    return -1;
  }
  if (result == -2) {
    g_warning("%s: get thumbnail image failed (cannot decode this!!)\n", self);
    return -1;
  }
  // Accepted: the engine holds the reference now and gives it back through
  // the release function.
  (void)frame.release();

  // Monotonic, so that a change of the wall clock neither stretches nor cuts
  // the wait; a picture that came before the wait is taken at once.
  void *picture = nullptr;
  {
    orlo::mutex_guard lock(h_display->mutex_image);
    const gint64 end = g_get_monotonic_time() + kWait;
    while (g_image_result.load() == nullptr &&
           g_cond_wait_until(h_display->cond_image, h_display->mutex_image, end)) {
    }
    picture = g_image_result.exchange(nullptr);
  }
  if (picture == nullptr) {
    g_warning("%s: get thumbnail image failed\n", self);
    return -1;
  }
  yvyu_to_rgb24_c(dst, width, static_cast<const uint8_t *>(picture), width, width, height);
  g_free(picture);
  return 0;
}
