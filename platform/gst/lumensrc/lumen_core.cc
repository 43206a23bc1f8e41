#include "lumen_core.hh"

#include <pthread.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "kel_buffers.h"

GST_DEBUG_CATEGORY_EXTERN(lumensrc_debug);
#define GST_CAT_DEFAULT lumensrc_debug

namespace lumen {
namespace {

bool valid_channel(int ch) { return ch >= 0 && ch < LUMEN_SRC_MAX_CHANNEL; }
bool valid_camera(int camera) { return camera >= 0 && camera < LUMEN_SRC_MAX_CAMERA; }

}  // namespace

source_core::source_core(signal_hook on_signal)
    : on_signal_(std::move(on_signal)), supervisor_([this] { supervise(); }) {}

source_core::~source_core() {
  {
    std::lock_guard<std::mutex> g(lock_);
    quitting_ = true;
  }
  events_ready_.notify_all();
  supervisor_.join();
  std::array<stream_ptr, LUMEN_SRC_MAX_CHANNEL> streams;
  {
    std::lock_guard<std::mutex> g(lock_);
    streams.swap(streams_);
  }
  for (auto &s : streams) s.reset();  // joins each stream's threads
  pending_.clear();
}

settings source_core::get_settings() {
  std::lock_guard<std::mutex> g(lock_);
  return settings_;
}

void source_core::set_settings(const settings &s) {
  std::lock_guard<std::mutex> g(lock_);
  settings_ = s;
}

std::vector<stream_config> source_core::configs_of(int camera, int streams) {
  std::vector<stream_config> configs;
  const uint64_t generation = next_generation_++;
  for (int stream = 0; stream < 2; ++stream) {
    if ((streams & (1 << stream)) == 0) continue;
    stream_config c;
    c.camera = camera;
    c.stream = stream;
    c.width = settings_.width;
    c.height = settings_.height;
    c.fps = settings_.fps;
    c.key_interval = settings_.key_interval;
    c.bitrate = stream == 0 ? settings_.bitrate : std::max(1, settings_.bitrate / 4);
    c.uri = uris_[static_cast<size_t>(c.channel())];
    c.paced = g_str_has_prefix(c.uri.c_str(), "file:");
    c.generation = generation;
    configs.push_back(c);
  }
  return configs;
}

std::vector<source_core::stream_ptr> source_core::start_streams(
    const std::vector<stream_config> &configs, std::string *error) {
  std::vector<stream_ptr> opened;
  for (const auto &c : configs) {
    auto s = camera_stream::open(c, *this, error);
    if (!s) return {};
    opened.push_back(std::move(s));
  }
  return opened;
}

int source_core::open(int camera, int streams) {
  if (!valid_camera(camera)) {
    g_warning("open: no camera %d (cameras are 0..%d)", camera, LUMEN_SRC_MAX_CAMERA - 1);
    return -1;
  }
  std::vector<stream_config> configs;
  {
    std::lock_guard<std::mutex> g(lock_);
    if (streams == 0) streams = settings_.streams;
    streams &= LUMEN_SRC_OPEN_MAIN | LUMEN_SRC_OPEN_SUB;
    if (streams == 0) {
      g_warning("open: camera %d asked for no stream", camera);
      return -1;
    }
    if ((opening_ & (1u << camera)) != 0 || watch_[static_cast<size_t>(camera)].wanted) {
      g_warning("open: camera %d is already open", camera);
      return -1;
    }
    configs = configs_of(camera, streams);
    for (const auto &c : configs) {
      const std::string why = c.uri.empty() ? "" : camera_stream::permanent_error(c.uri);
      if (why.empty()) continue;
      g_warning("open: camera %d: %s", camera, why.c_str());
      return -1;
    }
    opening_ |= 1u << camera;
  }
  // Pipelines start outside the lock: their threads deliver into it.
  std::string error;
  std::vector<stream_ptr> opened = start_streams(configs, &error);
  {
    std::lock_guard<std::mutex> g(lock_);
    camera_watch &w = watch_[static_cast<size_t>(camera)];
    w = camera_watch{};
    w.wanted = true;
    w.streams = streams;
    for (auto &s : opened) streams_[static_cast<size_t>(s->channel())] = std::move(s);
    opening_ &= ~(1u << camera);
    if (opened.empty()) {
      // A source that may come later (a camera still booting, a file still
      // being copied) is tried again like one that was lost.
      w.signal = false;
      w.tries = 1;
      w.retry_at = clock::now() + std::chrono::seconds(1);
    }
  }
  events_ready_.notify_all();
  report(camera, "opened");
  GST_DEBUG("camera %d opened%s", camera, opened.empty() ? " without its source" : "");
  if (opened.empty()) {
    g_warning("open: camera %d: %s; trying again", camera, error.c_str());
    report(camera, "lost: " + error);
    if (on_signal_) on_signal_(camera, false);
  }
  return 0;
}

std::vector<source_core::stream_ptr> source_core::take_camera(int camera) {
  std::vector<stream_ptr> out;
  for (int ch : {camera, camera + 16})
    if (auto &s = streams_[static_cast<size_t>(ch)]) out.push_back(std::move(s));
  return out;
}

int source_core::close(int camera) {
  if (!valid_camera(camera)) {
    g_warning("close: no camera %d (cameras are 0..%d)", camera, LUMEN_SRC_MAX_CAMERA - 1);
    return -1;
  }
  std::vector<stream_ptr> closing;
  {
    std::lock_guard<std::mutex> g(lock_);
    camera_watch &w = watch_[static_cast<size_t>(camera)];
    if (!w.wanted) {
      g_warning("close: camera %d is not open", camera);
      return -1;
    }
    w = camera_watch{};
    closing = take_camera(camera);
  }
  closing.clear();
  report(camera, "closed");
  GST_DEBUG("camera %d closed", camera);
  return 0;
}

unsigned source_core::no_signal_mask() {
  std::lock_guard<std::mutex> g(lock_);
  unsigned mask = 0;
  for (size_t c = 0; c < watch_.size(); c++)
    if (watch_[c].wanted && !watch_[c].signal) mask |= 1u << c;
  return mask;
}

void source_core::pause(int ch) {
  std::lock_guard<std::mutex> g(lock_);
  if (!valid_channel(ch) || !streams_[static_cast<size_t>(ch)]) {
    g_warning("pause: channel %d is not open", ch);
    return;
  }
  streams_[static_cast<size_t>(ch)]->set_paused(true);
}

void source_core::resume(int ch) {
  std::lock_guard<std::mutex> g(lock_);
  if (!valid_channel(ch) || !streams_[static_cast<size_t>(ch)]) {
    g_warning("resume: channel %d is not open", ch);
    return;
  }
  const auto &s = streams_[static_cast<size_t>(ch)];
  s->set_intra_only(false);
  s->restart_at_intra();
  s->set_paused(false);
}

void source_core::intra_only(int ch) {
  std::lock_guard<std::mutex> g(lock_);
  if (ch == -1) {
    for (auto &s : streams_) {
      if (!s || !s->intra_only()) continue;
      s->restart_at_intra();
      s->set_intra_only(false);
    }
    return;
  }
  if (!valid_channel(ch) || !streams_[static_cast<size_t>(ch)]) {
    g_warning("ionlych: channel %d is not open", ch);
    return;
  }
  streams_[static_cast<size_t>(ch)]->set_intra_only(true);
}

void source_core::set_uri(int ch, const char *uri) {
  if (!valid_channel(ch)) {
    g_warning("uri: no channel %d", ch);
    return;
  }
  std::lock_guard<std::mutex> g(lock_);
  uris_[static_cast<size_t>(ch)] = uri != nullptr ? uri : "";
}

std::string source_core::uri(int ch) {
  if (!valid_channel(ch)) return {};
  std::lock_guard<std::mutex> g(lock_);
  return uris_[static_cast<size_t>(ch)];
}

void source_core::set_callback(callback_kind kind, GstLumenSrcCallback fn, gpointer user_data) {
  std::lock_guard<std::mutex> g(lock_);
  callbacks_[static_cast<size_t>(kind)] = {fn, user_data};
}

int source_core::send_audio(int camera, gconstpointer data, int size) {
  std::lock_guard<std::mutex> g(lock_);
  if (!valid_camera(camera) || !streams_[static_cast<size_t>(camera)]) {
    g_warning("send_audio: camera %d has no open main stream", camera);
    return -1;
  }
  if (size < 0 || (data == nullptr && size > 0)) {
    g_warning("send_audio: no data for camera %d", camera);
    return -1;
  }
  return size;
}

void source_core::set_running(bool running) {
  std::lock_guard<std::mutex> g(lock_);
  running_ = running;
  // A first, empty delivery lets the sink of a live pipeline complete its
  // change to PLAYING before any camera is open.
  empty_due_ = running;
  if (running) {
    // The sink may have seen anything before; every stream starts afresh.
    for (auto &s : streams_)
      if (s) s->restart_at_intra();
  } else {
    pending_.clear();
  }
}

void source_core::set_flushing(bool flushing) {
  {
    std::lock_guard<std::mutex> g(lock_);
    flushing_ = flushing;
  }
  frames_ready_.notify_all();
}

GstFlowReturn source_core::wait_list(GstBuffer **out) {
  std::vector<orlo::ref_ptr<GstBuffer>> frames;
  {
    std::unique_lock<std::mutex> g(lock_);
    frames_ready_.wait(g, [this] { return flushing_ || empty_due_ || !pending_.empty(); });
    if (flushing_) return GST_FLOW_FLUSHING;
    empty_due_ = false;
    frames.swap(pending_);
  }
  GstBuffer *list = gst_kel_list_buffer_new();
  for (auto &f : frames) gst_kel_list_buffer_append(list, f.release());
  GST_LOG("list of %zu frames", frames.size());
  *out = list;
  return GST_FLOW_OK;
}

void source_core::deliver(int ch, GstBuffer *frame) {
  auto owned = orlo::adopt(frame);
  callback_slot handoff;
  bool back = false;  // the first frame after a loss
  {
    std::lock_guard<std::mutex> g(lock_);
    if (!running_) return;
    handoff = callbacks_[static_cast<size_t>(callback_kind::handoff)];
  }
  if (handoff.fn != nullptr) {
    const GstKelBuddyMeta *m = gst_kel_buddy_buffer_get_meta(frame);
    handoff.fn(ch, m->data, static_cast<gint>(m->size), handoff.user_data);
  }
  {
    std::lock_guard<std::mutex> g(lock_);
    if (!running_) return;
    if (pending_.size() >= kMaxPending) drop_oldest_inter();
    pending_.push_back(std::move(owned));
    camera_watch &w = watch_[static_cast<size_t>(ch % 16)];
    back = w.wanted && !w.signal && !w.back;
    if (back) w.back = true;
  }
  frames_ready_.notify_one();
  if (back) events_ready_.notify_all();
}

void source_core::started(int ch, const std::string &caps) {
  call(callback_kind::header_x, ch, caps.c_str(), static_cast<int>(caps.size()));
}

namespace {

int frame_channel(GstBuffer *b) { return gst_kel_buddy_buffer_get_meta(b)->data[0]; }
int frame_type(GstBuffer *b) { return gst_kel_buddy_buffer_get_meta(b)->data[8]; }
bool is_inter(GstBuffer *b) { return frame_type(b) == 0; }
bool is_intra(GstBuffer *b) { return frame_type(b) == 1 || frame_type(b) == 5; }

}  // namespace

// A slow consumer costs the oldest inter frame and the inter frames of its
// channel that depend on it, up to that channel's next intra frame (asked of
// the stream when none waits); intra frames and other channels stay.
void source_core::drop_oldest_inter() {
  auto oldest = std::find_if(pending_.begin(), pending_.end(),
                             [](const auto &f) { return is_inter(f.get()); });
  if (oldest == pending_.end()) oldest = pending_.begin();
  const int ch = frame_channel(oldest->get());
  size_t dropped = 0;
  bool intra_waits = false;
  for (auto it = oldest; it != pending_.end();) {
    if (frame_channel(it->get()) != ch || (it != oldest && !is_inter(it->get()))) {
      intra_waits = frame_channel(it->get()) == ch && is_intra(it->get());
      if (intra_waits) break;
      ++it;
      continue;
    }
    it = pending_.erase(it);
    dropped++;
  }
  const auto &stream = streams_[static_cast<size_t>(ch)];
  if (!intra_waits && stream) stream->restart_at_intra();
  if (!overflow_logged_)
    g_warning("frames are not taken; %zu of channel %d dropped up to its next intra frame", dropped,
              ch);
  overflow_logged_ = true;
}

void source_core::failed(int camera, uint64_t generation, const std::string &reason) {
  {
    std::lock_guard<std::mutex> g(lock_);
    events_.push_back({camera, generation, reason});
  }
  events_ready_.notify_all();
}

void source_core::ended(int camera, uint64_t generation) {
  {
    std::lock_guard<std::mutex> g(lock_);
    events_.push_back({camera, generation, {}});
  }
  events_ready_.notify_all();
}

void source_core::call(callback_kind kind, int ch, const void *data, int size) {
  callback_slot slot;
  {
    std::lock_guard<std::mutex> g(lock_);
    slot = callbacks_[static_cast<size_t>(kind)];
  }
  if (slot.fn != nullptr) slot.fn(ch, const_cast<void *>(data), size, slot.user_data);
}

void source_core::report(int camera, const std::string &event) {
  call(callback_kind::cmd, camera, event.c_str(), static_cast<int>(event.size()));
}

}  // namespace lumen
