// Commands of the test programs, defined out of name order; with the
// library's `help` the section holds records of more than one object.
#include <string>

#include "shell.h"

namespace {

int quit(int, char **) { return SHELL_EXIT; }

// Prints its arguments through the hook that handlers use.
int echo(int argc, char **argv) {
  for (int i = 1; i < argc; ++i) shell_printf(i > 1 ? " %s" : "%s", argv[i]);
  shell_printf("\r\n");
  return 0;
}

int ran(int, char **argv) {
  shell_printf("%s ran\r\n", argv[0]);
  return 7;  // means nothing to the shell
}

// Much more output than any socket buffer holds.
int flood(int, char **) {
  const std::string row(1000, 'f');
  for (int i = 0; i < 8000; ++i) shell_printf("%s\r\n", row.c_str());
  return 0;
}

// Reads one key through the hook that handlers use.
int getch(int, char **) {
  shell_printf("got %d\r\n", shell_getch());
  return 0;
}

}  // namespace

SHELL_CMD(test_cmd_quit, "quit", "End the session", "quit", quit);
SHELL_CMD(test_cmd_echo, "echo", "Print the arguments", "echo [text...]", echo);
SHELL_CMD(test_cmd_zeta, "Zeta", "Upper case sorts first", "Zeta", ran);
SHELL_CMD(test_cmd_unsupported, "unsupported", "Not there yet", "unsupported", nullptr);
SHELL_CMD(test_cmd_abc, "abc", "Second of a pair", "abc", ran);
SHELL_CMD(test_cmd_flood, "flood", "Print 8 MB", "flood", flood);
SHELL_CMD(test_cmd_ab, "ab", "First of a pair", "ab", ran);
SHELL_CMD(test_cmd_getch, "getch", "Read one key", "getch", getch);
SHELL_CMD(test_cmd_long, "x_command_name_longer_than_24", "A long name",
          "x_command_name_longer_than_24", ran);
