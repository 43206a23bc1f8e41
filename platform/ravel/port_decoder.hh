// One engine port: a short queue of frames and the decoder thread that
// empties it, keeping the port's latest good picture.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

#include "h264_decoder.hh"
#include "h264_nal.hh"
#include "picture.hh"
#include "ravel.h"
#include "statistics.hh"

namespace ravel_soft {

struct pending_frame {
  void *buffer = nullptr;
  const uint8_t *data = nullptr;
  int32_t size = 0;
  ravel_jpeg_cb jpeg_cb = nullptr;
  ravel_image_cb image_cb = nullptr;
  uint32_t jpeg_timestamp = 0;  // the port's JPEG time stamp when the frame came in
  uint64_t generation = 0;      // the port's reset count when the frame came in
};

class port_decoder {
 public:
  // Short on purpose: a full queue is the back-pressure that makes the
  // pushing side retry, and a live mosaic should not lag behind its sources.
  static constexpr size_t kQueueDepth = 6;
  // Decoded pictures that wait for their presentation time.  Few: a port
  // whose pictures come faster than the source's pace for longer than this
  // shows them early rather than fall behind.
  static constexpr size_t kPendingDepth = 4;
  using clock = std::chrono::steady_clock;
  // Told on the port's thread when a shown port has a picture for the
  // display: at once when `due` has come, else to be taken at `due`.
  using picture_hook = std::function<void(int port, clock::time_point due)>;

  port_decoder(int port, ravel_release_fn release, statistics &stats, picture_hook on_picture);
  ~port_decoder();
  port_decoder(const port_decoder &) = delete;
  port_decoder &operator=(const port_decoder &) = delete;

  // 0: queued, the engine owns the buffer until it releases it.  -1: the
  // queue is full or the port does not run; the frame stays with the caller.
  int32_t offer(const pending_frame &frame);
  picture_ptr latest() const;
  // The picture that a compose pass at `now` draws: the next waiting one
  // when its time has come and a pass took the one before.  `next_due` is
  // when the one after it is due (time_point::max() when none waits).
  picture_ptr take_for_display(clock::time_point now, clock::time_point *next_due);
  // Whether a region shows the port: only then are its pictures paced (a
  // picture nobody composes is the latest at once).
  void set_shown(bool shown);
  // Waits until every picture decoded so far has become the latest in its
  // turn; false at `deadline`.
  bool wait_presented(clock::time_point deadline);

  // A port that does not run refuses frames and hands back what it queued.
  void set_running(bool on);
  // Frames queued now go back undecoded; the port starts again at an intra
  // frame and keeps its picture until then.
  void reset();
  // Test hook: a held port takes nothing from its queue.
  void hold(bool on);
  // Test hook: handles what a held port has queued on the calling thread,
  // as its own thread would, so that a fuzzer runs without hand-offs.
  void run_queued_here();
  // Test hook: lowers the largest picture the port decodes; before its
  // first frame.
  void limit_picture(int64_t pixels) { decoder_.limit(pixels); }
  // Ends the thread; queued frames are released without their callbacks.
  void shutdown();
  // Runs `read` under the lock that the frame counters are written under.
  void with_counters(const std::function<void(const port_counters &)> &read) const;

  // Whether the port's tiles show NO SIGNAL: after set_signal(false), or
  // when a port with a picture got no frame for `timeout` (zero: never),
  // until the port's next picture.
  bool no_signal(clock::time_point now, clock::duration timeout);
  void set_signal(bool present);

 private:
  enum class outcome { decoded, error, skipped, flushed };
  struct jpeg_wait {
    int64_t tag;
    ravel_jpeg_cb cb;
    uint32_t timestamp;
  };

  void run();
  // Takes the queue's first frame and handles it, with `g` (on lock_)
  // released meanwhile.
  void take_one(std::unique_lock<std::mutex> &g);
  outcome handle(const pending_frame &f);
  // `has_picture`: the frame holds a slice, with picture order count `poc`
  // when known.
  outcome decode(const pending_frame &f, bool has_picture,
                 std::optional<int64_t> poc = std::nullopt);
  // Hands out the picture that the decoder holds back although it is
  // surely the next to show (as after a playback step), rather than wait
  // for the frame after it.
  void bring_out_next();
  void restart_stream();
  outcome skip(const pending_frame &f);
  outcome drop_undecoded(const pending_frame &f);
  outcome decode_for_image(const pending_frame &f);
  void publish(std::shared_ptr<picture> pic, int64_t tag);
  // Under lock_: makes the next picture the latest when its time has come
  // and a pass took the one before, and any that too many wait behind;
  // true when the latest changed.
  bool present_due(clock::time_point now);
  void fail_jpeg_waits(int64_t up_to_tag);
  void give_back(const pending_frame &f);
  void count(outcome o);

  const int port_;
  const ravel_release_fn release_;
  statistics &stats_;
  port_counters &counters_;
  const picture_hook on_picture_;

  mutable std::mutex lock_;
  std::condition_variable wake_;
  std::condition_variable presented_;  // pending_ became empty
  std::deque<pending_frame> queue_;
  bool running_ = false;
  bool held_ = false;
  bool quit_ = false;
  uint64_t generation_ = 0;
  picture_ptr latest_;
  clock::time_point last_frame_{};
  bool lost_ = false;
  // Presentation: pictures leave the decoder in presentation order; each is
  // due at least 3/4 of the source's frame interval (the mean gap between
  // the frames that come in) after the one before, so that a burst of
  // pictures is shown at the source's pace and not swallowed by the
  // compositor, while a port that fell behind catches up.
  struct due_picture {
    picture_ptr pic;
    clock::time_point due;
  };
  std::deque<due_picture> pending_;
  clock::time_point last_due_{};
  clock::duration frame_gap_ = std::chrono::milliseconds(40);
  bool taken_ = true;  // a compose pass has read the latest picture
  bool shown_ = false;

  // Owned by the decoder thread.
  h264_decoder decoder_;
  stream_reader reader_;
  gap_detector gaps_;
  presentation_order order_;
  struct held_frame {
    int64_t tag;
    std::optional<int64_t> poc;
  };
  std::deque<held_frame> reordering_;  // decoded frames whose pictures are not out
  bool wait_intra_ = true;
  uint64_t decoder_generation_ = 0;
  int64_t next_tag_ = 1;
  uint64_t next_seq_ = 1;
  std::deque<jpeg_wait> jpeg_waits_;

  std::thread thread_;
};

}  // namespace ravel_soft
