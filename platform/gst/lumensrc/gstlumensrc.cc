// The GStreamer face of the live source: type, properties, delivery loop and
// the gst_lumen_src_ calls.  The work is done by lumen::source_core.
#include <gst/base/gstpushsrc.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "lumen_core.hh"
#include "lumen_src.h"

GST_DEBUG_CATEGORY(lumensrc_debug);
#define GST_CAT_DEFAULT lumensrc_debug

namespace {

// The element's C++ state, in the instance's private area: constructed in
// init, destroyed in finalize.
struct lumen_state {
  explicit lumen_state(lumen::signal_hook hook) : core(std::move(hook)) {}
  lumen::source_core core;
  // The words of a request written by property: "channel", "stream".
  std::atomic<int> request_channel{0};
  std::atomic<int> request_stream{0};
};

}  // namespace

struct GstLumenSrc {
  GstPushSrc parent;
  lumen_state *st;
};

struct GstLumenSrcClass {
  GstPushSrcClass parent_class;
};

using GstLumenSrcPrivate = lumen_state;

G_DEFINE_TYPE_WITH_PRIVATE(GstLumenSrc, gst_lumen_src, GST_TYPE_PUSH_SRC)

namespace {

enum {
  PROP_0,
  PROP_CHANNEL,
  PROP_STREAM,
  PROP_PAUSE,
  PROP_RESUME,
  PROP_IONLYCH,
  PROP_URI,
  PROP_WIDTH,
  PROP_HEIGHT,
  PROP_FRAMERATE,
  PROP_KEY_INTERVAL,
  PROP_BITRATE,
  PROP_STREAMS,
  PROP_LOOP,
  PROP_SILENCE_TIMEOUT,
  PROP_NO_SIGNAL,
};

enum { SIGNAL_SIGNAL_CHANGED, SIGNAL_COUNT };
guint signals[SIGNAL_COUNT];

// List buffers of frames, not a byte stream a parser could read; still
// H.264, which is what the live pipe's sink asks for.
GstStaticPadTemplate src_template =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS,
                            GST_STATIC_CAPS("video/x-h264, stream-format=(string)kel-list"));

std::mutex dev_mac_lock;
std::string dev_mac;

GstLumenSrc *as_lumen(GstElement *e) {
  return GST_IS_LUMEN_SRC(e) ? reinterpret_cast<GstLumenSrc *>(e) : nullptr;
}

lumen::source_core &core_of(gpointer self) { return static_cast<GstLumenSrc *>(self)->st->core; }

// The request's channel: "channel" plus 16 for the sub stream.
int request_target(GstLumenSrc *self) {
  return self->st->request_channel.load() + 16 * self->st->request_stream.load();
}

void set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec) {
  auto *self = reinterpret_cast<GstLumenSrc *>(object);
  auto &core = self->st->core;
  lumen::settings s = core.get_settings();
  switch (id) {
    case PROP_CHANNEL:
      self->st->request_channel = g_value_get_int(value);
      return;
    case PROP_STREAM:
      self->st->request_stream = g_value_get_int(value);
      return;
    case PROP_PAUSE:
      if (g_value_get_int(value) != 0) core.pause(request_target(self));
      return;
    case PROP_RESUME:
      if (g_value_get_int(value) != 0) core.resume(request_target(self));
      return;
    case PROP_IONLYCH:
      core.intra_only(g_value_get_int(value));
      return;
    case PROP_URI:
      core.set_uri(request_target(self), g_value_get_string(value));
      return;
    case PROP_WIDTH:
      s.width = g_value_get_int(value) & ~1;
      break;
    case PROP_HEIGHT:
      s.height = g_value_get_int(value) & ~1;
      break;
    case PROP_FRAMERATE:
      s.fps = g_value_get_int(value);
      break;
    case PROP_KEY_INTERVAL:
      s.key_interval = g_value_get_int(value);
      break;
    case PROP_BITRATE:
      s.bitrate = g_value_get_int(value);
      break;
    case PROP_STREAMS:
      s.streams = g_value_get_int(value);
      break;
    case PROP_LOOP:
      s.loop = g_value_get_boolean(value);
      break;
    case PROP_SILENCE_TIMEOUT:
      s.silence_ms = g_value_get_int(value);
      break;
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
      return;
  }
  GST_DEBUG_OBJECT(object, "%s written", pspec->name);
  core.set_settings(s);
}

void get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec) {
  auto *self = reinterpret_cast<GstLumenSrc *>(object);
  const lumen::settings s = self->st->core.get_settings();
  switch (id) {
    case PROP_CHANNEL:
      g_value_set_int(value, self->st->request_channel);
      break;
    case PROP_STREAM:
      g_value_set_int(value, self->st->request_stream);
      break;
    case PROP_PAUSE:
    case PROP_RESUME:
      g_value_set_int(value, 0);
      break;
    case PROP_IONLYCH:
      g_value_set_int(value, -1);
      break;
    case PROP_URI:
      g_value_set_string(value, self->st->core.uri(request_target(self)).c_str());
      break;
    case PROP_WIDTH:
      g_value_set_int(value, s.width);
      break;
    case PROP_HEIGHT:
      g_value_set_int(value, s.height);
      break;
    case PROP_FRAMERATE:
      g_value_set_int(value, s.fps);
      break;
    case PROP_KEY_INTERVAL:
      g_value_set_int(value, s.key_interval);
      break;
    case PROP_BITRATE:
      g_value_set_int(value, s.bitrate);
      break;
    case PROP_STREAMS:
      g_value_set_int(value, s.streams);
      break;
    case PROP_LOOP:
      g_value_set_boolean(value, s.loop);
      break;
    case PROP_SILENCE_TIMEOUT:
      g_value_set_int(value, s.silence_ms);
      break;
    case PROP_NO_SIGNAL:
      g_value_set_uint(value, self->st->core.no_signal_mask());
      break;
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
      break;
  }
}

void finalize(GObject *object) {
  auto *self = reinterpret_cast<GstLumenSrc *>(object);
  std::destroy_at(self->st);
  self->st = nullptr;
  G_OBJECT_CLASS(gst_lumen_src_parent_class)->finalize(object);
}

GstStateChangeReturn change_state(GstElement *element, GstStateChange transition) {
  auto &core = core_of(element);
  GST_DEBUG_OBJECT(element, "state change %s", gst_state_change_get_name(transition));
  if (transition == GST_STATE_CHANGE_PAUSED_TO_PLAYING) core.set_running(true);
  const GstStateChangeReturn r =
      GST_ELEMENT_CLASS(gst_lumen_src_parent_class)->change_state(element, transition);
  if (transition == GST_STATE_CHANGE_PLAYING_TO_PAUSED) core.set_running(false);
  return r;
}

GstFlowReturn create(GstPushSrc *src, GstBuffer **out) { return core_of(src).wait_list(out); }

gboolean unlock(GstBaseSrc *src) {
  core_of(src).set_flushing(true);
  return TRUE;
}

gboolean unlock_stop(GstBaseSrc *src) {
  core_of(src).set_flushing(false);
  return TRUE;
}

GParamSpec *int_param(const char *name, const char *blurb, int min, int max, int def,
                      GParamFlags flags = static_cast<GParamFlags>(G_PARAM_READWRITE |
                                                                   G_PARAM_STATIC_STRINGS)) {
  return g_param_spec_int(name, name, blurb, min, max, def, flags);
}

}  // namespace

namespace {

void install_properties(GObjectClass *gobject_class) {
  const int max_ch = LUMEN_SRC_MAX_CHANNEL - 1;
  g_object_class_install_property(
      gobject_class, PROP_CHANNEL,
      int_param("channel", "Camera of the next request (0..15; 16..31 name sub streams)", 0, max_ch,
                0));
  g_object_class_install_property(
      gobject_class, PROP_STREAM,
      int_param("stream", "Stream of the next request: 0 main, 1 sub", 0, 1, 0));
  g_object_class_install_property(
      gobject_class, PROP_PAUSE,
      int_param("pause", "1 pauses the channel of channel/stream", 0, 1, 0));
  g_object_class_install_property(
      gobject_class, PROP_RESUME,
      int_param("resume", "1 resumes the channel of channel/stream at an intra frame", 0, 1, 0));
  g_object_class_install_property(
      gobject_class, PROP_IONLYCH,
      int_param("ionlych", "Channel to send intra frames only; -1 ends it everywhere", -1, max_ch,
                -1));
  g_object_class_install_property(
      gobject_class, PROP_URI,
      g_param_spec_string(
          "uri", "uri", "Real source of the channel of channel/stream (empty: synthetic)", nullptr,
          static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)));
  g_object_class_install_property(gobject_class, PROP_WIDTH,
                                  int_param("width", "Main stream width", 16, 4096, 640));
  g_object_class_install_property(gobject_class, PROP_HEIGHT,
                                  int_param("height", "Main stream height", 16, 4096, 360));
  g_object_class_install_property(gobject_class, PROP_FRAMERATE,
                                  int_param("framerate", "Frames a second", 1, 120, 25));
  g_object_class_install_property(
      gobject_class, PROP_KEY_INTERVAL,
      int_param("key-interval", "Frames from one intra frame to the next", 1, 1000, 25));
  g_object_class_install_property(
      gobject_class, PROP_BITRATE,
      int_param("bitrate", "Main stream kbit/s (sub stream: a quarter)", 16, 100000, 1024));
  g_object_class_install_property(
      gobject_class, PROP_STREAMS,
      int_param("streams", "Streams an open with flags 0 starts: 1 main, 2 sub, 3 both", 1, 3, 3));

  g_object_class_install_property(
      gobject_class, PROP_LOOP,
      g_param_spec_boolean("loop", "loop", "A file source plays again from its start at its end",
                           TRUE,
                           static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)));
  g_object_class_install_property(
      gobject_class, PROP_SILENCE_TIMEOUT,
      int_param("silence-timeout", "A real source with no frame for this long (ms) is lost", 100,
                600000, 5000));
  g_object_class_install_property(
      gobject_class, PROP_NO_SIGNAL,
      g_param_spec_uint("no-signal", "no-signal",
                        "Open cameras whose source is lost, one bit each (camera n: bit n)", 0,
                        G_MAXUINT, 0,
                        static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS)));
}

}  // namespace

static void gst_lumen_src_class_init(GstLumenSrcClass *klass) {
  auto *gobject_class = G_OBJECT_CLASS(klass);
  auto *element_class = GST_ELEMENT_CLASS(klass);
  auto *basesrc_class = GST_BASE_SRC_CLASS(klass);
  gobject_class->set_property = set_property;
  gobject_class->get_property = get_property;
  gobject_class->finalize = finalize;
  element_class->change_state = change_state;
  basesrc_class->unlock = unlock;
  basesrc_class->unlock_stop = unlock_stop;
  GST_PUSH_SRC_CLASS(klass)->create = create;

  install_properties(gobject_class);
  // signal-changed(camera, present): a camera's source was lost or is back.
  // Emitted on the element's own thread.
  signals[SIGNAL_SIGNAL_CHANGED] =
      g_signal_new("signal-changed", G_TYPE_FROM_CLASS(klass), G_SIGNAL_RUN_LAST, 0, nullptr,
                   nullptr, nullptr, G_TYPE_NONE, 2, G_TYPE_INT, G_TYPE_BOOLEAN);
  GST_DEBUG_CATEGORY_INIT(lumensrc_debug, "lumensrc", 0, "live channel source");

  gst_element_class_add_static_pad_template(element_class, &src_template);
  gst_element_class_set_static_metadata(element_class, "Live channel source", "Source/Video",
                                        "Live H.264 channels as list buffers of frames", "liborlo");
}

static void gst_lumen_src_init(GstLumenSrc *self) {
  // The hook runs on the core's own thread while the element stands: the
  // core, and with it that thread, ends in finalize.
  self->st = std::construct_at(static_cast<lumen_state *>(gst_lumen_src_get_instance_private(self)),
                               [self](int camera, bool present) {
                                 g_signal_emit(self, signals[SIGNAL_SIGNAL_CHANGED], 0, camera,
                                               present ? TRUE : FALSE);
                               });
  gst_base_src_set_live(GST_BASE_SRC(self), TRUE);
  gst_base_src_set_format(GST_BASE_SRC(self), GST_FORMAT_TIME);
  gst_base_src_set_do_timestamp(GST_BASE_SRC(self), TRUE);
}

#define LUMEN_CHECK(src, fn)                                                  \
  GstLumenSrc *self = as_lumen(src);                                          \
  if (self == nullptr) {                                                      \
    g_warning("%s: %p is no lumensrc element", fn, static_cast<void *>(src)); \
    return -1;                                                                \
  }

extern "C" {

gint gst_lumen_src_open_ch(GstElement *src, gint ch, gint streams) {
  LUMEN_CHECK(src, "gst_lumen_src_open_ch");
  return self->st->core.open(ch, streams);
}

gint gst_lumen_src_close_ch(GstElement *src, gint ch, gint /*flags*/) {
  LUMEN_CHECK(src, "gst_lumen_src_close_ch");
  return self->st->core.close(ch);
}

#define LUMEN_SETTER(name, kind)                                            \
  gint name(GstElement *src, GstLumenSrcCallback cb, gpointer user_data) {  \
    LUMEN_CHECK(src, #name);                                                \
    self->st->core.set_callback(lumen::callback_kind::kind, cb, user_data); \
    return 0;                                                               \
  }

LUMEN_SETTER(gst_lumen_src_set_cmd_callback, cmd)
LUMEN_SETTER(gst_lumen_src_set_motion_callback, motion)
LUMEN_SETTER(gst_lumen_src_set_alarm_callback, alarm)
LUMEN_SETTER(gst_lumen_src_set_handoff_callback, handoff)
LUMEN_SETTER(gst_lumen_src_set_header_x_callback, header_x)
LUMEN_SETTER(gst_lumen_src_set_onvif_meta_callback, onvif_meta)

gint gst_lumen_src_send_audio(GstElement *src, gint ch, gconstpointer data, gint size) {
  LUMEN_CHECK(src, "gst_lumen_src_send_audio");
  return self->st->core.send_audio(ch, data, size);
}

gint gst_lumen_src_set_live_audio_ch(gint ch) {
  if (ch < -1 || ch >= LUMEN_SRC_MAX_CAMERA) {
    g_warning("set_live_audio_ch: no camera %d", ch);
    return -1;
  }
  lumen::live_audio_camera = ch;
  return 0;
}

gint gst_lumen_src_set_dev_mac(const gchar *mac, gint len) {
  if (mac == nullptr || len < 1 || len > 32) {
    g_warning("set_dev_mac: %d bytes at %p is no address", len, static_cast<const void *>(mac));
    return -1;
  }
  std::lock_guard<std::mutex> g(dev_mac_lock);
  dev_mac.assign(mac, static_cast<size_t>(len));
  return 0;
}

}  // extern "C"

static gboolean plugin_init(GstPlugin *plugin) {
  return gst_element_register(plugin, "lumensrc", GST_RANK_NONE, GST_TYPE_LUMEN_SRC);
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, lumensrc, "Live channel source",
                  plugin_init, ORLO_VERSION, "LGPL", PACKAGE, ORLO_ORIGIN)
