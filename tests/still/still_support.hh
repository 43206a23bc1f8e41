// Shared pieces of the still-image tests.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>

#include "fake_engine.hh"
#include "kel_buffers.h"
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

// A frame buffer with the 24-byte header and `size` payload bytes 0, 1, ...
inline GstBuffer *make_frame(int channel, int type, int size) {
  GstBuffer *b = gst_kel_buddy_buffer_new(24 + static_cast<gsize>(size));
  uint8_t *d = gst_kel_buddy_buffer_get_meta(b)->data;
  d[0] = static_cast<uint8_t>(channel);
  const uint32_t s = static_cast<uint32_t>(size);
  std::memcpy(d + 4, &s, 4);
  d[8] = static_cast<uint8_t>(type);
  for (int i = 0; i < size; i++) d[24 + i] = static_cast<uint8_t>(i);
  return b;
}

// Counts the finalisations of the buffers it watches.
struct finalize_counter {
  int finalized = 0;
  GstBuffer *watch(GstBuffer *b) {
    gst_mini_object_weak_ref(
        GST_MINI_OBJECT_CAST(b),
        [](gpointer self, GstMiniObject *) { ++static_cast<finalize_counter *>(self)->finalized; },
        this);
    return b;
  }
};

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
