// What a caller asks of a play, as the element's properties hold it (see
// gstkelsstsrc.cc for each property's meaning).
#pragma once

#include <glib.h>

#include <string>

namespace kelsst {

struct play_settings {
  std::string location = "recordings";
  gint pr_id = 0;
  gint vtick_usec = 1000000;
  gint open_rate = 1;
  gint rate = 1;
  gint dir = 0;
  gint rate_control = 0;
  gint hide = 1;
  gint ch_num = 4;
  gint audio_ch = -1;
  guint64 ch_mask = 15;
  gint mode = 0;
  gint next_frame_mode = 0;
  gint cmd_next = 0;
  gint64 begin = 0, end = 0, search = 0, time_offset = 0;
};

}  // namespace kelsst
