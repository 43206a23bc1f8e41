// A camera stream as an internal GStreamer pipeline:
//   synthetic: videotestsrc (ball on the camera's colour, number drawn) ! x264enc ! appsink
//   real:      uridecodebin ! convert/scale/rate ! x264enc ! appsink
// plus, for a synthetic main stream, audiotestsrc ! appsink for its audio.
#include "camera_stream.hh"

#include <gst/app/gstappsink.h>

#include <array>
#include <cstring>
#include <utility>

#include "channel_label.hh"
#include "kel_buffers.h"

namespace lumen {

std::atomic<int> live_audio_camera{-1};

struct camera_stream::key {};

namespace {

constexpr gsize kHeaderSize = 24;
constexpr int kTypeInter = 0;
constexpr int kTypeIntra = 1;
constexpr int kTypeAudio = 10;
constexpr GstClockTime kStartTimeout = 5 * GST_SECOND;

// One colour per camera, ARGB, easy to tell apart in a mosaic.
constexpr std::array<guint32, 16> kPalette = {
    0xff1f77b4, 0xffd62728, 0xff2ca02c, 0xffff7f0e, 0xff9467bd, 0xff8c564b, 0xffe377c2, 0xff7f7f7f,
    0xffbcbd22, 0xff17becf, 0xff003f5c, 0xff7a5195, 0xffef5675, 0xffffa600, 0xff2f4b7c, 0xff665191,
};

GstBuffer *make_frame(int ch, int type, uint32_t seq, const uint8_t *payload, gsize size) {
  GstBuffer *frame = gst_kel_buddy_buffer_new(kHeaderSize + size);
  uint8_t *p = gst_kel_buddy_buffer_get_meta(frame)->data;
  const auto size32 = static_cast<uint32_t>(size);
  const auto stamp = static_cast<uint32_t>(g_get_monotonic_time() / 1000);
  p[0] = static_cast<uint8_t>(ch);
  std::memcpy(p + 4, &size32, 4);
  p[8] = static_cast<uint8_t>(type);
  std::memcpy(p + 12, &stamp, 4);
  std::memcpy(p + 16, &seq, 4);
  if (size > 0) std::memcpy(p + kHeaderSize, payload, size);
  return frame;
}

std::string encoder_description(const stream_config &c, int width, int height) {
  // scenecut=0 keeps the intra frames at the steady interval only.  A file
  // is paced by the sink at its timestamps, as a camera would send it.
  gchar *text = g_strdup_printf(
      "video/x-raw,format=I420,width=%d,height=%d,framerate=%d/1 ! "
      "x264enc tune=zerolatency speed-preset=ultrafast threads=1 key-int-max=%d bitrate=%d "
      "option-string=scenecut=0 ! video/x-h264,stream-format=byte-stream,alignment=au ! "
      "appsink name=video sync=%s max-buffers=8 drop=%s",
      width, height, c.fps, c.key_interval, c.bitrate, c.paced ? "true" : "false",
      c.paced ? "false" : "true");
  std::string s(text);
  g_free(text);
  return s;
}

// The pictures of a stream: the sub stream's at half the main's size, even.
std::pair<int, int> picture_size(const stream_config &c) {
  if (c.stream == 0) return {c.width, c.height};
  return {(c.width / 2) & ~1, (c.height / 2) & ~1};
}

std::string pipeline_description(const stream_config &c) {
  const auto [width, height] = picture_size(c);
  std::string d;
  if (c.uri.empty()) {
    gchar *src = g_strdup_printf(
        "videotestsrc name=picture is-live=true pattern=ball background-color=%u "
        "foreground-color=0xffffffff ! ",
        kPalette[static_cast<size_t>(c.camera) % kPalette.size()]);
    d = src;
    g_free(src);
    d += encoder_description(c, width, height);
    if (c.stream == 0) {
      gchar *audio = g_strdup_printf(
          " audiotestsrc is-live=true wave=sine volume=0.3 freq=%d samplesperbuffer=320 ! "
          "audio/x-raw,format=S16LE,rate=8000,channels=1,layout=interleaved ! "
          "appsink name=audio sync=false max-buffers=8 drop=true",
          440 + 40 * c.camera);
      d += audio;
      g_free(audio);
    }
  } else {
    d = "uridecodebin name=decoder ! videoconvert ! videoscale ! videorate ! ";
    d += encoder_description(c, width, height);
  }
  return d;
}

// The last line of an error's debug text: the element's own words
// ("Failed to connect. (Generic error)") without the source position.
std::string debug_reason(const gchar *debug) {
  if (debug == nullptr) return {};
  std::string d(debug);
  const size_t nl = d.find_last_of('\n');
  return nl == std::string::npos ? std::string() : d.substr(nl + 1);
}

// A source address is worth trying when it is a URI that some installed
// element reads, and, for a file, when the file is there.
bool address_usable(const std::string &uri, std::string *error) {
  *error = camera_stream::permanent_error(uri);
  if (!error->empty()) return false;
  gchar *protocol = gst_uri_get_protocol(uri.c_str());
  const bool is_file = g_strcmp0(protocol, "file") == 0;
  g_free(protocol);
  if (is_file) {
    gchar *path = g_filename_from_uri(uri.c_str(), nullptr, nullptr);
    const bool exists = path != nullptr && g_file_test(path, G_FILE_TEST_IS_REGULAR);
    g_free(path);
    if (!exists) {
      *error = "no such file: " + uri;
      return false;
    }
  }
  return true;
}

}  // namespace

std::string camera_stream::permanent_error(const std::string &uri) {
  if (!gst_uri_is_valid(uri.c_str())) return "not a valid address: " + uri;
  gchar *protocol = gst_uri_get_protocol(uri.c_str());
  const bool known = gst_uri_protocol_is_supported(GST_URI_SRC, protocol);
  g_free(protocol);
  if (!known) return "no element reads addresses like " + uri;
  return {};
}

camera_stream::camera_stream(key, const stream_config &config, frame_target &target)
    : config_(config), target_(target) {}

camera_stream::~camera_stream() { stop(); }

std::shared_ptr<camera_stream> camera_stream::open(const stream_config &config,
                                                   frame_target &target, std::string *error) {
  auto s = std::make_shared<camera_stream>(key{}, config, target);
  if (!s->build(error) || !s->start(error)) return nullptr;
  return s;
}

bool camera_stream::build(std::string *error) {
  if (!config_.uri.empty() && !address_usable(config_.uri, error)) return false;
  g_autoptr(GError) err = nullptr;
  auto pipeline =
      orlo::adopt_floating(gst_parse_launch(pipeline_description(config_).c_str(), &err));
  if (err != nullptr) {
    *error = err->message;
    return false;
  }
  pipeline_ = std::move(pipeline);
  // Our own threads need no clock but the system's; a live pipeline picks it.
  auto *bin = GST_BIN(pipeline_.get());
  video_sink_ = orlo::adopt(gst_bin_get_by_name(bin, "video"));
  audio_sink_ = orlo::adopt(gst_bin_get_by_name(bin, "audio"));

  GstAppSinkCallbacks video_cbs{};
  video_cbs.new_sample = [](GstAppSink *sink, gpointer self) -> GstFlowReturn {
    GstSample *sample = gst_app_sink_pull_sample(sink);
    if (sample == nullptr) return GST_FLOW_OK;
    static_cast<camera_stream *>(self)->on_video(gst_sample_get_buffer(sample),
                                                 gst_sample_get_caps(sample));
    gst_sample_unref(sample);
    return GST_FLOW_OK;
  };
  gst_app_sink_set_callbacks(GST_APP_SINK(video_sink_.get()), &video_cbs, this, nullptr);
  if (audio_sink_) {
    GstAppSinkCallbacks audio_cbs{};
    audio_cbs.new_sample = [](GstAppSink *sink, gpointer self) -> GstFlowReturn {
      GstSample *sample = gst_app_sink_pull_sample(sink);
      if (sample == nullptr) return GST_FLOW_OK;
      static_cast<camera_stream *>(self)->on_audio(gst_sample_get_buffer(sample));
      gst_sample_unref(sample);
      return GST_FLOW_OK;
    };
    gst_app_sink_set_callbacks(GST_APP_SINK(audio_sink_.get()), &audio_cbs, this, nullptr);
  }
  if (config_.uri.empty()) {
    auto picture = orlo::adopt(gst_bin_get_by_name(bin, "picture"));
    auto pad = orlo::adopt(gst_element_get_static_pad(picture.get(), "src"));
    const auto [width, height] = picture_size(config_);
    gst_video_info_set_format(&picture_info_, GST_VIDEO_FORMAT_I420, static_cast<guint>(width),
                              static_cast<guint>(height));
    gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_BUFFER, &camera_stream::on_picture, this,
                      nullptr);
  } else {
    auto decoder = orlo::adopt(gst_bin_get_by_name(bin, "decoder"));
    g_object_set(decoder.get(), "uri", config_.uri.c_str(), nullptr);
  }
  auto bus = orlo::adopt(gst_element_get_bus(pipeline_.get()));
  gst_bus_set_sync_handler(bus.get(), &camera_stream::on_bus, this, nullptr);
  return true;
}

bool camera_stream::start(std::string *error) {
  if (gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING) != GST_STATE_CHANGE_FAILURE &&
      gst_element_get_state(pipeline_.get(), nullptr, nullptr, kStartTimeout) !=
          GST_STATE_CHANGE_FAILURE)
    return true;
  *error = "cannot start the source of channel " + std::to_string(channel());
  if (!config_.uri.empty()) *error += " (" + config_.uri + ")";
  std::lock_guard<std::mutex> g(error_lock_);
  if (!first_error_.empty()) *error += ": " + first_error_;
  return false;
}

bool camera_stream::rewind() {
  // A flushing seek keeps the decoder's pads linked (going down to READY
  // would drop them); the encoder is asked for an intra frame to start on.
  reported_ = false;
  last_frame_us_ = g_get_monotonic_time();
  restart_ = true;
  return gst_element_seek_simple(pipeline_.get(), GST_FORMAT_TIME,
                                 static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH), 0) != FALSE;
}

void camera_stream::stop() {
  if (!pipeline_) return;
  // Ends the streaming threads, so no callback runs after this.
  gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
  auto bus = orlo::adopt(gst_element_get_bus(pipeline_.get()));
  gst_bus_set_sync_handler(bus.get(), nullptr, nullptr, nullptr);
  video_sink_.reset();
  audio_sink_.reset();
  pipeline_.reset();
}

GstPadProbeReturn camera_stream::on_picture(GstPad * /*pad*/, GstPadProbeInfo *info,
                                            gpointer self) {
  auto *s = static_cast<camera_stream *>(self);
  GstBuffer *buffer = gst_buffer_make_writable(GST_PAD_PROBE_INFO_BUFFER(info));
  GST_PAD_PROBE_INFO_DATA(info) = buffer;
  GstVideoFrame frame;
  if (gst_video_frame_map(&frame, &s->picture_info_, buffer, GST_MAP_WRITE)) {
    draw_channel_label(&frame, s->config_.camera);
    gst_video_frame_unmap(&frame);
  }
  return GST_PAD_PROBE_OK;
}

void camera_stream::request_key_unit() {
  gst_element_send_event(video_sink_.get(),
                         gst_video_event_new_upstream_force_key_unit(GST_CLOCK_TIME_NONE, TRUE, 0));
}

void camera_stream::on_video(GstBuffer *buffer, GstCaps *caps) {
  if (!announced_ && caps != nullptr) {
    announced_ = true;
    gchar *text = gst_caps_to_string(caps);
    target_.started(channel(), text);
    g_free(text);
  }
  const bool intra = !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
  last_frame_us_ = g_get_monotonic_time();
  if (restart_.exchange(false) && !intra) {
    need_intra_ = true;
    request_key_unit();
  }
  if (paused_) return;
  if (need_intra_) {
    if (!intra) return;
    need_intra_ = false;
  }
  if (intra_only_ && !intra) return;
  GstMapInfo map;
  if (!gst_buffer_map(buffer, &map, GST_MAP_READ)) return;
  GstBuffer *frame =
      make_frame(channel(), intra ? kTypeIntra : kTypeInter, video_seq_++, map.data, map.size);
  gst_buffer_unmap(buffer, &map);
  target_.deliver(channel(), frame);
}

void camera_stream::on_audio(GstBuffer *buffer) {
  if (paused_ || live_audio_camera.load() != config_.camera) return;
  GstMapInfo map;
  if (!gst_buffer_map(buffer, &map, GST_MAP_READ)) return;
  // Audio frames carry the camera's number, the channel of its main stream.
  GstBuffer *frame = make_frame(config_.camera, kTypeAudio, audio_seq_++, map.data, map.size);
  gst_buffer_unmap(buffer, &map);
  target_.deliver(config_.camera, frame);
}

GstBusSyncReply camera_stream::on_bus(GstBus * /*bus*/, GstMessage *message, gpointer self) {
  auto *s = static_cast<camera_stream *>(self);
  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
    GError *err = nullptr;
    gchar *debug = nullptr;
    gst_message_parse_error(message, &err, &debug);
    // The message says what failed, the debug text's last line often why
    // (refused, unreachable, not found).
    std::string reason = err != nullptr ? err->message : "error";
    const std::string why = debug_reason(debug);
    if (!why.empty() && why != reason) reason += " (" + why + ")";
    g_clear_error(&err);
    g_free(debug);
    {
      std::lock_guard<std::mutex> g(s->error_lock_);
      if (s->first_error_.empty()) s->first_error_ = reason;
    }
    // One report a stream: a failing pipeline often posts several errors.
    if (!s->reported_.exchange(true))
      s->target_.failed(s->config_.camera, s->config_.generation, reason);
  } else if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS) {
    if (!s->reported_.exchange(true)) s->target_.ended(s->config_.camera, s->config_.generation);
  }
  return GST_BUS_DROP;
}

}  // namespace lumen
