#include "control_state.hh"

namespace ravel_soft {

system_time &process_system_time(std::unique_lock<std::mutex> &held) {
  static std::mutex lock;
  static system_time times;
  held = std::unique_lock<std::mutex>(lock);
  return times;
}

}  // namespace ravel_soft
