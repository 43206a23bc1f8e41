// Words that threads share without a lock.  The C records keep plain integer
// fields (the layout applications see); every access from our code goes
// through std::atomic_ref so that each read and write is whole and ordered.
#pragma once

#include <atomic>
#include <cstdint>

namespace orlo {

template <typename T>
inline T load_word(T &word, std::memory_order order = std::memory_order_relaxed) {
  return std::atomic_ref<T>(word).load(order);
}

template <typename T>
inline void store_word(T &word, T value, std::memory_order order = std::memory_order_relaxed) {
  std::atomic_ref<T>(word).store(value, order);
}

}  // namespace orlo
