#include "playback.hh"

#include <filesystem>

#include "kel_buffers.h"

namespace playback_test {

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

bool run_to_eos(const std::string &launch) {
  GstElement *p = gst_parse_launch(launch.c_str(), nullptr);
  if (p == nullptr) return false;
  const bool ok = run_to_eos(p);
  gst_object_unref(p);
  return ok;
}

bool record_channel(const std::string &folder, int ch, int frames, int64_t start,
                    const char *limit) {
  gchar *launch = g_strdup_printf(
      "videotestsrc num-buffers=%d pattern=ball ! video/x-raw,width=64,height=48,framerate=%d/1 "
      "! x264enc tune=zerolatency speed-preset=ultrafast bframes=0 key-int-max=%d "
      "! video/x-h264,stream-format=byte-stream,alignment=au "
      "! kelsstrec location=\"%s\" ch=%d start-time=%" G_GINT64_FORMAT " %s",
      frames, kFps, kIntraEvery, folder.c_str(), ch, start, limit);
  const bool ok = run_to_eos(launch);
  g_free(launch);
  return ok;
}

frame_seen read_header(const uint8_t *d) {
  auto le = [d](int at, int n) {
    uint64_t v = 0;
    for (int i = n - 1; i >= 0; i--) v = v << 8 | d[at + i];
    return v;
  };
  return frame_seen{d[0], d[8], static_cast<uint32_t>(le(4, 4)), static_cast<uint32_t>(le(12, 4)),
                    static_cast<int64_t>(le(16, 8))};
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
  list_seen l;
  if (GstKelListMeta *m = gst_kel_list_buffer_get_meta(b)) {
    for (GList *i = m->list; i != nullptr; i = i->next) {
      GstKelBuddyMeta *fm = gst_kel_buddy_buffer_get_meta(static_cast<GstBuffer *>(i->data));
      if (fm != nullptr && fm->size >= 24) l.push_back(read_header(fm->data));
    }
  }
  gst_buffer_unref(b);
  std::lock_guard<std::mutex> g(self->lock_);
  self->lists_.push_back(std::move(l));
  return 0;
}

std::vector<collector::list_seen> collector::lists() const {
  std::lock_guard<std::mutex> g(lock_);
  return lists_;
}

void collector::clear() {
  std::lock_guard<std::mutex> g(lock_);
  lists_.clear();
}

std::vector<frame_seen> collector::frames() const {
  std::vector<frame_seen> out;
  for (const auto &l : lists()) out.insert(out.end(), l.begin(), l.end());
  return out;
}

}  // namespace playback_test
