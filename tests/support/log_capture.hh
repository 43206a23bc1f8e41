// Captures GLib log messages (level and formatted text) so that tests can
// assert the exact texts the library logs.
#pragma once

#include <glib.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

namespace testing_support {

struct log_line {
  GLogLevelFlags level;
  std::string text;
};

class log_capture {
 public:
  log_capture() : previous_(g_log_set_default_handler(&log_capture::handler, this)) {}
  ~log_capture() { g_log_set_default_handler(previous_, nullptr); }

  // Texts at `level` (matching any of its bits).
  std::vector<std::string> texts(GLogLevelFlags level) const {
    std::lock_guard g(lock_);
    std::vector<std::string> out;
    for (auto &l : lines_)
      if (l.level & level) out.push_back(l.text);
    return out;
  }
  // How many lines carry exactly this text, at any level.
  int count(const std::string &text) const {
    return static_cast<int>(std::ranges::count(texts(G_LOG_LEVEL_MASK), text));
  }
  bool has(GLogLevelFlags level, const std::string &text) const {
    return std::ranges::count(texts(level), text) > 0;
  }
  void clear() {
    std::lock_guard g(lock_);
    lines_.clear();
  }

 private:
  // Only the library's own lines, which carry no domain.
  static void handler(const gchar *domain, GLogLevelFlags level, const gchar *message,
                      gpointer self) {
    auto *c = static_cast<log_capture *>(self);
    std::lock_guard g(c->lock_);
    if (domain == nullptr)
      c->lines_.push_back({GLogLevelFlags(level & G_LOG_LEVEL_MASK), message ? message : ""});
  }
  mutable std::mutex lock_;
  std::vector<log_line> lines_;
  GLogFunc previous_;
};

}  // namespace testing_support
