// The command table in its own section, line splitting and dispatch, and
// the console keys; built from the shell's sources, without the TCP side.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "eventually.hh"
#include "shell_internal.hh"

extern shell_cmd_t test_cmd_flood;  // one of the test commands

namespace {

using tokens = std::vector<std::string>;

tokens split(const char *line) {
  char scratch[SHELL_SCRATCH_SIZE];
  unsigned count = 99;
  shell_parse_args(line, scratch, &count, nullptr);
  char **argv = static_cast<char **>(calloc(count + 1, sizeof(char *)));
  shell_parse_args(line, scratch, nullptr, argv);
  EXPECT_EQ(nullptr, argv[count]) << "more entries filled than counted";
  tokens got(argv, argv + count);
  int argc = static_cast<int>(count);
  shell_free_args(&argc, &argv);
  EXPECT_TRUE(argc == 0 && argv == nullptr);
  return got;
}

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
  shell_free_args(&count, nullptr);
  EXPECT_EQ(0, count);
}

// Records outside any section, between two words that are no records; the
// walk from one of them takes up to 127 records on either side.
constexpr std::array<shell_cmd_t, 300> many_records() {
  std::array<shell_cmd_t, 300> block{};
  for (size_t i = 1; i + 1 < block.size(); ++i)
    block[i] = {SHELL_CMD_MAGIC, "many", "", "", nullptr, nullptr};
  return block;
}
std::array<shell_cmd_t, 300> early = many_records(), late = many_records();

int call(std::vector<std::string> words) {
  std::vector<char *> argv;
  for (auto &w : words) argv.push_back(w.data());
  return do_shell_cmd(static_cast<int>(argv.size()), argv.data());
}

TEST(command_table, RecordsOfEveryObjectAreFoundOnceAndChainedInNameOrder) {
  EXPECT_EQ(SHELL_ERR_NOT_FOUND, call({"quit"}));  // nothing before the table is built
  // A section is walked from any record, and a section named twice counts once.
  EXPECT_EQ(0, shell_add_commands(&test_cmd_flood));
  EXPECT_EQ(0, shell_add_commands(&test_cmd_flood));
  EXPECT_EQ(0, shell_add_commands(&early[50]));  // 49 below it, 127 of 248 above
  EXPECT_EQ(0, shell_add_commands(&late[250]));  // 127 of 249 below it, 48 above
  shell_cmd_t not_a_record{};
  EXPECT_EQ(-1, shell_add_commands(&not_a_record));
  shell_build_table();
  tokens names;
  for (shell_cmd_t *cmd = shell_cmd_list; cmd != nullptr; cmd = cmd->next)
    names.push_back(cmd->name);
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
  EXPECT_EQ(49 + 1 + 127 + 127 + 1 + 48, std::erase(names, "many"));
  EXPECT_EQ((tokens{"Zeta", "ab", "abc", "echo", "flood", "getch", "help", "quit", "unsupported",
                    "x_command_name_longer_than_24"}),
            names);
  EXPECT_EQ(SHELL_EXIT, call({"quit"}));
  EXPECT_EQ(SHELL_ERR_NO_HANDLER, call({"unsupported"}));
  EXPECT_EQ(SHELL_ERR_NOT_FOUND, call({"hel"}));
  EXPECT_EQ(0, call({"help", "help"}));
  EXPECT_EQ(-22, call({"help", "nosuch", "help"}));
  EXPECT_EQ(-1, shell_add_commands(shell_cmd_list));  // too late once the table is built
}

// Keys typed into what `typed` writes to, with stdin already its other end.
void peek_and_read(int typed) {
  EXPECT_EQ(0, kbhit());
  ASSERT_EQ(3, write(typed, "k\xffz", 3));
  EXPECT_TRUE(testing_support::eventually([] { return kbhit() == 1; }));
  EXPECT_EQ(1, kbhit());
  EXPECT_EQ('k', readch());
  EXPECT_EQ(1, kbhit());
  EXPECT_EQ(-1, readch());  // 255, sign-extended, is still a key
  EXPECT_EQ('z', readch());
  EXPECT_EQ(0, kbhit());
}

// On a pipe, then on a terminal, where kbhit reads in raw mode and leaves
// the console's other attributes as they were.
TEST(console, KbhitPeeksTheKeyThatReadchReturns) {
  int pipe_ends[2];
  ASSERT_EQ(0, pipe(pipe_ends));
  ASSERT_LE(0, dup2(pipe_ends[0], STDIN_FILENO));
  peek_and_read(pipe_ends[1]);
  close(pipe_ends[1]);
  errno = EINTR;  // left from before: no reason to read again at the end of input
  EXPECT_EQ(-1, readch());
  ASSERT_LE(0, dup2(open("/dev/null", O_WRONLY), STDIN_FILENO));
  EXPECT_EQ(-1, readch());  // a failed read is no key either

  const int master = posix_openpt(O_RDWR | O_NOCTTY);
  // User-mode emulators of another processor offer no pseudo-terminals.
  if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0)
    GTEST_SKIP() << "no pseudo-terminal: " << std::strerror(errno);
  ASSERT_LE(0, dup2(open(ptsname(master), O_RDWR | O_NOCTTY), STDIN_FILENO));
  termios before{}, after{};
  tcgetattr(STDIN_FILENO, &before);
  peek_and_read(master);
  tcgetattr(STDIN_FILENO, &after);
  EXPECT_EQ(before.c_oflag, after.c_oflag);
  EXPECT_EQ(before.c_lflag & ~tcflag_t(ICANON | ECHO), after.c_lflag);
  close(master);
}

}  // namespace
