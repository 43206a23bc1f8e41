// Captures GLib log messages (level and formatted text) so that tests can
// assert the exact texts the library logs.
#pragma once

#include <glib.h>

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
  log_capture();
  ~log_capture();
  log_capture(const log_capture &) = delete;
  log_capture &operator=(const log_capture &) = delete;

  std::vector<log_line> lines() const;
  // Texts at `level` (matching any of its bits).
  std::vector<std::string> texts(GLogLevelFlags level) const;
  // How many lines carry exactly this text, at any level.
  int count(const std::string &text) const;
  bool has(GLogLevelFlags level, const std::string &text) const;
  void clear();

 private:
  static void handler(const gchar *domain, GLogLevelFlags level, const gchar *message,
                      gpointer self);
  mutable std::mutex lock_;
  std::vector<log_line> lines_;
  GLogFunc previous_;
  gpointer previous_data_;
};

}  // namespace testing_support
