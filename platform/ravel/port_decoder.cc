#include "port_decoder.hh"

#include <glib.h>
#include <pthread.h>

#include <cstdio>

#include "h264_nal.hh"
#include "log_domain.hh"
#include "still_images.hh"

namespace ravel_soft {

port_decoder::port_decoder(int port, ravel_release_fn release, statistics &stats)
    : port_(port), release_(release), stats_(stats), counters_(stats.port[port]) {
  thread_ = std::thread([this] {
    char name[16];
    std::snprintf(name, sizeof name, "ravel-dec-%d", port_);
    pthread_setname_np(pthread_self(), name);
    run();
  });
}

port_decoder::~port_decoder() { shutdown(); }

int32_t port_decoder::offer(const pending_frame &frame) {
  {
    std::lock_guard<std::mutex> g(lock_);
    if (!running_ || quit_ || queue_.size() >= kQueueDepth) {
      counters_.refused++;
      return -1;
    }
    queue_.push_back(frame);
    counters_.accepted++;
  }
  wake_.notify_all();
  return 0;
}

picture_ptr port_decoder::latest() const {
  std::lock_guard<std::mutex> g(lock_);
  return latest_;
}

void port_decoder::set_running(bool on) {
  {
    std::lock_guard<std::mutex> g(lock_);
    running_ = on;
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

void port_decoder::give_back(const pending_frame &f) {
  release_(f.buffer);
  counters_.released++;
}

void port_decoder::run() {
  std::unique_lock<std::mutex> g(lock_);
  for (;;) {
    // A stopped port empties its queue even while held, so that no buffer
    // stays with the engine longer than it runs.
    wake_.wait(g, [this] { return quit_ || (!queue_.empty() && (!held_ || !running_)); });
    if (quit_) break;
    pending_frame f = queue_.front();
    queue_.pop_front();
    bool decode = running_;
    g.unlock();
    if (decode) {
      handle(f);
    } else {
      if (f.jpeg_cb != nullptr) deliver_jpeg(f.jpeg_cb, port_, nullptr, f.jpeg_timestamp, stats_);
      if (f.image_cb != nullptr) deliver_yvyu(f.image_cb, nullptr);
      give_back(f);
    }
    g.lock();
  }
  // Process exit: the buffers go back, the callers' callbacks are not called
  // any more.
  while (!queue_.empty()) {
    pending_frame f = queue_.front();
    queue_.pop_front();
    give_back(f);
  }
  jpeg_waits_.clear();
}

void port_decoder::handle(const pending_frame &f) {
  if (f.image_cb != nullptr) {
    decode_for_image(f);
    return;
  }
  if (wait_intra_) {
    if (!has_idr_slice(f.data, f.size)) {
      counters_.skipped++;
      if (f.jpeg_cb != nullptr) deliver_jpeg(f.jpeg_cb, port_, nullptr, f.jpeg_timestamp, stats_);
      give_back(f);
      return;
    }
    decoder_.reset();
    wait_intra_ = false;
  }
  int64_t tag = next_tag_++;
  if (f.jpeg_cb != nullptr) jpeg_waits_.push_back({tag, f.jpeg_cb, f.jpeg_timestamp});
  bool good = decoder_.decode(f.data, f.size, tag, [this](std::shared_ptr<picture> pic, int64_t t) {
    publish(std::move(pic), t);
  });
  give_back(f);
  if (!good) {
    counters_.decode_errors++;
    wait_intra_ = true;
    g_log(RAVEL_LOG_DOMAIN, G_LOG_LEVEL_WARNING,
          "port %d: damaged frame of %d bytes skipped; the port waits for an intra frame", port_,
          f.size);
    fail_jpeg_waits(tag);
  }
  // A request whose frame never came out of the decoder is not kept forever.
  fail_jpeg_waits(tag - 8);
}

void port_decoder::publish(std::shared_ptr<picture> pic, int64_t tag) {
  pic->seq = next_seq_++;
  picture_ptr done = std::move(pic);
  {
    std::lock_guard<std::mutex> g(lock_);
    latest_ = done;
  }
  counters_.decoded++;
  while (!jpeg_waits_.empty() && jpeg_waits_.front().tag <= tag) {
    jpeg_wait w = jpeg_waits_.front();
    jpeg_waits_.pop_front();
    deliver_jpeg(w.cb, port_, w.tag == tag ? done.get() : nullptr, w.timestamp, stats_);
  }
}

void port_decoder::fail_jpeg_waits(int64_t up_to_tag) {
  while (!jpeg_waits_.empty() && jpeg_waits_.front().tag <= up_to_tag) {
    jpeg_wait w = jpeg_waits_.front();
    jpeg_waits_.pop_front();
    deliver_jpeg(w.cb, port_, nullptr, w.timestamp, stats_);
  }
}

void port_decoder::decode_for_image(const pending_frame &f) {
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
  if (!got) {
    counters_.decode_errors++;
    g_log(RAVEL_LOG_DOMAIN, G_LOG_LEVEL_WARNING,
          "port %d: the frame for a decoded image gave no picture%s", port_,
          good ? "" : " (damaged)");
  } else {
    counters_.decoded++;
  }
  deliver_yvyu(f.image_cb, got.get());
}

}  // namespace ravel_soft
