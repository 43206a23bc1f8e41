// The push of one frame to one engine port: the port's gate and state, the
// channel of its last intra frame, the retries, the playback timestamps and
// the snapshot requests.
#include <atomic>

#include "caller_check.hh"
#include "display/display_state.hh"
#include "ref_ptr.hh"
#include "shared_word.hh"
#include "stream/stream_delivery.hh"

namespace {

// The header channel of the last intra frame offered at each port.  Read and
// written under the handle's `mutex`.
int32_t last_intra_ch[ORLO_MAX_PORT];

// Per playback port, exchanged with snapshot callers that hold no lock.  The
// timestamps cover every port the accessors accept (0..31), not only the
// engine's 18, so a value stored is a value read back.
std::atomic<uint32_t> pb_timestamp[ORLO_MAX_PLAYBACK_CHANNEL];
std::atomic<int32_t> pb_snapshot_port[ORLO_MAX_PLAYBACK_CHANNEL];

// A port's `port_state`: in step it takes every frame; once it has lost a
// frame or seen a foreign one it takes intra frames only, until one gets
// through.
enum port_step : int32_t { PORT_IN_STEP = 0, PORT_LOST_STEP = 1 };

bool is_engine_port(int port) { return port >= 0 && port < ORLO_MAX_PORT; }

bool is_video_type(int type) {
  return type == orlo::FRAME_INTER || type == orlo::FRAME_INTRA || type == orlo::FRAME_INTRA_B;
}

enum class push_kind { ordinary, playback };

// Where the attempts go: a fixed port, or `main_port` read anew each round.
struct target {
  int port;
  bool follows_main_port;

  int current(orlo_display_t *h) const {
    return follows_main_port ? orlo::load_word(h->main_port) : port;
  }
};

// One offer of a frame at a port.  A playback offer first keeps the port's
// timestamp, and the first one that finds a snapshot waiting carries the
// JPEG callback.
int offer(int port, GstBuffer *buffer, const orlo::frame &f, push_kind kind) {
  ravel_jpeg_cb jpeg_cb = nullptr;
  if (kind == push_kind::playback) {
    orlo_set_pb_timestamp(port, f.timestamp);
    if (port < ORLO_MAX_PLAYBACK_CHANNEL && _check_pb_snapshot_port(static_cast<unsigned>(port))) {
      ravel_set_jpeg_timestamp(g_engine, port, f.timestamp);
      jpeg_cb = _cb_get_jpeg_image;
    }
  }
  return _put_decode_stream(port, buffer, f.payload, f.size, jpeg_cb, nullptr, f.channel, f.type);
}

void push(orlo_display_t *h, target to, const orlo::frame &f, push_kind kind) {
  if (!is_video_type(f.type)) {
    g_warning("Invalid Frame Type = %d\n", f.type);
    return;
  }
  int port = to.current(h);
  if (port == -1) return;  // no port: nothing is pushed
  if (!is_engine_port(port)) {
    g_warning("%s:%d: port %d is no engine port, frame of channel %d dropped\n", __func__, __LINE__,
              port, f.channel);
    return;
  }
  // The gate: a port that has lost step takes intra frames only.
  const int32_t state = h->port_state[port];
  if (state != PORT_IN_STEP && !(state == PORT_LOST_STEP && f.type != orlo::FRAME_INTER)) return;

  orlo::ref_ptr<GstBuffer> ref = orlo::ref(f.buffer);
  const int r = orlo::offer_with_retries(
      [&] { return offer(port, ref.get(), f, kind); },
      [&] {
        const int next = to.current(h);
        if (!is_engine_port(next)) return false;  // main_port went away: fail at the last port
        port = next;
        return h->port_state[port] != PORT_LOST_STEP;  // a port that lost step gets one offer
      });
  if (r == 0) {
    h->port_state[port] = PORT_IN_STEP;
    (void)ref.release();  // the engine gives it back through release
    return;
  }
  if (r == -1) g_warning("ravel push failed at port %d\n", port);
  ref.reset();
  h->port_state[port] = PORT_LOST_STEP;
}

}  // namespace

int _put_decode_stream(int port, GstBuffer *buffer, const uint8_t *data, int size,
                       ravel_jpeg_cb jpeg_cb, ravel_image_cb image_cb, int channel, int type) {
  if (type == orlo::FRAME_INTRA || type == orlo::FRAME_INTRA_B) {
    last_intra_ch[port] = channel;
  } else if (channel != last_intra_ch[port]) {
    g_warning("previous ch(%d) is not matched with current ch(%d)\n", last_intra_ch[port], channel);
    return -2;
  }
  const int32_t r =
      ravel_put_decode_stream(g_engine, port, buffer, data, size, 0, jpeg_cb, image_cb, 0, 0);
  return r < 0 ? -1 : 0;
}

void _enable_pb_snapshot_port(unsigned ch, int value) { pb_snapshot_port[ch].store(value); }

bool _check_pb_snapshot_port(unsigned ch) {
  int32_t expected = 1;
  return pb_snapshot_port[ch].compare_exchange_strong(expected, 0);
}

extern "C" ORLO_API uint32_t orlo_get_pb_timestamp(int port) {
  ORLO_RETURN_VAL_IF_FAIL(port >= 0, 0);
  if (port >= ORLO_MAX_PLAYBACK_CHANNEL) return 0;
  return pb_timestamp[port].load(std::memory_order_relaxed);
}

extern "C" ORLO_API void orlo_set_pb_timestamp(int port, uint32_t timestamp) {
  ORLO_RETURN_IF_FAIL(port >= 0);
  if (port >= ORLO_MAX_PLAYBACK_CHANNEL) return;
  pb_timestamp[port].store(timestamp, std::memory_order_relaxed);
}

namespace orlo {

void push_frame(orlo_display_t *h, int port, const frame &f) {
  push(h, {port, false}, f, push_kind::ordinary);
}

void push_frame_to_main_port(orlo_display_t *h, const frame &f) {
  push(h, {-1, true}, f, push_kind::ordinary);
}

void push_playback_frame(orlo_display_t *h, int port, const frame &f) {
  push(h, {port, false}, f, push_kind::playback);
}

}  // namespace orlo
