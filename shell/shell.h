/* The debug shell: a line editor and a command table behind a TCP listener.
 *
 * Adding a command. Any object places a record in the linker section
 * `.commandlist` with SHELL_CMD:
 *
 *   static int do_status(int argc, char **argv) { shell_printf("ok\r\n"); return 0; }
 *   SHELL_CMD(cmd_status, "status", "Show the status", "status", do_status);
 *
 * The shell finds the records of a section by walking from one record it
 * knows, sorts them by name once per process and chains them.
 *
 * - Objects linked into liborlo need nothing more: the walk starts at the
 *   library's own `help` record.
 * - An application executable or another shared library has a `.commandlist`
 *   section of its own. It names any one of its records to the shell with
 *   shell_add_commands() before the first session starts (before zebshell()),
 *   and every record of that module joins the same sorted chain:
 *
 *     extern shell_cmd_t cmd_status;            // defined with SHELL_CMD
 *     shell_add_commands(&cmd_status);
 *     zebshell(2323);
 *
 * Command handlers print through shell_printf and read through shell_getch,
 * so that they reach the client once zebshell() runs and the console before.
 * Shell messages end in CR LF.
 *
 * Threads: the shell has none of its own.  zebshell() runs the listener,
 * every session and every handler on the thread that calls it; nothing here
 * takes a lock.  Records, names and texts are the defining module's and must
 * live as long as the process. */
#ifndef ORLO_SHELL_H
#define ORLO_SHELL_H

#include <stdint.h>

#include "orlo_api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The first word of every record: 'C' 'm' 'd' ' ' with 'C' in the top byte. */
#define SHELL_CMD_MAGIC 0x436D6420u

/* A handler's result that ends the session. */
#define SHELL_EXIT (-12345)
/* No record has the name, or the table is not built yet. */
#define SHELL_ERR_NOT_FOUND (-23456)
/* The record has no handler. */
#define SHELL_ERR_NO_HANDLER (-34567)

typedef int (*shell_handler_fn)(int argc, char **argv);

/* One command. The records of a section lie back to back, so a record never
 * has any other size. `next` is written when the table is built. */
typedef struct shell_cmd {
  uint32_t magic;
  const char *name;
  const char *help;
  const char *usage;
  shell_handler_fn handler; /* NULL: declared, not supported yet */
  struct shell_cmd *next;
} shell_cmd_t;

/* The section is writable (the sort moves records), every record is kept
 * even if nothing names it, and its alignment is the type's own so that the
 * compiler pads nothing between records. Clang's AddressSanitizer would put
 * red zones between them; it is told not to. */
#if defined(__clang__)
#define SHELL_CMD_NO_REDZONE __attribute__((no_sanitize("address")))
#else
#define SHELL_CMD_NO_REDZONE
#endif
#define SHELL_CMD_SECTION                                                           \
  __attribute__((used, section(".commandlist"), aligned(__alignof__(shell_cmd_t)))) \
  SHELL_CMD_NO_REDZONE

/* Defines the record `ident` for the command `name`. */
#define SHELL_CMD(ident, name, help, usage, handler) \
  SHELL_CMD_SECTION shell_cmd_t ident = {SHELL_CMD_MAGIC, (name), (help), (usage), (handler), 0}

/* Makes the `.commandlist` section of another module (an application, a
 * plug-in library) part of the table: `anchor` is any record of that module.
 * Call before the first session. Returns 0, or -1 (with a log line) when the
 * table is already built, the anchor is not a record, or too many modules
 * were named. Naming a module twice is harmless. */
ORLO_API int shell_add_commands(shell_cmd_t *anchor);

/* Runs one command: argv[0] is its name (exact match), argc >= 1; argv is
 * the caller's and goes to the handler as it is. Returns the handler's
 * result, SHELL_ERR_NOT_FOUND (also for every name until the first session
 * has built the table) or SHELL_ERR_NO_HANDLER. From a thread other than the
 * shell's only once the first session has started. */
ORLO_API int do_shell_cmd(int argc, char **argv);

/* One shell session on the current client's connection; zebshell() calls it
 * for each client, on its thread.  Returns when a command returns
 * SHELL_EXIT or the connection is gone. */
ORLO_API void vexshell(void);

/* The TCP listener: serves one client at a time on `port` (host order), on
 * the calling thread, which it keeps for the life of the process (give it a
 * thread of its own). Returns only when the port cannot be opened. */
ORLO_API void zebshell(int port);

/* Prints to the current client (shell thread). Returns the number of bytes
 * formatted; a failed send goes unnoticed. */
ORLO_API int zeb_printf(const char *format, ...) __attribute__((format(printf, 1, 2)));
/* The next byte from the client (LF dropped), or 0 when the connection is
 * gone or idle for 1200 s (shell thread). */
ORLO_API int zeb_getchar(void);
/* 1 if a key waits on the process's console (standard input), else 0. */
ORLO_API int kbhit(void);
/* The next key from the console; the one kbhit() saw first. */
ORLO_API int readch(void);

/* Where command handlers print and read: the console until zebshell() runs,
 * then the client (zebshell() points them there).  shell_version: the text
 * `help` shows, the library's own. */
ORLO_API extern int (*shell_printf)(const char *format, ...);
ORLO_API extern int (*shell_getch)(void);
ORLO_API extern const char *shell_version;

#ifdef __cplusplus
}
#endif

#endif /* ORLO_SHELL_H */
