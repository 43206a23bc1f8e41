// Streams and helpers shared by the engine's benchmarks.
#pragma once

#include <cstdint>
#include <string>
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

// The two kinds of stream the benchmarks feed: the synthetic ones above
// (cheap to decode: a smooth texture) and files from libx264 (x264_files.hh).
enum kind : int { kSynthetic = 0, kX264 = 1 };
// NULL when the kind cannot be had here.
const std::vector<ravel_synth::frame> *frames_of(int kind, int height, int variant);
const char *kind_name(int kind);
// Why the streams of a kind at `height` lines cannot be had (then also told
// on standard error); empty when they can.  Made here when missing.
std::string streams_missing(int kind, int height);

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
