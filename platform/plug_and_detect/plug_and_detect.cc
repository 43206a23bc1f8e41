// Stand-in for the device's plug-and-detect routine.  On the device it finds
// the cameras on the network and opens their channels on the live pipe it is
// given; here there is nothing to detect, so it only says that it was called.
#include "plug_and_detect.h"

#include <glib.h>

extern "C" int plug_and_detect_init(void *pipe, int count) {
  g_message("plug_and_detect_init(%p, %d) called", pipe, count);
  return 0;
}
