// Real network and file sources in the composed display: RTSP cameras
// served by GStreamer's RTSP server, one that goes away and one that falls
// silent, each coming back, beside a file made by FFmpeg; each in its tile in
// its own colour.
#include <gst/rtsp-server/rtsp-server.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>

#include "eventually.hh"
#include "mosaic_harness.hh"

namespace {

using e2e::mosaic;
using e2e::rgb;

// An RTSP server of a flat picture at rtsp://127.0.0.1:<port>/cam, on a main
// context of its own; it can be stopped (clients dropped, socket closed) and
// started again on the same port, or fall silent with its clients connected.
class rtsp_camera {
 public:
  explicit rtsp_camera(const char *pattern)
      : pattern_(pattern), context_(g_main_context_new()), loop_(g_main_loop_new(context_, FALSE)) {
    thread_ = std::thread([this] { g_main_loop_run(loop_); });
    start();
  }
  ~rtsp_camera() {
    stop();
    g_main_loop_quit(loop_);
    thread_.join();
    g_main_loop_unref(loop_);
    g_main_context_unref(context_);
  }
  std::string uri() const { return "rtsp://127.0.0.1:" + std::to_string(port_) + "/cam"; }

  void start() {
    server_ = gst_rtsp_server_new();
    gst_rtsp_server_set_address(server_, "127.0.0.1");
    gst_rtsp_server_set_service(server_, std::to_string(port_).c_str());
    GstRTSPMediaFactory *factory = gst_rtsp_media_factory_new();
    const std::string launch =
        "( videotestsrc is-live=true pattern=" + pattern_ +
        " ! video/x-raw,width=160,height=96,framerate=25/1 ! valve name=gate ! "
        "x264enc tune=zerolatency speed-preset=ultrafast key-int-max=10 ! "
        "rtph264pay name=pay0 pt=96 config-interval=1 )";
    gst_rtsp_media_factory_set_launch(factory, launch.c_str());
    gst_rtsp_media_factory_set_shared(factory, TRUE);
    g_signal_connect(factory, "media-configure", G_CALLBACK(on_media), this);
    GstRTSPMountPoints *mounts = gst_rtsp_server_get_mount_points(server_);
    gst_rtsp_mount_points_add_factory(mounts, "/cam", factory);
    g_object_unref(mounts);
    source_ = gst_rtsp_server_attach(server_, context_);
    if (port_ == 0) port_ = gst_rtsp_server_get_bound_port(server_);
  }

  // Stops (or starts again) sending pictures once a client plays the
  // stream; the connections stay.
  void set_silent(bool silent) { g_object_set(gate_.load(), "drop", silent, nullptr); }

  void stop() {
    if (server_ == nullptr) return;
    g_source_destroy(g_main_context_find_source_by_id(context_, source_));
    gst_rtsp_server_client_filter(
        server_, [](GstRTSPServer *, GstRTSPClient *, gpointer) { return GST_RTSP_FILTER_REMOVE; },
        nullptr);
    g_clear_object(&server_);
    if (GstElement *gate = gate_.exchange(nullptr)) gst_object_unref(gate);
  }

 private:
  // The shared media's valve, for set_silent.
  static void on_media(GstRTSPMediaFactory *, GstRTSPMedia *media, gpointer self) {
    GstElement *bin = gst_rtsp_media_get_element(media);
    GstElement *gate = gst_bin_get_by_name(GST_BIN(bin), "gate");
    gst_object_unref(bin);
    if (GstElement *old = static_cast<rtsp_camera *>(self)->gate_.exchange(gate))
      gst_object_unref(old);
  }

  const std::string pattern_;
  GMainContext *context_;
  GMainLoop *loop_;
  std::thread thread_;
  GstRTSPServer *server_ = nullptr;
  guint source_ = 0;
  int port_ = 0;
  std::atomic<GstElement *> gate_{nullptr};
};

// (NO SIGNAL: a dark tile with a little text, near black.)
bool tile_is(mosaic &m, int tile, const rgb &want, int tolerance = 28) {
  return e2e::near(m.tile(tile), want, tolerance);
}

// The application's part: a camera's signal goes to its port (camera j
// decodes on port j here).
void on_signal_changed(GstElement *, gint camera, gboolean present, gpointer engine) {
  ravel_soft_set_port_signal(static_cast<ravel_t *>(engine), camera, present ? 1 : 0);
}

guint no_signal(mosaic &m) {
  guint mask = 0;
  g_object_get(orlo_lumen_pipe_get_src(m.pipe), "no-signal", &mask, nullptr);
  return mask;
}

// Camera 0's server stops and starts again; camera 2's falls silent with its
// connection open and sends again; camera 1 plays a file throughout.
TEST(EndToEnd, RtspCamerasThatGoAwayOrFallSilentShowNoSignalAndComeBackBesideAFile) {
  gst_init(nullptr, nullptr);
  // A 4 s file of flat blue with B frames.
  const std::string file = ::testing::TempDir() + "live-sources-blue.mp4";
  ASSERT_EQ(std::system(("ffmpeg -v error -y -f lavfi -i color=c=0x0000ff:s=320x180:r=25 -t 4 "
                         "-c:v libx264 -profile:v high -bf 3 -pix_fmt yuv420p " +
                         file)
                            .c_str()),
            0);
  rtsp_camera going("red"), silent("green");
  mosaic m;
  ASSERT_NE(m.display, nullptr);
  ASSERT_EQ(m.show(2, {0, 1, 2}), 0);
  ASSERT_EQ(m.decode({0, 1, 2}), 0);
  m.start_live(3, 1, [&](GstElement *src) {
    g_signal_connect(src, "signal-changed", G_CALLBACK(on_signal_changed), m.engine);
    g_object_set(src, "channel", 0, "stream", 0, "uri", going.uri().c_str(), nullptr);
    g_object_set(src, "channel", 1, "stream", 0, "uri", ("file://" + file).c_str(), nullptr);
    g_object_set(src, "channel", 2, "stream", 0, "uri", silent.uri().c_str(), nullptr);
  });
  const rgb red = {255, 0, 0}, blue = {0, 0, 255}, green = {0, 255, 0};
  ASSERT_EQ(m.wait_for_tiles({red, blue, green}), "") << "the sources never showed";

  // Each camera that stops sending shows NO SIGNAL (a dark tile) and sets its
  // bit; once it sends again it comes back; the file plays on throughout.
  going.stop();
  silent.set_silent(true);
  EXPECT_TRUE(testing_support::eventually(
      [&] {
        return (no_signal(m) & 0b101u) == 0b101u && tile_is(m, 0, {0, 0, 0}, 80) &&
               tile_is(m, 2, {0, 0, 0}, 80);
      },
      30));
  going.start();
  silent.set_silent(false);
  EXPECT_TRUE(testing_support::eventually(
      [&] { return no_signal(m) == 0u && tile_is(m, 0, red) && tile_is(m, 2, green); }, 40));
  EXPECT_TRUE(tile_is(m, 1, blue)) << "the file's tile went on through it all";
  std::remove(file.c_str());
}

}  // namespace
