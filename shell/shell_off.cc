// The session and the listener of a build without the debug shell
// (ORLO_SHELL=OFF): the names stay so that applications still link, but
// nothing listens and no session runs.
#include <glib.h>

#include "shell_internal.hh"

void vexshell(void) { g_message("vexshell: the debug shell is not part of this build\n"); }

void zebshell(int port) {
  if (port < 0 || port > 65535) {
    g_return_if_fail_warning(nullptr, "zebshell", "port >= 0 && port <= 65535");
    return;
  }
  g_message("zebshell: the debug shell is not part of this build; port %d stays closed\n", port);
}
