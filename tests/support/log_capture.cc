#include "log_capture.hh"

#include <algorithm>

namespace testing_support {

log_capture::log_capture()
    : previous_(g_log_set_default_handler(&log_capture::handler, this)), previous_data_(nullptr) {}

log_capture::~log_capture() { g_log_set_default_handler(previous_, previous_data_); }

void log_capture::handler(const gchar *domain, GLogLevelFlags level, const gchar *message,
                          gpointer self) {
  auto *c = static_cast<log_capture *>(self);
  // Only the library's own lines, which carry no domain.
  if (domain != nullptr) return;
  std::lock_guard<std::mutex> g(c->lock_);
  c->lines_.push_back({GLogLevelFlags(level & G_LOG_LEVEL_MASK), message ? message : ""});
}

std::vector<log_line> log_capture::lines() const {
  std::lock_guard<std::mutex> g(lock_);
  return lines_;
}

std::vector<std::string> log_capture::texts(GLogLevelFlags level) const {
  std::vector<std::string> out;
  for (auto &l : lines())
    if (l.level & level) out.push_back(l.text);
  return out;
}

int log_capture::count(const std::string &text) const {
  return static_cast<int>(std::ranges::count(lines(), text, &log_line::text));
}

bool log_capture::has(GLogLevelFlags level, const std::string &text) const {
  return std::ranges::any_of(
      lines(), [&](const log_line &l) { return (l.level & level) && l.text == text; });
}

void log_capture::clear() {
  std::lock_guard<std::mutex> g(lock_);
  lines_.clear();
}

}  // namespace testing_support
