// What the parts of the shell share and applications do not see.
#pragma once

#include <termios.h>

#include "shell.h"

// The size of the token buffer of shell_parse_args: a longer token is cut to
// SHELL_SCRATCH_SIZE - 1 characters.
inline constexpr unsigned SHELL_SCRATCH_SIZE = 128;

// The first record of the sorted chain; null until the first session builds
// the table, never reset.
extern shell_cmd_t *shell_cmd_list;

// Builds shell_cmd_list from the sections: the library's own and the ones
// named with shell_add_commands.
void shell_build_table();

// Splits `line` at blanks, with double quotes grouping. Called once with
// out_argv null to count, then with out_count null to fill a vector of that
// many entries, each a malloc'd copy. `scratch` holds SHELL_SCRATCH_SIZE bytes.
void shell_parse_args(const char *line, char *scratch, unsigned *out_count, char **out_argv);
// Frees every entry and the vector, nulls them and sets the count to 0.
void shell_free_args(int *count, char ***argv);

int shell_cmd_compare(const void *a, const void *b);
int shell_cmd_help(int argc, char **argv);

// The console's attributes, filled at the start of a session.
extern struct termios shell_term_saved;
extern struct termios shell_term_raw;
// Fills both records from standard input: the raw one without ICANON and
// ECHO, reading one byte at a time.
void shell_term_capture();

// False once the transport has closed the client's connection (time-out,
// peer gone, receive error) or before any client was set.
bool zeb_link_alive();
// A key that zeb_getchar gives without reading from the connection.
bool zeb_key_waiting();
// Makes `fd` the current client.
void zeb_set_socket(int fd);
// Closes the current client, if any, once.
void zeb_close_socket();
