// Synthetic H.264 streams for the engine's tests and benchmarks: each frame is
// one Annex B access unit, as a live source delivers it.
#pragma once

#include <cstdint>
#include <vector>

namespace ravel_synth {

struct rgb {
  uint8_t r, g, b;
};

struct stream_options {
  int width = 160;
  int height = 96;
  int frames = 10;
  int gop = 10;                // an intra frame every `gop` frames
  bool pattern = false;        // a moving texture instead of a flat colour (costs the decoder more)
  int bitrate_kbps = 0;        // 0: constant quality
  int b_frames = 0;            // B frames between reference frames (High profile when > 0)
  const rgb *right = nullptr;  // when set, the right half of the picture has this colour
  const rgb *colours = nullptr;  // when set, frame i has colours[i] (`frames` entries)
};

struct frame {
  std::vector<uint8_t> data;  // one access unit, Annex B
  bool intra = false;
};

// Encodes `opt.frames` pictures of `colour` (or a moving texture tinted by it)
// with libx264.  Empty on failure.
std::vector<frame> encode(rgb colour, const stream_options &opt);

// The colour that a flat picture of `colour` decodes to: the encoder works in
// limited-range BT.601 YUV, so this is the reference for comparisons.
rgb through_yuv(rgb colour);

}  // namespace ravel_synth
