// The software engine behind the handle that ravel_new gives.
#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <mutex>

#include "compositor.hh"
#include "control_state.hh"
#include "display_window.hh"
#include "port_decoder.hh"
#include "ravel.h"
#include "statistics.hh"
#include "still_images.hh"

// Per port, the settings that go into the JPEG callback's words.
struct ravel_port_jpeg {
  std::atomic<uint32_t> timestamp{0};
  std::atomic<uint32_t> dstn{0};
  std::atomic<uint32_t> timeimg{0};
};

struct ravel {
  ravel(ravel_release_fn release, int32_t ch_count, int width0, int height0);
  // Ends every thread of the engine; the memory stays (see ravel_engine.cc).
  void shutdown();
  bool port_ok(int32_t port) const { return port >= 0 && port < ravel_soft::kPorts; }
  bool running() const { return started.load() && !closed.load(); }

  const ravel_release_fn release;
  const int32_t ch_count;
  ravel_soft::statistics stats;
  ravel_soft::control_state control;
  std::array<ravel_port_jpeg, ravel_soft::kPorts> jpeg;
  std::array<std::unique_ptr<ravel_soft::port_decoder>, ravel_soft::kPorts> ports;
  std::unique_ptr<ravel_soft::compositor> compositor;
  std::unique_ptr<ravel_soft::still_requests> stills;

  std::mutex windows_lock;
  std::array<std::unique_ptr<ravel_soft::display_window>, ravel_soft::compositor::kDisplays>
      windows;

  // A port with a picture that gets no frame for this long shows NO SIGNAL;
  // 0 turns the watch off.
  std::atomic<int32_t> signal_timeout_ms{5000};
  std::atomic<bool> started{false};
  std::atomic<bool> closed{false};
  std::atomic<bool> idle_refusal_logged{false};
};

// The process's engine, NULL before ravel_new.
ravel *ravel_current();
