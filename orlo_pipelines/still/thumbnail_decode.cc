// Thumbnail decode: one stored intra frame through the engine's decoder on
// port 0, with a callback in place of the display, then to RGB24.
#include <utility>

#include "colorspace.h"
#include "display/display_state.hh"
#include "kel_buffers.h"
#include "ref_ptr.hh"
#include "still/engine_answer.hh"
#include "stream/stream_delivery.hh"

// The engine's callback for a decoded picture; runs on an engine thread.
void _cb_get_disp_image(void **pimage);

namespace {

// The decoded picture from the engine, packed YVYU, NULL while there is none.
// One word serves all callers: the caller allows one decode at a time.
std::atomic<void *> g_image_result{nullptr};

constexpr gint64 kWait = G_TIME_SPAN_SECOND;
constexpr const char *self = "orlo_display_decode_image";

orlo::engine_answer image_answer(orlo_display_t *h) { return {h->mutex_image, h->cond_image}; }

// Offers the frame at port 0 with the picture callback, with the render
// lock held for each offer only, so that render passes go on between them.
// A failure is logged; true when the engine has taken the frame.
bool offer_frame(orlo_display_t *h, GstBuffer *buffer, const orlo::frame &view) {
  const int result = orlo::offer_with_retries(
      [&] {
        orlo::mutex_guard lock(h->mutex);
        return _put_decode_stream(0, buffer, view.payload, view.size, nullptr, _cb_get_disp_image,
                                  view.channel, view.type);
      },
      [] { return true; });
  if (result == -1) g_warning("ravel push failed at port %d\n", 0);
  if (result != 0) g_warning("%s: get thumbnail image failed (cannot decode this!!)\n", self);
  return result == 0;
}

// The decoded picture, or NULL when none came in time.
void *await_picture(orlo_display_t *h) {
  return image_answer(h).await(
      kWait, [] { return g_image_result.load() != nullptr; },
      [] { return g_image_result.exchange(nullptr); });
}

// An application that stored a frame itself may hand over a plain buffer
// whose bytes are the header and the payload: it becomes a frame buffer of
// its own (one copy of one frame), read as the sources' frames are.  A frame
// buffer passes as it is.
orlo::ref_ptr<GstBuffer> as_frame_buffer(orlo::ref_ptr<GstBuffer> buffer) {
  if (gst_kel_buddy_buffer_get_meta(buffer.get()) != nullptr) return buffer;
  GstMapInfo map;
  if (!gst_buffer_map(buffer.get(), &map, GST_MAP_READ)) return buffer;
  auto copy = orlo::adopt(gst_kel_buddy_buffer_new_copy(map.data, map.size));
  gst_buffer_unmap(buffer.get(), &map);
  return copy;
}

}  // namespace

void _cb_get_disp_image(void **pimage) {
  void *picture = pimage != nullptr ? *pimage : nullptr;
  g_warning("##################################### _cb_get_disp_image %08x\n",
            static_cast<unsigned>(reinterpret_cast<uintptr_t>(picture)));
  // A picture that nobody took (its caller timed out) is released here
  // rather than lost.
  image_answer(g_display).deliver([picture] { g_free(g_image_result.exchange(picture)); });
}

extern "C" ORLO_API int orlo_display_decode_image(orlo_display_t *h_display, GstBuffer *iframe,
                                                  int width, int height, int /*reserved*/,
                                                  uint8_t *dst) {
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
  image_answer(h_display).locked([] { g_free(g_image_result.exchange(nullptr)); });

  frame = as_frame_buffer(std::move(frame));
  orlo::frame view;
  if (!orlo::read_frame(frame.get(), view)) {
    g_warning("%s: get thumbnail image failed (cannot decode this!!)\n", self);
    return -1;
  }
  if (!offer_frame(h_display, frame.get(), view)) return -1;
  // Accepted: the engine holds the reference now and gives it back through
  // the release function.
  (void)frame.release();

  void *picture = await_picture(h_display);
  if (picture == nullptr) {
    g_warning("%s: get thumbnail image failed\n", self);
    return -1;
  }
  yvyu_to_rgb24_c(dst, width, static_cast<const uint8_t *>(picture), width, width, height);
  g_free(picture);
  return 0;
}
