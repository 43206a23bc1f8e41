// Streams and helpers shared by the engine's benchmarks.
#pragma once

#include <cstdint>
#include <vector>

#include "ravel.h"
#include "synth_stream.hh"

namespace engine_bench {

constexpr int kFrames = 50;  // two seconds, an intra frame every second; played in a loop

// Frames of a moving texture at `height` lines of 16:9 (640 x 360 and up):
// Baseline at 360 lines as a sub-stream, High with B frames above, as a
// recorder's main stream.  The same `variant` gives the same frames.
const std::vector<ravel_synth::frame> &stream(int height, int variant);
int width_of(int height);

// The process's engine, started, and its release count.
ravel_t *engine();
uint64_t released();

// A square mosaic big enough for n channels, on display 0.
void mosaic(int n);
// Pushes one frame (the frame's own bytes are the buffer); the engine's result.
int32_t put(int port, const ravel_synth::frame &f);

double process_cpu_seconds();
double thread_cpu_seconds();

}  // namespace engine_bench
