// zebshell: the shell's TCP listener, one client at a time on the caller's
// thread.
#include <arpa/inet.h>
#include <glib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "shell_internal.hh"

void zebshell(int port) {
  shell_printf = zeb_printf;
  shell_getch = zeb_getchar;
  if (port < 0 || port > 65535) {
    g_return_if_fail_warning(nullptr, "zebshell", "port >= 0 && port <= 65535");
    return;
  }

  int listener = socket(AF_INET, SOCK_STREAM, 0);
  if (listener < 0) {
    perror("socket error : ");
    g_warning("zebshell: no socket for port %d: %s\n", port, g_strerror(errno));
    return;
  }
  int on = 1;
  if (setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == -1) perror("setsockopt");

  sockaddr_in address;
  memset(&address, 0, sizeof address);
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  address.sin_port = htons(static_cast<uint16_t>(port));
  if (bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
    g_warning("zebshell: cannot bind port %d: %s\n", port, g_strerror(errno));
    close(listener);
    return;
  }
  if (listen(listener, 5) != 0) {
    g_warning("zebshell: cannot listen on port %d: %s\n", port, g_strerror(errno));
    close(listener);
    return;
  }

  sockaddr_in peer;
  socklen_t peer_length = sizeof peer;
  int last_error = 0;
  for (;;) {
    peer_length = sizeof peer;
    int client = accept(listener, reinterpret_cast<sockaddr *>(&peer), &peer_length);
    if (client < 0) {
      if (errno == EINTR) continue;
      // Out of descriptors and the like: say so once, pause, and try again.
      if (errno != last_error)
        g_warning("zebshell: accept on port %d failed: %s\n", port, g_strerror(errno));
      last_error = errno;
      g_usleep(G_USEC_PER_SEC / 10);
      continue;
    }
    last_error = 0;
    zeb_set_socket(client);
    vexshell();
    // The session may have closed it already; then the number is not ours anymore.
    zeb_close_socket();
  }
}
