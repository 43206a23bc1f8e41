// The engine's counters, per port, and their printout.
//
// Every accepted frame ends in exactly one of decoded, decode_errors, skipped
// and flushed, or is still queued: the port writes these under its own lock
// (port_decoder), so that a reader under that lock sees the sum hold.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>

namespace ravel_soft {

constexpr int kPorts = 18;

struct port_counters {
  std::atomic<uint64_t> accepted{0};        // frames taken into the port's queue
  std::atomic<uint64_t> refused{0};         // frames refused (queue full, engine not running)
  std::atomic<uint64_t> decoded{0};         // frames the decoder took without damage
  std::atomic<uint64_t> decode_errors{0};   // damaged frames, dropped
  std::atomic<uint64_t> skipped{0};         // frames passed over while waiting for an intra frame
  std::atomic<uint64_t> flushed{0};         // frames still queued at a port reset or a stop
  std::atomic<uint64_t> queued{0};          // frames in the port now (queue and decoder)
  std::atomic<uint64_t> pictures{0};        // good pictures out of the decoder
  std::atomic<uint64_t> shown{0};           // distinct pictures that reached a composed display
  std::atomic<uint64_t> released{0};        // frame buffers given back
  std::atomic<uint64_t> last_shown_seq{0};  // sequence number of the last picture shown
  std::atomic<bool> no_signal{false};       // the port's tiles show NO SIGNAL
};

class statistics {
 public:
  std::array<port_counters, kPorts> port;
  std::atomic<uint64_t> compose_passes{0};
  std::atomic<uint64_t> jpegs{0};

  // Prints the ports that saw any frame, with rates over the time since the
  // previous printout (or since the engine was created).
  void print();

 private:
  struct snapshot {
    uint64_t accepted = 0, decoded = 0, shown = 0;
  };
  std::mutex lock_;
  std::chrono::steady_clock::time_point last_ = std::chrono::steady_clock::now();
  std::array<snapshot, kPorts> previous_{};
  uint64_t previous_passes_ = 0;
};

}  // namespace ravel_soft
