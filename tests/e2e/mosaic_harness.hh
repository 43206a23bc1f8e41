// The whole road of a frame with nothing faked: synthetic cameras in a live
// pipe, its sink bound to the display, the render worker, the software
// engine's decoders and compositor.  Pictures are small (cameras of 160 x 96,
// a display of 640 x 480) so that a loaded two-core machine keeps up; every
// wait is for a condition, with a generous deadline.
#pragma once

#include <gst/gst.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "eventually.hh"
#include "orlo_display.h"
#include "orlo_lumen_pipe.h"
#include "ravel_soft.h"

namespace e2e {

struct rgb {
  int r, g, b;
};

// The synthetic cameras' field colours (ARGB 0xff1f77b4 ...), camera by camera.
constexpr std::array<uint32_t, 16> kCameraColour = {
    0x1f77b4, 0xd62728, 0x2ca02c, 0xff7f0e, 0x9467bd, 0x8c564b, 0xe377c2, 0x7f7f7f,
    0xbcbd22, 0x17becf, 0x003f5c, 0x7a5195, 0xef5675, 0xffa600, 0x2f4b7c, 0x665191,
};

inline rgb camera_colour(int camera) {
  const uint32_t c = kCameraColour[static_cast<size_t>(camera)];
  return {int(c >> 16 & 0xff), int(c >> 8 & 0xff), int(c & 0xff)};
}

// H.264 at a low rate, the scalers and the YUV round trip move a flat colour
// by a few steps; different cameras differ by far more.
inline bool near(const rgb &a, const rgb &b, int tolerance = 28) {
  return std::abs(a.r - b.r) <= tolerance && std::abs(a.g - b.g) <= tolerance &&
         std::abs(a.b - b.b) <= tolerance;
}

inline std::string describe(const rgb &c) {
  return "(" + std::to_string(c.r) + "," + std::to_string(c.g) + "," + std::to_string(c.b) + ")";
}

// Packed RGB24 picture of display 0.
struct picture {
  int width = 0, height = 0;
  std::vector<uint8_t> data;
};

struct mosaic {
  orlo_display_t *display = nullptr;
  ravel_t *engine = nullptr;
  orlo_lumen_pipe_t *pipe = nullptr;
  orlo_vr_t vr[ORLO_MAX_VR] = {};
  std::vector<orlo_decode_cfg_t> table = std::vector<orlo_decode_cfg_t>(ORLO_MAX_SLOT);

  mosaic() {
    const int32_t formats[1] = {18};  // 640 x 480
    display = orlo_display_new(formats, 0, 16, 0, 1, -1, nullptr);
    engine = ravel_soft_engine();
  }
  ~mosaic() {
    if (pipe != nullptr) orlo_lumen_pipe_stop(pipe);
    if (display != nullptr) orlo_display_stop(display);
  }

  // Mode selection and the mosaic: region i shows engine port ports[i].
  int show(int mode, const std::vector<int> &ports) {
    int channels[ORLO_MAX_VR], flags[ORLO_MAX_VR] = {};
    for (int i = 0; i < ORLO_MAX_VR; ++i)
      channels[i] = i < static_cast<int>(ports.size()) ? ports[static_cast<size_t>(i)] : -1;
    if (orlo_display_mode_start(display, mode) != 0 ||
        orlo_display_get_user_vr(display, mode, 0, 0, 1920, 1080, channels, flags, vr) != 0)
      return -1;
    return orlo_display_change(display, vr, 0, mode);
  }

  // The decode table: live channel j (stream slot 16 + j) goes to port[j].
  int decode(const std::vector<int> &port) {
    for (size_t j = 0; j < port.size(); ++j) {
      table[16 + j].port = port[j];
      table[16 + j].enable = 1;
    }
    return orlo_display_decode_change(display, table.data());
  }

  // The colour of region i of the last layout in `p`: the median of each
  // component over its middle, where the camera number and the ball are
  // small beside the field.
  rgb tile(const picture &p, int i) const {
    const int x = vr[i].x * p.width / 1920, w = vr[i].width * p.width / 1920;
    const int y = vr[i].y * p.height / 1080, h = vr[i].height * p.height / 1080;
    std::vector<int> c[3];
    for (int row = y + h / 4; row < y + h - h / 5; ++row)
      for (int col = x + w / 5; col < x + w - w / 5; ++col)
        for (int k = 0; k < 3; k++) c[k].push_back(p.data[(size_t(row) * p.width + col) * 3 + k]);
    if (c[0].empty()) return {-1, -1, -1};
    for (auto &v : c) std::nth_element(v.begin(), v.begin() + long(v.size() / 2), v.end());
    return {c[0][c[0].size() / 2], c[1][c[1].size() / 2], c[2][c[2].size() / 2]};
  }
  rgb tile(int i) const { return tile(grab(), i); }

  // Waits until region i of the last layout shows want[i]; gives the
  // mismatches of the last look otherwise.
  std::string wait_for_tiles(const std::vector<rgb> &want) const {
    std::string bad;
    testing_support::eventually(
        [&] {
          const picture p = grab();
          bad.clear();
          for (size_t i = 0; i < want.size(); ++i)
            if (!near(tile(p, int(i)), want[i]))
              bad += "tile " + std::to_string(i) + " saw " + describe(tile(p, int(i))) + "; ";
          return bad.empty();
        },
        60);
    return bad;
  }

  // Live pipe of 160 x 96 cameras with `cameras` open; `streams` 1 main
  // only, 3 both.  `configure` runs on the source before the cameras open.
  void start_live(int cameras, int streams = 1,
                  const std::function<void(GstElement *)> &configure = {}) {
    pipe = orlo_lumen_pipe_new(0);
    GstElement *src = orlo_lumen_pipe_get_src(pipe);
    g_object_set(src, "width", 160, "height", 96, "key-interval", 5, "bitrate", 256, "streams",
                 streams, nullptr);
    if (configure) configure(src);
    orlo_lumen_pipe_start(pipe);
    orlo_display_bind_src_pipe(display, orlo_lumen_pipe_get_kelappsink(pipe), 0);
    for (int j = 0; j < cameras; ++j) orlo_lumen_pipe_open_ch(pipe, j);
  }

  // The last composed picture of display 0, taken after a fresh compose pass.
  picture grab() const {
    picture p;
    ravel_soft_wait_compose(engine, 2000);
    ravel_soft_display_size(engine, 0, &p.width, &p.height);
    p.data.resize(static_cast<size_t>(p.width) * p.height * 3);
    ravel_soft_read_display(engine, 0, p.data.data(), p.width * 3);
    return p;
  }
};

}  // namespace e2e
