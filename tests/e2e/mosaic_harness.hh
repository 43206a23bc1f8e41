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
#include <string>
#include <vector>

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
  return {static_cast<int>(c >> 16 & 0xff), static_cast<int>(c >> 8 & 0xff),
          static_cast<int>(c & 0xff)};
}

// H.264 at a low rate, the scalers and the YUV round trip move a flat colour
// by a few steps; different cameras differ by far more.
constexpr int kTolerance = 28;

inline bool near(const rgb &a, const rgb &b, int tolerance = kTolerance) {
  return std::abs(a.r - b.r) <= tolerance && std::abs(a.g - b.g) <= tolerance &&
         std::abs(a.b - b.b) <= tolerance;
}

inline std::string describe(const rgb &c) {
  char text[32];
  snprintf(text, sizeof text, "(%d,%d,%d)", c.r, c.g, c.b);
  return text;
}

// Packed RGB24 picture.
struct picture {
  int width = 0, height = 0;
  std::vector<uint8_t> data;

  // The median of each component over the middle of a rectangle: the camera
  // number and the ball are small beside the field, so the median is the
  // field's colour.
  rgb median(int x, int y, int w, int h) const {
    const int x0 = x + w / 5, x1 = x + w - w / 5, y0 = y + h / 4, y1 = y + h - h / 5;
    std::vector<int> r, g, b;
    for (int row = y0; row < y1; ++row)
      for (int col = x0; col < x1; ++col) {
        const uint8_t *p = &data[(static_cast<size_t>(row) * width + col) * 3];
        r.push_back(p[0]);
        g.push_back(p[1]);
        b.push_back(p[2]);
      }
    if (r.empty()) return {-1, -1, -1};
    auto mid = [](std::vector<int> &v) {
      std::nth_element(v.begin(), v.begin() + static_cast<long>(v.size() / 2), v.end());
      return v[v.size() / 2];
    };
    return {mid(r), mid(g), mid(b)};
  }
};

class mosaic {
 public:
  static constexpr int kDisplayFormat = 18;  // 640 x 480
  static constexpr int kCamWidth = 160, kCamHeight = 96;

  mosaic() {
    const int32_t formats[1] = {kDisplayFormat};
    h_display_ = orlo_display_new(formats, 0, 16, 0, 1, -1, nullptr);
    engine_ = ravel_soft_engine();
  }

  orlo_display_t *display() const { return h_display_; }
  ravel_t *engine() const { return engine_; }
  orlo_lumen_pipe_t *pipe() const { return pipe_; }

  // Mode selection and the mosaic: region i shows engine port ports[i].
  int show(int mode, const std::vector<int> &ports) {
    int channels[ORLO_MAX_VR];
    int flags[ORLO_MAX_VR] = {};
    for (int i = 0; i < ORLO_MAX_VR; ++i)
      channels[i] = i < static_cast<int>(ports.size()) ? ports[static_cast<size_t>(i)] : -1;
    if (orlo_display_mode_start(h_display_, mode) != 0) return -1;
    if (orlo_display_get_user_vr(h_display_, mode, 0, 0, 1920, 1080, channels, flags, vr_) != 0)
      return -1;
    return orlo_display_change(h_display_, vr_, 0, mode);
  }

  // Region i of the last layout in display pixels.
  void region(int i, int *x, int *y, int *w, int *h) const {
    int dw = 0, dh = 0;
    ravel_soft_display_size(engine_, 0, &dw, &dh);
    const orlo_vr_t &v = vr_[i];
    *x = v.x * dw / 1920;
    *y = v.y * dh / 1080;
    *w = v.width * dw / 1920;
    *h = v.height * dh / 1080;
  }

  // Live pipe with `cameras` cameras open; `streams` 1 main only, 3 both.
  // `configure` runs on the source before the cameras open.
  template <typename F>
  void start_live(int cameras, int streams, F configure) {
    pipe_ = orlo_lumen_pipe_new(0);
    GstElement *src = orlo_lumen_pipe_get_src(pipe_);
    g_object_set(src, "width", kCamWidth, "height", kCamHeight, "key-interval", 5, "bitrate", 256,
                 "streams", streams, nullptr);
    configure(src);
    orlo_lumen_pipe_start(pipe_);
    orlo_display_bind_src_pipe(h_display_, orlo_lumen_pipe_get_kelappsink(pipe_), 0);
    for (int j = 0; j < cameras; ++j) orlo_lumen_pipe_open_ch(pipe_, j);
  }
  void start_live(int cameras) {
    start_live(cameras, 1, [](GstElement *) {});
  }

  // The last composed picture of display 0, taken after a fresh compose pass.
  picture grab() const {
    picture p;
    ravel_soft_wait_compose(engine_, 2000);
    ravel_soft_display_size(engine_, 0, &p.width, &p.height);
    p.data.resize(static_cast<size_t>(p.width) * p.height * 3);
    ravel_soft_read_display(engine_, 0, p.data.data(), p.width * 3);
    return p;
  }

  ~mosaic() {
    if (pipe_ != nullptr) orlo_lumen_pipe_stop(pipe_);
    if (h_display_ != nullptr) orlo_display_stop(h_display_);
  }

 private:
  orlo_display_t *h_display_ = nullptr;
  ravel_t *engine_ = nullptr;
  orlo_lumen_pipe_t *pipe_ = nullptr;
  orlo_vr_t vr_[ORLO_MAX_VR] = {};
};

// Decode table that sends live channel j (stream slot 16 + j) to port[j].
inline std::vector<orlo_decode_cfg_t> live_table(const std::vector<int> &port) {
  std::vector<orlo_decode_cfg_t> table(ORLO_MAX_SLOT);
  for (size_t j = 0; j < port.size(); ++j) {
    table[16 + j].port = port[j];
    table[16 + j].enable = 1;
  }
  return table;
}

constexpr auto kDeadline = std::chrono::seconds(60);

}  // namespace e2e
