#include "pipes_fixture.hh"

#include <gtest/gtest.h>

#include <filesystem>

#include "kel_buffers.h"

namespace pipes_test {

temp_folder::temp_folder() {
  gchar *p = g_dir_make_tmp("orlo-playback-XXXXXX", nullptr);
  path_ = p != nullptr ? p : "";
  g_free(p);
}

temp_folder::~temp_folder() {
  std::error_code ignored;
  if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
}

bool run_to_eos(GstElement *p) {
  gst_element_set_state(p, GST_STATE_PLAYING);
  GstBus *bus = gst_element_get_bus(p);
  GstMessage *msg = gst_bus_timed_pop_filtered(
      bus, 30 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
  const bool ok = msg != nullptr && GST_MESSAGE_TYPE(msg) == GST_MESSAGE_EOS;
  if (msg != nullptr) gst_message_unref(msg);
  gst_object_unref(bus);
  gst_element_set_state(p, GST_STATE_NULL);
  return ok;
}

bool record_channel(const std::string &folder, int ch, int frames, int64_t start,
                    const char *limit) {
  gchar *launch = g_strdup_printf(
      "videotestsrc num-buffers=%d pattern=ball ! video/x-raw,width=64,height=48,framerate=25/1 "
      "! x264enc tune=zerolatency speed-preset=ultrafast bframes=0 key-int-max=10 "
      "! video/x-h264,stream-format=byte-stream,alignment=au "
      "! kelsstrec location=\"%s\" ch=%d start-time=%" G_GINT64_FORMAT " %s",
      frames, folder.c_str(), ch, start, limit);
  GstElement *p = gst_parse_launch(launch, nullptr);
  g_free(launch);
  if (p == nullptr) return false;
  const bool ok = run_to_eos(p);
  gst_object_unref(p);
  return ok;
}

frame_seen read_header(const uint8_t *d) {
  auto le = [d](int at, int n) {
    uint64_t v = 0;
    for (int i = n - 1; i >= 0; i--) v = v << 8 | d[at + i];
    return v;
  };
  return frame_seen{d[0], d[8], static_cast<uint32_t>(le(4, 4)), static_cast<int64_t>(le(16, 8))};
}

collector::collector(GstElement *sink) {
  GstKelAppSinkRenderCallbacks cb = {};
  cb.render = render;
  gst_kelapp_sink_set_render_callbacks(GST_KELAPP_SINK(sink), &cb, this, nullptr);
}

gint collector::render(GstKelAppSink *sink, gpointer data) {
  auto *self = static_cast<collector *>(data);
  GstBuffer *b = gst_kelapp_sink_pull_buffer(sink);
  if (b == nullptr) return 0;
  std::lock_guard<std::mutex> g(self->lock_);
  if (GstKelListMeta *m = gst_kel_list_buffer_get_meta(b)) {
    for (GList *i = m->list; i != nullptr; i = i->next) {
      GstKelBuddyMeta *fm = gst_kel_buddy_buffer_get_meta(static_cast<GstBuffer *>(i->data));
      if (fm != nullptr && fm->size >= 24) self->frames_.push_back(read_header(fm->data));
    }
  }
  gst_buffer_unref(b);
  return 0;
}

std::vector<frame_seen> collector::frames() const {
  std::lock_guard<std::mutex> g(lock_);
  return frames_;
}

void collector::clear() {
  std::lock_guard<std::mutex> g(lock_);
  frames_.clear();
}

GstState state_of(GstElement *e) {
  GstState state = GST_STATE_VOID_PENDING;
  gst_element_get_state(e, &state, nullptr, 0);
  return state;
}

void expect_props(GstElement *e, const char *want) {
  gchar **pairs = g_strsplit(want, " ", -1);
  for (gchar **p = pairs; *p != nullptr; p++) {
    gchar **kv = g_strsplit(*p, "=", 2);
    GValue v = G_VALUE_INIT, wide = G_VALUE_INIT;
    g_value_init(&v, g_object_class_find_property(G_OBJECT_GET_CLASS(e), kv[0])->value_type);
    g_object_get_property(G_OBJECT(e), kv[0], &v);
    g_value_init(&wide, G_TYPE_INT64);
    if (G_VALUE_HOLDS_BOOLEAN(&v))
      g_value_set_int64(&wide, g_value_get_boolean(&v));
    else
      EXPECT_TRUE(g_value_transform(&v, &wide)) << kv[0];
    EXPECT_EQ(g_value_get_int64(&wide), g_ascii_strtoll(kv[1], nullptr, 0)) << kv[0];
    g_value_unset(&v);
    g_strfreev(kv);
  }
  g_strfreev(pairs);
}

}  // namespace pipes_test
