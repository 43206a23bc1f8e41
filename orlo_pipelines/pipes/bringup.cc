// The bring-up routine: the library's own walk from nothing to a live pipe
// bound to the display, in the order an application follows.
#include <unistd.h>

#include <array>
#include <cstdio>

#include "orlo_display.h"
#include "orlo_lumen_pipe.h"
#include "plug_and_detect.h"

extern "C" {

// A picture's worth of RGB24 for the application's experiments; the library
// itself never touches it.
ORLO_API uint8_t test_rgb24_buf[27648] = {};

void test_orlo_display_new(void) {
  // Format 0: a 1920 x 1080 first display.
  static const int32_t formats[] = {0};
  orlo_display_t *h_display = orlo_display_new(formats, 0, 4, 4, 1, -1, nullptr);
  if (h_display == nullptr)
    g_assertion_message_expr(nullptr, __FILE__, __LINE__, "test_orlo_display_new",
                             "h_display != NULL");

  for (int i = 0; i < ORLO_MAX_VR; ++i) h_display->channels[i] = i < 4 ? i : -1;

  orlo_display_mode_start(h_display, 13);

  // The media processors announce themselves with this file; only its
  // existence counts.
  FILE *ready;
  while ((ready = fopen("./zebstart", "r")) == nullptr) {
    sleep(1);
    puts("wait for vpss, ti81xxfb ... ");
  }
  fclose(ready);

  // Slots 32..35 (the live sink's channels 16..19) on port 0.
  std::array<orlo_decode_cfg_t, ORLO_MAX_SLOT> table{};
  for (int slot = 32; slot <= 35; ++slot) table[static_cast<size_t>(slot)].enable = 1;
  orlo_display_decode_change(h_display, table.data());

  orlo_lumen_pipe_t *h_lumen_pipe = orlo_lumen_pipe_new(4);
  orlo_lumen_pipe_start(h_lumen_pipe);
  GstElement *sink = orlo_lumen_pipe_get_kelappsink(h_lumen_pipe);

  // The pipe runs unbound for a while, as on the device.
  sleep(3);
  puts("bind pipe to ravel");
  orlo_display_bind_src_pipe(h_display, sink, 0);

  plug_and_detect_init(h_lumen_pipe, 4);
}

}  // extern "C"
