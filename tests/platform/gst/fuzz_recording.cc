// The recording reader under libFuzzer: an input is the bytes of a channel
// file, scanned in two steps (a file that grows while it is played), then
// every indexed frame read back and walked NAL unit by NAL unit, as the
// player does.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "recording.hh"

namespace {

// One file for the whole run, rewritten for each input.
const std::string &file_path() {
  static const std::string path = [] {
    char name[] = "/dev/shm/fuzz_recording_XXXXXX";
    const int fd = mkstemp(name);
    if (fd < 0) abort();
    close(fd);
    return std::string(name);
  }();
  return path;
}

void write_file(const uint8_t *data, size_t size, bool append) {
  FILE *f = fopen(file_path().c_str(), append ? "ab" : "wb");
  if (f == nullptr) abort();
  if (size > 0 && fwrite(data, 1, size, f) != size) abort();
  fclose(f);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // The first byte chooses where the file is cut for the first scan.
  const size_t cut = size == 0 ? 0 : (static_cast<size_t>(data[0]) * (size - 1)) / 255 + 1;
  write_file(data, cut, false);
  kelsst::recording rec(file_path());
  rec.scan();
  write_file(data + cut, size - cut, true);
  rec.scan();
  std::vector<uint8_t> frame;
  for (const kelsst::frame_entry &f : rec.frames()) {
    // A frame the index holds lies inside the file.
    if (f.offset + f.size > size) abort();
    frame.resize(f.size);
    if (!rec.read_frame(f, frame.data())) abort();
    kelsst::for_each_nal(frame.data(), frame.size(), [&](int type, size_t start, size_t end) {
      if (type < 0 || type > 31 || start >= end || end > frame.size()) abort();
    });
  }
  return 0;
}
