// The channel file: writing the per-frame SEI and scanning a file back into
// a frame index.
#include "recording.hh"

#include <fcntl.h>
#include <glib/gstdio.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace kelsst {

namespace {

// Our SEI's UUID.  It holds no zero byte, so it needs no emulation
// prevention and can be searched for as raw bytes.
constexpr uint8_t kUuid[16] = {0x6b, 0x65, 0x6c, 0x73, 0x73, 0x74, 0x2d, 0x66,
                               0x72, 0x61, 0x6d, 0x65, 0x2d, 0x76, 0x31, 0x2e};
constexpr uint8_t kVersion = 1;
constexpr size_t kDataSize = 16;
constexpr size_t kPayloadSize = sizeof kUuid + kDataSize;  // 32
// The raw prefix searched for: start code, NAL header (SEI), payload type 5,
// payload size, UUID.
constexpr uint8_t kPrefix[] = {0x00,      0x00,      0x01,      0x06,     0x05,      kPayloadSize,
                               kUuid[0],  kUuid[1],  kUuid[2],  kUuid[3], kUuid[4],  kUuid[5],
                               kUuid[6],  kUuid[7],  kUuid[8],  kUuid[9], kUuid[10], kUuid[11],
                               kUuid[12], kUuid[13], kUuid[14], kUuid[15]};
constexpr int64_t kOverlapSlack = 1000000000;  // B-frame reordering stays well below this

// `t` lies more than the slack before `than`.  Times come from the files, so
// any value may stand there: the difference is taken without overflow.
bool earlier_beyond_slack(int64_t t, int64_t than) {
  return t<than &&static_cast<uint64_t>(than) - static_cast<uint64_t>(t)> static_cast<uint64_t>(
      kOverlapSlack);
}

void put_le(uint8_t *p, uint64_t v, int n) {
  for (int i = 0; i < n; i++) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

uint64_t get_le(const uint8_t *p, int n) {
  uint64_t v = 0;
  for (int i = n - 1; i >= 0; i--) v = (v << 8) | p[i];
  return v;
}

// Reads `want` RBSP bytes from raw bytes starting at `p`, undoing emulation
// prevention.  Gives the raw bytes consumed, or 0 when the data ends first.
size_t read_rbsp(const uint8_t *p, size_t n, uint8_t *out, size_t want) {
  size_t raw = 0, got = 0, zeros = 0;
  while (got < want) {
    if (raw >= n) return 0;
    uint8_t b = p[raw++];
    if (zeros >= 2 && b == 0x03) {
      zeros = 0;
      continue;
    }
    zeros = b == 0 ? zeros + 1 : 0;
    out[got++] = b;
  }
  return raw;
}

}  // namespace

std::vector<uint8_t> make_frame_sei(int channel, bool intra, uint32_t au_size, int64_t time) {
  uint8_t data[kDataSize] = {};
  data[0] = kVersion;
  data[1] = static_cast<uint8_t>(channel);
  data[2] = intra ? 1 : 0;
  put_le(data + 4, au_size, 4);
  put_le(data + 8, static_cast<uint64_t>(time), 8);
  std::vector<uint8_t> out;
  out.push_back(0x00);  // the four-byte start code
  for (uint8_t b : kPrefix) out.push_back(b);
  // Emulation prevention over the data and the trailing bits.
  size_t zeros = 0;
  uint8_t rest[kDataSize + 1];
  std::memcpy(rest, data, kDataSize);
  rest[kDataSize] = 0x80;  // rbsp_trailing_bits
  for (uint8_t b : rest) {
    if (zeros >= 2 && b <= 0x03) {
      out.push_back(0x03);
      zeros = 0;
    }
    out.push_back(b);
    zeros = b == 0 ? zeros + 1 : 0;
  }
  return out;
}

std::string channel_path(const std::string &folder, int channel) {
  gchar name[16];
  g_snprintf(name, sizeof name, "ch%02d.h264", channel);
  gchar *p = g_build_filename(folder.c_str(), name, nullptr);
  std::string s(p);
  g_free(p);
  return s;
}

std::string segment_path(const std::string &first, int k) {
  if (k == 0) return first;
  const std::string stem = first.size() > 5 ? first.substr(0, first.size() - 5) : first;
  gchar name[16];
  g_snprintf(name, sizeof name, "-%04d.h264", k);
  return stem + name;
}

namespace {

enum class header { frame, not_ours, cut_short };

// Reads the frame header whose SEI starts at `at`.
header read_header(const uint8_t *base, size_t length, size_t at, frame_entry *f) {
  const size_t data_at = at + sizeof kPrefix;
  uint8_t data[kDataSize + 1];
  const size_t raw = read_rbsp(base + data_at, length - data_at, data, sizeof data);
  if (raw == 0) return header::cut_short;
  if (data[0] != kVersion || data[kDataSize] != 0x80) return header::not_ours;
  f->offset = data_at + raw;
  f->size = static_cast<uint32_t>(get_le(data + 4, 4));
  f->intra = data[2];
  f->time = static_cast<int64_t>(get_le(data + 8, 8));
  return header::frame;
}

}  // namespace

bool recording::scan() {
  if (segments_.empty()) segments_.push_back(segment{path_});
  for (;;) {
    const size_t k = segments_.size() - 1;
    if (!scan_segment(k)) return k > 0;
    const std::string next = segment_path(path_, static_cast<int>(k + 1));
    if (!g_file_test(next.c_str(), G_FILE_TEST_IS_REGULAR)) return true;
    // A file the recorder has left for the next one ends whole; a cut here
    // is damage, not a write in progress.
    if (truncated_) note_damage(segments_[k].scanned);
    truncated_ = false;
    segments_.push_back(segment{next});
  }
}

bool recording::scan_segment(size_t k) {
  GError *error = nullptr;
  GMappedFile *file = g_mapped_file_new(segments_[k].path.c_str(), FALSE, &error);
  if (file == nullptr) {
    g_clear_error(&error);
    return false;
  }
  opened_ = true;
  scan_image(k, reinterpret_cast<const uint8_t *>(g_mapped_file_get_contents(file)),
             g_mapped_file_get_length(file));
  g_mapped_file_unref(file);
  return true;
}

void recording::scan_bytes(const uint8_t *base, size_t length) {
  if (segments_.empty()) segments_.push_back(segment{path_});
  opened_ = true;
  scan_image(0, base, length);
}

void recording::scan_image(size_t k, const uint8_t *base, size_t length) {
  truncated_ = false;
  uint64_t pos = segments_[k].scanned;
  while (pos < length && !truncated_) {
    // Normally the next SEI stands right here; after damage, search for it.
    const void *hit =
        base == nullptr ? nullptr : memmem(base + pos, length - pos, kPrefix, sizeof kPrefix);
    if (hit == nullptr) {
      truncated_ = true;  // bytes that hold no whole frame
      break;
    }
    const size_t at = static_cast<const uint8_t *>(hit) - base;
    // Anything but the first zero of a four-byte start code between frames
    // is what is left of a damaged frame.
    if (at > pos && !(at == pos + 1 && base[pos] == 0)) note_damage(pos);
    frame_entry f{};
    f.file = static_cast<uint32_t>(k);
    const header h = read_header(base, length, at, &f);
    truncated_ = h == header::cut_short;
    if (h != header::frame) {
      pos = at + 1;  // not ours after all
      continue;
    }
    // A frame whose bytes hold the start of another frame has a damaged
    // length: it is skipped, and the search goes on from its header.
    const size_t end = std::min<uint64_t>(f.offset + f.size, length);
    if (memmem(base + f.offset, end - f.offset, kPrefix, sizeof kPrefix) != nullptr) {
      note_damage(at);
      pos = at + 1;
      continue;
    }
    truncated_ = f.offset + f.size > length;  // the last write was cut short
    if (truncated_) break;
    if (!frames_.empty() && earlier_beyond_slack(f.time, frames_.back().time)) overlapped_ = true;
    frames_.push_back(f);
    pos = segments_[k].scanned = f.offset + f.size;
  }
}

void recording::note_damage(uint64_t at) {
  if (!damaged_) damage_at_ = at;
  damaged_ = true;
}

void recording::close_files() {
  for (segment &g : segments_)
    if (g.fd >= 0) close(std::exchange(g.fd, -1));
}

recording::~recording() { close_files(); }

recording::recording(recording &&o) noexcept
    : path_(std::move(o.path_)),
      frames_(std::move(o.frames_)),
      segments_(std::move(o.segments_)),
      opened_(o.opened_),
      truncated_(o.truncated_),
      overlapped_(o.overlapped_),
      damaged_(o.damaged_),
      damage_at_(o.damage_at_) {
  o.segments_.clear();
}

recording &recording::operator=(recording &&o) noexcept {
  if (this != &o) {
    close_files();
    path_ = std::move(o.path_);
    frames_ = std::move(o.frames_);
    segments_ = std::move(o.segments_);
    o.segments_.clear();
    opened_ = o.opened_;
    truncated_ = o.truncated_;
    overlapped_ = o.overlapped_;
    damaged_ = o.damaged_;
    damage_at_ = o.damage_at_;
  }
  return *this;
}

bool recording::read_frame(const frame_entry &f, uint8_t *dest) const {
  if (f.file >= segments_.size()) return false;
  const segment &g = segments_[f.file];
  if (g.fd < 0) g.fd = open(g.path.c_str(), O_RDONLY | O_CLOEXEC);
  // A regular file gives the whole range in one read; less only where it has
  // been cut since the scan.
  return g.fd >= 0 &&
         pread(g.fd, dest, f.size, static_cast<off_t>(f.offset)) == static_cast<ssize_t>(f.size);
}

}  // namespace kelsst
