// The command table: records found in the `.commandlist` sections, sorted by
// name and chained once per process; the dispatcher and the `help` command.
#include <glib.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "shell_internal.hh"

shell_cmd_t *shell_cmd_list = nullptr;

// Six words: the walk steps by the record's size and reads the magic first.
static_assert(sizeof(shell_cmd_t) == 6 * sizeof(void *));
static_assert(offsetof(shell_cmd_t, magic) == 0);

// The library's own command, and the anchor of the walk through its section.
SHELL_CMD(shell_cmd_help_record, "help", "Help command",
          "help [command]\r\nGet help on [command], or a list of supported commands if a command "
          "is omitted.",
          shell_cmd_help);

namespace {

// Records around an anchor: 127 before it, the anchor, 127 behind it.
constexpr size_t walk_slots = 128;
// Sections of other modules that shell_add_commands named.
constexpr size_t max_modules = 8;
shell_cmd_t *module_anchors[max_modules];
size_t module_count = 0;

// A section's records: first and count.
struct record_run {
  shell_cmd_t *first;
  size_t count;
};

// The walk reads the word in front of the first record and behind the last:
// ordinary data of the module, outside any one object, so the address
// sanitizer must not judge it.
__attribute__((no_sanitize_address)) bool is_record(uintptr_t slot) {
  return *reinterpret_cast<const volatile uint32_t *>(slot) == SHELL_CMD_MAGIC;
}

record_run find_run(shell_cmd_t *anchor) {
  const uintptr_t base = reinterpret_cast<uintptr_t>(anchor);
  size_t below = 0;
  while (below + 1 < walk_slots && is_record(base - (below + 1) * sizeof(shell_cmd_t))) ++below;
  size_t above = 0;
  while (above + 1 < walk_slots && is_record(base + (above + 1) * sizeof(shell_cmd_t))) ++above;
  return {reinterpret_cast<shell_cmd_t *>(base - below * sizeof(shell_cmd_t)), below + above + 1};
}

bool holds(const record_run &run, const shell_cmd_t *record) {
  return record >= run.first && record < run.first + run.count;
}

}  // namespace

int shell_cmd_compare(const void *a, const void *b) {
  return strcmp(static_cast<const shell_cmd_t *>(a)->name,
                static_cast<const shell_cmd_t *>(b)->name);
}

void shell_build_table() {
  std::vector<record_run> runs;
  runs.push_back(find_run(&shell_cmd_help_record));
  for (size_t i = 0; i < module_count; ++i) {
    shell_cmd_t *anchor = module_anchors[i];
    if (std::none_of(runs.begin(), runs.end(),
                     [&](const record_run &r) { return holds(r, anchor); }))
      runs.push_back(find_run(anchor));
  }
  for (const record_run &run : runs)
    qsort(run.first, run.count, sizeof(shell_cmd_t), shell_cmd_compare);

  // Chain all sections in name order: with one section this is address order.
  std::vector<size_t> taken(runs.size(), 0);
  shell_cmd_t *head = nullptr;
  shell_cmd_t *tail = nullptr;
  for (;;) {
    shell_cmd_t *least = nullptr;
    size_t from = 0;
    for (size_t i = 0; i < runs.size(); ++i) {
      if (taken[i] == runs[i].count) continue;
      shell_cmd_t *candidate = runs[i].first + taken[i];
      if (least == nullptr || strcmp(candidate->name, least->name) < 0) {
        least = candidate;
        from = i;
      }
    }
    if (least == nullptr) break;
    ++taken[from];
    least->next = nullptr;
    if (tail != nullptr)
      tail->next = least;
    else
      head = least;
    tail = least;
  }
  shell_cmd_list = head;
}

int shell_add_commands(shell_cmd_t *anchor) {
  if (anchor == nullptr || anchor->magic != SHELL_CMD_MAGIC) {
    g_warning("shell_add_commands: %p is not a command record\n", static_cast<void *>(anchor));
    return -1;
  }
  if (shell_cmd_list != nullptr) {
    g_warning("shell_add_commands: the command table is already built; '%s' comes too late\n",
              anchor->name);
    return -1;
  }
  for (size_t i = 0; i < module_count; ++i)
    if (module_anchors[i] == anchor) return 0;
  if (module_count == max_modules) {
    g_warning("shell_add_commands: more than %zu modules; '%s' is not added\n", max_modules,
              anchor->name);
    return -1;
  }
  module_anchors[module_count++] = anchor;
  return 0;
}

int do_shell_cmd(int argc, char **argv) {
  if (argc < 1 || argv == nullptr || argv[0] == nullptr) {
    g_return_if_fail_warning(nullptr, "do_shell_cmd",
                             "argc >= 1 && argv != NULL && argv[0] != NULL");
    return SHELL_ERR_NOT_FOUND;
  }
  if (shell_cmd_list == nullptr) return SHELL_ERR_NOT_FOUND;  // before the first session
  for (shell_cmd_t *cmd = shell_cmd_list; cmd != nullptr; cmd = cmd->next) {
    if (strcmp(argv[0], cmd->name) != 0) continue;
    if (cmd->handler == nullptr) {
      zeb_printf("%s: command not yet supported.\r\n", argv[0]);
      return SHELL_ERR_NO_HANDLER;
    }
    return cmd->handler(argc, argv);
  }
  return SHELL_ERR_NOT_FOUND;
}

int shell_cmd_help(int argc, char **argv) {
  if (argc < 2) {
    zeb_printf("<vex shell ver %s>\r\n", shell_version);
    zeb_printf("Supported shell commands:\r\n");
    for (shell_cmd_t *cmd = shell_cmd_list; cmd != nullptr; cmd = cmd->next)
      zeb_printf(" - %-24.24s:  %s\r\n", cmd->name, cmd->help);
    zeb_printf("\r\nUse \"help command\" to get help on a specific command.\r\n");
    return 0;
  }
  for (shell_cmd_t *cmd = shell_cmd_list; cmd != nullptr; cmd = cmd->next) {
    if (strncmp(cmd->name, argv[1], 128) == 0) {
      zeb_printf("Help for '%s': %s\r\n Usage: %s\r\n", argv[1], cmd->help, cmd->usage);
      return 0;
    }
  }
  zeb_printf("Invalid command: '%s'.\r\n", argv[1]);
  return -22;
}
