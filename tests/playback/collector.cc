#include "collector.hh"

namespace playback_test {

frame_seen read_header(const uint8_t *d) {
  frame_seen f{};
  f.ch = d[0];
  f.size = static_cast<uint32_t>(d[4] | d[5] << 8 | d[6] << 16 | static_cast<uint32_t>(d[7]) << 24);
  f.type = d[8];
  f.ms =
      static_cast<uint32_t>(d[12] | d[13] << 8 | d[14] << 16 | static_cast<uint32_t>(d[15]) << 24);
  uint64_t t = 0;
  for (int i = 7; i >= 0; i--) t = t << 8 | d[16 + i];
  f.time = static_cast<int64_t>(t);
  return f;
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
  l.at = std::chrono::steady_clock::now();
  l.step = GST_BUFFER_FLAG_IS_SET(b, GST_KELAPP_SINK_BUFFER_FLAG_STEP);
  if (GstKelListMeta *m = gst_kel_list_buffer_get_meta(b)) {
    for (GList *i = m->list; i != nullptr; i = i->next) {
      GstKelBuddyMeta *fm = gst_kel_buddy_buffer_get_meta(static_cast<GstBuffer *>(i->data));
      if (fm != nullptr && fm->size >= 24) l.frames.push_back(read_header(fm->data));
    }
  }
  gst_buffer_unref(b);
  {
    std::lock_guard<std::mutex> g(self->lock_);
    self->steps_ += l.step ? 1 : 0;
    self->lists_.push_back(std::move(l));
  }
  self->cv_.notify_all();
  return 0;
}

std::vector<list_seen> collector::lists() const {
  std::lock_guard<std::mutex> g(lock_);
  return lists_;
}

size_t collector::count() const {
  std::lock_guard<std::mutex> g(lock_);
  return lists_.size();
}

size_t collector::steps() const {
  std::lock_guard<std::mutex> g(lock_);
  return steps_;
}

bool collector::wait_for(const std::function<bool(size_t)> &pred, double seconds) const {
  std::unique_lock<std::mutex> g(lock_);
  return cv_.wait_for(g, std::chrono::duration<double>(seconds),
                      [&] { return pred(lists_.size()); });
}

}  // namespace playback_test
