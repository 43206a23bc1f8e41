// The on-disk form of a recorded channel, shared by the recorder element
// (kelsstrec) and the player element (kelsstsrc).
//
// Files per channel, "<folder>/chNN.h264" and, once the recorder cuts it at
// its size or duration limit, "chNN-0001.h264" and on, played in that order.
// Each is a plain H.264 Annex B byte
// stream that any H.264 tool opens (ffplay, gst-launch filesrc ! h264parse).
// Each access unit is preceded by one SEI NAL unit of type 5 ("user data
// unregistered") under our UUID that carries the recorder's wall-clock time
// of the frame, the channel, the frame type and the byte length of the access
// unit that follows.  Decoders skip it; we read it.
//
// Why this form: it has no header, no trailer and no index that a power loss
// could leave stale.  Every frame is self-describing and is written with one
// write(2), so a file cut anywhere holds whole frames up to the cut and at
// most one partial frame at the end, which the length in its SEI exposes.
// The frame index is rebuilt by one scan of the file when it is opened; the
// scan resumes from where it stopped, which lets a player follow a recording
// that is still growing.
#pragma once

#include <glib.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kelsst {

inline constexpr int kMaxChannels = 64;

struct frame_entry {
  uint64_t offset;  // of the access unit's first byte (after our SEI)
  uint32_t size;    // of the access unit
  uint8_t intra;    // 1: the access unit holds an IDR picture
  int64_t time;     // recorder's wall-clock time, nanoseconds
  uint32_t file;    // of the channel's files, counted from 0
};

// The SEI NAL unit (start code included) that precedes one access unit.
std::vector<uint8_t> make_frame_sei(int channel, bool intra, uint32_t au_size, int64_t time);

// The index of one channel's file, built by scanning.
class recording {
 public:
  recording() = default;
  explicit recording(std::string path) : path_(std::move(path)) {}
  ~recording();
  recording(recording &&o) noexcept;
  recording &operator=(recording &&o) noexcept;
  recording(const recording &) = delete;
  recording &operator=(const recording &) = delete;

  const std::string &path() const { return path_; }
  // Scans what the file holds beyond what was scanned before.  False when
  // the file can't be opened or read (the frames found earlier stay).
  bool scan();
  // The same scan over bytes in memory that stand for the whole of the
  // first file as it is now (`length` bytes, growing from call to call):
  // for callers that hold the file's bytes, which spares mapping a file.
  void scan_bytes(const uint8_t *base, size_t length);
  bool opened() const { return opened_; }
  // The file ends inside a frame (a write cut short).
  bool truncated() const { return truncated_; }
  // The recorder's clock went back by more than a second somewhere.
  bool overlapped() const { return overlapped_; }
  // Bytes that are no whole frame stand between frames somewhere (the first
  // such place: damage_at()); the frames around them are kept.
  bool damaged() const { return damaged_; }
  uint64_t damage_at() const { return damage_at_; }
  const std::vector<frame_entry> &frames() const { return frames_; }
  // Copies the access unit of `f` into `dest` (f.size bytes).
  bool read_frame(const frame_entry &f, uint8_t *dest) const;

 private:
  void note_damage(uint64_t at);
  std::string path_;
  std::vector<frame_entry> frames_;
  struct segment {
    std::string path;
    uint64_t scanned = 0;  // bytes consumed by whole frames
    mutable int fd = -1;   // for reading frames, opened on first use
  };
  bool scan_segment(size_t k);
  void scan_image(size_t k, const uint8_t *base, size_t length);
  void close_files();
  std::vector<segment> segments_;
  bool opened_ = false;
  bool truncated_ = false;
  bool overlapped_ = false;
  bool damaged_ = false;
  uint64_t damage_at_ = 0;
};

// "<folder>/chNN.h264"
std::string channel_path(const std::string &folder, int channel);
// The recorder's k-th file of a channel: the first is "chNN.h264", those
// after a cut "chNN-0001.h264", "chNN-0002.h264" ...
std::string segment_path(const std::string &first, int k);

// H.264 helpers: the type of each NAL unit of an Annex B access unit.
template <typename Fn>
void for_each_nal(const uint8_t *p, size_t n, Fn &&fn) {
  // fn(nal_type, start_of_start_code, end_exclusive)
  size_t i = 0;
  auto find_start = [&](size_t from, size_t &code_len) -> size_t {
    for (size_t k = from; k + 2 < n; k++) {
      if (p[k] == 0 && p[k + 1] == 0 && p[k + 2] == 1) {
        code_len = 3;
        if (k > from && p[k - 1] == 0) return code_len = 4, k - 1;
        return k;
      }
    }
    return n;
  };
  size_t len = 0;
  i = find_start(0, len);
  while (i < n) {
    size_t hdr = i + len;
    size_t next_len = 0;
    size_t next = hdr < n ? find_start(hdr, next_len) : n;
    if (hdr < n) fn(p[hdr] & 0x1f, i, next);
    i = next;
    len = next_len;
  }
}

}  // namespace kelsst
