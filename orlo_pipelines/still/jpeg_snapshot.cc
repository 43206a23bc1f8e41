// JPEG snapshot: a request to the engine, a timed wait, and the hand-over of
// the picture between the engine's thread and the caller.
#include "display/display_state.hh"
#include "glib_lock.hh"
#include "still/engine_answer.hh"
#include "stream/stream_delivery.hh"

namespace {

constexpr gint64 kWait = 5 * G_TIME_SPAN_SECOND;
constexpr const char *self = "orlo_display_get_jpeg_snapshot";

// The ways of asking, by the operation's `mode`.
enum snapshot_mode : unsigned {
  SNAPSHOT_CHANNEL = 0,         // ravel_jpeg_enc on the channel, flag 0
  SNAPSHOT_CHANNEL_FLAG = 1,    // the same with flag 1
  SNAPSHOT_NEXT_PLAYBACK = 2,   // the next playback frame at the channel's port
  SNAPSHOT_PAUSED_PLAYBACK = 3  // the frame at which the port stands paused
};

// Where a successful snapshot puts its answer; any of them may be NULL.
struct snapshot_out {
  void **buf;
  uint32_t *word2, *word3, *word4, *word5;
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

namespace {

int request_channel(int ch, unsigned mode, uint32_t dstn, uint32_t timeimg) {
  ravel_set_jpeg_dstntimeimg(g_engine, ch, dstn, timeimg);
  const int32_t ret = ravel_jpeg_enc(g_engine, ch, static_cast<int32_t>(mode), _cb_get_jpeg_image);
  if (ret == -1) {
    g_warning("%s: %d : ravel_jpeg_enc failed ret : %d\n", self, __LINE__, ret);
    return -1;
  }
  return 0;
}

// Arms the playback push: its next frame at the port carries the callback.
int request_next_playback_frame(int port, int ch, int dispmode, uint32_t dstn, uint32_t timeimg) {
  if (port < 0 || port >= ORLO_MAX_PLAYBACK_CHANNEL) {
    // No playback port of that number: nothing is armed.
    g_warning("%s: %d : no playback port %d for ch %d in dispmode %d\n", self, __LINE__, port, ch,
              dispmode);
    return -1;
  }
  ravel_set_jpeg_dstntimeimg(g_engine, port, dstn, timeimg);
  _enable_pb_snapshot_port(static_cast<unsigned>(port), 1);
  return 0;
}

// The encode request comes first here, the picture's words after it.
int request_paused_playback_frame(int port, uint32_t dstn, uint32_t timeimg) {
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
  return 0;
}

// Makes the request of `mode`; `port` receives the playback port of modes 2
// and 3.  0 when the engine has been asked, -1 otherwise.
int request(unsigned mode, int ch, int dispmode, uint32_t dstn, uint32_t timeimg, int &port) {
  switch (mode) {
    case SNAPSHOT_CHANNEL:
    case SNAPSHOT_CHANNEL_FLAG:
      return request_channel(ch, mode, dstn, timeimg);
    case SNAPSHOT_NEXT_PLAYBACK:
      port = _get_snapshot_port(ch, dispmode);
      return request_next_playback_frame(port, ch, dispmode, dstn, timeimg);
    case SNAPSHOT_PAUSED_PLAYBACK:
      port = _get_snapshot_port(ch, dispmode);
      return request_paused_playback_frame(port, dstn, timeimg);
    default:
      g_warning("%s: %d : Unknwon mode : %d\n", self, __LINE__, static_cast<int>(mode));
      return -1;
  }
}

// Waits for the answer and hands it out, or gives up on it: the callback
// then frees what comes late.
int await_jpeg(orlo_display_t *h, unsigned mode, int port, const snapshot_out &out) {
  const orlo::engine_answer answer(h->mutex_jpeg, h->cond_jpeg);
  return answer.await(
      kWait, [] { return g_jpeg_result.buf != nullptr; },
      [&] {
        if (mode == SNAPSHOT_NEXT_PLAYBACK)
          _enable_pb_snapshot_port(static_cast<unsigned>(port), 0);
        if (g_jpeg_result.buf == nullptr) {
          g_warning("%s: %d : get jpeg image failed\n", self, __LINE__);
          g_jpeg_result.cancel = 1;
          return -1;
        }
        if (out.buf != nullptr) *out.buf = g_jpeg_result.buf;
        if (out.word2 != nullptr) *out.word2 = g_jpeg_result.word2;
        if (out.word3 != nullptr) *out.word3 = g_jpeg_result.word3;
        if (out.word4 != nullptr) *out.word4 = g_jpeg_result.word4;
        if (out.word5 != nullptr) *out.word5 = g_jpeg_result.word5;
        return 0;
      });
}

}  // namespace

extern "C" ORLO_API int orlo_display_get_jpeg_snapshot(orlo_display_t *h_display, int ch,
                                                       unsigned mode, int dispmode, uint32_t dstn,
                                                       uint32_t timeimg, void **out_buf,
                                                       uint32_t *out_word2, uint32_t *out_word3,
                                                       uint32_t *out_word4, uint32_t *out_word5) {
  if (g_engine == nullptr) {
    g_warning("%s : %d : ravel has not been created!\n", self, __LINE__);
    return -1;
  }
  if (h_display == nullptr) {
    g_return_if_fail_warning(nullptr, self, "h_display != NULL");
    return -1;
  }
  // One snapshot at a time: a second caller is refused at once, not queued.
  orlo::mutex_guard slot(h_display->mutex_jpegsnap, orlo::mutex_guard::try_lock);
  if (!slot.owns()) {
    g_warning("%s : %d : g_mutex_trylock fail!\n", self, __LINE__);
    return -2;
  }
  // A late answer to an abandoned request may be running in the callback.
  orlo::engine_answer(h_display->mutex_jpeg, h_display->cond_jpeg).locked([] {
    g_jpeg_result = orlo_jpeg_result_t{};
  });

  int port = -1;
  if (request(mode, ch, dispmode, dstn, timeimg, port) != 0) return -1;
  return await_jpeg(h_display, mode, port, {out_buf, out_word2, out_word3, out_word4, out_word5});
}
