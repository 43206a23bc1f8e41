// Splitting a command line into arguments, and freeing them.
#include <cstdlib>
#include <cstring>

#include "shell_internal.hh"

void shell_parse_args(const char *line, char *scratch, unsigned *out_count, char **out_argv) {
  unsigned count = 0;
  size_t length = 0;  // characters in scratch
  bool in_quote = false;
  // Ends the token in scratch: empty tokens are not counted.
  auto finish = [&] {
    scratch[length] = '\0';
    if (length != 0) {
      if (out_argv != nullptr) out_argv[count] = strdup(scratch);
      ++count;
    }
    length = 0;
  };
  for (const char *p = line; *p != '\0'; ++p) {
    if (*p == '"') {
      in_quote = !in_quote;
    } else if (*p == ' ' && !in_quote) {
      finish();
    } else if (length < SHELL_SCRATCH_SIZE - 1) {
      scratch[length++] = *p;
    }
    // A token longer than the scratch is cut: the rest of it is dropped.
  }
  finish();
  if (out_count != nullptr) *out_count = count;
}

void shell_free_args(int *count, char ***argv) {
  if (argv != nullptr && *argv != nullptr) {
    for (int i = 0; i < *count; ++i) {
      free((*argv)[i]);
      (*argv)[i] = nullptr;
    }
    free(*argv);
    *argv = nullptr;
  }
  if (count != nullptr) *count = 0;
}
