// Display mode selection: the first selection of a process lays out the
// engine's pipes and starts it; every selection records the mode.  Also the
// decode table that tells the render worker what to do with each stream slot.
#include <array>
#include <cstdint>

#include "caller_check.hh"
#include "display/display_state.hh"
#include "glib_lock.hh"
#include "shared_word.hh"

namespace orlo {
namespace {

// The two modes with six full-size decoders of their own, two per pipe.
bool has_own_decoders(int mode) { return mode == 100 || mode == 101; }

void write_six_decoders(std::array<ravel_dec_config_t, RAVEL_DEC_CONFIG_COUNT> &dec) {
  for (int32_t i = 0; i < 6; i++) {
    int32_t *w = dec[i].word;
    w[0] = i;
    w[1] = i / 2;
    w[2] = 1920;
    w[3] = 1080;
    w[4] = i / 2;
    w[5] = -1;
    w[6] = -1;
    // Word 7 (offset 28) is the engine's; it stays as the block came.
    w[8] = -1;
  }
}

// Lays out the engine's pipes for `mode`.  False when the engine refuses;
// the failed check has been reported.
bool configure_pipes(int mode, int32_t ch_count) {
  // Both blocks start zeroed so that nothing of an earlier stack frame
  // reaches the engine in the words it leaves to us.
  std::array<ravel_dec_config_t, RAVEL_DEC_CONFIG_COUNT> dec{};
  std::array<uint8_t, RAVEL_ENC_CONFIG_BYTES> enc{};
  int32_t ret = 0;
  if (has_own_decoders(mode)) {
    write_six_decoders(dec);
    ret = ravel_change_pipe_config(g_engine, dec.data(), 6, enc.data(), 0);
  } else {
    ret = ravel_init_dec_config_param(g_engine, dec.data());
    if (ret >= 0) ret = ravel_init_enc_config_param(g_engine, enc.data());
    if (ret >= 0) ret = ravel_change_pipe_config(g_engine, dec.data(), 0, enc.data(), ch_count);
  }
  if (ret < 0) {
    g_return_if_fail_warning(nullptr, "orlo_display_set_user_config", "ret >= 0");
    return false;
  }
  return true;
}

// The selection behind both public names; `name` is the caller's for the
// report of a refused start.
int select_mode(orlo_display_t *h_display, int mode, const char *name) {
  if (h_display == nullptr) {
    g_return_if_fail_warning(nullptr, name, "h_display != NULL");
    return -1;
  }
  int need_start = 0;
  if (orlo_display_set_user_config(h_display, mode, &need_start) != 0) return -1;
  if (need_start == 1) {
    const int32_t ret = ravel_start(g_engine);
    if (ret != 0) {
      g_return_if_fail_warning(nullptr, name, "ret == 0");
      return -1;
    }
    engine_ever_started.store(1);
    store_word(h_display->engine_started, 1);
  }
  return 0;
}

}  // namespace
}  // namespace orlo

extern "C" ORLO_API int orlo_display_set_user_config(orlo_display_t *h_display, int mode,
                                                     int *need_start) {
  if (need_start == nullptr) {
    // Refused before anything else: the first selection stays for the next
    // call.
    g_return_if_fail_warning(nullptr, "orlo_display_set_user_config", "need_start != NULL");
    return -1;
  }
  if (h_display == nullptr) {
    g_return_if_fail_warning(nullptr, "orlo_display_set_user_config", "h_display != NULL");
    *need_start = 0;
    return -1;
  }
  const int32_t prev_mode = orlo::load_word(h_display->config_mode);
  g_message("%s: prev_mode = %d, cur_mode = %d\n", "orlo_display_set_user_config", prev_mode, mode);

  // The flag is only ever cleared, and only here: whichever call clears it
  // owns the first selection.
  const bool first = first_config_pending.exchange(0) == 1;
  if (!first || mode == prev_mode) {
    orlo::store_word(h_display->config_mode, mode);
    *need_start = 0;
    return 0;
  }

  if (!orlo::configure_pipes(mode, h_display->ch_count)) {
    // The engine can't be used; the mode stays unrecorded.
    *need_start = 0;
    return -1;
  }
  orlo::store_word(h_display->config_mode, mode);
  *need_start = 1;
  return 0;
}

extern "C" ORLO_API int orlo_display_mode_change(orlo_display_t *h_display, int mode) {
  return orlo::select_mode(h_display, mode, "orlo_display_mode_change");
}

extern "C" ORLO_API int orlo_display_mode_start(orlo_display_t *h_display, int mode) {
  return orlo::select_mode(h_display, mode, "orlo_display_mode_start");
}

extern "C" ORLO_API int orlo_display_decode_change(orlo_display_t *h_display,
                                                   const orlo_decode_cfg_t *table) {
  if (h_display == nullptr || table == nullptr) {
    g_return_if_fail_warning(nullptr, "orlo_display_decode_change",
                             "h_display != NULL && table != NULL");
    return -1;
  }
  // The render worker indexes its per-port tables by these ports.
  for (int i = 0; i < ORLO_MAX_SLOT; i++)
    if (table[i].enable != 0)
      ORLO_RETURN_VAL_IF_FAIL(table[i].port >= 0 && table[i].port < ORLO_MAX_PORT, -1);
  // One lock for the whole copy: a render pass sees the old table or the
  // new one, never a mix.
  orlo::mutex_guard lock(h_display->mutex);
  for (int i = 0; i < ORLO_MAX_SLOT; i++) {
    const orlo_decode_cfg_t &rec = table[i];
    h_display->ch_port[i] = rec.port;
    h_display->ch_sync[i] = rec.sync;
    h_display->ch_wait_sync[i] = rec.sync;
    h_display->ch_enable[i] = rec.enable;
    h_display->ch_wait_first[i] = rec.enable == orlo::SLOT_ON ? 1 : 0;
    h_display->ch_first_cb[i] = rec.first_cb;
  }
  return 0;
}
