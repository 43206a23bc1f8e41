// The command table in its own section, line splitting and dispatch, and
// the console keys; built from the shell's sources, without the TCP side.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "shell_internal.hh"

extern shell_cmd_t test_cmd_flood;  // one of the test commands

namespace {

std::vector<std::string> split(const char *line) {
  char scratch[SHELL_SCRATCH_SIZE];
  unsigned count = 99;
  shell_parse_args(line, scratch, &count, nullptr);
  char **argv = static_cast<char **>(calloc(count + 1, sizeof(char *)));
  shell_parse_args(line, scratch, nullptr, argv);
  EXPECT_EQ(nullptr, argv[count]) << "more entries filled than counted";
  std::vector<std::string> tokens(argv, argv + count);
  int argc = static_cast<int>(count);
  shell_free_args(&argc, &argv);
  EXPECT_EQ(0, argc);
  EXPECT_EQ(nullptr, argv);
  return tokens;
}

using tokens = std::vector<std::string>;

TEST(parse_args, BlanksSeparateQuotesGroupAndLongTokensAreCut) {
  const std::string long_line = std::string(200, 'a') + " b " + std::string(127, 'c');
  const struct {
    std::string line;
    tokens want;
  } cases[] = {
      {"say \"a b\"c", {"say", "a bc"}},
      {"a\"b c\"d", {"ab cd"}},
      {"   x    y   ", {"x", "y"}},
      {"tab\there", {"tab\there"}},
      {"     ", {}},
      {"\"\"", {}},
      {"", {}},
      // An unterminated quote keeps the blanks to the end of the line.
      {"a \"b  c  ", {"a", "b  c  "}},
      {long_line, {std::string(127, 'a'), "b", std::string(127, 'c')}},
  };
  for (const auto &c : cases) EXPECT_EQ(c.want, split(c.line.c_str())) << c.line;
  // Freeing nothing, whatever the count says, only zeroes the count.
  int count = 2;
  char **none = nullptr;
  shell_free_args(&count, &none);
  count = 2;
  shell_free_args(&count, nullptr);
  EXPECT_EQ(0, count);
}

int call(std::vector<std::string> words) {
  std::vector<char *> argv;
  for (auto &w : words) argv.push_back(w.data());
  return do_shell_cmd(static_cast<int>(argv.size()), argv.data());
}

TEST(command_table, RecordsOfEveryObjectAreFoundOnceAndChainedInNameOrder) {
  EXPECT_EQ(SHELL_ERR_NOT_FOUND, call({"quit"}));  // nothing before the table is built
  // The section is walked from any record, and a section named twice counts once.
  EXPECT_EQ(0, shell_add_commands(&test_cmd_flood));
  EXPECT_EQ(0, shell_add_commands(&test_cmd_flood));
  shell_cmd_t not_a_record{};
  EXPECT_EQ(-1, shell_add_commands(&not_a_record));
  shell_build_table();
  std::vector<std::string> names;
  for (shell_cmd_t *cmd = shell_cmd_list; cmd != nullptr; cmd = cmd->next) {
    EXPECT_EQ(SHELL_CMD_MAGIC, cmd->magic);
    names.push_back(cmd->name);
    EXPECT_EQ(cmd->next ? cmd + 1 : nullptr, cmd->next) << "chained in address order";
  }
  EXPECT_EQ((std::vector<std::string>{"Zeta", "ab", "abc", "echo", "flood", "getch", "help", "quit",
                                      "unsupported", "x_command_name_longer_than_24"}),
            names);
  EXPECT_EQ(SHELL_EXIT, call({"quit"}));
  EXPECT_EQ(SHELL_ERR_NO_HANDLER, call({"unsupported"}));
  EXPECT_EQ(SHELL_ERR_NOT_FOUND, call({"hel"}));
  EXPECT_EQ(0, call({"help", "help"}));
  EXPECT_EQ(-22, call({"help", "nosuch", "help"}));
  EXPECT_EQ(-1, shell_add_commands(shell_cmd_list));  // a record of this module adds nothing
}

TEST(console, KbhitPeeksTheKeyThatReadchReturns) {
  int pipe_ends[2];
  ASSERT_EQ(0, pipe(pipe_ends));
  ASSERT_EQ(0, dup2(pipe_ends[0], STDIN_FILENO) < 0);
  EXPECT_EQ(0, kbhit());
  ASSERT_EQ(3, write(pipe_ends[1], "k\xffz", 3));
  EXPECT_EQ(1, kbhit());
  EXPECT_EQ(1, kbhit());
  EXPECT_EQ('k', readch());
  EXPECT_EQ(1, kbhit());
  EXPECT_EQ(-1, readch());  // 255, sign-extended, is still a key
  EXPECT_EQ('z', readch());
  EXPECT_EQ(0, kbhit());
  close(pipe_ends[1]);
  EXPECT_EQ(-1, readch());  // end of input
}

}  // namespace
