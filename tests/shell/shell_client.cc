#include "shell_client.hh"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "shell.h"

// Any record of this program's section names the whole section to the shell.
extern shell_cmd_t test_cmd_quit;

namespace shell_test {

namespace {

using steady = std::chrono::steady_clock;
constexpr auto patience = std::chrono::seconds(20);

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  return address;
}

}  // namespace

int start_listener() {
  static int port = [] {
    // Sessions set the console's attributes; keep a developer's terminal out of it.
    int nothing = open("/dev/null", O_RDONLY);
    dup2(nothing, STDIN_FILENO);
    close(nothing);
    EXPECT_EQ(0, shell_add_commands(&test_cmd_quit));
    // A free port: bound to port 0 and let go.
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    ::close(fd);
    int chosen = ntohs(address.sin_port);
    std::thread([chosen] { zebshell(chosen); }).detach();
    return chosen;
  }();
  return port;
}

client::client(int port, int receive_buffer) {
  const auto give_up = steady::now() + patience;
  sockaddr_in address = loopback(port);
  for (;;) {
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    if (receive_buffer > 0)
      setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
    if (connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) break;
    close();
    if (steady::now() > give_up) {
      ADD_FAILURE() << "no listener on port " << port;
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  int on = 1;
  setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

client::~client() { close(); }

void client::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

void client::reset() {
  linger abort{1, 0};
  setsockopt(fd_, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  close();
}

void client::send(const std::string &bytes) {
  ASSERT_EQ(static_cast<ssize_t>(bytes.size()),
            ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL));
}

std::string client::read_until(const std::string &suffix) {
  const auto give_up = steady::now() + patience;
  std::string got;
  while (!got.ends_with(suffix)) {
    auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(give_up - steady::now()).count();
    pollfd waiting{fd_, POLLIN, 0};
    char byte;
    // One byte at a time: nothing behind the suffix is consumed.
    if (left <= 0 || poll(&waiting, 1, static_cast<int>(left)) != 1 ||
        recv(fd_, &byte, 1, 0) != 1) {
      ADD_FAILURE() << "timed out or closed waiting for \"" << suffix << "\"; got \"" << got << '"';
      return got;
    }
    got += byte;
  }
  return got;
}

std::string client::read_prompts(int count) {
  std::string got;
  for (int i = 0; i < count; ++i) got += read_until("vexsh:> ");
  return got;
}

std::string client::read_for(int ms) {
  std::string got;
  pollfd waiting{fd_, POLLIN, 0};
  char buffer[256];
  for (ssize_t n; poll(&waiting, 1, ms) == 1 && (n = recv(fd_, buffer, sizeof buffer, 0)) > 0;)
    got.append(buffer, static_cast<size_t>(n));
  return got;
}

}  // namespace shell_test
