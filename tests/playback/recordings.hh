// Recordings made in the test: channels of a few seconds of small H.264
// pictures, written by the kelsstrec element into a fresh folder.
#pragma once

#include <gst/gst.h>

#include <cstdint>
#include <string>

namespace playback_test {

// A temporary folder removed with its files at the end of the scope.
class temp_folder {
 public:
  temp_folder();
  ~temp_folder();
  temp_folder(const temp_folder &) = delete;
  temp_folder &operator=(const temp_folder &) = delete;
  const std::string &path() const { return path_; }

 private:
  std::string path_;
};

inline constexpr int64_t kStart = 1700000000LL * 1000000000LL;  // recorder time of frame 0
inline constexpr int kFps = 25;
inline constexpr int64_t kFrameNs = 1000000000LL / kFps;
inline constexpr int kIntraEvery = 10;

// Records `frames` frames of channel `ch` at 25 fps, an intra frame every 10,
// the first at recorder time `start`.  False when the pipeline fails.
bool record_channel(const std::string &folder, int ch, int frames, int64_t start = kStart);

// The channel file's path.
std::string channel_file(const std::string &folder, int ch);

}  // namespace playback_test
