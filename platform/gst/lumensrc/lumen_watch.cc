// The watch over real sources: a source that fails or falls silent is closed
// and tried again, after 1, 2, 4 ... up to 30 s, for as long as its camera
// stays open; its channel resumes at the next intra frame.  A file that ends
// plays again from its start, or, with "loop" off, ends its camera.  Runs on
// the element's own thread: a source can't stop the pipeline it belongs to
// from its own streaming thread.
#include <pthread.h>

#include <algorithm>
#include <utility>

#include "lumen_core.hh"

GST_DEBUG_CATEGORY_EXTERN(lumensrc_debug);
#define GST_CAT_DEFAULT lumensrc_debug

namespace lumen {
namespace {

constexpr int kMaxPauseSeconds = 30;
// How often open real sources are looked at for silence.
constexpr auto kSilenceTick = std::chrono::milliseconds(250);

// The pause before try `tries`: 1, 2, 4, 8, 16, then 30 s.
int pause_seconds(int tries) {
  return std::min(kMaxPauseSeconds, 1 << std::clamp(tries - 1, 0, 5));
}

}  // namespace

void source_core::supervise() {
  pthread_setname_np(pthread_self(), "lumensrc-watch");
  std::unique_lock<std::mutex> g(lock_);
  for (;;) {
    // Any notice (an event, a frame after a loss, a new open) wakes the
    // watch early; each step below does only what is due.  A quit asked for
    // before this thread first took the lock has sent its notice already.
    if (events_.empty() && !quitting_) events_ready_.wait_until(g, next_wake());
    if (quitting_) return;
    while (!events_.empty()) {
      const event e = std::move(events_.front());
      events_.pop_front();
      handle(g, e);
    }
    announce_returns(g);
    check_silence(g);
    run_due_tries(g);
  }
}

source_core::clock::time_point source_core::next_wake() const {
  auto wake = clock::now() + std::chrono::seconds(kMaxPauseSeconds);
  for (size_t c = 0; c < watch_.size(); c++) {
    const camera_watch &w = watch_[c];
    if (!w.wanted) continue;
    if (!streams_[c] && !streams_[c + 16]) wake = std::min(wake, w.retry_at);
    if ((streams_[c] && streams_[c]->real()) || (streams_[c + 16] && streams_[c + 16]->real()))
      wake = std::min(wake, clock::now() + kSilenceTick);
  }
  return wake;
}

// Streams are destroyed only with the lock released: their streaming threads
// may be waiting for it in deliver(), and a stream's end joins them.
void source_core::handle(std::unique_lock<std::mutex> &g, const event &e) {
  const auto &main = streams_[static_cast<size_t>(e.camera)];
  const auto &sub = streams_[static_cast<size_t>(e.camera) + 16];
  // A report from a stream that was closed or never installed is stale.
  const bool current =
      (main && main->generation() == e.generation) || (sub && sub->generation() == e.generation);
  if (!current) return;
  if (!e.reason.empty()) return lose(g, e.camera, e.reason);
  if (!settings_.loop) {
    auto closing = take_camera(e.camera);
    watch_[static_cast<size_t>(e.camera)] = camera_watch{};
    g.unlock();
    closing.clear();
    g_warning("camera %d lost: end of stream", e.camera);
    report(e.camera, "lost: end of stream");
    g.lock();
    return;
  }
  stream_ptr s = main && main->generation() == e.generation ? main : sub;
  g.unlock();
  GST_DEBUG("camera %d: end of the file, playing it again", e.camera);
  const bool again = s->rewind();
  s.reset();
  g.lock();
  if (!again) lose(g, e.camera, "the file cannot be played again");
}

// Closes the camera's streams and plans the next try.  The first loss is a
// warning and an event; each failed try after it one message.
void source_core::lose(std::unique_lock<std::mutex> &g, int camera, const std::string &reason) {
  camera_watch &w = watch_[static_cast<size_t>(camera)];
  auto closing = take_camera(camera);
  const bool first = w.signal;
  w.signal = w.back = false;
  const int pause = pause_seconds(++w.tries);
  w.retry_at = clock::now() + std::chrono::seconds(pause);
  const int tries = w.tries;
  g.unlock();
  closing.clear();
  if (first) {
    g_warning("camera %d lost: %s", camera, reason.c_str());
    GST_DEBUG("camera %d lost: %s", camera, reason.c_str());
    report(camera, "lost: " + reason);
    if (on_signal_) on_signal_(camera, false);
  } else {
    g_message("camera %d: try %d failed: %s; next try in %d s", camera, tries - 1, reason.c_str(),
              pause);
  }
  g.lock();
}

void source_core::announce_returns(std::unique_lock<std::mutex> &g) {
  for (size_t c = 0; c < watch_.size(); c++) {
    camera_watch &w = watch_[c];
    if (!w.back) continue;
    w.back = false;
    w.signal = true;
    const int tries = std::exchange(w.tries, 0);
    const int camera = static_cast<int>(c);
    g.unlock();
    g_message("camera %d: signal back after %d %s", camera, tries, tries == 1 ? "try" : "tries");
    GST_DEBUG("camera %d resumed", camera);
    report(camera, "resumed");
    if (on_signal_) on_signal_(camera, true);
    g.lock();
  }
}

void source_core::check_silence(std::unique_lock<std::mutex> &g) {
  const int64_t now = g_get_monotonic_time();
  const int64_t limit = int64_t{settings_.silence_ms} * 1000;
  for (size_t c = 0; c < streams_.size(); c++) {
    const auto &s = streams_[c];
    if (!s || !s->real() || now - s->last_frame_us() < limit) continue;
    const int camera = static_cast<int>(c % 16);
    gchar *why = g_strdup_printf("no frame for %.1f s", settings_.silence_ms / 1000.0);
    const std::string reason(why);
    g_free(why);
    lose(g, camera, reason);
  }
}

void source_core::run_due_tries(std::unique_lock<std::mutex> &g) {
  for (size_t c = 0; c < watch_.size(); c++) {
    camera_watch &w = watch_[c];
    if (!w.wanted || streams_[c] || streams_[c + 16] || clock::now() < w.retry_at) continue;
    const int camera = static_cast<int>(c);
    const auto configs = configs_of(camera, w.streams);
    opening_ |= 1u << camera;
    g.unlock();
    std::string error;
    auto opened = start_streams(configs, &error);
    g.lock();
    opening_ &= ~(1u << camera);
    if (!w.wanted) {  // closed meanwhile
      g.unlock();
      opened.clear();
      g.lock();
      continue;
    }
    if (opened.empty()) {
      lose(g, camera, error);
      continue;
    }
    // The try is logged by its outcome: its first frame, or its failure.
    GST_DEBUG("camera %d: try %d opened the source", camera, w.tries);
    for (auto &s : opened) streams_[static_cast<size_t>(s->channel())] = std::move(s);
  }
}

}  // namespace lumen
