// H.264 files made by FFmpeg's libx264, as a recorder's cameras send them:
// High profile with B frames, 25 fps, an intra frame every 1.52 s, over a
// busy, noisy test picture that costs a decoder what real video does.  They
// are made at the first use into a cache folder of the build tree and kept.
#pragma once

#include <string>
#include <vector>

#include "synth_stream.hh"

namespace engine_bench {

constexpr int kX264Frames = 100;  // four seconds, played in a loop

// The frames of the file for `height` lines of 16:9, one access unit each;
// NULL when ffmpeg or its libx264 encoder is missing
// (x264_missing() then says so) or the file cannot be made.
const std::vector<ravel_synth::frame> *x264_stream(int height, int variant);
// Why the files cannot be made; empty when they can.
std::string x264_missing();

}  // namespace engine_bench
