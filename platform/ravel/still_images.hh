// Still images out of the engine: JPEG for snapshots, packed YVYU for
// thumbnails, and the queue of JPEG requests made with ravel_jpeg_enc.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include "picture.hh"
#include "ravel.h"
#include "statistics.hh"

namespace ravel_soft {

// JPEG of a picture, allocated with malloc (free releases it); NULL on
// failure.  `size` receives the byte count.
uint8_t *encode_jpeg(const picture &pic, int quality, unsigned long *size);

// Encodes `pic` (NULL: nothing to encode) and calls `cb` with the words that
// ravel_soft.h documents.  A failed encode still calls back, with a NULL
// address, so that the waiting caller learns of it at once.
void deliver_jpeg(ravel_jpeg_cb cb, int port, const picture *pic, uint32_t timestamp,
                  statistics &stats);

// Hands `pic` to `cb` as packed Y V Y U, g_malloc'ed; NULL address when there
// is no picture.
void deliver_yvyu(ravel_image_cb cb, const picture *pic);

// JPEG requests of ravel_jpeg_enc, served on a thread of their own.
class still_requests {
 public:
  using picture_of = std::function<picture_ptr(int port)>;
  using timestamp_of = std::function<uint32_t(int port)>;

  // A request waits this long for ravel_pause_frame before it is served from
  // the port's latest picture, so that the settings a caller makes right
  // after ravel_jpeg_enc (time stamp, destination) apply to it.
  static constexpr std::chrono::milliseconds kSettle{20};

  still_requests(picture_of pictures, timestamp_of timestamps, statistics &stats);
  ~still_requests();
  still_requests(const still_requests &) = delete;
  still_requests &operator=(const still_requests &) = delete;

  void request(int port, int32_t flag, ravel_jpeg_cb cb);
  // Serves the pending requests of `port` now; false when there are none.
  bool serve_now(int port);
  // Ends the thread; requests not yet served are dropped without a call.
  void shutdown();

 private:
  struct pending {
    int port;
    int32_t flag;
    ravel_jpeg_cb cb;
    std::chrono::steady_clock::time_point due;
  };
  void run();

  picture_of pictures_;
  timestamp_of timestamps_;
  statistics &stats_;
  std::mutex lock_;
  std::condition_variable wake_;
  std::deque<pending> queue_;
  bool quit_ = false;
  std::thread thread_;
};

}  // namespace ravel_soft
