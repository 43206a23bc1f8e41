// libFuzzer target: the input is split as a command line, then typed into a
// whole session as the key stream of a client that sends it and goes away.
#include <fcntl.h>
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
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) abort();
  if (size > 0 && write(ends[1], data, size) != static_cast<ssize_t>(size)) abort();
  close(ends[1]);
  zeb_set_socket(ends[0]);
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
  close(nothing);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  split(data, size);
  type(data, size);
  return 0;
}
