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
constexpr const char *prompt_text = "vexsh:> ";

// The keys the editor knows by their byte.
enum key : unsigned char {
  KEY_BS = 8,  // also what moves the client's cursor one left
  KEY_TAB = 9,
  KEY_LF = 10,
  KEY_CR = 13,
  KEY_ESC = 27,
  KEY_SPACE = 32,  // the first printable byte
  KEY_DEL = 127,
  KEY_EXTENDED = 224,  // a console's prefix of extended keys: ignored
};
constexpr char BS = KEY_BS;

// How far an escape sequence has come: ESC, ESC [, ESC [ and a parameter
// byte, or a second parameter digit whose next byte is swallowed.
enum class esc_state { none, escape, bracket, parameter, swallow };

using line_buffer = std::array<char, line_size>;

class session {
 public:
  session() : ring_(std::make_unique<std::array<line_buffer, ring_slots>>()) {}
  ~session() { shell_free_args(&cmd_argc_, &cmd_argv_); }
  session(const session &) = delete;
  session &operator=(const session &) = delete;

  // Edits and runs lines until a command ends the session or the client's
  // connection is gone.
  void run() {
    put("Welcome to vexshell!\r\n");
    put("Warnning: Do not open this telnet shell for release version!!!! \r\n");
    prompt();
    send();
    for (;;) {
      int byte = zeb_getchar();
      // 0 is an ignored key, unless the transport has closed the connection.
      if (byte == 0 && !zeb_link_alive()) return;
      bool go_on = key(static_cast<unsigned char>(byte));
      // What the keys of one received piece show goes out in one send, and
      // always before the wait for more.
      if (!go_on || !zeb_key_waiting()) send();
      fflush(stdout);
      if (!go_on) return;
    }
  }

  // Feeds one byte to the editor; false when the session is to end.  What
  // the key shows waits in the refresh until send().
  bool key(unsigned char c) {
    switch (esc_state_) {
      case esc_state::none:
        return plain_key(c);
      case esc_state::escape:
        esc_state_ = c == '[' ? esc_state::bracket : esc_state::none;
        return true;
      case esc_state::bracket:
        esc_state_ = esc_state::none;
        if ((c >= '1' && c <= '6') || c == '[') {
          esc_param_ = c;
          esc_state_ = esc_state::parameter;
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
      case esc_state::parameter:
        // A second digit 7 to 9 also swallows the byte behind it.
        esc_state_ = (c >= '7' && c <= '9') ? esc_state::swallow : esc_state::none;
        if (c == '~') tilde_key();
        return true;
      case esc_state::swallow:
        esc_state_ = esc_state::none;
        return true;
    }
    return true;
  }

  // Sends the refresh gathered since the last send in one piece.
  void send() {
    if (refresh_.empty()) return;
    zeb_printf("%s", refresh_.c_str());
    refresh_.clear();
  }

 private:
  char *slot(unsigned n) { return (*ring_)[n & ring_mask].data(); }
  size_t cursor_index() const { return static_cast<size_t>(cursor_ - line_); }

  void put(const char *text) { refresh_ += text; }
  void put(char c) { refresh_ += c; }
  // Back spaces, which move the client's cursor left.
  void put_backspaces(size_t count) { refresh_.append(count, BS); }

  void prompt() {
    put(prompt_text);
    browse_ = head_;
    line_ = slot(head_);
    cursor_ = line_;
    insert_mode_ = true;
    esc_state_ = esc_state::none;
    memset(line_, 0, line_size);  // the oldest line is lost when head reaches it
  }

  bool plain_key(unsigned char c) {
    switch (c) {
      case KEY_BS:
      case KEY_DEL:
        back_space();
        return true;
      case KEY_TAB:
        complete();
        return true;
      case KEY_LF:
      case KEY_CR:
        return commit();
      case KEY_ESC:
        esc_state_ = esc_state::escape;
        return true;
      case KEY_EXTENDED:
        return true;
      default:
        if (c >= KEY_SPACE) text(c);  // control bytes are dropped
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
      put(cursor_);
      put_backspaces(tail);
    } else {
      *cursor_++ = static_cast<char>(c);
    }
  }

  void back_space() {
    if (cursor_ == line_) return;
    size_t tail = strlen(cursor_);
    memmove(cursor_ - 1, cursor_, tail + 1);
    --cursor_;
    put(BS);
    put(cursor_);
    put(' ');
    put_backspaces(tail + 1);
  }

  void delete_key() {
    if (*cursor_ == '\0') return;
    size_t tail = strlen(cursor_);
    memmove(cursor_, cursor_ + 1, tail);
    put(cursor_);
    put(' ');
    put_backspaces(tail);  // the tail is one shorter now; plus one for the blank
  }

  void cursor_right() {
    if (*cursor_ == '\0') return;
    put(*cursor_);
    ++cursor_;
  }

  void cursor_left() {
    if (cursor_ == line_) return;
    --cursor_;
    put(BS);
  }

  void home() {
    put(cursor_);
    put_backspaces(strlen(line_));
    cursor_ = line_;
  }

  void end() {
    put(cursor_);
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
    put(cursor_);
    for (size_t i = strlen(line_); i > 0; --i) put("\b \b");
    browse_ = to;
    line_ = slot(to);
    cursor_ = line_ + strlen(line_);
    put(line_);
  }

  // Stores one completed character at the cursor and shows it; never into the
  // line's last byte, which keeps the terminator.
  bool store(char c) {
    if (cursor_index() >= line_max) return false;
    *cursor_++ = c;
    put(c);
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
      if (shown++ % 4 == 0) put("\r\n");
      put(cmd->name);
      const size_t width = strlen(cmd->name);
      if (width < 20) refresh_.append(20 - width, ' ');  // columns of 20
    }
    put("\r\n");
    put(prompt_text);
    put(line_);
  }

  bool commit() {
    if (browse_ != head_) {
      char *into = slot(head_);
      size_t length = strlen(line_);
      memcpy(into, line_, length);
      memset(into + length, 0, line_size - length);
    }
    put("\r\n");
    send();  // the command's own output comes behind the line's end
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
    if (result == SHELL_ERR_NOT_FOUND) {
      put(cmd_argv_[0]);
      put(": command not found\r\n");
    }
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
  esc_state esc_state_ = esc_state::none;
  unsigned char esc_param_ = 0;
  char scratch_[SHELL_SCRATCH_SIZE] = {};
  int cmd_argc_ = 0;
  char **cmd_argv_ = nullptr;
  std::string refresh_;  // what the current key shows, sent in one piece
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
