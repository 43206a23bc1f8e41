// Shared pieces of the still-image tests.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "fake_engine.hh"
#include "frames.hh"
#include "log_capture.hh"
#include "orlo_display.h"

namespace still {

using testing_support::log_capture;

inline orlo_display_t *make_display() {
  static const int32_t formats[] = {0};
  orlo_display_t *h = orlo_display_new(formats, 0, 16, 0, 1, -1, nullptr);
  EXPECT_NE(h, nullptr);
  return h;
}

using testing_support::free_counter;

// A frame whose `size` payload bytes are 0, 1, ...
inline GstBuffer *make_frame(int channel, int type, int size) {
  std::string payload(static_cast<size_t>(size), '\0');
  for (int i = 0; i < size; i++) payload[static_cast<size_t>(i)] = static_cast<char>(i);
  return testing_support::make_frame(uint8_t(channel), uint8_t(type), payload);
}

// Whether a warning contains `piece` (the lines carry a line number).
inline bool logged(const log_capture &log, const std::string &piece) {
  for (const auto &t : log.texts(G_LOG_LEVEL_WARNING))
    if (t.find(piece) != std::string::npos) return true;
  return false;
}

// Runs `fn` on a thread of its own, as the engine answers: before the caller
// starts to wait or while it waits, whichever the scheduler makes of it; the
// caller must take the answer either way.
template <typename Fn>
void on_engine_thread(Fn fn) {
  std::thread(fn).detach();
}

}  // namespace still
