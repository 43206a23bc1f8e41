// One stream of one camera: an internal pipeline that produces H.264 access
// units (and, for a main stream, PCM audio) and hands them on as frames.
#pragma once

#include <gst/gst.h>
#include <gst/video/video.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "ref_ptr.hh"

namespace lumen {

// Where a stream's frames and troubles go; implemented by the element's core.
// All calls come on the stream's own streaming threads.
class frame_target {
 public:
  virtual ~frame_target() = default;
  // Takes over the reference on `frame`, a buddy buffer.
  virtual void deliver(int ch, GstBuffer *frame) = 0;
  // The stream's first sample: its caps as text.
  virtual void started(int ch, const std::string &caps) = 0;
  // The source failed while running.
  virtual void failed(int camera, uint64_t generation, const std::string &reason) = 0;
  // The source reached its end (a file).
  virtual void ended(int camera, uint64_t generation) = 0;
};

struct stream_config {
  int camera = 0;
  int stream = 0;  // 0 main, 1 sub
  int width = 640;
  int height = 360;
  int fps = 25;
  int key_interval = 25;  // frames between intra frames
  int bitrate = 1024;     // kbit/s
  std::string uri;        // empty: synthetic
  bool paced = false;     // a file: played at its own rate, not as fast as it reads
  uint64_t generation = 0;
  int channel() const { return camera + 16 * stream; }
};

// The camera whose audio is delivered, process-wide; -1 for none.
extern std::atomic<int> live_audio_camera;

class camera_stream {
 public:
  // Builds and starts the stream; on failure gives nullptr and the reason.
  static std::shared_ptr<camera_stream> open(const stream_config &config, frame_target &target,
                                             std::string *error);
  // Why `uri` can never be opened (no URI, no element for it), or empty.
  static std::string permanent_error(const std::string &uri);
  struct key;  // keeps construction to open()
  camera_stream(key, const stream_config &config, frame_target &target);
  ~camera_stream();
  camera_stream(const camera_stream &) = delete;
  camera_stream &operator=(const camera_stream &) = delete;

  int channel() const { return config_.channel(); }
  uint64_t generation() const { return config_.generation; }

  void set_paused(bool paused) { paused_ = paused; }
  void set_intra_only(bool on) { intra_only_ = on; }
  bool intra_only() const { return intra_only_; }
  // The next frame delivered is an intra frame, asked of the encoder now.
  void restart_at_intra() { restart_ = true; }
  // Plays a file again from its start; false when that failed.
  bool rewind();
  bool real() const { return !config_.uri.empty(); }
  // Monotonic time (us) of the last video frame, or of the start.
  int64_t last_frame_us() const { return last_frame_us_; }

 private:
  bool build(std::string *error);
  bool start(std::string *error);
  void stop();
  void on_video(GstBuffer *buffer, GstCaps *caps);
  void on_audio(GstBuffer *buffer);
  void request_key_unit();
  static GstBusSyncReply on_bus(GstBus *bus, GstMessage *message, gpointer self);
  static GstPadProbeReturn on_picture(GstPad *pad, GstPadProbeInfo *info, gpointer self);

  const stream_config config_;
  frame_target &target_;
  orlo::ref_ptr<GstElement> pipeline_;
  orlo::ref_ptr<GstElement> video_sink_;
  orlo::ref_ptr<GstElement> audio_sink_;
  std::atomic<bool> paused_{false};
  std::atomic<bool> intra_only_{false};
  std::atomic<bool> restart_{false};
  bool need_intra_ = true;       // streaming thread only
  bool announced_ = false;       // streaming thread only
  GstVideoInfo picture_info_{};  // synthetic pictures, for the label
  uint32_t video_seq_ = 0;
  uint32_t audio_seq_ = 0;
  std::atomic<bool> reported_{false};
  std::atomic<int64_t> last_frame_us_{g_get_monotonic_time()};
  std::mutex error_lock_;
  std::string first_error_;  // the first error the pipeline posted
};

}  // namespace lumen
