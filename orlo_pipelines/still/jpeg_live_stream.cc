// The application's selection of stream slots for a JPEG live stream.  It is
// held here for whatever produces that stream; nothing in the library reads
// it.
#include <cstring>

#include "orlo_display.h"

extern "C" ORLO_API int orlo_display_jpeg_live_stream_start(orlo_display_t *h_display,
                                                            const int *table, int arg) {
  if (h_display == nullptr || table == nullptr) {
    g_return_if_fail_warning(nullptr, "orlo_display_jpeg_live_stream_start",
                             "h_display != NULL && table != NULL");
    return -1;
  }
  std::memcpy(h_display->ch_jpeg_live, table, sizeof h_display->ch_jpeg_live);
  h_display->jpeg_live_arg = arg;
  return 0;
}

extern "C" ORLO_API int orlo_display_jpeg_live_stream_change(orlo_display_t *h_display,
                                                             const int *table) {
  if (h_display == nullptr || table == nullptr) {
    g_return_if_fail_warning(nullptr, "orlo_display_jpeg_live_stream_change",
                             "h_display != NULL && table != NULL");
    return -1;
  }
  std::memcpy(h_display->ch_jpeg_live, table, sizeof h_display->ch_jpeg_live);
  return 0;
}

extern "C" ORLO_API int orlo_display_jpeg_live_stream_all_stop(orlo_display_t *h_display) {
  if (h_display == nullptr) {
    g_return_if_fail_warning(nullptr, "orlo_display_jpeg_live_stream_all_stop",
                             "h_display != NULL");
    return -1;
  }
  std::memset(h_display->ch_jpeg_live, 0, sizeof h_display->ch_jpeg_live);
  return 0;
}
