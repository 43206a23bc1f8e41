#include "port_decoder.hh"

#include <glib.h>
#include <pthread.h>

#include <algorithm>
#include <cstdio>

#include "log_domain.hh"
#include "still_images.hh"

namespace ravel_soft {

port_decoder::port_decoder(int port, ravel_release_fn release, statistics &stats,
                           picture_hook on_picture)
    : port_(port),
      release_(release),
      stats_(stats),
      counters_(stats.port[port]),
      on_picture_(std::move(on_picture)) {
  thread_ = std::thread([this] {
    char name[16];
    std::snprintf(name, sizeof name, "ravel-dec-%d", port_);
    pthread_setname_np(pthread_self(), name);
    run();
  });
}

port_decoder::~port_decoder() { shutdown(); }

int32_t port_decoder::offer(const pending_frame &frame) {
  bool was_empty;
  {
    std::lock_guard<std::mutex> g(lock_);
    was_empty = queue_.empty();
    if (!running_ || quit_ || queue_.size() >= kQueueDepth) {
      counters_.refused++;
      return -1;
    }
    queue_.push_back(frame);
    queue_.back().generation = generation_;
    const clock::time_point now = clock::now();
    // The source's pace, from the gaps between frames; a pause is no gap.
    const clock::duration gap = now - last_frame_;
    if (gap < std::chrono::milliseconds(200)) frame_gap_ += (gap - frame_gap_) / 8;
    last_frame_ = now;
    counters_.accepted++;
    counters_.queued++;
  }
  // The thread waits only on an empty queue.
  if (was_empty) wake_.notify_all();
  return 0;
}

picture_ptr port_decoder::latest() const {
  std::lock_guard<std::mutex> g(lock_);
  return latest_;
}

picture_ptr port_decoder::take_for_display(clock::time_point now, clock::time_point *next_due) {
  std::lock_guard<std::mutex> g(lock_);
  // One picture per pass: the one after it waits for the next pass.
  if (taken_ && !pending_.empty() && pending_.front().due <= now) {
    latest_ = std::move(pending_.front().pic);
    pending_.pop_front();
    if (pending_.empty()) presented_.notify_all();
  }
  taken_ = true;
  *next_due = pending_.empty() ? clock::time_point::max() : pending_.front().due;
  return latest_;
}

void port_decoder::set_shown(bool shown) {
  std::lock_guard<std::mutex> g(lock_);
  shown_ = shown;
  if (shown) return;
  // Nobody composes what waits: the last of it is the port's picture, and
  // whoever waits for it to be shown waits no longer.
  if (!pending_.empty()) latest_ = std::move(pending_.back().pic);
  pending_.clear();
  presented_.notify_all();
}

bool port_decoder::wait_presented(clock::time_point deadline) {
  std::unique_lock<std::mutex> g(lock_);
  return presented_.wait_until(g, deadline, [this] { return pending_.empty() || quit_; });
}

bool port_decoder::present_due(clock::time_point now) {
  bool changed = false;
  while (!pending_.empty() &&
         (pending_.size() >= kPendingDepth || (taken_ && pending_.front().due <= now))) {
    latest_ = std::move(pending_.front().pic);
    pending_.pop_front();
    taken_ = false;
    changed = true;
  }
  if (changed && pending_.empty()) presented_.notify_all();
  return changed;
}

void port_decoder::set_running(bool on) {
  {
    std::lock_guard<std::mutex> g(lock_);
    running_ = on;
  }
  wake_.notify_all();
}

void port_decoder::reset() {
  {
    std::lock_guard<std::mutex> g(lock_);
    generation_++;
  }
  wake_.notify_all();
}

void port_decoder::hold(bool on) {
  {
    std::lock_guard<std::mutex> g(lock_);
    held_ = on;
  }
  wake_.notify_all();
}

void port_decoder::shutdown() {
  {
    std::lock_guard<std::mutex> g(lock_);
    quit_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
}

void port_decoder::with_counters(const std::function<void(const port_counters &)> &read) const {
  std::lock_guard<std::mutex> g(lock_);
  read(counters_);
}

bool port_decoder::no_signal(clock::time_point now, clock::duration timeout) {
  std::lock_guard<std::mutex> g(lock_);
  if (!lost_ && latest_ && timeout > clock::duration::zero() && now - last_frame_ > timeout) {
    lost_ = true;
    g_log(RAVEL_LOG_DOMAIN, G_LOG_LEVEL_MESSAGE, "port %d: no frame for %lld ms: NO SIGNAL", port_,
          static_cast<long long>(
              std::chrono::duration_cast<std::chrono::milliseconds>(now - last_frame_).count()));
  }
  counters_.no_signal = lost_;
  return lost_;
}

void port_decoder::set_signal(bool present) {
  std::lock_guard<std::mutex> g(lock_);
  lost_ = !present;
  // A port said to be present is given a fresh time-out.
  if (present) last_frame_ = clock::now();
  counters_.no_signal = lost_;
}

void port_decoder::give_back(const pending_frame &f) {
  release_(f.buffer);
  counters_.released++;
}

void port_decoder::count(outcome o) {
  switch (o) {
    case outcome::decoded:
      counters_.decoded++;
      break;
    case outcome::error:
      counters_.decode_errors++;
      break;
    case outcome::skipped:
      counters_.skipped++;
      break;
    case outcome::flushed:
      counters_.flushed++;
      break;
  }
  counters_.queued--;
}

void port_decoder::run() {
  std::unique_lock<std::mutex> g(lock_);
  for (;;) {
    // A stopped port empties its queue even while held, so that no buffer
    // stays with the engine longer than it runs.
    wake_.wait(g, [this] { return quit_ || (!queue_.empty() && (!held_ || !running_)); });
    if (quit_) break;
    take_one(g);
  }
  // Process exit: the buffers go back, the callers' callbacks are not called
  // any more.
  while (!queue_.empty()) {
    give_back(queue_.front());
    queue_.pop_front();
    count(outcome::flushed);
  }
  jpeg_waits_.clear();
}

void port_decoder::take_one(std::unique_lock<std::mutex> &g) {
  pending_frame f = queue_.front();
  queue_.pop_front();
  const bool fresh = running_ && f.generation == generation_;
  g.unlock();
  if (fresh && f.generation != decoder_generation_) {
    // The first frame since a reset starts a new stream: it must be intra,
    // and nothing the decoder still holds of the old one may come out.
    decoder_generation_ = f.generation;
    wait_intra_ = true;
  }
  outcome o = fresh ? handle(f) : drop_undecoded(f);
  g.lock();
  count(o);
}

void port_decoder::run_queued_here() {
  std::unique_lock<std::mutex> g(lock_);
  while (held_ && running_ && !quit_ && !queue_.empty()) take_one(g);
}

port_decoder::outcome port_decoder::drop_undecoded(const pending_frame &f) {
  if (f.jpeg_cb != nullptr) deliver_jpeg(f.jpeg_cb, port_, nullptr, f.jpeg_timestamp, stats_);
  if (f.image_cb != nullptr) deliver_yvyu(f.image_cb, nullptr);
  give_back(f);
  // The stream has a hole now: the next picture must not build on it.
  wait_intra_ = true;
  return outcome::flushed;
}

port_decoder::outcome port_decoder::skip(const pending_frame &f) {
  if (f.jpeg_cb != nullptr) deliver_jpeg(f.jpeg_cb, port_, nullptr, f.jpeg_timestamp, stats_);
  give_back(f);
  return outcome::skipped;
}

port_decoder::outcome port_decoder::handle(const pending_frame &f) {
  if (f.image_cb != nullptr) return decode_for_image(f);
  // Read before anything else, so that parameter sets are kept even from
  // frames that are skipped.
  access_unit au = reader_.inspect(f.data, f.size);
  if ((!au.has_slice && !au.has_params) || au.cut) {
    // Neither a picture nor what pictures need, or a picture cut short in
    // its first bytes: nothing the decoder should see.  A frame that went
    // missing with it is caught at the next frame_num.
    g_log(RAVEL_LOG_DOMAIN, G_LOG_LEVEL_WARNING, "port %d: a frame of %d bytes holds no %spicture",
          port_, f.size, au.cut ? "whole " : "");
    if (f.jpeg_cb != nullptr) deliver_jpeg(f.jpeg_cb, port_, nullptr, f.jpeg_timestamp, stats_);
    give_back(f);
    if (au.cut) wait_intra_ = true;
    return outcome::error;
  }
  // Parameter sets on their own, as some sources send them: the decoder
  // needs them whatever it waits for.
  if (!au.has_slice) return decode(f, false);
  if (wait_intra_) {
    if (!au.intra || !au.params_known) return skip(f);
    restart_stream();
  } else if (!au.params_known) {
    g_log(RAVEL_LOG_DOMAIN, G_LOG_LEVEL_WARNING,
          "port %d: a frame names a parameter set never seen; the port waits for an intra frame",
          port_);
    wait_intra_ = true;
    return skip(f);
  }
  if (!gaps_.accept(au)) {
    g_log(RAVEL_LOG_DOMAIN, G_LOG_LEVEL_WARNING,
          "port %d: a frame is missing before frame_num %u; the port holds its picture until an "
          "intra frame",
          port_, au.frame_num);
    wait_intra_ = true;
    return skip(f);
  }
  return decode(f, true, order_.count(au));
}

void port_decoder::restart_stream() {
  // Pictures still held for reordering are gone with the reset.
  fail_jpeg_waits(next_tag_);
  decoder_.reset();
  gaps_.restart();
  order_.restart();
  reordering_.clear();
  wait_intra_ = false;
}

port_decoder::outcome port_decoder::decode(const pending_frame &f, bool has_picture,
                                           std::optional<int64_t> poc) {
  int64_t tag = next_tag_++;
  if (f.jpeg_cb != nullptr) jpeg_waits_.push_back({tag, f.jpeg_cb, f.jpeg_timestamp});
  if (has_picture) reordering_.push_back({tag, poc});
  const uint64_t seq = next_seq_;
  bool good = decoder_.decode(f.data, f.size, tag, [this](std::shared_ptr<picture> pic, int64_t t) {
    publish(std::move(pic), t);
  });
  // Parameter sets alone make no picture, which libavcodec reports as an
  // error ("no frame!"); it has kept the sets all the same.
  good |= !has_picture;
  give_back(f);
  // A request whose frame never came out of the decoder is not kept forever
  // (pictures come out at most a reorder window late).
  fail_jpeg_waits(tag - 20);
  while (!reordering_.empty() && reordering_.front().tag < tag - 20) reordering_.pop_front();
  if (good) {
    // One picture a frame, as the decoder gives once its reorder window
    // is full: a frame that gave none may bring out the next one.
    if (next_seq_ == seq) bring_out_next();
    return outcome::decoded;
  }
  wait_intra_ = true;
  g_log(RAVEL_LOG_DOMAIN, G_LOG_LEVEL_WARNING,
        "port %d: damaged frame of %d bytes dropped; the port waits for an intra frame", port_,
        f.size);
  fail_jpeg_waits(tag);
  return outcome::error;
}

void port_decoder::bring_out_next() {
  auto by_count = [](const held_frame &a, const held_frame &b) { return a.poc < b.poc; };
  const auto first = std::min_element(reordering_.begin(), reordering_.end(), by_count);
  // Unknown counts sort first: then nothing is sure.
  if (first == reordering_.end() || !first->poc || !order_.next(*first->poc)) return;
  decoder_.bring_out_one(
      [this](std::shared_ptr<picture> pic, int64_t t) { publish(std::move(pic), t); });
}

void port_decoder::publish(std::shared_ptr<picture> pic, int64_t tag) {
  pic->seq = next_seq_++;
  std::optional<int64_t> poc;
  for (auto it = reordering_.begin(); it != reordering_.end(); ++it) {
    if (it->tag != tag) continue;
    poc = it->poc;
    reordering_.erase(it);
    break;
  }
  order_.shown(poc);
  picture_ptr done = std::move(pic);
  // When the compositor should come for a picture; max(): no need to.
  clock::time_point due = clock::time_point::max();
  {
    std::lock_guard<std::mutex> g(lock_);
    if (shown_) {
      const clock::time_point now = clock::now();
      last_due_ = std::max(now, last_due_ + frame_gap_ * 3 / 4);
      pending_.push_back({done, last_due_});
      if (present_due(now))
        due = now;
      else if (taken_ && pending_.size() == 1)
        due = pending_.front().due;
    } else {
      latest_ = done;
    }
    // A picture decoded now ends a lost signal, even before it is shown.
    lost_ = false;
    counters_.no_signal = false;
  }
  counters_.pictures++;
  // Pictures leave in presentation order, not in the order their frames
  // came: a request is served by its own frame's picture.
  for (auto it = jpeg_waits_.begin(); it != jpeg_waits_.end(); ++it) {
    if (it->tag != tag) continue;
    deliver_jpeg(it->cb, port_, done.get(), it->timestamp, stats_);
    jpeg_waits_.erase(it);
    break;
  }
  if (due != clock::time_point::max() && on_picture_) on_picture_(port_, due);
}

void port_decoder::fail_jpeg_waits(int64_t up_to_tag) {
  while (!jpeg_waits_.empty() && jpeg_waits_.front().tag <= up_to_tag) {
    jpeg_wait w = jpeg_waits_.front();
    jpeg_waits_.pop_front();
    deliver_jpeg(w.cb, port_, nullptr, w.timestamp, stats_);
  }
}

port_decoder::outcome port_decoder::decode_for_image(const pending_frame &f) {
  // A decoder of its own: the frame is shown to nobody and must not disturb
  // the references of the stream that runs on this port.
  h264_decoder once;
  std::shared_ptr<picture> got;
  auto keep = [&got](std::shared_ptr<picture> pic, int64_t) {
    if (!got) got = std::move(pic);
  };
  bool good = once.decode(f.data, f.size, 0, keep);
  if (!got) good = once.drain(keep) && good;
  give_back(f);
  if (!got)
    g_log(RAVEL_LOG_DOMAIN, G_LOG_LEVEL_WARNING,
          "port %d: the frame for a decoded image gave no picture%s", port_,
          good ? "" : " (damaged)");
  deliver_yvyu(f.image_cb, got.get());
  return got ? outcome::decoded : outcome::error;
}

}  // namespace ravel_soft
