// The display handle: creation over the engine, start and stop.
#include <glib/gprintf.h>

#include <cstring>

#include "colorspace.h"
#include "display_format.hh"
#include "display/display_state.hh"
#include "glib_lock.hh"
#include "shared_word.hh"

orlo_display_t *g_display = nullptr;
ravel_t *g_engine = nullptr;
std::atomic<int> _first_init{0};
std::atomic<int> first_config_pending{1};
std::atomic<int> engine_ever_started{0};

static_assert(sizeof(orlo_vr_t) == sizeof(ravel_region_t),
              "the engine reads regions as they stand");
static_assert(sizeof(orlo_vr_t) == 44);

namespace orlo {

void release_frame(void *buffer) { gst_mini_object_unref(GST_MINI_OBJECT_CAST(buffer)); }

}  // namespace orlo

extern "C" ORLO_API orlo_display_t *orlo_display_new(const int32_t *formats, int32_t engine_opt,
                                                     int32_t ch_count, int32_t /*reserved*/,
                                                     int32_t n_display_ids, int32_t h_audio,
                                                     const orlo_display_cfg_t *cfg) {
  gst_init(nullptr, nullptr);
  colorspace_init();

  // Refusals that would leave a half-made handle are made before anything
  // is created.
  if (formats == nullptr) {
    g_return_if_fail_warning(nullptr, "orlo_display_new", "formats != NULL");
    return nullptr;
  }
  if (n_display_ids > 4) {
    g_return_if_fail_warning(nullptr, "orlo_display_new", "n_display_ids <= 4");
    return nullptr;
  }
  if (h_audio == 0) {
    g_return_if_fail_warning(nullptr, "orlo_display_new", "h_display->h_audio != 0");
    return nullptr;
  }

  auto *h_display = static_cast<orlo_display_t *>(g_try_malloc0(sizeof(orlo_display_t)));
  if (h_display == nullptr) {
    g_return_if_fail_warning(nullptr, "orlo_display_new", "h_display != NULL");
    return nullptr;
  }

  g_display = h_display;
  h_display->ch_count = ch_count;
  orlo::store_word(h_display->main_port, -1);

  int32_t display_ids[4] = {0, 0, 0, 0};
  int32_t engine_word = 6;
  int32_t engine_block[4] = {0, 0, 0, 0};
  if (cfg != nullptr) {
    for (int i = 0; i < n_display_ids; i++) {
      int32_t id = cfg->display_ids[i];
      if (id < 0 || id > 3) {
        g_message("wrong display id:%d! default to HDMI.", id);
        id = 0;
      }
      g_message("display id:%d.", id);
      display_ids[i] = id;
    }
    engine_word = cfg->engine_word;
    std::memcpy(engine_block, cfg->engine_block, sizeof engine_block);
  }

  g_engine = ravel_new(formats, engine_opt, ch_count, n_display_ids, 0, orlo::release_frame, 0, 0,
                       0, 24, display_ids, engine_word, engine_block);
  if (g_engine == nullptr) {
    g_display = nullptr;
    g_free(h_display);
    return nullptr;
  }

  const orlo::display_size size = orlo::size_of_format(formats[0]);
  if (size.width == 0) {
    // A refusal, not an abort: the engine stands, but no handle is given.
    g_warning("not supported display format:%d\n", formats[0]);
    g_display = nullptr;
    g_free(h_display);
    return nullptr;
  }
  orlo::store_word(h_display->disp_width, size.width);
  orlo::store_word(h_display->disp_height, size.height);

  orlo::store_word(h_display->engine_started, 0);
  h_display->mutex = orlo::new_mutex();
  h_display->cond_image = orlo::new_cond();
  h_display->mutex_image = orlo::new_mutex();
  h_display->cond_jpeg = orlo::new_cond();
  h_display->mutex_jpeg = orlo::new_mutex();
  h_display->mutex_jpegsnap = orlo::new_mutex();

  // The record came zeroed; the tables start cleared.
  orlo::store_word(h_display->config_mode, 0);
  h_display->jpeg_live_arg = 0;

  h_display->h_audio = h_audio == -1 ? 0 : h_audio;
  orlo::store_word(h_display->audio_all, 0);
  orlo::store_word(h_display->audio_ch, -1);
  return h_display;
}

extern "C" ORLO_API int orlo_display_stop(orlo_display_t *h_display) {
  g_printf("%s:%d\n", "orlo_display_stop", __LINE__);
  ravel_stop(g_engine);
  if (h_display != nullptr) orlo::store_word(h_display->engine_started, 0);
  return 0;
}

extern "C" ORLO_API int orlo_display_start(orlo_display_t *h_display, const orlo_vr_t *vr) {
  if (h_display == nullptr || vr == nullptr) {
    g_return_if_fail_warning(nullptr, "orlo_display_start", "h_display != NULL && vr != NULL");
    return -1;
  }
  std::memcpy(h_display->vr, vr, sizeof h_display->vr);
  g_warning("====================== change geometry ==================\n");
  return 0;
}
