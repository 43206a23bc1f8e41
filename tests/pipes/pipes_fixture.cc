#include "pipes_fixture.hh"

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

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

bool record_channel(const std::string &folder, int ch, int frames, const char *limit,
                    int64_t start) {
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
  int64_t time = 0;
  for (int i = 23; i >= 16; i--) time = time << 8 | d[i];  // little-endian
  return frame_seen{d[0], d[8], time};
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

void expect_props(GstElement *e, const std::string &want) {
  std::string seen;
  std::istringstream words(want);
  for (std::string word; words >> word;) {
    const std::string name = word.substr(0, word.find('='));
    GValue v = G_VALUE_INIT;
    g_value_init(&v, g_object_class_find_property(G_OBJECT_GET_CLASS(e), name.c_str())->value_type);
    g_object_get_property(G_OBJECT(e), name.c_str(), &v);
    gchar *text = g_strdup_value_contents(&v);
    seen += (seen.empty() ? "" : " ") + name + "=" + text;
    g_free(text);
    g_value_unset(&v);
  }
  EXPECT_EQ(seen, want);
}

}  // namespace pipes_test
