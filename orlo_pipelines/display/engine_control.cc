// Control operations that pass through to the engine: capture, encoding,
// on-screen display, masks, noise reduction, clocks, health.  They keep the
// application away from the engine handle; records are copied to the stack
// first so that the engine never sees the caller's memory.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "display/display_state.hh"

namespace orlo {
namespace {

// The guard of the reporting operations: false, with the report, before
// creation.
bool engine_exists() {
  if (g_engine != nullptr) return true;
  g_warning("ravel has not been created!\n");
  return false;
}

// The common shape of most guarded operations: 0, or -1 and `failure`.
int zero_or_refused(int32_t ret, const char *failure) {
  if (ret < 0) {
    g_warning("%s", failure);
    return -1;
  }
  return 0;
}

// A control record goes to the engine as a copy on the stack, never as the
// caller's own; a NULL record is refused with the failed check `expr`.
template <typename Record, typename Forward>
int forward_copy(const void *record, const char *op, const char *expr, Forward forward) {
  if (record == nullptr) {
    g_return_if_fail_warning(nullptr, op, expr);
    return -1;
  }
  Record copy;
  std::memcpy(&copy, record, sizeof copy);
  return forward(g_engine, &copy);
}

constexpr int kMaxMaskEntries = 4;

// The caller's mask record: word 0 is not read, `count` entries follow the
// count.
struct mask_record {
  int32_t unused;
  int32_t count;
  ravel_mask_entry_t entry[kMaxMaskEntries];
};
static_assert(offsetof(mask_record, entry) == 8);
static_assert(sizeof(ravel_mask_entry_t) == 28);
static_assert(sizeof(ravel_roi_t) == 212);
static_assert(sizeof(ravel_dnr_t) == 20);
static_assert(sizeof(ravel_datetime_format_t) == 8);
static_assert(offsetof(ravel_ip_osd_t, text) == 4);

}  // namespace
}  // namespace orlo

// ---- guarded operations ----

extern "C" ORLO_API int orlo_capture_start(orlo_display_t * /*h_display*/, int ch) {
  if (!orlo::engine_exists()) return -1;
  if (ravel_capture_drv_start(g_engine, ch) < 0) {
    g_warning("fail to start capture! ch:%d\n", ch);
    return -1;
  }
  return 0;
}

extern "C" ORLO_API int orlo_capture_stop(orlo_display_t * /*h_display*/, int ch) {
  if (!orlo::engine_exists()) return -1;
  const int32_t ret = ravel_capture_drv_stop(g_engine, ch);
  if (ret < 0) {
    g_warning("fail to stop capture! ch:%d/ret:%d\n", ch, ret);
    return -1;
  }
  return 0;
}

extern "C" ORLO_API int orlo_display_register_get_encode_stream(orlo_display_t * /*h_display*/,
                                                                void *callback, void *user_data) {
  if (!orlo::engine_exists()) return -1;
  return orlo::zero_or_refused(ravel_register_get_encode_stream(g_engine, callback, user_data),
                               "fail to register encoding callback!\n");
}

extern "C" ORLO_API int orlo_display_register_captmode_change(orlo_display_t * /*h_display*/,
                                                              void *callback, void *user_data) {
  if (!orlo::engine_exists()) return -1;
  return orlo::zero_or_refused(ravel_register_captmode_change(g_engine, callback, user_data),
                               "fail to register captmode_change callback!\n");
}

extern "C" ORLO_API int orlo_display_register_get_encode_mosaic_stream(
    orlo_display_t * /*h_display*/, void *callback, void *user_data, int stream) {
  if (!orlo::engine_exists()) return -1;
  return orlo::zero_or_refused(
      ravel_register_encode_mosaic_stream(g_engine, callback, user_data, stream, 0),
      "fail to register encoding callback!\n");
}

extern "C" ORLO_API int orlo_display_encode_change(orlo_display_t * /*h_display*/, int ch,
                                                   int stream, void *param) {
  if (!orlo::engine_exists()) return -1;
  // The engine's answer goes back as it is, a refusal included.
  const int32_t ret = ravel_encode_change(g_engine, ch, stream, param);
  if (ret < 0) g_warning("fail to change encoder param!\n");
  return ret;
}

extern "C" ORLO_API int orlo_display_set_encode_bitrate(orlo_display_t * /*h_display*/, int ch,
                                                        int stream, int bitrate) {
  if (!orlo::engine_exists()) return -1;
  return orlo::zero_or_refused(ravel_set_encode_bitrate(g_engine, ch, stream, bitrate),
                               "fail to change encoder param!\n");
}

extern "C" ORLO_API int orlo_display_get_encode_bitrate(orlo_display_t * /*h_display*/, int ch,
                                                        int stream, int *bitrate) {
  if (!orlo::engine_exists()) return -1;
  return orlo::zero_or_refused(ravel_get_encode_bitrate(g_engine, ch, stream, bitrate),
                               "fail to change encoder param!\n");
}

extern "C" ORLO_API int orlo_display_md_set_param(orlo_display_t * /*h_display*/, int ch,
                                                  void *param, int size) {
  if (!orlo::engine_exists()) return -1;
  return orlo::zero_or_refused(ravel_motion_detect_config_param(g_engine, ch, param, size),
                               "fail to set md param!\n");
}

extern "C" ORLO_API int orlo_display_set_time(orlo_display_t * /*h_display*/, uint64_t time,
                                              int word) {
  if (!orlo::engine_exists()) return -1;
  const int32_t ret = ravel_set_time(g_engine, word, time, word);
  if (ret < 0) {
    g_warning("fail to set M3 time!\n");
    return -1;
  }
  return ret;
}

extern "C" ORLO_API uintptr_t orlo_display_get_hostcomm_addr(orlo_display_t * /*h_display*/,
                                                             int which, int size) {
  if (!orlo::engine_exists()) return 0;
  const uintptr_t addr = ravel_get_hostcomm_addr(g_engine, which, size);
  if (addr == 0) g_warning("fail to get hostcomm address!\n");
  return addr;
}

extern "C" ORLO_API int orlo_display_sys_time_init(uint64_t time) {
  if (!orlo::engine_exists()) return -1;
  if (time == 0) {
    g_message("[orlo] set time value error\n");
    return -1;
  }
  return ravel_set_sys_time_init(time);
}

extern "C" ORLO_API int orlo_display_sys_time_sync(uint64_t time) {
  if (!orlo::engine_exists()) return -1;
  if (time == 0) {
    g_message("[orlo] set time value error\n");
    return -1;
  }
  return ravel_set_sys_time_sync(time);
}

// ---- plain forwards ----

extern "C" ORLO_API int orlo_display_push_dec_frame_buffer(orlo_display_t * /*h_display*/,
                                                           int port) {
  return ravel_pause_frame(g_engine, port);
}

extern "C" ORLO_API int orlo_display_set_enable(orlo_display_t * /*h_display*/, int /*ignored*/,
                                                int enable) {
  // There is one display to switch: the first.
  return ravel_set_display_enable(g_engine, 0, enable);
}

extern "C" ORLO_API int orlo_display_set_embedded_osd_enable(orlo_display_t * /*h_display*/, int ch,
                                                             int osd, int enable) {
  return ravel_set_osd_enable(g_engine, ch, osd, enable);
}

extern "C" ORLO_API int orlo_display_set_embedded_osd_option(orlo_display_t * /*h_display*/, int ch,
                                                             int option, int value) {
  return ravel_set_osd_option(g_engine, ch, option, value);
}

extern "C" ORLO_API int orlo_display_set_mask(orlo_display_t * /*h_display*/, const void *mask) {
  if (mask == nullptr) {
    g_return_if_fail_warning(nullptr, "orlo_display_set_mask", "mask != NULL");
    return -1;
  }
  // Read the count alone first: the caller's record may be shorter than
  // four entries.
  int32_t count = 0;
  std::memcpy(&count, static_cast<const uint8_t *>(mask) + offsetof(orlo::mask_record, count),
              sizeof count);
  if (count > orlo::kMaxMaskEntries) {
    g_warning("%s:invalid mask count:%d\n", "orlo_display_set_mask", count);
    return -1;
  }
  ravel_mask_t copy{};
  copy.count = count;
  if (count > 0)
    std::memcpy(copy.entry, static_cast<const uint8_t *>(mask) + offsetof(orlo::mask_record, entry),
                sizeof(ravel_mask_entry_t) * static_cast<size_t>(count));
  return ravel_set_mask(g_engine, &copy);
}

extern "C" ORLO_API int orlo_display_set_roi(orlo_display_t * /*h_display*/, const void *roi) {
  return orlo::forward_copy<ravel_roi_t>(roi, "orlo_display_set_roi", "roi != NULL",
                                         ravel_set_ROI_coordinate);
}

extern "C" ORLO_API int orlo_display_set_dnr(orlo_display_t * /*h_display*/, const void *dnr) {
  return orlo::forward_copy<ravel_dnr_t>(dnr, "orlo_display_set_dnr", "dnr != NULL", ravel_set_dnr);
}

extern "C" ORLO_API int orlo_display_set_mirror(orlo_display_t * /*h_display*/,
                                                const int32_t *mirror) {
  return orlo::forward_copy<int32_t>(mirror, "orlo_display_set_mirror", "mirror != NULL",
                                     ravel_set_mirror);
}

extern "C" ORLO_API int orlo_display_set_rotate(orlo_display_t * /*h_display*/,
                                                const int32_t *rotate) {
  return orlo::forward_copy<int32_t>(rotate, "orlo_display_set_rotate", "rotate != NULL",
                                     ravel_set_rotate);
}

extern "C" ORLO_API int orlo_display_set_datetime_format(orlo_display_t * /*h_display*/,
                                                         const void *format) {
  return orlo::forward_copy<ravel_datetime_format_t>(format, "orlo_display_set_datetime_format",
                                                     "format != NULL", ravel_set_datetime_format);
}

extern "C" ORLO_API int orlo_display_set_embedded_ip_osd_enable(orlo_display_t * /*h_display*/,
                                                                const void *osd) {
  if (osd == nullptr) {
    g_return_if_fail_warning(nullptr, "orlo_display_set_embedded_ip_osd_enable", "osd != NULL");
    return -1;
  }
  const auto *src = static_cast<const uint8_t *>(osd);
  const auto *text = reinterpret_cast<const char *>(src + offsetof(ravel_ip_osd_t, text));
  // Looks no further than the copy has room for.
  const size_t len = strnlen(text, RAVEL_IP_OSD_TEXT_MAX + 1);
  if (len > RAVEL_IP_OSD_TEXT_MAX) {
    g_warning("%s:ip osd text longer than %d characters\n",
              "orlo_display_set_embedded_ip_osd_enable", RAVEL_IP_OSD_TEXT_MAX);
    return -1;
  }
  ravel_ip_osd_t copy{};
  std::memcpy(&copy.enable, src, sizeof copy.enable);
  std::memcpy(copy.text, text, len);
  return ravel_set_ip_osd_enable(g_engine, &copy);
}

// ---- gated on the first start ----

extern "C" ORLO_API int orlo_display_check_processor(orlo_display_t * /*h_display*/, int which,
                                                     int timeout) {
  // Before the first start there is nothing to ask; a stopped engine is
  // still asked.
  if (engine_ever_started.load() == 0) return 0;
  return ravel_check_alive_m3(g_engine, which, timeout);
}

extern "C" ORLO_API int orlo_display_print_statistics(orlo_display_t * /*h_display*/, int which,
                                                      int flags) {
  if (engine_ever_started.load() == 0) return 0;
  return ravel_print_statistics(g_engine, which, flags);
}

extern "C" ORLO_API int orlo_display_bc_control(int value) { return value; }
