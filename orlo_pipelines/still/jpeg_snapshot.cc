// JPEG snapshot: a request to the engine, a timed wait, and the hand-over of
// the picture between the engine's thread and the caller.
#include "display/display_state.hh"
#include "glib_lock.hh"
#include "stream/stream_delivery.hh"

namespace {

constexpr gint64 kWait = 5 * G_TIME_SPAN_SECOND;

// Holds mutex_jpegsnap for one snapshot, taken by try-lock so that a second
// caller is refused at once instead of queueing.
class snapshot_slot {
 public:
  explicit snapshot_slot(GMutex *m) : m_(m), held_(g_mutex_trylock(m) != 0) {}
  ~snapshot_slot() {
    if (held_) g_mutex_unlock(m_);
  }
  snapshot_slot(const snapshot_slot &) = delete;
  snapshot_slot &operator=(const snapshot_slot &) = delete;
  bool held() const { return held_; }

 private:
  GMutex *m_;
  bool held_;
};

}  // namespace

// The engine port of a playback channel in a display mode.
int _get_snapshot_port(int ch, int dispmode);

int _get_snapshot_port(int ch, int dispmode) {
  int port;
  switch (dispmode) {
    case 12:
    case 21:
      port = 0;
      break;
    case 13:
      port = ch % 4;
      break;
    case 14:
    case 15:
      port = ch % 6;
      break;
    case 16:
    case 17:
      port = ch % 8;
      break;
    case 18:
      port = ch % 9;
      break;
    default:
      g_message("%s : %d : not supprot dispmode : %d, snapshot ch : %d\n", "_get_snapshot_port",
                __LINE__, dispmode, ch);
      port = ch;
      break;
  }
  g_message("%s : %d : dispmode : %d, snapshot ch : %d\n", "_get_snapshot_port", __LINE__, dispmode,
            port);
  return port;
}

extern "C" ORLO_API int orlo_display_get_jpeg_snapshot(orlo_display_t *h_display, int ch,
                                                       unsigned mode, int dispmode, uint32_t dstn,
                                                       uint32_t timeimg, void **out_buf,
                                                       uint32_t *out_word2, uint32_t *out_word3,
                                                       uint32_t *out_word4, uint32_t *out_word5) {
  static const char *const self = "orlo_display_get_jpeg_snapshot";
  if (g_engine == nullptr) {
    g_warning("%s : %d : ravel has not been created!\n", self, __LINE__);
    return -1;
  }
  if (h_display == nullptr) {
    g_return_if_fail_warning(nullptr, self, "h_display != NULL");
    return -1;
  }
  snapshot_slot slot(h_display->mutex_jpegsnap);
  if (!slot.held()) {
    g_warning("%s : %d : g_mutex_trylock fail!\n", self, __LINE__);
    return -2;
  }

  {
    // A late answer to an abandoned request may be running in the callback.
    orlo::mutex_guard lock(h_display->mutex_jpeg);
    g_jpeg_result = orlo_jpeg_result_t{};
  }

  int port = -1;
  switch (mode) {
    case 0:
    case 1: {
      ravel_set_jpeg_dstntimeimg(g_engine, ch, dstn, timeimg);
      const int32_t ret =
          ravel_jpeg_enc(g_engine, ch, static_cast<int32_t>(mode), _cb_get_jpeg_image);
      if (ret == -1) {
        g_warning("%s: %d : ravel_jpeg_enc failed ret : %d\n", self, __LINE__, ret);
        return -1;
      }
      break;
    }
    case 2:
      port = _get_snapshot_port(ch, dispmode);
      if (port < 0 || port >= ORLO_MAX_PLAYBACK_CHANNEL) {
        // No playback port of that number: nothing is armed.
        g_warning("%s: %d : no playback port %d for ch %d in dispmode %d\n", self, __LINE__, port,
                  ch, dispmode);
        return -1;
      }
      ravel_set_jpeg_dstntimeimg(g_engine, port, dstn, timeimg);
      _enable_pb_snapshot_port(static_cast<unsigned>(port), 1);
      break;
    case 3: {
      port = _get_snapshot_port(ch, dispmode);
      int32_t ret = ravel_jpeg_enc(g_engine, port, 0, _cb_get_jpeg_image);
      if (ret == -1) {
        g_warning("%s: %d : ravel_jpeg_enc failed ret : %d\n", self, __LINE__, ret);
        return -1;
      }
      ravel_set_jpeg_dstntimeimg(g_engine, port, dstn, timeimg);
      ravel_set_jpeg_timestamp(g_engine, port, orlo_get_pb_timestamp(port));
      ret = ravel_pause_frame(g_engine, port);
      if (ret < 0) {
        g_warning("%s: %d : ravel_pause_frame failed ret : %d\n", self, __LINE__, ret);
        return -1;
      }
      break;
    }
    default:
      g_warning("%s: %d : Unknwon mode : %d\n", self, __LINE__, static_cast<int>(mode));
      return -1;
  }

  // Monotonic, so that a change of the wall clock neither stretches nor cuts
  // the wait; an answer that came before the wait is taken at once.  The
  // outcome and the give-up are decided under the same lock as the callback's
  // store, so an answer is either taken here or freed by the callback.
  orlo::mutex_guard lock(h_display->mutex_jpeg);
  const gint64 end = g_get_monotonic_time() + kWait;
  while (g_jpeg_result.buf == nullptr &&
         g_cond_wait_until(h_display->cond_jpeg, h_display->mutex_jpeg, end)) {
  }
  if (mode == 2) _enable_pb_snapshot_port(static_cast<unsigned>(port), 0);
  if (g_jpeg_result.buf == nullptr) {
    g_warning("%s: %d : get jpeg image failed\n", self, __LINE__);
    g_jpeg_result.cancel = 1;
    return -1;
  }
  if (out_buf != nullptr) *out_buf = g_jpeg_result.buf;
  if (out_word2 != nullptr) *out_word2 = g_jpeg_result.word2;
  if (out_word3 != nullptr) *out_word3 = g_jpeg_result.word3;
  if (out_word4 != nullptr) *out_word4 = g_jpeg_result.word4;
  if (out_word5 != nullptr) *out_word5 = g_jpeg_result.word5;
  return 0;
}
