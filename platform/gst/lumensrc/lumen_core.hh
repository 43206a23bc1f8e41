// The working part of one lumensrc element: its open streams, the frames that
// wait for the next delivery, the application's callbacks and the thread that
// watches real sources: it closes a failed or silent one, tries it again with
// a growing pause until it comes back, and plays a file again at its end.
#pragma once

#include <gst/gst.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "camera_stream.hh"
#include "lumen_src.h"
#include "ref_ptr.hh"

namespace lumen {

enum class callback_kind { cmd, motion, alarm, handoff, header_x, onvif_meta, count };

struct settings {
  int width = 640;
  int height = 360;
  int fps = 25;
  int key_interval = 25;
  int bitrate = 1024;  // main stream, kbit/s; the sub stream gets a quarter
  int streams = LUMEN_SRC_OPEN_MAIN | LUMEN_SRC_OPEN_SUB;
  bool loop = true;       // a file plays again from its start at its end
  int silence_ms = 5000;  // a real source with no frame for this long is lost
};

// Called when a camera's signal goes or comes back (outside every lock).
using signal_hook = std::function<void(int camera, bool present)>;

class source_core final : public frame_target {
 public:
  // Frames held for delivery at most; past that the oldest inter frames go,
  // with what depends on them up to their channel's next intra frame.
  static constexpr size_t kMaxPending = 256;

  explicit source_core(signal_hook on_signal = {});
  ~source_core() override;
  source_core(const source_core &) = delete;
  source_core &operator=(const source_core &) = delete;

  settings get_settings();
  void set_settings(const settings &s);

  int open(int camera, int streams);
  int close(int camera);
  // Requests by property: a refusal is a warning, there is no result to give.
  void pause(int ch);
  void resume(int ch);
  void intra_only(int ch);  // -1: every channel back to normal
  void set_uri(int ch, const char *uri);
  std::string uri(int ch);
  void set_callback(callback_kind kind, GstLumenSrcCallback fn, gpointer user_data);
  int send_audio(int camera, gconstpointer data, int size);

  // Element state: frames are held only while the element plays, and each
  // start delivers one empty list first.
  void set_running(bool running);
  void set_flushing(bool flushing);
  // Blocks until frames wait or a flush begins; gives a list buffer of them.
  GstFlowReturn wait_list(GstBuffer **out);

  void deliver(int ch, GstBuffer *frame) override;
  void started(int ch, const std::string &caps) override;
  void failed(int camera, uint64_t generation, const std::string &reason) override;
  void ended(int camera, uint64_t generation) override;
  // Cameras without a signal, one bit each.
  unsigned no_signal_mask();

 private:
  using stream_ptr = std::shared_ptr<camera_stream>;
  using clock = std::chrono::steady_clock;
  struct callback_slot {
    GstLumenSrcCallback fn = nullptr;
    gpointer user_data = nullptr;
  };
  struct event {
    int camera;
    uint64_t generation;
    std::string reason;  // empty: the source ended
  };
  // What the application asked of a camera and how its source fares.
  struct camera_watch {
    bool wanted = false;  // opened, kept until closed
    int streams = 0;      // the streams asked for
    bool signal = true;   // frames flow, or are expected to
    bool back = false;    // a frame came after a loss, not yet announced
    int tries = 0;        // tries since the loss
    clock::time_point retry_at{};
  };

  void call(callback_kind kind, int ch, const void *data, int size);
  void report(int camera, const std::string &event);
  void supervise();
  // The supervisor's steps, each called and returning with the lock held.
  void handle(std::unique_lock<std::mutex> &g, const event &e);
  void lose(std::unique_lock<std::mutex> &g, int camera, const std::string &reason);
  void announce_returns(std::unique_lock<std::mutex> &g);
  void check_silence(std::unique_lock<std::mutex> &g);
  void run_due_tries(std::unique_lock<std::mutex> &g);
  clock::time_point next_wake() const;
  // The configurations of a camera's streams, under a new generation; lock held.
  std::vector<stream_config> configs_of(int camera, int streams);
  // Starts every stream or none; the reason when none.
  std::vector<stream_ptr> start_streams(const std::vector<stream_config> &configs,
                                        std::string *error);
  void drop_oldest_inter();
  // Takes the camera's streams out of the table; the caller destroys them
  // outside the lock.
  std::vector<stream_ptr> take_camera(int camera);

  std::mutex lock_;
  std::condition_variable frames_ready_;
  std::vector<orlo::ref_ptr<GstBuffer>> pending_;
  std::array<stream_ptr, LUMEN_SRC_MAX_CHANNEL> streams_;
  std::array<camera_watch, LUMEN_SRC_MAX_CAMERA> watch_;
  signal_hook on_signal_;
  std::array<std::string, LUMEN_SRC_MAX_CHANNEL> uris_;
  std::array<callback_slot, static_cast<size_t>(callback_kind::count)> callbacks_;
  unsigned opening_ = 0;  // cameras being opened, one bit each
  settings settings_;
  uint64_t next_generation_ = 1;
  bool running_ = false;
  bool flushing_ = false;
  bool empty_due_ = false;
  bool overflow_logged_ = false;

  std::condition_variable events_ready_;
  std::deque<event> events_;
  bool quitting_ = false;
  std::thread supervisor_;
};

}  // namespace lumen
