// The shell's primitives: print to and read from the current client, the
// hooks that command handlers use, and key polling on the process's console.
#include <glib.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

#include "shell_internal.hh"

int (*shell_printf)(const char *format, ...) = printf;
int (*shell_getch)(void) = getchar;
const char *shell_version = "09.18.2011.1.28";

struct termios shell_term_saved;
struct termios shell_term_raw;

namespace {

// The current client; -1 when there is none or the transport closed it.
int zeb_socket = -1;
// Bytes received and not yet delivered. They outlive a session: what a client
// sent behind its last command reaches the next session first.
unsigned char zeb_rx_buffer[32];
unsigned zeb_rx_count = 0;
unsigned zeb_rx_index = 0;

// A key that kbhit read ahead. A flag beside it: the byte 255 reads as -1.
int console_peek = -1;
bool console_peeked = false;
bool term_captured = false;

// How long a client may stay silent before its connection is dropped.
constexpr std::chrono::seconds idle_limit{1200};

// How long one print may wait for a client that takes no output. Past it the
// client counts as gone, so that one that never reads can't hold the shell.
constexpr std::chrono::seconds send_limit{5};

// Sends all of `len` bytes unless the connection fails or stalls. MSG_NOSIGNAL:
// a peer that has gone must not kill the process with SIGPIPE. MSG_DONTWAIT:
// the wait is the poll's, with its limit, never the send's.
void send_all(const char *data, size_t len) {
  using clock = std::chrono::steady_clock;
  const auto deadline = clock::now() + send_limit;
  while (len > 0 && zeb_socket >= 0) {
    ssize_t sent = send(zeb_socket, data, len, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent > 0) {
      data += sent;
      len -= static_cast<size_t>(sent);
      continue;
    }
    if (sent < 0 && errno == EINTR) continue;
    if (sent == 0 || (errno != EAGAIN && errno != EWOULDBLOCK))
      return;  // the next read notices a dead connection and ends the session
    auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock::now()).count();
    pollfd writable{zeb_socket, POLLOUT, 0};
    int ready = left > 0 ? poll(&writable, 1, static_cast<int>(left)) : 0;
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) {
      g_warning("zeb_printf: the client took no output for %d s; its session ends\n",
                static_cast<int>(send_limit.count()));
      zeb_close_socket();
      return;
    }
  }
}

}  // namespace

bool zeb_link_alive() { return zeb_socket >= 0; }

void zeb_set_socket(int fd) { zeb_socket = fd; }

bool zeb_key_waiting() {
  for (unsigned i = 0; i < zeb_rx_count; ++i)
    if (zeb_rx_buffer[zeb_rx_index + i] != '\n') return true;
  return false;
}

void zeb_close_socket() {
  if (zeb_socket >= 0) close(zeb_socket);
  zeb_socket = -1;
}

int zeb_printf(const char *format, ...) {
  if (format == nullptr) {
    g_return_if_fail_warning(nullptr, "zeb_printf", "format != NULL");
    return -1;
  }
  char buffer[128];
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  int length = vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  if (length < 0) {
    va_end(again);
    return length;
  }
  if (static_cast<size_t>(length) < sizeof buffer) {
    send_all(buffer, static_cast<size_t>(length));
  } else {
    // Longer than the buffer: formatted again into one that fits, and sent whole.
    std::vector<char> whole(static_cast<size_t>(length) + 1);
    vsnprintf(whole.data(), whole.size(), format, again);
    send_all(whole.data(), static_cast<size_t>(length));
  }
  va_end(again);
  return length;
}

int zeb_getchar(void) {
  using clock = std::chrono::steady_clock;
  const auto deadline = clock::now() + idle_limit;
  for (;;) {
    if (zeb_rx_count != 0) {
      unsigned char byte = zeb_rx_buffer[zeb_rx_index++];
      --zeb_rx_count;
      if (byte == '\n') continue;  // a client's CR LF arrives as a single CR
      return static_cast<signed char>(byte);
    }
    if (zeb_socket < 0) return 0;
    auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock::now()).count();
    if (left < 0) left = 0;
    pollfd waiting{zeb_socket, POLLIN, 0};
    int ready = poll(&waiting, 1, static_cast<int>(left));
    if (ready == 0) {  // idle time-out
      zeb_close_socket();
      return 0;
    }
    if (ready < 0) {
      if (errno == EINTR) continue;
      zeb_close_socket();
      return 0;
    }
    ssize_t got = recv(zeb_socket, zeb_rx_buffer, sizeof zeb_rx_buffer, 0);
    if (got > 0) {
      zeb_rx_count = static_cast<unsigned>(got);
      zeb_rx_index = 0;
      continue;
    }
    if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) continue;
    zeb_close_socket();  // peer closed or receive error
    return 0;
  }
}

void shell_term_capture() {
  tcgetattr(STDIN_FILENO, &shell_term_saved);
  shell_term_raw = shell_term_saved;
  shell_term_raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
  shell_term_raw.c_cc[VMIN] = 1;
  shell_term_raw.c_cc[VTIME] = 0;
  term_captured = true;
}

int kbhit(void) {
  if (console_peeked) return 1;
  unsigned char key = 0;
  ssize_t got = 0;
  if (isatty(STDIN_FILENO)) {
    if (!term_captured) shell_term_capture();
    shell_term_raw.c_cc[VMIN] = 0;
    tcsetattr(STDIN_FILENO, TCSANOW, &shell_term_raw);
    got = read(STDIN_FILENO, &key, 1);
    shell_term_raw.c_cc[VMIN] = 1;
    tcsetattr(STDIN_FILENO, TCSANOW, &shell_term_raw);
  } else {
    // Not a terminal: VMIN means nothing, so ask whether a byte waits.
    pollfd waiting{STDIN_FILENO, POLLIN, 0};
    if (poll(&waiting, 1, 0) == 1 && (waiting.revents & POLLIN)) got = read(STDIN_FILENO, &key, 1);
  }
  if (got != 1) return 0;
  console_peek = static_cast<signed char>(key);
  console_peeked = true;
  return 1;
}

int readch(void) {
  if (console_peeked) {
    console_peeked = false;
    int key = console_peek;
    console_peek = -1;
    return key;
  }
  unsigned char key = 0;
  ssize_t got;
  do {
    got = read(STDIN_FILENO, &key, 1);
  } while (got < 0 && errno == EINTR);
  if (got != 1) return -1;  // end of input
  return static_cast<signed char>(key);
}
