// What the application sets in the engine beyond streams and regions:
// capture, encoding, on-screen display, masks, picture settings and clocks.
// The software engine has no capture or encoder; it keeps the settings so
// that they can be read back and used by what comes later.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "ravel.h"

namespace ravel_soft {

struct registered_callback {
  void *callback = nullptr;
  void *user_data = nullptr;
};

struct control_state {
  mutable std::mutex lock;

  std::array<ravel_dec_config_t, RAVEL_DEC_CONFIG_COUNT> dec_config{};
  int32_t dec_config_count = 0;
  int32_t enc_ch_count = 0;

  std::map<int32_t, bool> capture_on;
  registered_callback encode_stream, captmode_change, encode_mosaic;
  int32_t encode_mosaic_stream = 0;
  std::map<std::pair<int32_t, int32_t>, int32_t> bitrate;          // (ch, stream) -> bitrate
  std::map<std::pair<int32_t, int32_t>, uint32_t> encode_changes;  // how often changed
  std::map<int32_t, std::vector<uint8_t>> md_param;                // by channel, as given

  uint64_t time = 0;
  int32_t time_words[2] = {0, 0};

  std::array<int32_t, 4> display_enable{1, 1, 1, 1};
  std::map<std::pair<int32_t, int32_t>, int32_t> osd_enable;  // (ch, osd) -> enable
  std::map<std::pair<int32_t, int32_t>, int32_t> osd_option;  // (ch, option) -> value
  ravel_mask_t mask{};
  ravel_roi_t roi{};
  ravel_dnr_t dnr{};
  int32_t mirror = 0;
  int32_t rotate = 0;
  ravel_datetime_format_t datetime_format{};
  ravel_ip_osd_t ip_osd{};
};

// The clocks set without an engine handle: one per process.
struct system_time {
  uint64_t init = 0;
  uint64_t last_sync = 0;
  uint32_t syncs = 0;
};
system_time &process_system_time(std::unique_lock<std::mutex> &held);

}  // namespace ravel_soft
