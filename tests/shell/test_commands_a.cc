// Commands of the test programs, in two objects so that the section holds
// records from more than one, in no particular order.
#include <cstdio>
#include <string>

#include "shell.h"

namespace {

int quit(int, char **) { return SHELL_EXIT; }

// Prints its arguments through the hook that handlers use.
int echo(int argc, char **argv) {
  std::string joined;
  for (int i = 1; i < argc; ++i) joined += std::string(i > 1 ? " " : "") + argv[i];
  shell_printf("%s\r\n", joined.c_str());
  return 0;
}

int zeta(int, char **) {
  shell_printf("zeta ran\r\n");
  return 7;  // means nothing to the shell
}

}  // namespace

SHELL_CMD(test_cmd_quit, "quit", "End the session", "quit", quit);
SHELL_CMD(test_cmd_echo, "echo", "Print the arguments", "echo [text...]", echo);
SHELL_CMD(test_cmd_zeta, "Zeta", "Upper case sorts first", "Zeta", zeta);
SHELL_CMD(test_cmd_unsupported, "unsupported", "Not there yet", "unsupported", nullptr);
