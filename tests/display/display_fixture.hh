// Shared set-up of the display tests: one handle over the recording engine,
// regions that compare and print readably, and log texts without line numbers.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <regex>

#include "fake_engine.hh"
#include "log_capture.hh"
#include "orlo_display.h"

namespace display_test {

using names = std::vector<std::string>;
using args_t = std::vector<int64_t>;
using testing_support::log_capture;

// A display of the given format (0: 1920 x 1080, 3: 1280 x 720, 6: 800 x 600).
inline orlo_display_t *make_display(int32_t format = 0, int32_t ch_count = 16) {
  const int32_t formats[] = {format};
  orlo_display_t *h = orlo_display_new(formats, 0, ch_count, 0, 1, -1, nullptr);
  EXPECT_NE(h, nullptr);
  return h;
}

inline constexpr orlo_vr_t kUnset = {-1, -1, -1, -1, -1, 1, -1, -1, -1, -1, 0};

// A region: crop unset, flag 0.
inline orlo_vr_t R(int ch, int x, int y, int w, int h, int layer = 1) {
  return orlo_vr_t{ch, x, y, w, h, layer, -1, -1, -1, -1, 0};
}

// The engine's arguments: its handle, then `rest`.
inline args_t with_engine(args_t rest) {
  rest.insert(rest.begin(), reinterpret_cast<intptr_t>(fake_engine::handle()));
  return rest;
}

// Room for a `T` at the very end of a page that an inaccessible page follows:
// a read past the record faults.  Left mapped to the end of the process.
template <typename T>
T *at_page_end() {
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  auto *two = static_cast<uint8_t *>(
      mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  EXPECT_EQ(mprotect(two + page, page, PROT_NONE), 0);
  return reinterpret_cast<T *>(two + page - sizeof(T));
}

// What `fn` printed to standard output.
template <typename Fn>
std::string printed_by(Fn fn) {
  ::testing::internal::CaptureStdout();
  fn();
  return ::testing::internal::GetCapturedStdout();
}

// Texts at `level` with a "name:line:" prefix reduced to "name:L:".
inline names texts_without_lines(const log_capture &log, GLogLevelFlags level) {
  static const std::regex line_no("^([A-Za-z_]+):[ ]?[0-9]+:");
  names out;
  for (const auto &t : log.texts(level)) out.push_back(std::regex_replace(t, line_no, "$1:L:"));
  return out;
}

}  // namespace display_test

inline bool operator==(const orlo_vr_t &a, const orlo_vr_t &b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

inline std::ostream &operator<<(std::ostream &os, const orlo_vr_t &r) {
  return os << "{ch " << r.ch << ", " << r.x << "," << r.y << " " << r.width << "x" << r.height
            << ", layer " << r.layer << ", crop " << r.crop_x << "," << r.crop_y << " "
            << r.crop_width << "x" << r.crop_height << ", flag " << r.flag << "}";
}
