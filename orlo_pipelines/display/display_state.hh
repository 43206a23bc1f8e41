// Process-wide state of the display core: the one handle, the engine handle
// and the flags beside them.  Internal to liborlo.
#pragma once

#include <atomic>

#include "orlo_display.h"
#include "ravel.h"

// The handle, for the engine's callbacks, which get no user data.  Written
// once by creation, which runs before every other operation.
extern "C" orlo_display_t *g_display;
// The engine handle from ravel_new, NULL before creation.
extern "C" ravel_t *g_engine;

// 0 until the first geometry change has reached the engine.
extern std::atomic<int> _first_init;
// 1 until the first mode selection.
extern std::atomic<int> first_config_pending;
// 1 from the first successful ravel_start on; nothing clears it.
extern std::atomic<int> engine_ever_started;

namespace orlo {

// The states of a stream slot in `ch_enable`.
enum slot_enable : int32_t {
  SLOT_OFF = 0,
  SLOT_ON = 1,
  // The slot hands its port over to its partner of the pair: its frames feed
  // the partner's port until the partner has started, then it turns off.
  SLOT_LEAVING = 2,
};

// Drops the frame reference that the engine gives back.
void release_frame(void *buffer);

}  // namespace orlo
