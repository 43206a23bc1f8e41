// vexshell: one shell session. A small line editor for a client that sends
// ANSI escape sequences (insert and overwrite, a ring of recalled lines,
// completion of command names), and the loop that runs the committed lines.
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "shell_internal.hh"

namespace {

constexpr unsigned ring_slots = 32;  // a power of two: slot numbers wrap by the mask
constexpr unsigned ring_mask = ring_slots - 1;
constexpr size_t line_size = 256;
constexpr size_t line_max = line_size - 1;  // characters; the last byte is the terminator
constexpr char BS = 8;
constexpr const char *prompt_text = "vexsh:> ";

using line_buffer = std::array<char, line_size>;

// Sends `count` back spaces, which move the client's cursor left.
void send_backspaces(size_t count) {
  if (count != 0) zeb_printf("%s", std::string(count, BS).c_str());
}

class session {
 public:
  session() : ring_(std::make_unique<std::array<line_buffer, ring_slots>>()) {}
  ~session() { shell_free_args(&cmd_argc_, &cmd_argv_); }
  session(const session &) = delete;
  session &operator=(const session &) = delete;

  // Edits and runs lines until a command ends the session or the client's
  // connection is gone.
  void run() {
    zeb_printf("Welcome to vexshell!\r\n");
    zeb_printf("Warnning: Do not open this telnet shell for release version!!!! \r\n");
    prompt();
    for (;;) {
      int byte = zeb_getchar();
      // 0 is an ignored key, unless the transport has closed the connection.
      if (byte == 0 && !zeb_link_alive()) return;
      bool go_on = key(static_cast<unsigned char>(byte));
      fflush(stdout);
      if (!go_on) return;
    }
  }

  // Feeds one byte to the editor; false when the session is to end.
  bool key(unsigned char c) {
    switch (esc_state_) {
      case 0:
        return plain_key(c);
      case 1:
        esc_state_ = c == '[' ? 2 : 0;
        return true;
      case 2:
        esc_state_ = 0;
        if ((c >= '1' && c <= '6') || c == '[') {
          esc_param_ = c;
          esc_state_ = 3;
        } else if (c == 'A') {
          recall(-1);
        } else if (c == 'B') {
          recall(+1);
        } else if (c == 'C') {
          cursor_right();
        } else if (c == 'D') {
          cursor_left();
        }
        return true;
      case 3:
        // A second digit 7 to 9 also swallows the byte behind it.
        esc_state_ = (c >= '7' && c <= '9') ? 4 : 0;
        if (c == '~') tilde_key();
        return true;
      default:
        esc_state_ = 0;
        return true;
    }
  }

 private:
  char *slot(unsigned n) { return (*ring_)[n & ring_mask].data(); }
  size_t cursor_index() const { return static_cast<size_t>(cursor_ - line_); }

  void prompt() {
    zeb_printf("%s", prompt_text);
    browse_ = head_;
    line_ = slot(head_);
    cursor_ = line_;
    insert_mode_ = true;
    esc_state_ = 0;
    memset(line_, 0, line_size);  // the oldest line is lost when head reaches it
  }

  bool plain_key(unsigned char c) {
    switch (c) {
      case 8:
      case 127:
        back_space();
        return true;
      case 9:
        complete();
        return true;
      case 10:
      case 13:
        return commit();
      case 27:
        esc_state_ = 1;
        return true;
      case 224:
        return true;
      default:
        if (c >= 32) text(c);  // control bytes are dropped
        return true;
    }
  }

  void tilde_key() {
    switch (esc_param_) {
      case '1':
        home();
        break;
      case '2':
        insert_mode_ = !insert_mode_;
        break;
      case '3':
        delete_key();
        break;
      case '4':
        end();
        break;
      default:
        break;
    }
  }

  // The typed character itself is not echoed: only the text behind it, which
  // insertion has moved.
  void text(unsigned char c) {
    size_t length = strlen(line_);
    if (length >= line_max) return;
    if (insert_mode_) {
      size_t tail = length - cursor_index();
      // The byte behind the terminator is zero, so the moved tail stays terminated.
      memmove(cursor_ + 1, cursor_, tail);
      *cursor_++ = static_cast<char>(c);
      zeb_printf("%s", cursor_);
      send_backspaces(tail);
    } else {
      *cursor_++ = static_cast<char>(c);
    }
  }

  void back_space() {
    if (cursor_ == line_) return;
    size_t tail = strlen(cursor_);
    memmove(cursor_ - 1, cursor_, tail + 1);
    --cursor_;
    zeb_printf("%c%s ", BS, cursor_);
    send_backspaces(tail + 1);
  }

  void delete_key() {
    if (*cursor_ == '\0') return;
    size_t tail = strlen(cursor_);
    memmove(cursor_, cursor_ + 1, tail);
    zeb_printf("%s ", cursor_);
    send_backspaces(tail);  // the tail is one shorter now; plus one for the blank
  }

  void cursor_right() {
    if (*cursor_ == '\0') return;
    zeb_printf("%c", *cursor_);
    ++cursor_;
  }

  void cursor_left() {
    if (cursor_ == line_) return;
    --cursor_;
    zeb_printf("%c", BS);
  }

  void home() {
    zeb_printf("%s", cursor_);
    send_backspaces(strlen(line_));
    cursor_ = line_;
  }

  void end() {
    zeb_printf("%s", cursor_);
    cursor_ = line_ + strlen(line_);
  }

  // step -1 goes to older lines, +1 to newer ones. The walk stops before the
  // head slot and at an empty slot.
  void recall(int step) {
    unsigned to;
    if (step < 0) {
      to = (browse_ - 1) & ring_mask;
      if (to == head_ || *slot(to) == '\0') return;
    } else {
      if (browse_ == head_) return;
      to = (browse_ + 1) & ring_mask;
    }
    zeb_printf("%s", cursor_);
    std::string erase;
    for (size_t i = strlen(line_); i > 0; --i) erase += "\b \b";
    if (!erase.empty()) zeb_printf("%s", erase.c_str());
    browse_ = to;
    line_ = slot(to);
    cursor_ = line_ + strlen(line_);
    zeb_printf("%s", line_);
  }

  // Stores one completed character at the cursor and shows it; never into the
  // line's last byte, which keeps the terminator.
  bool store(char c) {
    if (cursor_index() >= line_max) return false;
    *cursor_++ = c;
    zeb_printf("%c", c);
    return true;
  }

  // Completes the first word of the line, or the word behind "help".
  void complete() {
    const char *blank = strchr(line_, ' ');
    const char *word = line_;
    if (blank != nullptr) {
      bool behind_help =
          strchr(blank + 1, ' ') == nullptr && blank - line_ == 4 && strncmp(line_, "help", 4) == 0;
      if (!behind_help) return;
      word = blank + 1;
    }
    size_t typed = strlen(word);
    unsigned matches = 0;
    const shell_cmd_t *last = nullptr;
    for (const shell_cmd_t *cmd = shell_cmd_list; cmd != nullptr; cmd = cmd->next) {
      if (strncmp(cmd->name, word, typed) == 0) {
        ++matches;
        last = cmd;
      }
    }
    if (matches == 0) return;
    if (matches == 1) {
      for (const char *p = last->name + typed; *p != '\0'; ++p)
        if (!store(*p)) return;
      store(' ');
      return;
    }
    // Extend while every match agrees with the last one on the next character.
    size_t known = typed;
    bool added = false;
    while (last->name[known] != '\0') {
      unsigned agreeing = 0;
      for (const shell_cmd_t *cmd = shell_cmd_list; cmd != nullptr; cmd = cmd->next)
        if (strncmp(cmd->name, last->name, known + 1) == 0) ++agreeing;
      if (agreeing != matches || !store(last->name[known])) break;
      ++known;
      added = true;
    }
    if (added) return;
    // Nothing to add: list the matches, four to a row, and show the line again.
    unsigned shown = 0;
    for (const shell_cmd_t *cmd = shell_cmd_list; cmd != nullptr; cmd = cmd->next) {
      if (strncmp(cmd->name, word, typed) != 0) continue;
      if (shown++ % 4 == 0) zeb_printf("\r\n");
      zeb_printf("%-20s", cmd->name);
    }
    zeb_printf("\r\n");
    zeb_printf("%s", prompt_text);
    zeb_printf("%s", line_);
  }

  bool commit() {
    if (browse_ != head_) {
      char *into = slot(head_);
      size_t length = strlen(line_);
      memcpy(into, line_, length);
      memset(into + length, 0, line_size - length);
    }
    zeb_printf("\r\n");
    fflush(stdout);
    shell_free_args(&cmd_argc_, &cmd_argv_);
    const char *text = slot(head_);
    unsigned count = 0;
    shell_parse_args(text, scratch_, &count, nullptr);
    if (count == 0) {  // an empty line takes no slot
      prompt();
      return true;
    }
    cmd_argv_ = static_cast<char **>(calloc(count, sizeof(char *)));
    shell_parse_args(text, scratch_, nullptr, cmd_argv_);
    cmd_argc_ = static_cast<int>(count);
    int result = do_shell_cmd(cmd_argc_, cmd_argv_);
    if (result == SHELL_EXIT) return false;
    if (result == SHELL_ERR_NOT_FOUND) zeb_printf("%s: command not found\r\n", cmd_argv_[0]);
    head_ = (head_ + 1) & ring_mask;
    prompt();
    return true;
  }

  std::unique_ptr<std::array<line_buffer, ring_slots>> ring_;  // zero-filled
  unsigned head_ = 0;
  unsigned browse_ = 0;
  char *line_ = nullptr;
  char *cursor_ = nullptr;
  bool insert_mode_ = true;
  int esc_state_ = 0;
  unsigned char esc_param_ = 0;
  char scratch_[SHELL_SCRATCH_SIZE] = {};
  int cmd_argc_ = 0;
  char **cmd_argv_ = nullptr;
};

}  // namespace

void vexshell(void) {
  if (shell_cmd_list == nullptr) shell_build_table();
  // The process's own console, not the connection: raw keys for kbhit.
  shell_term_capture();
  tcsetattr(STDIN_FILENO, TCSANOW, &shell_term_raw);
  {
    session current;
    current.run();
  }
  tcsetattr(STDIN_FILENO, TCSANOW, &shell_term_saved);
}
