// The command table in its own section, line splitting and dispatch, and
// the console keys; built from the shell's sources, without the TCP side.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
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

TEST(parse_args, BlanksSeparateAndQuotesGroup) {
  EXPECT_EQ((tokens{"say", "a bc"}), split("say \"a b\"c"));
  EXPECT_EQ((tokens{"ab cd"}), split("a\"b c\"d"));
  EXPECT_EQ((tokens{"x", "y"}), split("   x    y   "));
  EXPECT_EQ((tokens{"tab\there"}), split("tab\there"));
  EXPECT_EQ(tokens{}, split("     "));
  EXPECT_EQ(tokens{}, split("\"\""));
  EXPECT_EQ(tokens{}, split(""));
  // An unterminated quote keeps the blanks to the end of the line.
  EXPECT_EQ((tokens{"a", "b  c  "}), split("a \"b  c  "));
}

TEST(parse_args, ALongTokenIsCutToTheScratch) {
  const std::string line = std::string(200, 'a') + " b " + std::string(127, 'c');
  EXPECT_EQ((tokens{std::string(127, 'a'), "b", std::string(127, 'c')}), split(line.c_str()));
}

TEST(parse_args, FreeIsSafeOnNothing) {
  int count = 0;
  char **argv = nullptr;
  shell_free_args(&count, &argv);
  EXPECT_EQ(nullptr, argv);
}

int call(std::vector<std::string> words) {
  std::vector<char *> argv;
  for (auto &w : words) argv.push_back(w.data());
  return do_shell_cmd(static_cast<int>(argv.size()), argv.data());
}

TEST(command_table, NothingIsFoundBeforeTheTableIsBuilt) {
  EXPECT_EQ(SHELL_ERR_NOT_FOUND, call({"help"}));
  EXPECT_EQ(SHELL_ERR_NOT_FOUND, call({"quit"}));
}

TEST(command_table, RecordsOfEveryObjectAreFoundAndChainedInNameOrder) {
  shell_build_table();
  std::vector<std::string> names;
  for (shell_cmd_t *cmd = shell_cmd_list; cmd != nullptr; cmd = cmd->next) {
    EXPECT_EQ(SHELL_CMD_MAGIC, cmd->magic);
    names.push_back(cmd->name);
    // The chain runs through the section in address order.
    if (cmd->next != nullptr) {
      EXPECT_EQ(cmd + 1, cmd->next);
    }
  }
  EXPECT_EQ((std::vector<std::string>{"Zeta", "ab", "abc", "echo", "flood", "getch", "help", "quit",
                                      "unsupported", "x_command_name_longer_than_24"}),
            names);
  EXPECT_EQ(SHELL_EXIT, call({"quit"}));
  EXPECT_EQ(SHELL_ERR_NO_HANDLER, call({"unsupported"}));
  EXPECT_EQ(SHELL_ERR_NOT_FOUND, call({"hel"}));
  EXPECT_EQ(0, call({"help", "help"}));
  EXPECT_EQ(-22, call({"help", "nosuch", "help"}));
  // A module named again, or a record of this one, adds nothing.
  EXPECT_EQ(-1, shell_add_commands(shell_cmd_list));
}

TEST(command_table, TheSectionIsWalkedFromAnyRecord) {
  EXPECT_EQ(0, shell_add_commands(&test_cmd_flood));
  EXPECT_EQ(0, shell_add_commands(&test_cmd_flood));
  shell_build_table();
  int count = 0;
  for (shell_cmd_t *cmd = shell_cmd_list; cmd != nullptr; cmd = cmd->next) ++count;
  EXPECT_EQ(10, count) << "the same section counted twice";
  shell_cmd_t not_a_record{};
  EXPECT_EQ(-1, shell_add_commands(&not_a_record));
}

TEST(transport, HandlersPrintToTheConsoleUntilTheListenerRuns) {
  EXPECT_EQ(&printf, shell_printf);
  EXPECT_EQ(&getchar, shell_getch);
  EXPECT_STREQ("09.18.2011.1.28", shell_version);
}

TEST(transport, ReceivedBytesComeOneByOneWithoutLineFeeds) {
  int ends[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
  zeb_set_socket(ends[0]);
  const std::string sent = "ab\r\n" + std::string(40, 'x') + "\n\xff";
  ASSERT_EQ(static_cast<ssize_t>(sent.size()), write(ends[1], sent.data(), sent.size()));
  std::string got;
  for (int i = 0; i < 44; ++i) got += static_cast<char>(zeb_getchar());
  EXPECT_EQ("ab\r" + std::string(40, 'x') + "\xff", got);
  EXPECT_EQ(-1, static_cast<signed char>(got.back()));
  // The peer goes: 0, the descriptor is closed, and later calls touch nothing.
  close(ends[1]);
  EXPECT_EQ(0, zeb_getchar());
  EXPECT_FALSE(zeb_link_alive());
  EXPECT_EQ(0, zeb_getchar());
  EXPECT_EQ(5, zeb_printf("%s", "gone!"));
}

TEST(transport, LongOutputIsSentWhole) {
  int ends[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
  zeb_set_socket(ends[0]);
  const std::string text(1000, 'z');
  EXPECT_EQ(1002, zeb_printf("%s\r\n", text.c_str()));
  std::string got(2000, '\0');
  ssize_t n = recv(ends[1], got.data(), got.size(), MSG_WAITALL | MSG_DONTWAIT);
  EXPECT_EQ(text + "\r\n", got.substr(0, n > 0 ? static_cast<size_t>(n) : 0));
  zeb_close_socket();
  close(ends[1]);
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
