// Shell sessions over a real TCP connection: the exact bytes the server sends
// for keys, recalled lines, completion and commands, and the listener.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <utility>

#include "eventually.hh"
#include "log_capture.hh"
#include "shell.h"

extern shell_cmd_t test_cmd_quit;  // names this program's section to the shell

// A name longer than any line, for completion; in this program only.
const std::string very_long_name(300, 'y');
SHELL_CMD(test_cmd_very_long, very_long_name.c_str(), "Very long name", "y...", nullptr);

namespace {

const std::string prompt = "vexsh:> ";
const std::string greeting =
    "Welcome to vexshell!\r\nWarnning: Do not open this telnet shell for release version!!!! \r\n" +
    prompt;

// zebshell on a free port of the loopback, started once per process.
int listener_port() {
  static const int port = [] {
    // Sessions set the console's attributes; keep a developer's terminal out of it.
    dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
    EXPECT_EQ(0, shell_add_commands(&test_cmd_quit));
    const int probe = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof address;
    EXPECT_EQ(0, bind(probe, reinterpret_cast<sockaddr *>(&address), sizeof address));
    getsockname(probe, reinterpret_cast<sockaddr *>(&address), &length);
    close(probe);
    const int chosen = ntohs(address.sin_port);
    std::thread([chosen] { zebshell(chosen); }).detach();
    return chosen;
  }();
  return port;
}

// A client whose reads fail after a generous limit. A receive buffer above 0
// shrinks the socket's, so that one that never reads stalls the server sooner.
struct client {
  int fd = -1;
  explicit client(int receive_buffer = 0) {
    const sockaddr_in address{
        AF_INET, htons(uint16_t(listener_port())), {htonl(INADDR_LOOPBACK)}, {}};
    EXPECT_TRUE(testing_support::eventually([&] {  // until the listener is there
      if (fd >= 0) close(fd);
      fd = socket(AF_INET, SOCK_STREAM, 0);
      if (receive_buffer > 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
      return connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    })) << "no listener";
    const timeval limit{20, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  }
  ~client() { close(fd); }
  void send(const std::string &bytes) {
    EXPECT_EQ(ssize_t(bytes.size()), ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL));
  }
  // At least `least` bytes, up to and including `suffix`, a byte at a time
  // so that nothing behind it is consumed.
  std::string read_until(const std::string &suffix, size_t least = 0) {
    std::string got;
    for (char byte; got.size() < least || !got.ends_with(suffix); got += byte)
      if (recv(fd, &byte, 1, 0) != 1) {
        ADD_FAILURE() << "timed out or closed waiting for \"" << suffix << "\"; got \"" << got;
        break;
      }
    return got;
  }
};

const std::string help_help =
    "Help for 'help': Help command\r\n Usage: help [command]\r\n"
    "Get help on [command], or a list of supported commands if a command is omitted.\r\n" +
    prompt;
const std::string help_ab = "\r\nHelp for 'ab': First of a pair\r\n Usage: ab\r\n" + prompt;

std::string not_found(const std::string &word) { return word + ": command not found\r\n" + prompt; }

// What Up shows: the line on show is wiped, the older one printed.
std::string recalled(const std::string &shown, const std::string &older) {
  std::string out;
  for (size_t i = 0; i < shown.size(); ++i) out += "\b \b";
  return out + older;
}

TEST(session, RepliesToKeysAndCommands) {
  const std::string full(255, 'x'), cut(127, 'x');
  // c1 to c32 fill the ring; Up goes back to c2, then stops at the line's own slot.
  std::string typed, echoed, ups, recalls, shown;
  for (int i = 1; i <= 40; ++i) {
    const std::string word = "c" + std::to_string(i), older = "c" + std::to_string(33 - i);
    ups += "\x1b[A";
    if (i > 32) continue;
    typed += word + "\r", echoed += "\r\n" + not_found(word);
    if (i < 32) recalls += recalled(shown, older), shown = older;
  }
  // In order, in one session: some rows recall the lines before them.
  const struct {
    std::string keys, reply;  // an empty reply is not checked
  } rows[] = {
      // Typed text is not echoed; an insertion sends the tail again and puts the cursor back.
      {"abd\x1b[Dc\r", "\bd\b\r\n" + not_found("abcd")},
      // Left, left, back space (b goes), delete (c goes).
      {"abcd\x1b[D\x1b[D\x7f\x1b[3~\r", "\b\b\bcd \b\b\bd \b\b\r\n" + not_found("ad")},
      // Back space at the start and delete at the end send nothing; byte 8 is a back space too.
      {"\x7f\x1b[3~x\x08y\x1b[3~\r", "\b \b\r\n" + not_found("y")},
      // 224 is dropped, the bytes around it are text.
      {"a\xdf\xe0\xe1\r", "\r\n" + not_found("a\xdf\xe1")},
      // Home and end; home on an empty line sends nothing.
      {"abc\x1b[1~X\x1b[4~\r", "\b\b\babc\b\b\babc\r\n" + not_found("Xabc")},
      {"\x1b[1~q\r", "\r\n" + not_found("q")},
      // Overwrite sends nothing and lengthens the line at its end.
      {"abc\x1b[D\x1b[D\x1b[2~ZcW\r", "\b\b\r\n" + not_found("aZcW")},
      // ESC O A, ESC [ H, ESC [ 5 ~ do nothing; ESC [ 1 5 ~ leaves its ~ as
      // text; ESC [ 1 7 ~ swallows it; a line end inside a sequence is a plain byte.
      {"\x1bOA\x1b[H\x1b[5~\x1b[15~\x1b[17~\x1b\ra\r", "\r\n" + not_found("A~a")},
      // Lines keep 255 characters, the word is cut to the 127 of the token
      // buffer; recalled, a full line takes no key in overwrite mode either.
      {std::string(300, 'x') + "\r", "\r\n" + not_found(cut)},
      {"\x1b[A\x1b[D\x1b[2~y\r", full + "\b\r\n" + not_found(cut)},
      // Completing a name longer than a line stops at the line's end, blank included.
      {"y\t\r", std::string(254, 'y') + "\r\n" + not_found(std::string(127, 'y'))},
      // Down brings back the typed line; an edit stays in its recalled slot;
      // an empty line takes no slot.
      {"first\r", ""},
      {"new\x1b[A!\x1b[B\r",
       recalled("new", "first") + recalled("first!", "new") + "\r\n" + not_found("new")},
      {"\x1b[A\x1b[A\r",
       recalled("", "new") + recalled("new", "first!") + "\r\n" + not_found("first!")},
      {"   \r", ""},
      {"\x1b[A\r", recalled("", "first!") + "\r\n" + not_found("first!")},
      // Up with the cursor inside the line sends the rest of it first.
      {"ab\x1b[D\x1b[A\r", "\bb" + recalled("ab", "first!") + "\r\n" + not_found("first!")},
      // Completion with one match adds the rest and a blank; a whole name only the blank.
      {"Ze\t\rZeta\t\r", "ta \r\nZeta ran\r\n" + prompt + " \r\nZeta ran\r\n" + prompt},
      {"help he\t\r", "lp \r\n" + help_help},
      // No completion on lines with other blanks: two behind help, a third word, a leading one.
      {"xx yy\t\r Ze\t\r", "\r\n" + not_found("xx") + "\r\n" + not_found("Ze")},
      {"help  ab\t\rhelp ab c\t\r", help_ab + help_ab},
      // Help on one command: only the first argument counts, a long name is found in full.
      {"help help\r", "\r\n" + help_help},
      {"help x_command_name_longer_than_24 ab\r",
       "\r\nHelp for 'x_command_name_longer_than_24': A long name\r\n"
       " Usage: x_command_name_longer_than_24\r\n" +
           prompt},
      {"help nosuch\r", "\r\nInvalid command: 'nosuch'.\r\n" + prompt},
      {"unsupported\r", "\r\nunsupported: command not yet supported.\r\n" + prompt},
      // Quotes group words; handlers print and read through the hooks, which reach the client.
      {"echo \"a b\" \"c \"\r", "\r\na b c \r\n" + prompt},
      {"getch\rk", "\r\ngot 107\r\n" + prompt},
      // CR LF counts once; a lone LF is no line end at all; more than 32 bytes in one send.
      {"Zeta\r\nec\nho x\n\r", "\r\nZeta ran\r\n" + prompt + "\r\nx\r\n" + prompt},
      {"echo " + std::string(70, 'w') + "\r", "\r\n" + std::string(70, 'w') + "\r\n" + prompt},
      {typed, echoed},
      {ups + "\r", recalls + "\r\n" + not_found("c2")},
      // With ab and abc, a gains b; the next Tab lists both and shows the line again.
      {"a\t\t\r",
       "b\r\nab                  abc                 \r\n" + prompt + "ab\r\nab ran\r\n" + prompt},
      // An empty line matches every command: four to a row, in name order.
      {"\t\r",
       "\r\nZeta                ab                  abc                 echo                "
       "\r\nflood               getch               help                quit                "
       "\r\nunsupported         x_command_name_longer_than_24" +
           very_long_name + "\r\n" + prompt + "\r\n" + prompt},
      {"help\r",
       "\r\n<vex shell ver 09.18.2011.1.28>\r\nSupported shell commands:\r\n"
       " - Zeta                    :  Upper case sorts first\r\n"
       " - ab                      :  First of a pair\r\n"
       " - abc                     :  Second of a pair\r\n"
       " - echo                    :  Print the arguments\r\n"
       " - flood                   :  Print 8 MB\r\n"
       " - getch                   :  Read one key\r\n"
       " - help                    :  Help command\r\n"
       " - quit                    :  End the session\r\n"
       " - unsupported             :  Not there yet\r\n"
       " - x_command_name_longer_th:  A long name\r\n"
       " - yyyyyyyyyyyyyyyyyyyyyyyy:  Very long name\r\n"
       "\r\nUse \"help command\" to get help on a specific command.\r\n" +
           prompt},
  };
  client link;
  EXPECT_EQ(greeting, link.read_until(prompt));
  for (const auto &row : rows) {
    link.send(row.keys);
    const std::string reply = link.read_until(prompt, row.reply.size());
    ASSERT_EQ(row.reply.empty() ? reply : row.reply, reply) << "keys: " << row.keys;
  }
}

// One client at a time; the next is served when a session ends by quit, by
// a peer that closed, by a reset in the middle of output, or by a peer that
// takes no output.
TEST(listener, ServesOneClientAtATimeAndSurvivesClosedResetAndStalledPeers) {
  testing_support::log_capture logs;
  client first;
  EXPECT_EQ(greeting, first.read_until(prompt));
  client second;  // waits in the kernel's queue while the first is served
  first.send("Zeta\r");
  EXPECT_EQ("\r\nZeta ran\r\n" + prompt, first.read_until(prompt));
  char byte;
  EXPECT_EQ(-1, recv(second.fd, &byte, 1, MSG_DONTWAIT)) << "served during another session";
  first.send("quit\r");
  EXPECT_EQ("\r\n", first.read_until("\r\n"));
  EXPECT_EQ(0, recv(first.fd, &byte, 1, 0)) << "not closed";
  EXPECT_EQ(greeting, second.read_until(prompt));
  client third;
  close(std::exchange(second.fd, -1));
  EXPECT_EQ(greeting, third.read_until(prompt));
  third.send("flood\r");
  third.read_until(std::string(1000, 'f'));
  linger abort{1, 0};
  setsockopt(third.fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  close(std::exchange(third.fd, -1));
  client stalled(4096);
  EXPECT_EQ(greeting, stalled.read_until(prompt));
  stalled.send("flood\r");  // megabytes that are never read
  client next;
  EXPECT_EQ(greeting, next.read_until(prompt));
  EXPECT_EQ(1, logs.count("zeb_printf: the client took no output for 5 s; its session ends\n"));
  next.send("Zeta\r");
  EXPECT_EQ("\r\nZeta ran\r\n" + prompt, next.read_until(prompt));
}

TEST(listener, APortInUseIsReportedAndTheListenerReturns) {
  testing_support::log_capture logs;
  client served;              // so the shell holds its port by now
  zebshell(listener_port());  // returns instead of serving nothing for ever
  EXPECT_EQ(1, logs.count("zebshell: cannot bind port " + std::to_string(listener_port()) +
                          ": Address already in use\n"));
}

}  // namespace
