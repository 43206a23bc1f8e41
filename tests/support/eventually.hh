// Waits for what another thread brings about: polls `ok` every few
// milliseconds for up to `seconds`, a generous limit on a loaded machine.
#pragma once

#include <chrono>
#include <thread>

namespace testing_support {

// `ok` is called once a round, so it may also act (push, render).
template <typename F>
bool eventually(F &&ok, double seconds = 20) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  for (; !ok(); std::this_thread::sleep_for(std::chrono::milliseconds(5)))
    if (std::chrono::steady_clock::now() >= until) return false;
  return true;
}

}  // namespace testing_support
