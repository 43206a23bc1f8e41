// Real network and file sources in the composed display: RTSP cameras
// served by GStreamer's RTSP server, one that goes away and one that falls
// silent, each coming back, beside a file made by FFmpeg; each in its tile in
// its own colour.
#include <gst/rtsp-server/rtsp-server.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

#include "mosaic_harness.hh"

namespace {

using e2e::mosaic;
using e2e::rgb;
using clock_type = std::chrono::steady_clock;

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

  // Stops (or starts again) sending pictures; the connections stay.
  void set_silent(bool silent) {
    silent_ = silent;
    std::lock_guard<std::mutex> g(lock_);
    if (gate_ != nullptr) g_object_set(gate_, "drop", silent ? TRUE : FALSE, nullptr);
  }

  void stop() {
    if (server_ == nullptr) return;
    g_source_destroy(g_main_context_find_source_by_id(context_, source_));
    gst_rtsp_server_client_filter(
        server_, [](GstRTSPServer *, GstRTSPClient *, gpointer) { return GST_RTSP_FILTER_REMOVE; },
        nullptr);
    g_object_unref(server_);
    server_ = nullptr;
    std::lock_guard<std::mutex> g(lock_);
    if (gate_ != nullptr) gst_object_unref(gate_);
    gate_ = nullptr;
  }

 private:
  static void on_media(GstRTSPMediaFactory *, GstRTSPMedia *media, gpointer self_) {
    auto *self = static_cast<rtsp_camera *>(self_);
    GstElement *bin = gst_rtsp_media_get_element(media);
    GstElement *gate = gst_bin_get_by_name(GST_BIN(bin), "gate");
    gst_object_unref(bin);
    g_object_set(gate, "drop", self->silent_.load() ? TRUE : FALSE, nullptr);
    std::lock_guard<std::mutex> g(self->lock_);
    if (self->gate_ != nullptr) gst_object_unref(self->gate_);
    self->gate_ = gate;
  }

  const std::string pattern_;
  GMainContext *context_;
  GMainLoop *loop_;
  std::thread thread_;
  GstRTSPServer *server_ = nullptr;
  guint source_ = 0;
  int port_ = 0;
  std::atomic<bool> silent_{false};
  std::mutex lock_;
  GstElement *gate_ = nullptr;  // the shared media's valve
};

// A 4 s FFmpeg file of flat blue; its URI.
std::string blue_file(const std::string &folder) {
  const std::string path = folder + "/blue.mp4";
  const std::string cmd =
      "ffmpeg -v error -y -f lavfi -i color=c=0x0000ff:s=320x180:r=25 -t 4 -c:v libx264 "
      "-profile:v high -bf 3 -pix_fmt yuv420p " +
      path;
  if (std::system(cmd.c_str()) != 0) return {};
  gchar *uri = g_filename_to_uri(path.c_str(), nullptr, nullptr);
  std::string s(uri);
  g_free(uri);
  return s;
}

// Waits until `ok()` or `limit`; the time it took, or -1 s.
template <typename F>
double seconds_until(F ok, std::chrono::seconds limit) {
  const auto start = clock_type::now();
  while (!ok()) {
    if (clock_type::now() - start > limit) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return std::chrono::duration<double>(clock_type::now() - start).count();
}

bool tile_is(mosaic &m, int tile, const rgb &want) {
  int x, y, w, h;
  m.region(tile, &x, &y, &w, &h);
  return e2e::near(m.grab().median(x, y, w, h), want);
}

// NO SIGNAL: a dark tile with a little text.
bool tile_is_dark(mosaic &m, int tile) {
  int x, y, w, h;
  m.region(tile, &x, &y, &w, &h);
  const rgb c = m.grab().median(x, y, w, h);
  return std::max({c.r, c.g, c.b}) < 80;
}

// The application's part: a camera's signal goes to its port (camera j
// decodes on port j here).
void on_signal_changed(GstElement *, gint camera, gboolean present, gpointer engine) {
  ravel_soft_set_port_signal(static_cast<ravel_t *>(engine), camera, present ? 1 : 0);
}

guint no_signal(mosaic &m) {
  guint mask = 0;
  g_object_get(orlo_lumen_pipe_get_src(m.pipe()), "no-signal", &mask, nullptr);
  return mask;
}

// Camera 0's server stops and starts again; camera 2's falls silent with its
// connection open and sends again; camera 1 plays a file throughout.
TEST(EndToEnd, RtspCamerasThatGoAwayOrFallSilentShowNoSignalAndComeBackBesideAFile) {
  gst_init(nullptr, nullptr);
  gchar *folder = g_dir_make_tmp("live-sources-XXXXXX", nullptr);
  const std::string file = blue_file(folder);
  ASSERT_FALSE(file.empty());
  rtsp_camera going("red"), silent("green");
  mosaic m;
  ASSERT_NE(m.display(), nullptr);
  ASSERT_EQ(m.show(2, {0, 1, 2}), 0);
  auto table = e2e::live_table({0, 1, 2});
  ASSERT_EQ(orlo_display_decode_change(m.display(), table.data()), 0);
  m.start_live(3, 1, [&](GstElement *src) {
    g_signal_connect(src, "signal-changed", G_CALLBACK(on_signal_changed), m.engine());
    g_object_set(src, "channel", 0, "stream", 0, "uri", going.uri().c_str(), nullptr);
    g_object_set(src, "channel", 1, "stream", 0, "uri", file.c_str(), nullptr);
    g_object_set(src, "channel", 2, "stream", 0, "uri", silent.uri().c_str(), nullptr);
  });
  const rgb red = {255, 0, 0}, blue = {0, 0, 255}, green = {0, 255, 0};
  auto all_shown = [&] {
    return tile_is(m, 0, red) && tile_is(m, 1, blue) && tile_is(m, 2, green);
  };
  ASSERT_GE(seconds_until(all_shown, std::chrono::seconds(60)), 0) << "the sources never showed";

  going.stop();
  silent.set_silent(true);
  const auto gone = clock_type::now();
  double lost[3] = {-1, -1, -1};
  seconds_until(
      [&] {
        const guint mask = no_signal(m);
        const double t = std::chrono::duration<double>(clock_type::now() - gone).count();
        for (int cam : {0, 2})
          if (lost[cam] < 0 && (mask & (1u << cam)) != 0 && tile_is_dark(m, cam)) lost[cam] = t;
        return lost[0] >= 0 && lost[2] >= 0;
      },
      std::chrono::seconds(30));
  RecordProperty("no_signal_after_stop_s", std::to_string(lost[0]));
  RecordProperty("no_signal_after_silence_s", std::to_string(lost[2]));
  for (int cam : {0, 2}) {
    EXPECT_GE(lost[cam], 0) << "camera " << cam;
    EXPECT_LE(lost[cam], 6) << "camera " << cam;
  }

  going.start();
  silent.set_silent(false);
  const double back = seconds_until(
      [&] { return no_signal(m) == 0u && tile_is(m, 0, red) && tile_is(m, 2, green); },
      std::chrono::seconds(40));
  RecordProperty("pictures_back_after_s", std::to_string(back));
  EXPECT_GE(back, 0);
  EXPECT_LE(back, 10);
  EXPECT_TRUE(tile_is(m, 1, blue)) << "the file's tile went on through it all";
  unlink((std::string(folder) + "/blue.mp4").c_str());
  rmdir(folder);
  g_free(folder);
}

}  // namespace
