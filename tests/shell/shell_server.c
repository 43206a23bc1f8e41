/* A shell server for scripted clients: an application of liborlo written in
 * C that adds a command of its own. Prints its port, then serves. */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

#include <orlo/shell.h>

static int quit(int argc, char **argv) {
  (void)argc;
  (void)argv;
  shell_printf("bye\r\n");
  return SHELL_EXIT;
}

SHELL_CMD(server_cmd_quit, "quit", "End the session", "quit", quit);

int main(void) {
  struct sockaddr_in address = {0};
  socklen_t length = sizeof address;
  int probe = socket(AF_INET, SOCK_STREAM, 0);
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (probe < 0 || bind(probe, (struct sockaddr *)&address, sizeof address) != 0 ||
      getsockname(probe, (struct sockaddr *)&address, &length) != 0) {
    perror("shell_server: no free port");
    return 1;
  }
  close(probe);
  if (shell_add_commands(&server_cmd_quit) != 0) return 1;
  printf("%d\n", ntohs(address.sin_port));
  fflush(stdout);
  zebshell(ntohs(address.sin_port));
  return 1;
}
