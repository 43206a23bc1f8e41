// The software engine's H.264 intake under libFuzzer: random packets through
// one port's queue and decoder while the compositor draws.  An input is
//   byte 0      the port (low bits); 0xF0 and above: a region record follows
//   44 bytes    (only then) one region for display 0, then a compose pass
//   packets     each a 16-bit little-endian length and that many bytes.
// The engine is made once; a port's decoder carries its state from one input
// to the next as it does from one frame to the next.
#include <glib.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

#include "ravel.h"
#include "ravel_soft.h"

namespace {

void release(void *) {}
// Damaged frames are logged; the run would spend its time printing them.
void quiet(const gchar *, GLogLevelFlags, const gchar *, gpointer) {}

ravel_t *engine() {
  static ravel_t *made = [] {
    g_log_set_default_handler(quiet, nullptr);
    av_log_set_level(AV_LOG_QUIET);  // the decoder's own complaints, as many
    int32_t formats[4] = {0, 0, 0, 0};
    int32_t ids[4] = {0, 0, 0, 0};
    int32_t block[4] = {0, 0, 0, 0};
    ravel_t *e = ravel_new(formats, 0, 16, 1, 0, release, 0, 0, 0, 24, ids, 6, block);
    if (e == nullptr || ravel_start(e) != 0) abort();
    // Every port on both displays, so that each picture is composed.
    ravel_region_t tiles[RAVEL_SOFT_PORTS];
    for (int32_t p = 0; p < RAVEL_SOFT_PORTS; ++p)
      tiles[p] = ravel_region_t{p, (p % 6) * 320, (p / 6) * 360, 320, 360, 1, -1, -1, -1, -1, 0};
    ravel_change_geometry(e, tiles, RAVEL_SOFT_PORTS, 0, 0);
    ravel_change_geometry(e, tiles, RAVEL_SOFT_PORTS, 2, 0);
    return e;
  }();
  return made;
}

ravel_soft_port_stats_t stats(int32_t port) {
  ravel_soft_port_stats_t s{};
  if (ravel_soft_port_stats(engine(), port, &s) != 0) abort();
  return s;
}

// Waits until the port has given back every frame it took; an engine that
// holds one for 10 s is a finding.
void drain(int32_t port) {
  const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  for (;;) {
    const ravel_soft_port_stats_t s = stats(port);
    if (s.released == s.accepted) return;
    if (std::chrono::steady_clock::now() > give_up) abort();
    std::this_thread::sleep_for(std::chrono::microseconds(50));
  }
}

// Offers a packet until the port's queue takes it; the packet is its own
// buffer.  Refused with an empty queue is a finding.
void push(int32_t port, std::vector<uint8_t> &packet) {
  for (int tries = 0; tries < 2; ++tries) {
    if (ravel_put_decode_stream(engine(), port, &packet, packet.data(),
                                static_cast<int32_t>(packet.size()), 0, nullptr, nullptr, 0,
                                0) == 0)
      return;
    drain(port);  // a full queue: let the decoder catch up
  }
  abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  const int32_t port = data[0] % RAVEL_SOFT_PORTS;
  size_t at = 1;
  if (data[0] >= 0xF0 && size >= at + sizeof(ravel_region_t)) {
    ravel_region_t region;
    memcpy(&region, data + at, sizeof region);
    at += sizeof region;
    ravel_change_geometry(engine(), &region, 1, 0, 0);
  }
  // Packets are copied: the engine reads them after the call returns.
  std::vector<std::vector<uint8_t>> packets;
  while (at + 2 <= size) {
    size_t length = data[at] | (static_cast<size_t>(data[at + 1]) << 8);
    at += 2;
    if (length > size - at) length = size - at;
    if (length > 0) packets.emplace_back(data + at, data + at + length);
    at += length;
  }
  for (auto &p : packets) push(port, p);
  drain(port);
  if (data[0] >= 0xF0) ravel_soft_wait_compose(engine(), 2000);
  return 0;
}
