/* A first program against liborlo: converts a small YV12 picture to RGB24,
 * names a shell command of its own and runs the shell's dispatch.  Exits 0
 * when every result is the documented one. */
#include <orlo/colorspace.h>
#include <orlo/orlo_display.h>
#include <orlo/shell.h>
#include <stdio.h>
#include <string.h>

#define W 4
#define H 2

static int do_hello(int argc, char **argv) {
  (void)argc;
  (void)argv;
  shell_printf("hello\r\n");
  return 0;
}
SHELL_CMD(cmd_hello, "hello", "Say hello", "hello", do_hello);

/* Mid grey in YV12 is the same byte in B, G and R; a red picture has R
 * first in the pixel's last byte. */
static int convert_picture(void) {
  uint8_t y[W * H], u[W * H / 4], v[W * H / 4], rgb[W * H * 3];
  colorspace_init();
  memset(y, 128, sizeof y);
  memset(u, 128, sizeof u);
  memset(v, 128, sizeof v);
  yv12_to_rgb24_c(rgb, W, y, u, v, W, W / 2, W, H);
  if (rgb[0] != rgb[1] || rgb[1] != rgb[2]) {
    fprintf(stderr, "grey came out as %u %u %u\n", rgb[0], rgb[1], rgb[2]);
    return -1;
  }
  /* Y 81, U 90, V 240: studio-range red. */
  memset(y, 81, sizeof y);
  memset(u, 90, sizeof u);
  memset(v, 240, sizeof v);
  yv12_to_rgb24_c(rgb, W, y, u, v, W, W / 2, W, H);
  printf("red pixel as B G R: %u %u %u\n", rgb[0], rgb[1], rgb[2]);
  return rgb[2] > 200 && rgb[0] < 50 && rgb[1] < 50 ? 0 : -1;
}

/* Before any session has built the command table, every name is unknown. */
static int run_shell_command(void) {
  char name[] = "hello";
  char *argv[] = {name};
  int added = shell_add_commands(&cmd_hello);
  int result = do_shell_cmd(1, argv);
  printf("shell_add_commands: %d, do_shell_cmd(hello): %d\n", added, result);
  return added == 0 && result == SHELL_ERR_NOT_FOUND ? 0 : -1;
}

int main(void) {
  int failed = convert_picture() != 0;
  failed |= run_shell_command() != 0;
  printf("liborlo regions per list: %d, shell %s: %s\n", ORLO_MAX_VR,
         shell_version ? shell_version : "?", failed ? "FAILED" : "ok");
  return failed;
}
