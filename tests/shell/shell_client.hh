// A TCP client for the shell tests, and a listener started on a free port.
#pragma once

#include <string>

namespace shell_test {

// The greeting and the first prompt of every session.
inline const std::string greeting =
    "Welcome to vexshell!\r\n"
    "Warnning: Do not open this telnet shell for release version!!!! \r\n"
    "vexsh:> ";

// Starts zebshell on a free port of this process (once) and returns the port.
int start_listener();

class client {
 public:
  // A `receive_buffer` above 0 shrinks the socket's buffer, so that a client
  // that never reads stalls the server sooner.
  explicit client(int port, int receive_buffer = 0);
  ~client();
  client(const client &) = delete;
  client &operator=(const client &) = delete;

  void send(const std::string &bytes);
  // Everything received from now until the data read ends with `suffix`
  // (fails the test after a generous time-out).
  std::string read_until(const std::string &suffix);
  // Reads until `count` prompts have arrived.
  std::string read_prompts(int count);
  // What arrives within `ms` milliseconds; for checking that nothing does.
  std::string read_for(int ms);
  // Closes with a reset instead of an orderly close.
  void reset();
  void close();

 private:
  int fd_ = -1;
  std::string pending_;
};

}  // namespace shell_test
