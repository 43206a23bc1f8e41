// Shell sessions over a real TCP connection: the exact bytes the server sends
// for keys, recalled lines, completion and commands.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "log_capture.hh"
#include "shell.h"
#include "shell_client.hh"

using shell_test::client;
using shell_test::greeting;
using shell_test::start_listener;

namespace {

int quiet(int, char **) { return 0; }
const std::string very_long_name(300, 'y');

}  // namespace

// A name longer than any line, for completion; in this program only.
SHELL_CMD(test_cmd_very_long, very_long_name.c_str(), "Very long name", "y...", quiet);

namespace {

const std::string prompt = "vexsh:> ";

std::string not_found(const std::string &word) { return word + ": command not found\r\n" + prompt; }

// A connected client past the greeting.
struct session : ::testing::Test {
  session() : link(start_listener()) { EXPECT_EQ(greeting, link.read_until(prompt)); }
  // Sends keys that end in one line end and returns the reply up to the prompt.
  std::string line(const std::string &keys) {
    link.send(keys);
    return link.read_until(prompt);
  }
  client link;
};

TEST_F(session, TypedTextIsNotEchoedButTheTextBehindAnInsertionIs) {
  EXPECT_EQ("\r\n" + not_found("abcd"), line("abcd\r"));
  // a b d, left, c: the d is sent again behind the c, and the cursor put back.
  EXPECT_EQ("\bd\b\r\n" + not_found("abcd"), line("abd\x1b[Dc\r"));
}

TEST_F(session, BackSpaceAndDeleteRedrawTheTail) {
  // a b c d, left, left, back space (b goes), delete (c goes).
  EXPECT_EQ(
      "\b\b"
      "\bcd \b\b\b"
      "d \b\b"
      "\r\n" +
          not_found("ad"),
      line("abcd\x1b[D\x1b[D\x7f\x1b[3~\r"));
  // Back space at the start and delete at the end send nothing; byte 8 is a back space too.
  EXPECT_EQ("\b \b\r\n" + not_found("y"), line("\x7f\x1b[3~x\x08y\x1b[3~\r"));
}

TEST_F(session, HomeEndAndOverwrite) {
  EXPECT_EQ(
      "\b\b\b"
      "abc\b\b\b"
      "abc"
      "\r\n" +
          not_found("Xabc"),
      line("abc\x1b[1~X\x1b[4~\r"));
  // Home on an empty line sends nothing at all.
  EXPECT_EQ("\r\n" + not_found("q"), line("\x1b[1~q\r"));
  // Overwrite sends nothing and lengthens the line at its end.
  EXPECT_EQ("\b\b\r\n" + not_found("aZcW"), line("abc\x1b[D\x1b[D\x1b[2~ZcW\r"));
}

TEST_F(session, UnknownAndPartialEscapeSequencesAreDropped) {
  // ESC O A, ESC [ H, ESC [ 5 ~ do nothing; ESC [ 1 5 ~ leaves its ~ as text;
  // ESC [ 1 7 ~ swallows it; a line end inside a sequence is a plain byte.
  EXPECT_EQ("\r\n" + not_found("A~a"), line("\x1bOA\x1b[H\x1b[5~\x1b[15~\x1b[17~\x1b\ra\r"));
}

TEST_F(session, LinesAreCappedAt255Characters) {
  const std::string full(255, 'x');
  // The word is cut to the 127 characters of the token buffer; the message is
  // still longer than the formatting buffer and arrives whole.
  const std::string word(127, 'x');
  EXPECT_EQ("\r\n" + not_found(word), line(std::string(300, 'x') + "\r"));
  // Recalled, the line shows that it kept 255 characters. A full line takes
  // no key in overwrite mode with the cursor inside it either.
  EXPECT_EQ(full + "\b\r\n" + not_found(word), line("\x1b[A\x1b[D\x1b[2~y\r"));
  // Completing a name longer than a line stops at the line's end, blank
  // included.
  EXPECT_EQ(std::string(254, 'y') + "\r\n" + not_found(std::string(127, 'y')), line("y\t\r"));
}

// What Up shows: the line on show is wiped, the older one printed.
std::string recalled(const std::string &shown, const std::string &older) {
  std::string out;
  for (size_t i = 0; i < shown.size(); ++i) out += "\b \b";
  return out + older;
}

TEST_F(session, ThirtyOneLinesCanBeRecalled) {
  std::string keys;
  for (int i = 1; i <= 31; ++i) keys += "c" + std::to_string(i) + "\r";
  link.send(keys);
  link.read_prompts(31);
  // With text typed on the head line, so that the walk cannot stop at an
  // empty slot.
  std::string expected;
  std::string shown = "now";
  for (int i = 31; i >= 1; --i) {
    std::string older = "c" + std::to_string(i);
    expected += recalled(shown, older);
    shown = older;
  }
  // 32 Ups: the last one finds the head slot and does nothing.
  std::string ups;
  for (int i = 0; i < 32; ++i) ups += "\x1b[A";
  EXPECT_EQ(expected + "\r\n" + not_found("c1"), line("now" + ups + "\r"));
}

TEST_F(session, TheThirtySecondLineDropsTheOldest) {
  std::string keys;
  for (int i = 1; i <= 32; ++i) keys += "c" + std::to_string(i) + "\r";
  link.send(keys);
  link.read_prompts(32);
  std::string expected;
  std::string shown;
  for (int i = 32; i >= 2; --i) {
    std::string older = "c" + std::to_string(i);
    expected += recalled(shown, older);
    shown = older;
  }
  std::string ups;
  for (int i = 0; i < 40; ++i) ups += "\x1b[A";
  EXPECT_EQ(expected + "\r\n" + not_found("c2"), line(ups + "\r"));
}

TEST_F(session, DownBringsBackTheTypedLineAndEditsStayInTheirSlot) {
  line("first\r");
  // Type, go up, edit the recalled line, come back down.
  EXPECT_EQ(recalled("new", "first") + recalled("first!", "new") + "\r\n" + not_found("new"),
            line("new\x1b[A!\x1b[B\r"));
  // The edit stayed in the old slot: two lines up.
  EXPECT_EQ(recalled("", "new") + recalled("new", "first!") + "\r\n" + not_found("first!"),
            line("\x1b[A\x1b[A\r"));
  // An empty line takes no slot; the first Up on a fresh line shows the latest.
  line("   \r");
  EXPECT_EQ(recalled("", "first!") + "\r\n" + not_found("first!"), line("\x1b[A\r"));
}

TEST_F(session, CompletionWithOneMatchAddsTheRestAndABlank) {
  EXPECT_EQ("ta \r\nzeta ran\r\n" + prompt, line("Ze\t\r"));
  EXPECT_EQ(
      "lp \r\nHelp for 'help': Help command\r\n Usage: help [command]\r\n"
      "Get help on [command], or a list of supported commands if a command is omitted.\r\n" +
          prompt,
      line("help he\t\r"));
  // A whole name only gains the blank.
  EXPECT_EQ(" \r\nzeta ran\r\n" + prompt, line("Zeta\t\r"));
}

TEST_F(session, CompletionWithSeveralMatchesExtendsThenLists) {
  // ab and abc: a gains b; the next Tab lists both and shows the line again.
  link.send("a\t\t\r");
  EXPECT_EQ(
      "b"
      "\r\nab                  abc                 \r\n" +
          prompt + "ab" + "\r\nab ran\r\n" + prompt,
      link.read_prompts(2));
  // An empty line matches every command: four to a row, in name order.
  link.send("\t\r");
  EXPECT_EQ(
      "\r\nZeta                ab                  abc                 echo                "
      "\r\nflood               getch               help                quit                "
      "\r\nunsupported         x_command_name_longer_than_24" +
          very_long_name + "\r\n" + prompt + "\r\n" + prompt,
      link.read_prompts(2));
}

TEST_F(session, CompletionIgnoresLinesWithOtherBlanks) {
  EXPECT_EQ("\r\n" + not_found("xx"), line("xx yy\t\r"));
  EXPECT_EQ("\r\n" + not_found("Ze"), line(" Ze\t\r"));
  // Two blanks behind help, or a third word.
  EXPECT_EQ("\r\nHelp for 'ab': First of a pair\r\n Usage: ab\r\n" + prompt, line("help  ab\t\r"));
  EXPECT_EQ("\r\nHelp for 'ab': First of a pair\r\n Usage: ab\r\n" + prompt, line("help ab c\t\r"));
}

TEST_F(session, HelpListsCommandsInNameOrder) {
  EXPECT_EQ(
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
          prompt,
      line("help\r"));
}

TEST_F(session, HelpOnOneCommand) {
  EXPECT_EQ(
      "\r\nHelp for 'help': Help command\r\n Usage: help [command]\r\n"
      "Get help on [command], or a list of supported commands if a command is omitted.\r\n" +
          prompt,
      line("help help\r"));
  // Only the first argument counts; a long name is found in full.
  EXPECT_EQ(
      "\r\nHelp for 'x_command_name_longer_than_24': A long name\r\n"
      " Usage: x_command_name_longer_than_24\r\n" +
          prompt,
      line("help x_command_name_longer_than_24 ab\r"));
  EXPECT_EQ("\r\nInvalid command: 'nosuch'.\r\n" + prompt, line("help nosuch\r"));
}

TEST_F(session, DispatchMessages) {
  EXPECT_EQ("\r\n" + not_found("HELP"), line("HELP\r"));
  EXPECT_EQ("\r\nunsupported: command not yet supported.\r\n" + prompt, line("unsupported\r"));
  // Quotes group words; handlers print through the hook, which reaches the client.
  EXPECT_EQ("\r\na b c \r\n" + prompt, line("echo \"a b\" \"c \"\r"));
}

TEST_F(session, LineEndsAndSplitInput) {
  // CR LF counts once; a lone LF is no line end at all.
  EXPECT_EQ("\r\nzeta ran\r\n" + prompt, line("Zeta\r\n"));
  link.send("ec\nho x\n");
  EXPECT_EQ("\r\nx\r\n" + prompt, line("\r"));
  // Many small sends, and more than 32 bytes in one.
  for (char c : std::string("echo split")) link.send(std::string(1, c));
  EXPECT_EQ("\r\nsplit\r\n" + prompt, line("\r"));
  const std::string word(70, 'w');
  EXPECT_EQ("\r\n" + word + "\r\n" + prompt, line("echo " + word + "\r"));
}

TEST_F(session, HandlersReadThroughTheHook) {
  EXPECT_EQ("\r\ngot 107\r\n" + prompt, line("getch\rk"));
}

TEST(listener, ServesTheNextClientOnlyAfterTheFirstHasGone) {
  const int port = start_listener();
  client first(port);
  EXPECT_EQ(greeting, first.read_until(prompt));
  client second(port);
  EXPECT_EQ("", second.read_for(300));  // waits in the kernel's queue
  first.send("quit\r");
  EXPECT_EQ(greeting, second.read_until(prompt));
  // A client that just goes away (the peer closed) ends its session too.
  client third(port);
  second.close();
  EXPECT_EQ(greeting, third.read_until(prompt));
  third.send("quit\r");
}

TEST(listener, SurvivesAClientThatResetsInTheMiddleOfOutput) {
  const int port = start_listener();
  client first(port);
  EXPECT_EQ(greeting, first.read_until(prompt));
  first.send("flood\r");
  first.read_until(std::string(1000, 'f'));
  first.reset();
  client second(port);
  EXPECT_EQ(greeting, second.read_until(prompt));
  EXPECT_EQ("\r\nzeta ran\r\n" + prompt, (second.send("Zeta\r"), second.read_until(prompt)));
}

TEST(listener, APortInUseIsReportedAndTheListenerReturns) {
  testing_support::log_capture logs;
  int busy = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(0, bind(busy, reinterpret_cast<sockaddr *>(&address), sizeof address));
  ASSERT_EQ(0, listen(busy, 1));
  ASSERT_EQ(0, getsockname(busy, reinterpret_cast<sockaddr *>(&address), &length));
  const int port = ntohs(address.sin_port);
  zebshell(port);  // returns instead of serving nothing for ever
  EXPECT_EQ(1, logs.count("zebshell: cannot bind port " + std::to_string(port) +
                          ": Address already in use\n"));
  // The hooks point at the connection all the same.
  EXPECT_EQ(&zeb_printf, shell_printf);
  close(busy);
}

}  // namespace
