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
      "port  accepted  refused   decoded  errors  skipped  flushed queued  pictures     shown"
      "  signal   in/s  dec/s  shown/s\n");
  auto u = [](const std::atomic<uint64_t> &v) { return static_cast<unsigned long long>(v.load()); };
  for (int i = 0; i < kPorts; i++) {
    const port_counters &c = port[i];
    snapshot s{c.accepted.load(), c.decoded.load(), c.shown.load()};
    if (s.accepted == 0 && c.refused.load() == 0) continue;
    const snapshot &p = previous_[i];
    std::printf("%4d %9llu %8llu %9llu %7llu %8llu %8llu %6llu %9llu %9llu %7s %6.1f %6.1f %8.1f\n",
                i, u(c.accepted), u(c.refused), u(c.decoded), u(c.decode_errors), u(c.skipped),
                u(c.flushed), u(c.queued), u(c.pictures), u(c.shown),
                c.no_signal.load() ? "NONE" : "ok",
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
