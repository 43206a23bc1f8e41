// The software engine's H.264 intake under libFuzzer: random packets through
// one port's queue and decoder, then a compose pass.  An input is
//   byte 0      the port (low bits); 0xF0 and above: a region record follows
//   44 bytes    (only then) one region for display 0, above the mosaic
//   packets     each a 16-bit little-endian length and that many bytes.
// The engine is made once; a port's decoder carries its state from one input
// to the next as it does from one frame to the next.  Every port is held and
// the compositor stopped, so that decoding and composing run on the fuzzer's
// thread: no hand-off, no wait.
#include <glib.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

#include "engine.hh"
#include "ravel.h"
#include "ravel_soft.h"

namespace {

void release(void *) {}
// Damaged frames are logged; the run would spend its time printing them.
void quiet(const gchar *, GLogLevelFlags, const gchar *, gpointer) {}

// A small display 0 (640 x 480) keeps a compose pass cheap.
constexpr int32_t kFormat640x480 = 18;
constexpr int32_t kTileWidth = 640 / 6, kTileHeight = 480 / 3;

// The mosaic: every port on display 0, so that each picture is composed,
// and room for one region more on top.
ravel_region_t tiles[RAVEL_SOFT_PORTS + 1];

ravel_t *engine() {
  static ravel_t *made = [] {
    g_log_set_default_handler(quiet, nullptr);
    av_log_set_level(AV_LOG_QUIET);  // the decoder's own complaints, as many
    int32_t formats[4] = {kFormat640x480, 0, 0, 0};
    int32_t ids[4] = {0, 0, 0, 0};
    int32_t block[4] = {0, 0, 0, 0};
    ravel_t *e = ravel_new(formats, 0, 16, 1, 0, release, 0, 0, 0, 24, ids, 6, block);
    if (e == nullptr || ravel_start(e) != 0) abort();
    e->compositor->set_running(false);
    // Pictures no larger than the display keep libavcodec's buffers small:
    // a large buffer costs the sanitizer a mapping and fresh pages each time.
    for (auto &p : e->ports) {
      p->hold(true);
      p->limit_picture(640 * 480);
    }
    for (int32_t p = 0; p < RAVEL_SOFT_PORTS; ++p)
      tiles[p] = ravel_region_t{p,
                                (p % 6) * kTileWidth,
                                (p / 6) * kTileHeight,
                                kTileWidth,
                                kTileHeight,
                                1,
                                -1,
                                -1,
                                -1,
                                -1,
                                0};
    ravel_change_geometry(e, tiles, RAVEL_SOFT_PORTS, 0, 0);
    return e;
  }();
  return made;
}

// Offers a packet until the port's queue takes it; the packet is its own
// buffer.  Refused with an empty queue is a finding.
void push(int32_t port, std::vector<uint8_t> &packet) {
  for (int tries = 0; tries < 2; ++tries) {
    if (ravel_put_decode_stream(engine(), port, &packet, packet.data(),
                                static_cast<int32_t>(packet.size()), 0, nullptr, nullptr, 0,
                                0) == 0)
      return;
    engine()->ports[port]->run_queued_here();  // a full queue: decode what it holds
  }
  abort();
}

// Every frame the port took has gone back.
void check_released(int32_t port) {
  ravel_soft_port_stats_t s{};
  if (ravel_soft_port_stats(engine(), port, &s) != 0 || s.released != s.accepted) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  const int32_t port = data[0] % RAVEL_SOFT_PORTS;
  size_t at = 1;
  if (data[0] >= 0xF0 && size >= at + sizeof(ravel_region_t)) {
    memcpy(&tiles[RAVEL_SOFT_PORTS], data + at, sizeof(ravel_region_t));
    at += sizeof(ravel_region_t);
    ravel_change_geometry(engine(), tiles, RAVEL_SOFT_PORTS + 1, 0, 0);
  }
  // Packets are copied, each into a buffer of its own size, so that a read
  // beyond one is caught.
  std::vector<std::vector<uint8_t>> packets;
  while (at + 2 <= size) {
    size_t length = data[at] | (static_cast<size_t>(data[at + 1]) << 8);
    at += 2;
    if (length > size - at) length = size - at;
    if (length > 0) packets.emplace_back(data + at, data + at + length);
    at += length;
  }
  for (auto &p : packets) push(port, p);
  engine()->ports[port]->run_queued_here();
  check_released(port);
  if (!engine()->compositor->pass_here()) abort();
  return 0;
}
