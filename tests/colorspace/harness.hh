// Buffers with guard bytes and a random fill, for holding the converters
// against the reference byte for byte, guards and row gaps included.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

namespace cstest {

class Buffer {
 public:
  static constexpr size_t kGuard = 48;
  Buffer(size_t size, std::mt19937 &rng) : bytes_(size + 2 * kGuard) {
    for (auto &b : bytes_) b = static_cast<uint8_t>(rng());
  }
  uint8_t *data() { return bytes_.data() + kGuard; }
  const std::vector<uint8_t> &all() const { return bytes_; }

 private:
  std::vector<uint8_t> bytes_;
};

// Index of the first differing byte, or -1.
inline long first_difference(const Buffer &a, const Buffer &b) {
  for (size_t i = 0; i < a.all().size(); i++)
    if (a.all()[i] != b.all()[i]) return static_cast<long>(i) - static_cast<long>(Buffer::kGuard);
  return -1;
}

}  // namespace cstest
