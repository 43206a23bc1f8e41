// More commands of the test programs (see test_commands_a.cc).
#include <string>

#include "shell.h"

namespace {

int ran(int, char **argv) {
  shell_printf("%s ran\r\n", argv[0]);
  return 0;
}

// Much more output than any socket buffer holds.
int flood(int, char **) {
  const std::string row(1000, 'f');
  for (int i = 0; i < 8000; ++i) shell_printf("%s\r\n", row.c_str());
  return 0;
}

// Reads one key through the hook that handlers use.
int getch(int, char **) {
  int key = shell_getch();
  shell_printf("got %d\r\n", key);
  return 0;
}

}  // namespace

SHELL_CMD(test_cmd_abc, "abc", "Second of a pair", "abc", ran);
SHELL_CMD(test_cmd_flood, "flood", "Print 8 MB", "flood", flood);
SHELL_CMD(test_cmd_ab, "ab", "First of a pair", "ab", ran);
SHELL_CMD(test_cmd_getch, "getch", "Read one key", "getch", getch);
SHELL_CMD(test_cmd_long, "x_command_name_longer_than_24", "A long name",
          "x_command_name_longer_than_24", ran);
