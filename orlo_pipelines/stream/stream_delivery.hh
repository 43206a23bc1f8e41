// Stream delivery inside liborlo: the frame format, the push of one frame to
// an engine port, the JPEG hand-over and the render worker.  The still-image
// code offers its frames and waits for its JPEGs through these.
#pragma once

#include <gst/gst.h>
#include <unistd.h>

#include <cstdint>

#include "kelapp_sink.h"
#include "orlo_display.h"
#include "ravel.h"

// ---- JPEG result hand-over ----

// The one snapshot result, filled by _cb_get_jpeg_image under the handle's
// mutex_jpeg and read by the waiting snapshot call.
struct orlo_jpeg_result_t {
  void *buf;  // the JPEG, released with free(); NULL: no answer yet
  // The callback's five words as they come (ravel_jpeg_cb names them:
  // port, JPEG size, width, height, time stamp); word1 is never given out.
  uint32_t word1;
  uint32_t word2;
  uint32_t word3;
  uint32_t word4;
  uint32_t word5;
  int32_t cancel;  // 1 once the caller has given up on the answer
};
extern orlo_jpeg_result_t g_jpeg_result;

// The callback given to the engine for a JPEG; runs on an engine thread.
void _cb_get_jpeg_image(void **pbuf, uint32_t word1, uint32_t word2, uint32_t word3, uint32_t word4,
                        uint32_t word5);

// ---- engine push ----

// The one gate to ravel_put_decode_stream, for an engine port (0 to
// ORLO_MAX_PORT - 1; the callers check).  0 accepted, -1 refused by the
// engine (worth a retry), -2 a foreign channel (not worth one).  Called with
// the handle's `mutex` held.
int _put_decode_stream(int port, GstBuffer *buffer, const uint8_t *data, int size,
                       ravel_jpeg_cb jpeg_cb, ravel_image_cb image_cb, int channel, int type);

// A snapshot's request for the next frame at a playback port, and its
// consumption by the playback push.  `ch` must be below
// ORLO_MAX_PLAYBACK_CHANNEL.
void _enable_pb_snapshot_port(unsigned ch, int value);
bool _check_pb_snapshot_port(unsigned ch);

namespace orlo {

// An engine that refuses a frame gets it again after a short sleep, up to
// PUSH_ATTEMPTS offers in all.
constexpr int PUSH_ATTEMPTS = 21;
constexpr useconds_t PUSH_RETRY_SLEEP_US = 1000;

// Offers a frame until the engine answers other than "refused" (-1): `offer`
// makes one offer and gives _put_decode_stream's result.  After each refusal
// comes a sleep; then `again()` says whether another offer is worth making
// (it may also ready it), and after PUSH_ATTEMPTS offers there is none.
// Gives the last offer's result.
template <typename Offer, typename Again>
int offer_with_retries(Offer offer, Again again) {
  for (int made = 1;; made++) {
    const int result = offer();
    if (result != -1) return result;
    usleep(PUSH_RETRY_SLEEP_US);
    if (!again() || made == PUSH_ATTEMPTS) return -1;
  }
}

// The frame header that the source elements put in front of every payload,
// little-endian; the library only reads it.
constexpr int FRAME_HEADER_BYTES = 24;
constexpr int FRAME_CHANNEL_OFFSET = 0;
constexpr int FRAME_SIZE_OFFSET = 4;
constexpr int FRAME_TYPE_OFFSET = 8;
constexpr int FRAME_TIMESTAMP_OFFSET = 12;

enum frame_type : int {
  FRAME_INTER = 0,
  FRAME_INTRA = 1,    // starts a slot
  FRAME_INTRA_B = 5,  // records the channel at the port, starts no slot
  FRAME_AUDIO = 10,
};

// One frame of a list, read once; the buffer is borrowed from the list.
struct frame {
  GstBuffer *buffer = nullptr;
  const uint8_t *payload = nullptr;
  int32_t size = 0;
  int channel = 0;
  int type = 0;
  uint32_t timestamp = 0;
};

// Reads a list member as a frame.  False for anything that is no frame: no
// buddy buffer (silently, members of other kinds may ride along), or a buddy
// buffer shorter than its header or shorter than the payload its header
// claims (with a warning).
bool read_frame(GstBuffer *member, frame &out);

// The ordinary push of a frame to `port`: the port's gate, up to 21 attempts
// with a 1000-microsecond sleep after each refusal, the port's state.  The
// push takes its own reference on the frame; a frame the gate, a bad type or
// the engine keeps back is given up (the render pass has no use for why).
void push_frame(orlo_display_t *h, int port, const frame &f);
// The same to the handle's `main_port`, read afresh for every attempt; a
// `main_port` of -1 pushes nothing.
void push_frame_to_main_port(orlo_display_t *h, const frame &f);
// The playback push: keeps the port's timestamp and serves a waiting
// snapshot with the first attempt.
void push_playback_frame(orlo_display_t *h, int port, const frame &f);

// Plays an audio frame if the handle's audio choice selects it.
void play_audio_frame(orlo_display_t *h, const frame &f);

}  // namespace orlo

// The render worker: one call per buffer that a bound sink renders, on the
// sink's streaming thread.  Always 0.
gint orlo_display_push_buffers(GstKelAppSink *sink, gpointer h_display);
