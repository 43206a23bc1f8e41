// The recording reader under libFuzzer: an input is the bytes of a channel
// file, scanned in two steps (a file that grows while it is played), then
// every indexed frame walked NAL unit by NAL unit, as the player does.  The
// scans run over the bytes in memory; one input in 32 also goes through a
// file, whose index must be the same.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <numeric>
#include <string>
#include <vector>

#include "recording.hh"

namespace {

// One file for the whole run, rewritten for each input through one
// descriptor: the run's time goes to the reader, not to opening files.
struct channel_file {
  std::string path;
  int fd = -1;
  channel_file() {
    char name[] = "/dev/shm/fuzz_recording_XXXXXX";
    fd = mkstemp(name);
    if (fd < 0) abort();
    path = name;
  }
  ~channel_file() {
    close(fd);
    unlink(path.c_str());
  }
  void write_at(const uint8_t *data, size_t size, size_t at) const {
    if (at == 0 && ftruncate(fd, 0) != 0) abort();
    if (size > 0 && pwrite(fd, data, size, static_cast<off_t>(at)) != static_cast<ssize_t>(size))
      abort();
  }
};

// The index of `rec`, field by field.
std::vector<uint64_t> summary(const kelsst::recording &rec) {
  std::vector<uint64_t> out{rec.truncated(), rec.overlapped(), rec.damaged(), rec.damage_at()};
  for (const kelsst::frame_entry &f : rec.frames())
    out.insert(out.end(), {f.offset, f.size, f.intra, static_cast<uint64_t>(f.time), f.file});
  return out;
}

// The same two scans through a file, with every frame read back: rarer, as
// mapping a file costs far more than the scan itself.
void compare_with_file(const uint8_t *data, size_t size, size_t cut,
                       const kelsst::recording &from_memory) {
  static const channel_file file;
  file.write_at(data, cut, 0);
  kelsst::recording rec(file.path);
  rec.scan();
  file.write_at(data + cut, size - cut, cut);
  rec.scan();
  if (summary(rec) != summary(from_memory)) abort();
  std::vector<uint8_t> frame;
  for (const kelsst::frame_entry &f : rec.frames()) {
    frame.resize(f.size);
    if (!rec.read_frame(f, frame.data()) ||
        !std::equal(frame.begin(), frame.end(), data + f.offset))
      abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // The first byte chooses where the file is cut for the first scan.
  const size_t cut = size == 0 ? 0 : (static_cast<size_t>(data[0]) * (size - 1)) / 255 + 1;
  kelsst::recording rec("unused");
  rec.scan_bytes(data, cut);
  rec.scan_bytes(data, size);
  std::vector<uint8_t> frame;
  for (const kelsst::frame_entry &f : rec.frames()) {
    // A frame the index holds lies inside the file.
    if (f.offset + f.size > size) abort();
    // A copy of its own size, so that a read beyond the frame is caught.
    frame.assign(data + f.offset, data + f.offset + f.size);
    kelsst::for_each_nal(frame.data(), frame.size(), [&](int type, size_t start, size_t end) {
      if (type < 0 || type > 31 || start >= end || end > frame.size()) abort();
    });
  }
  // Byte sums spread evenly, where the first bytes of a recording do not.
  if (std::accumulate(data, data + size, 0u) % 32 == 0) compare_with_file(data, size, cut, rec);
  return 0;
}
