/* orlo-demo: brings the display up over the media engine and reports. */
#include <stdio.h>

#include "orlo_display.h"

int main(void) {
  const int32_t formats[1] = {0}; /* 1920 x 1080 */
  orlo_display_t *h_display = orlo_display_new(formats, 0, 16, 0, 1, -1, NULL);
  if (h_display == NULL) {
    fprintf(stderr, "orlo-demo: the display could not be created\n");
    return 1;
  }
  printf("orlo-demo: display %dx%d over the engine, %d channels, audio %s\n",
         h_display->disp_width, h_display->disp_height, h_display->ch_count,
         h_display->h_audio ? "on" : "off");
  orlo_display_stop(h_display);
  printf("orlo-demo: engine stopped\n");
  return 0;
}
