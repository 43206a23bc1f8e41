// The working part of one lumensrc element: its open streams, the frames that
// wait for the next delivery, the application's callbacks and the thread that
// closes cameras whose source failed.
#pragma once

#include <gst/gst.h>

#include <array>
#include <condition_variable>
#include <cstdint>
#include <deque>
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
};

class source_core final : public frame_target {
 public:
  // Frames held for delivery at most; past that the oldest go and every
  // stream restarts at an intra frame, so no stream continues from a gap.
  static constexpr size_t kMaxPending = 256;

  source_core();
  ~source_core() override;
  source_core(const source_core &) = delete;
  source_core &operator=(const source_core &) = delete;

  settings get_settings();
  void set_settings(const settings &s);

  int open(int camera, int streams);
  int close(int camera);
  int pause(int ch);
  int resume(int ch);
  int intra_only(int ch);  // -1: every channel back to normal
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

 private:
  struct callback_slot {
    GstLumenSrcCallback fn = nullptr;
    gpointer user_data = nullptr;
  };
  struct failure {
    int camera;
    uint64_t generation;
    std::string reason;
  };

  void call(callback_kind kind, int ch, const void *data, int size);
  void report(int camera, const std::string &event);
  void supervise();
  // Takes the camera's streams out of the table; the caller destroys them
  // outside the lock.
  std::vector<std::unique_ptr<camera_stream>> take_camera(int camera);

  std::mutex lock_;
  std::condition_variable frames_ready_;
  std::vector<orlo::ref_ptr<GstBuffer>> pending_;
  std::array<std::unique_ptr<camera_stream>, LUMEN_SRC_MAX_CHANNEL> streams_;
  std::array<std::string, LUMEN_SRC_MAX_CHANNEL> uris_;
  std::array<callback_slot, static_cast<size_t>(callback_kind::count)> callbacks_;
  unsigned opening_ = 0;  // cameras being opened, one bit each
  settings settings_;
  uint64_t next_generation_ = 1;
  bool running_ = false;
  bool flushing_ = false;
  bool empty_due_ = false;
  bool overflow_logged_ = false;

  std::condition_variable failures_ready_;
  std::deque<failure> failures_;
  bool quitting_ = false;
  std::thread supervisor_;
};

}  // namespace lumen
