// The engine calls that only set or report: capture, encoding, clocks, the
// on-screen display, masks and picture settings, health.  They answer as the
// device does and keep what they are given (control_state.hh).
#include <cstring>

#include "engine.hh"

namespace {

using guard = std::lock_guard<std::mutex>;

}  // namespace

extern "C" {

int32_t ravel_capture_drv_start(ravel_t *engine, int32_t ch) {
  if (engine == nullptr) return -1;
  guard g(engine->control.lock);
  engine->control.capture_on[ch] = true;
  return 0;
}

int32_t ravel_capture_drv_stop(ravel_t *engine, int32_t ch) {
  if (engine == nullptr) return -1;
  guard g(engine->control.lock);
  engine->control.capture_on[ch] = false;
  return 0;
}

int32_t ravel_register_get_encode_stream(ravel_t *engine, void *callback, void *user_data) {
  if (engine == nullptr) return -1;
  guard g(engine->control.lock);
  engine->control.encode_stream = {callback, user_data};
  return 0;
}

int32_t ravel_register_captmode_change(ravel_t *engine, void *callback, void *user_data) {
  if (engine == nullptr) return -1;
  guard g(engine->control.lock);
  engine->control.captmode_change = {callback, user_data};
  return 0;
}

int32_t ravel_register_encode_mosaic_stream(ravel_t *engine, void *callback, void *user_data,
                                            int32_t stream, int32_t) {
  if (engine == nullptr) return -1;
  guard g(engine->control.lock);
  engine->control.encode_mosaic = {callback, user_data};
  engine->control.encode_mosaic_stream = stream;
  return 0;
}

int32_t ravel_encode_change(ravel_t *engine, int32_t ch, int32_t stream, void *) {
  if (engine == nullptr) return -1;
  guard g(engine->control.lock);
  engine->control.encode_changes[{ch, stream}]++;
  return 0;
}

int32_t ravel_set_encode_bitrate(ravel_t *engine, int32_t ch, int32_t stream, int32_t bitrate) {
  if (engine == nullptr || bitrate < 0) return -1;
  guard g(engine->control.lock);
  engine->control.bitrate[{ch, stream}] = bitrate;
  return 0;
}

int32_t ravel_get_encode_bitrate(ravel_t *engine, int32_t ch, int32_t stream, int32_t *bitrate) {
  if (engine == nullptr || bitrate == nullptr) return -1;
  guard g(engine->control.lock);
  auto it = engine->control.bitrate.find({ch, stream});
  *bitrate = it == engine->control.bitrate.end() ? 0 : it->second;
  return 0;
}

int32_t ravel_motion_detect_config_param(ravel_t *engine, int32_t ch, void *param, int32_t size) {
  if (engine == nullptr || (size > 0 && param == nullptr)) return -1;
  guard g(engine->control.lock);
  auto &kept = engine->control.md_param[ch];
  if (size > 0) {
    const auto *bytes = static_cast<const uint8_t *>(param);
    kept.assign(bytes, bytes + size);
  } else {
    kept.clear();
  }
  return 0;
}

int32_t ravel_set_time(ravel_t *engine, int32_t word, uint64_t time, int32_t word2) {
  if (engine == nullptr) return -1;
  guard g(engine->control.lock);
  engine->control.time = time;
  engine->control.time_words[0] = word;
  engine->control.time_words[1] = word2;
  return 0;
}

int32_t ravel_set_sys_time_init(uint64_t time) {
  std::unique_lock<std::mutex> held;
  ravel_soft::process_system_time(held).init = time;
  return 0;
}

int32_t ravel_set_sys_time_sync(uint64_t time) {
  std::unique_lock<std::mutex> held;
  ravel_soft::system_time &t = ravel_soft::process_system_time(held);
  t.last_sync = time;
  t.syncs++;
  return 0;
}

uintptr_t ravel_get_hostcomm_addr(ravel_t *engine, int32_t, int32_t) {
  // No co-processor here: the engine's own record stands for the shared area.
  return reinterpret_cast<uintptr_t>(engine);
}

int32_t ravel_set_display_enable(ravel_t *engine, int32_t display, int32_t enable) {
  if (engine == nullptr || display < 0 || display > 3) return -1;
  guard g(engine->control.lock);
  engine->control.display_enable[display] = enable;
  return 0;
}

int32_t ravel_set_osd_enable(ravel_t *engine, int32_t ch, int32_t osd, int32_t enable) {
  if (engine == nullptr) return -1;
  guard g(engine->control.lock);
  engine->control.osd_enable[{ch, osd}] = enable;
  return 0;
}

int32_t ravel_set_osd_option(ravel_t *engine, int32_t ch, int32_t option, int32_t value) {
  if (engine == nullptr) return -1;
  guard g(engine->control.lock);
  engine->control.osd_option[{ch, option}] = value;
  return 0;
}

int32_t ravel_set_mask(ravel_t *engine, const ravel_mask_t *mask) {
  if (engine == nullptr || mask == nullptr || mask->count > 4) return -1;
  guard g(engine->control.lock);
  ravel_mask_t &m = engine->control.mask;
  m = ravel_mask_t{};
  m.count = mask->count;
  // Only the entries that the count names were written by the caller.
  for (int i = 0; i < mask->count; i++) m.entry[i] = mask->entry[i];
  return 0;
}

int32_t ravel_set_ROI_coordinate(ravel_t *engine, const ravel_roi_t *roi) {
  if (engine == nullptr || roi == nullptr) return -1;
  guard g(engine->control.lock);
  engine->control.roi = *roi;
  return 0;
}

int32_t ravel_set_dnr(ravel_t *engine, const ravel_dnr_t *dnr) {
  if (engine == nullptr || dnr == nullptr) return -1;
  guard g(engine->control.lock);
  engine->control.dnr = *dnr;
  return 0;
}

int32_t ravel_set_mirror(ravel_t *engine, const int32_t *mirror) {
  if (engine == nullptr || mirror == nullptr) return -1;
  guard g(engine->control.lock);
  engine->control.mirror = *mirror;
  return 0;
}

int32_t ravel_set_rotate(ravel_t *engine, const int32_t *rotate) {
  if (engine == nullptr || rotate == nullptr) return -1;
  guard g(engine->control.lock);
  engine->control.rotate = *rotate;
  return 0;
}

int32_t ravel_set_datetime_format(ravel_t *engine, const ravel_datetime_format_t *format) {
  if (engine == nullptr || format == nullptr) return -1;
  guard g(engine->control.lock);
  engine->control.datetime_format = *format;
  return 0;
}

int32_t ravel_set_ip_osd_enable(ravel_t *engine, const ravel_ip_osd_t *osd) {
  if (engine == nullptr || osd == nullptr) return -1;
  guard g(engine->control.lock);
  ravel_ip_osd_t &o = engine->control.ip_osd;
  o.enable = osd->enable;
  // The text may end anywhere within its room; it is kept terminated.
  std::strncpy(o.text, osd->text, RAVEL_IP_OSD_TEXT_MAX);
  o.text[RAVEL_IP_OSD_TEXT_MAX] = '\0';
  return 0;
}

int32_t ravel_check_alive_m3(ravel_t *engine, int32_t, int32_t) {
  // 1: the media processors answer; the software engine always does.
  return engine != nullptr ? 1 : -1;
}

}  // extern "C"
