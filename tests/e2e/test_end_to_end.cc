// The whole road of a frame with nothing faked: cameras in a live pipe, its
// sink bound to the display, the render worker, the software engine's
// decoders and compositor; the composed display shows each source where the
// layout and the decode table put it.  Pictures are small (cameras of
// 160 x 96, a display of 640 x 480) so that a loaded two-core machine keeps
// up; every wait is for a condition, with a generous deadline.
#include <gst/gst.h>
#include <gst/rtsp-server/rtsp-server.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "eventually.hh"
#include "orlo_display.h"
#include "orlo_lumen_pipe.h"
#include "ravel_soft.h"

namespace {

using testing_support::eventually;

using rgb = std::array<int, 3>;
const rgb red = {255, 0, 0}, green = {0, 255, 0}, blue = {0, 0, 255};

// The synthetic camera 0's field colour (ARGB 0xff1f77b4).
const rgb camera0 = {0x1f, 0x77, 0xb4};

// H.264 at a low rate, the scalers and the YUV round trip move a flat colour
// by a few steps; different cameras differ by far more.
bool near(const rgb &a, const rgb &b, int tolerance = 28) {
  return std::ranges::equal(a, b, [=](int x, int y) { return std::abs(x - y) <= tolerance; });
}

struct mosaic {
  const int32_t formats[1] = {18};  // 640 x 480
  orlo_display_t *display = orlo_display_new(formats, 0, 16, 0, 1, -1, nullptr);
  ravel_t *engine = ravel_soft_engine();  // the one that display made
  orlo_lumen_pipe_t *pipe = nullptr;
  orlo_vr_t vr[ORLO_MAX_VR] = {};
  orlo_decode_cfg_t table[ORLO_MAX_SLOT] = {};

  ~mosaic() {
    if (pipe != nullptr) orlo_lumen_pipe_stop(pipe);
    if (display != nullptr) orlo_display_stop(display);
  }

  // Mode selection and the mosaic: region i shows engine port ports[i].
  int show(int mode, const std::vector<int> &ports) {
    int channels[ORLO_MAX_VR], flags[ORLO_MAX_VR] = {};
    std::ranges::fill(channels, -1);
    std::ranges::copy(ports, channels);
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
    return orlo_display_decode_change(display, table);
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

  // The colour of region i of the last layout in a fresh compose pass: the
  // median of each component over its middle, where the camera number and
  // the ball are small beside the field.
  rgb tile(int i) const {
    int width = 0, height = 0;
    ravel_soft_wait_compose(engine, 2000);
    ravel_soft_display_size(engine, 0, &width, &height);
    std::vector<uint8_t> p(size_t(width) * height * 3);
    ravel_soft_read_display(engine, 0, p.data(), width * 3);
    const int x = vr[i].x * width / 1920, w = vr[i].width * width / 1920;
    const int y = vr[i].y * height / 1080, h = vr[i].height * height / 1080;
    std::vector<int> c[3];
    for (int row = y + h / 4; row < y + h - h / 5; ++row)
      for (int col = x + w / 5; col < x + w - w / 5; ++col)
        for (int k = 0; k < 3; k++) c[k].push_back(p[(size_t(row) * width + col) * 3 + k]);
    if (c[0].empty()) return {-1, -1, -1};
    for (auto &v : c) std::nth_element(v.begin(), v.begin() + long(v.size() / 2), v.end());
    return {c[0][c[0].size() / 2], c[1][c[1].size() / 2], c[2][c[2].size() / 2]};
  }

  // Waits until region i of the last layout shows want[i]; gives what the
  // last look saw otherwise.
  std::string wait_for_tiles(const std::vector<rgb> &want) const {
    std::vector<rgb> seen;
    const auto all_near = [&] {
      seen.clear();
      for (size_t i = 0; i < want.size(); ++i) seen.push_back(tile(int(i)));
      return std::ranges::equal(seen, want, [](auto &a, auto &b) { return near(a, b); });
    };
    return eventually(all_near, 60) ? "" : "saw " + testing::PrintToString(seen);
  }
};

// Port 0 moves from camera 0's main stream (slot 16) to its sub stream
// (slot 32), which a source of another colour feeds: the tile turns from the
// one colour to the other with no black picture between.
TEST(EndToEnd, SeamlessSwitchOfAPairChangesTheTileWithoutBlack) {
  mosaic m;
  ASSERT_EQ(m.show(1, {0}), 0);
  ASSERT_EQ(m.decode({0}), 0);
  m.start_live(1, 3, [](GstElement *src) {
    // A second between intra frames: the tile is watched before the switch.
    g_object_set(src, "key-interval", 25, nullptr);
    g_object_set(src, "channel", 0, "stream", 1, "uri",
                 "testbin://video,pattern=red,is-live=(boolean)true", nullptr);
  });
  ASSERT_EQ(m.wait_for_tiles({camera0}), "");

  // The main stream's slot leaves (2) in favour of its partner (1) on the
  // same port.
  m.table[16].enable = 2;
  m.table[32].port = 0;
  m.table[32].enable = 1;
  ASSERT_EQ(orlo_display_decode_change(m.display, m.table), 0);

  // Every compose pass until the partner has held the tile for a while.
  int main_again = 0, partner_seen = 0;
  std::string other;
  eventually(
      [&] {
        const rgb seen = m.tile(0);
        if (near(seen, camera0))
          main_again += partner_seen > 0;
        else if (near(seen, red))
          partner_seen++;
        else
          other += testing::PrintToString(seen) + " ";
        return partner_seen == 10;
      },
      60);
  EXPECT_EQ(partner_seen, 10) << "the tile never settled on the partner's colour";
  EXPECT_EQ(main_again, 0) << "the main stream came back after the switch";
  EXPECT_EQ(other, "") << "pictures that were neither stream (black between?)";
}

// An RTSP server of a flat picture at rtsp://127.0.0.1:<port>/cam, on a main
// context of its own; it can be stopped (clients dropped, socket closed) and
// started again on the same port, or fall silent with its clients connected.
struct rtsp_camera {
  const std::string pattern;
  GMainContext *context = g_main_context_new();
  GMainLoop *loop = g_main_loop_new(context, FALSE);
  std::thread thread{[this] { g_main_loop_run(loop); }};
  GstRTSPServer *server = nullptr;
  guint source = 0;
  int port = 0;
  std::atomic<GstElement *> gate{nullptr};  // the shared media's valve

  explicit rtsp_camera(const char *p) : pattern(p) { start(); }
  ~rtsp_camera() {
    stop();
    g_main_loop_quit(loop);
    thread.join();
    g_main_loop_unref(loop);
    g_main_context_unref(context);
  }
  std::string uri() const { return "rtsp://127.0.0.1:" + std::to_string(port) + "/cam"; }

  void start() {
    server = gst_rtsp_server_new();
    gst_rtsp_server_set_address(server, "127.0.0.1");
    gst_rtsp_server_set_service(server, std::to_string(port).c_str());
    GstRTSPMediaFactory *factory = gst_rtsp_media_factory_new();
    const std::string launch =
        "( videotestsrc is-live=true pattern=" + pattern +
        " ! video/x-raw,width=160,height=96,framerate=25/1 ! valve name=gate ! "
        "x264enc tune=zerolatency speed-preset=ultrafast key-int-max=10 ! "
        "rtph264pay name=pay0 pt=96 config-interval=1 )";
    gst_rtsp_media_factory_set_launch(factory, launch.c_str());
    gst_rtsp_media_factory_set_shared(factory, TRUE);
    g_signal_connect(factory, "media-configure", G_CALLBACK(on_media), this);
    GstRTSPMountPoints *mounts = gst_rtsp_server_get_mount_points(server);
    gst_rtsp_mount_points_add_factory(mounts, "/cam", factory);
    g_object_unref(mounts);
    source = gst_rtsp_server_attach(server, context);
    if (port == 0) port = gst_rtsp_server_get_bound_port(server);
  }
  static void on_media(GstRTSPMediaFactory *, GstRTSPMedia *media, gpointer self) {
    GstElement *bin = gst_rtsp_media_get_element(media);
    if (GstElement *old = static_cast<rtsp_camera *>(self)->gate.exchange(
            gst_bin_get_by_name(GST_BIN(bin), "gate")))
      gst_object_unref(old);
    gst_object_unref(bin);
  }

  // Stops (or starts again) sending pictures once a client plays the
  // stream; the connections stay.
  void set_silent(bool silent) { g_object_set(gate.load(), "drop", silent, nullptr); }

  void stop() {
    if (server == nullptr) return;
    g_source_destroy(g_main_context_find_source_by_id(context, source));
    gst_rtsp_server_client_filter(
        server, [](GstRTSPServer *, GstRTSPClient *, gpointer) { return GST_RTSP_FILTER_REMOVE; },
        nullptr);
    g_clear_object(&server);
    if (GstElement *old = gate.exchange(nullptr)) gst_object_unref(old);
  }
};

// The application's part: a camera's signal goes to its port (camera j
// decodes on port j + 1, modulo 3, here).
void on_signal_changed(GstElement *, gint camera, gboolean present, gpointer engine) {
  ravel_soft_set_port_signal(static_cast<ravel_t *>(engine), (camera + 1) % 3, present ? 1 : 0);
}

guint no_signal(mosaic &m) {
  guint mask = 0;
  g_object_get(orlo_lumen_pipe_get_src(m.pipe), "no-signal", &mask, nullptr);
  return mask;
}

// Camera 0's server stops and starts again; camera 2's falls silent with its
// connection open and sends again; camera 1 plays a file throughout.  Camera
// j decodes on port j + 1 and the layout scatters the ports, so a tile is
// right only if both the decode table and the layout were used.
TEST(EndToEnd, RtspCamerasThatGoAwayOrFallSilentShowNoSignalAndComeBackBesideAFile) {
  gst_init(nullptr, nullptr);
  // A 4 s file of flat blue with B frames.
  const std::string file = ::testing::TempDir() + "live-sources-blue.mp4";
  const std::string make =
      "ffmpeg -v error -y -f lavfi -i color=c=0x0000ff:s=320x180:r=25 -t 4 "
      "-c:v libx264 -profile:v high -bf 3 -pix_fmt yuv420p " +
      file;
  ASSERT_EQ(std::system(make.c_str()), 0);
  rtsp_camera going("red"), silent("green");
  mosaic m;
  ASSERT_EQ(m.show(2, {2, 0, 1}), 0);
  ASSERT_EQ(m.decode({1, 2, 0}), 0);
  m.start_live(3, 1, [&](GstElement *src) {
    g_signal_connect(src, "signal-changed", G_CALLBACK(on_signal_changed), m.engine);
    g_object_set(src, "channel", 0, "stream", 0, "uri", going.uri().c_str(), nullptr);
    g_object_set(src, "channel", 1, "stream", 0, "uri", ("file://" + file).c_str(), nullptr);
    g_object_set(src, "channel", 2, "stream", 0, "uri", silent.uri().c_str(), nullptr);
  });
  ASSERT_EQ(m.wait_for_tiles({blue, green, red}), "") << "the sources never showed";

  // Each camera that stops sending shows NO SIGNAL (a dark tile with a little
  // text, near black) and sets its bit; once it sends again it comes back;
  // the file plays on throughout.
  going.stop();
  silent.set_silent(true);
  EXPECT_TRUE(eventually(
      [&] {
        return (no_signal(m) & 0b101u) == 0b101u && near(m.tile(1), {0, 0, 0}, 80) &&
               near(m.tile(2), {0, 0, 0}, 80);
      },
      30));
  going.start();
  silent.set_silent(false);
  EXPECT_TRUE(eventually(
      [&] { return no_signal(m) == 0u && near(m.tile(2), red) && near(m.tile(1), green); }, 40));
  EXPECT_TRUE(near(m.tile(0), blue)) << "the file's tile went on through it all";
  std::remove(file.c_str());
}

}  // namespace
