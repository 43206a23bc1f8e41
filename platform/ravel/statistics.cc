#include "statistics.hh"

#include <cstdio>

namespace ravel_soft {

void statistics::print() {
  std::lock_guard<std::mutex> g(lock_);
  auto now = std::chrono::steady_clock::now();
  double secs = std::chrono::duration<double>(now - last_).count();
  if (secs <= 0) secs = 1e-9;
  uint64_t passes = compose_passes.load();
  std::printf("ravel statistics over %.1f s: %.1f compose passes/s, %llu JPEGs\n", secs,
              static_cast<double>(passes - previous_passes_) / secs,
              static_cast<unsigned long long>(jpegs.load()));
  std::printf(
      "port  accepted  refused   decoded     shown  errors  skipped   in/s  dec/s  shown/s\n");
  for (int i = 0; i < kPorts; i++) {
    const port_counters &c = port[i];
    snapshot s{c.accepted.load(), c.decoded.load(), c.shown.load()};
    uint64_t refused = c.refused.load();
    if (s.accepted == 0 && refused == 0) continue;
    const snapshot &p = previous_[i];
    std::printf(
        "%4d %9llu %8llu %9llu %9llu %7llu %8llu %6.1f %6.1f %8.1f\n", i,
        static_cast<unsigned long long>(s.accepted), static_cast<unsigned long long>(refused),
        static_cast<unsigned long long>(s.decoded), static_cast<unsigned long long>(s.shown),
        static_cast<unsigned long long>(c.decode_errors.load()),
        static_cast<unsigned long long>(c.skipped.load()),
        static_cast<double>(s.accepted - p.accepted) / secs,
        static_cast<double>(s.decoded - p.decoded) / secs,
        static_cast<double>(s.shown - p.shown) / secs);
    previous_[i] = s;
  }
  std::fflush(stdout);
  previous_passes_ = passes;
  last_ = now;
}

}  // namespace ravel_soft
