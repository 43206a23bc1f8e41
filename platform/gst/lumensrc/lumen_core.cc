#include "lumen_core.hh"

#include <pthread.h>

#include <cstring>

#include "kel_buffers.h"

namespace lumen {
namespace {

bool valid_channel(int ch) { return ch >= 0 && ch < LUMEN_SRC_MAX_CHANNEL; }
bool valid_camera(int camera) { return camera >= 0 && camera < LUMEN_SRC_MAX_CAMERA; }

}  // namespace

source_core::source_core() : supervisor_([this] { supervise(); }) {}

source_core::~source_core() {
  {
    std::lock_guard<std::mutex> g(lock_);
    quitting_ = true;
  }
  failures_ready_.notify_all();
  supervisor_.join();
  std::array<std::unique_ptr<camera_stream>, LUMEN_SRC_MAX_CHANNEL> streams;
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
    if ((opening_ & (1u << camera)) != 0 || streams_[static_cast<size_t>(camera)] ||
        streams_[static_cast<size_t>(camera + 16)]) {
      g_warning("open: camera %d is already open", camera);
      return -1;
    }
    opening_ |= 1u << camera;
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
      c.generation = generation;
      configs.push_back(c);
    }
  }
  // Pipelines start outside the lock: their threads deliver into it.
  std::vector<std::unique_ptr<camera_stream>> opened;
  std::string error;
  for (const auto &c : configs) {
    auto s = camera_stream::open(c, *this, &error);
    if (!s) break;
    opened.push_back(std::move(s));
  }
  if (opened.size() != configs.size()) {
    opened.clear();
    {
      std::lock_guard<std::mutex> g(lock_);
      opening_ &= ~(1u << camera);
    }
    g_warning("open: camera %d: %s", camera, error.c_str());
    return -1;
  }
  {
    std::lock_guard<std::mutex> g(lock_);
    for (auto &s : opened) streams_[static_cast<size_t>(s->channel())] = std::move(s);
    opening_ &= ~(1u << camera);
  }
  report(camera, "opened");
  return 0;
}

std::vector<std::unique_ptr<camera_stream>> source_core::take_camera(int camera) {
  std::vector<std::unique_ptr<camera_stream>> out;
  for (int ch : {camera, camera + 16})
    if (auto &s = streams_[static_cast<size_t>(ch)]) out.push_back(std::move(s));
  return out;
}

int source_core::close(int camera) {
  if (!valid_camera(camera)) {
    g_warning("close: no camera %d (cameras are 0..%d)", camera, LUMEN_SRC_MAX_CAMERA - 1);
    return -1;
  }
  std::vector<std::unique_ptr<camera_stream>> closing;
  {
    std::lock_guard<std::mutex> g(lock_);
    closing = take_camera(camera);
  }
  if (closing.empty()) {
    g_warning("close: camera %d is not open", camera);
    return -1;
  }
  closing.clear();
  report(camera, "closed");
  return 0;
}

int source_core::pause(int ch) {
  std::lock_guard<std::mutex> g(lock_);
  if (!valid_channel(ch) || !streams_[static_cast<size_t>(ch)]) {
    g_warning("pause: channel %d is not open", ch);
    return -1;
  }
  streams_[static_cast<size_t>(ch)]->set_paused(true);
  return 0;
}

int source_core::resume(int ch) {
  std::lock_guard<std::mutex> g(lock_);
  if (!valid_channel(ch) || !streams_[static_cast<size_t>(ch)]) {
    g_warning("resume: channel %d is not open", ch);
    return -1;
  }
  auto &s = streams_[static_cast<size_t>(ch)];
  s->set_intra_only(false);
  s->restart_at_intra();
  s->set_paused(false);
  return 0;
}

int source_core::intra_only(int ch) {
  std::lock_guard<std::mutex> g(lock_);
  if (ch == -1) {
    for (auto &s : streams_) {
      if (!s || !s->intra_only()) continue;
      s->restart_at_intra();
      s->set_intra_only(false);
    }
    return 0;
  }
  if (!valid_channel(ch) || !streams_[static_cast<size_t>(ch)]) {
    g_warning("ionlych: channel %d is not open", ch);
    return -1;
  }
  streams_[static_cast<size_t>(ch)]->set_intra_only(true);
  return 0;
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
  *out = list;
  return GST_FLOW_OK;
}

void source_core::deliver(int ch, GstBuffer *frame) {
  auto owned = orlo::adopt(frame);
  callback_slot handoff;
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
    if (pending_.size() >= kMaxPending) {
      if (!overflow_logged_)
        g_warning("frames are not taken; %zu dropped, streams restart at intra frames",
                  pending_.size());
      overflow_logged_ = true;
      pending_.clear();
      for (auto &s : streams_)
        if (s) s->restart_at_intra();
    }
    pending_.push_back(std::move(owned));
  }
  frames_ready_.notify_one();
}

void source_core::started(int ch, const std::string &caps) {
  call(callback_kind::header_x, ch, caps.c_str(), static_cast<int>(caps.size()));
}

void source_core::failed(int camera, uint64_t generation, const std::string &reason) {
  {
    std::lock_guard<std::mutex> g(lock_);
    failures_.push_back({camera, generation, reason});
  }
  failures_ready_.notify_one();
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

// A failing source is closed here, not on its own streaming thread, which
// can't stop the pipeline that it belongs to.
void source_core::supervise() {
  pthread_setname_np(pthread_self(), "lumensrc-watch");
  std::unique_lock<std::mutex> g(lock_);
  for (;;) {
    failures_ready_.wait(g, [this] { return quitting_ || !failures_.empty(); });
    if (quitting_) return;
    failure f = std::move(failures_.front());
    failures_.pop_front();
    auto &main = streams_[static_cast<size_t>(f.camera)];
    auto &sub = streams_[static_cast<size_t>(f.camera + 16)];
    // A report from a stream that was closed or never opened is stale.
    const bool current =
        (main && main->generation() == f.generation) || (sub && sub->generation() == f.generation);
    if (!current) continue;
    auto closing = take_camera(f.camera);
    g.unlock();
    closing.clear();
    g_warning("camera %d lost: %s", f.camera, f.reason.c_str());
    report(f.camera, "lost: " + f.reason);
    g.lock();
  }
}

}  // namespace lumen
