// libFuzzer target: the input is split as a command line, then typed into a
// whole session as the key stream of a client that sends it and goes away.
// The client's connection lives in memory: the calls the transport makes on
// it (poll, recv, send, close) are answered here as a socket would answer
// them, so the transport runs its own code without a system call a key.
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "shell_internal.hh"

namespace {

int quit(int, char **) { return SHELL_EXIT; }
int print_args(int argc, char **argv) {
  for (int i = 0; i < argc; ++i) shell_printf("%s\r\n", argv[i]);
  return 0;
}

}  // namespace

// A few names for completion to work on, and a way out of the session.
SHELL_CMD(fuzz_cmd_quit, "quit", "End the session", "quit", quit);
SHELL_CMD(fuzz_cmd_ab, "ab", "Print the arguments", "ab [text...]", print_args);
SHELL_CMD(fuzz_cmd_abc, "abc", "Print the arguments", "abc [text...]", print_args);
SHELL_CMD(fuzz_cmd_none, "Zz", "No handler", "Zz", nullptr);

namespace {

// The connection: a descriptor number kept open for the run, so that no
// file takes it, and the bytes the client sent that were not read yet.
struct memory_link {
  int fd = -1;
  bool open = false;
  const uint8_t *next = nullptr;
  size_t left = 0;
} client;

template <typename Fn>
Fn real(const char *name) {
  return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// The client has sent everything and closed its end: bytes while they last,
// then the end of the stream.  It reads all the session prints.
extern "C" int poll(pollfd *fds, nfds_t count, int timeout) {
  if (count != 1 || fds[0].fd != client.fd || !client.open)
    return real<int (*)(pollfd *, nfds_t, int)>("poll")(fds, count, timeout);
  fds[0].revents = static_cast<short>(fds[0].events & (POLLIN | POLLOUT));
  return fds[0].revents != 0 ? 1 : 0;
}

extern "C" ssize_t recv(int fd, void *buffer, size_t size, int flags) {
  if (fd != client.fd || !client.open)
    return real<ssize_t (*)(int, void *, size_t, int)>("recv")(fd, buffer, size, flags);
  size_t n = size < client.left ? size : client.left;
  memcpy(buffer, client.next, n);
  client.next += n;
  client.left -= n;
  return static_cast<ssize_t>(n);
}

extern "C" ssize_t send(int fd, const void *buffer, size_t size, int flags) {
  if (fd != client.fd || !client.open)
    return real<ssize_t (*)(int, const void *, size_t, int)>("send")(fd, buffer, size, flags);
  return static_cast<ssize_t>(size);
}

extern "C" int close(int fd) {
  if (fd != client.fd) return real<int (*)(int)>("close")(fd);
  if (!client.open) abort();  // closed twice
  client.open = false;
  return 0;
}

namespace {

void split(const uint8_t *data, size_t size) {
  std::string line(reinterpret_cast<const char *>(data), size);
  line = line.c_str();  // up to the first NUL, as a line of text
  char scratch[SHELL_SCRATCH_SIZE];
  unsigned count = 0;
  shell_parse_args(line.c_str(), scratch, &count, nullptr);
  if (count > line.size()) abort();
  char **argv = static_cast<char **>(calloc(count + 1, sizeof(char *)));
  shell_parse_args(line.c_str(), scratch, nullptr, argv);
  for (unsigned i = 0; i < count; ++i) {
    size_t length = strlen(argv[i]);
    if (length == 0 || length >= SHELL_SCRATCH_SIZE) abort();
  }
  if (argv[count] != nullptr) abort();
  int argc = static_cast<int>(count);
  shell_free_args(&argc, &argv);
}

void type(const uint8_t *data, size_t size) {
  client.open = true;
  client.next = data;
  client.left = size;
  zeb_set_socket(client.fd);
  // As the listener would: handlers print and read on the connection.
  shell_printf = zeb_printf;
  shell_getch = zeb_getchar;
  vexshell();  // ends on quit or when the bytes run out
  // Bytes behind a quit would reach the next session: read them away.
  for (;;) {
    if (zeb_getchar() == 0 && !zeb_link_alive()) break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  // Sessions set the console's attributes; keep a developer's terminal out of it.
  int nothing = open("/dev/null", O_RDONLY);
  dup2(nothing, STDIN_FILENO);
  client.fd = nothing;  // kept: the connection's number
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  split(data, size);
  type(data, size);
  return 0;
}
