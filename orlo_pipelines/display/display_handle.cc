// The display handle: creation over the engine, start and stop.
#include <glib/gprintf.h>

#include <cstring>

#include "colorspace.h"
#include "display/display_state.hh"
#include "display_format.hh"
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

namespace {

constexpr const char *self = "orlo_display_new";
// The engine word when no creation options are given.
constexpr int32_t DEFAULT_ENGINE_WORD = 6;
constexpr int32_t MAX_DISPLAY_IDS = 4;

// What ravel_new gets besides the caller's words.
struct engine_options {
  int32_t display_ids[MAX_DISPLAY_IDS] = {0, 0, 0, 0};
  int32_t engine_word = DEFAULT_ENGINE_WORD;
  int32_t engine_block[4] = {0, 0, 0, 0};
};

// Refusals of the arguments.  They come before anything is created, so that
// no half-made handle is left behind.
bool arguments_usable(const int32_t *formats, int32_t n_display_ids, int32_t h_audio) {
  if (formats == nullptr) {
    g_return_if_fail_warning(nullptr, self, "formats != NULL");
    return false;
  }
  if (n_display_ids > MAX_DISPLAY_IDS) {
    g_return_if_fail_warning(nullptr, self, "n_display_ids <= 4");
    return false;
  }
  if (h_audio == 0) {
    g_return_if_fail_warning(nullptr, self, "h_display->h_audio != 0");
    return false;
  }
  return true;
}

// The display list and the words for the engine; an id outside 0..3 means
// HDMI.
engine_options options_from(const orlo_display_cfg_t *cfg, int32_t n_display_ids) {
  engine_options o;
  if (cfg == nullptr) return o;
  for (int i = 0; i < n_display_ids; i++) {
    int32_t id = cfg->display_ids[i];
    if (id < 0 || id > 3) {
      g_message("wrong display id:%d! default to HDMI.", id);
      id = 0;
    }
    g_message("display id:%d.", id);
    o.display_ids[i] = id;
  }
  o.engine_word = cfg->engine_word;
  std::memcpy(o.engine_block, cfg->engine_block, sizeof o.engine_block);
  return o;
}

// Gives up a handle that creation could not finish.
orlo_display_t *discard(orlo_display_t *h_display) {
  g_display = nullptr;
  g_free(h_display);
  return nullptr;
}

// The locks, the tables and the audio choice of a handle whose engine
// stands.  The record came zeroed: the tables start cleared.
void finish_handle(orlo_display_t *h_display, orlo::display_size size, int32_t h_audio) {
  orlo::store_word(h_display->disp_width, size.width);
  orlo::store_word(h_display->disp_height, size.height);

  orlo::store_word(h_display->engine_started, 0);
  h_display->mutex = orlo::new_mutex();
  h_display->cond_image = orlo::new_cond();
  h_display->mutex_image = orlo::new_mutex();
  h_display->cond_jpeg = orlo::new_cond();
  h_display->mutex_jpeg = orlo::new_mutex();
  h_display->mutex_jpegsnap = orlo::new_mutex();

  orlo::store_word(h_display->config_mode, 0);
  h_display->jpeg_live_arg = 0;

  h_display->h_audio = h_audio == -1 ? 0 : h_audio;
  orlo::store_word(h_display->audio_all, 0);
  orlo::store_word(h_display->audio_ch, -1);
}

}  // namespace

extern "C" ORLO_API orlo_display_t *orlo_display_new(const int32_t *formats, int32_t engine_opt,
                                                     int32_t ch_count, int32_t /*reserved*/,
                                                     int32_t n_display_ids, int32_t h_audio,
                                                     const orlo_display_cfg_t *cfg) {
  gst_init(nullptr, nullptr);
  colorspace_init();
  if (!arguments_usable(formats, n_display_ids, h_audio)) return nullptr;

  auto *h_display = static_cast<orlo_display_t *>(g_try_malloc0(sizeof(orlo_display_t)));
  if (h_display == nullptr) {
    g_return_if_fail_warning(nullptr, self, "h_display != NULL");
    return nullptr;
  }
  g_display = h_display;
  h_display->ch_count = ch_count;
  orlo::store_word(h_display->main_port, -1);

  const engine_options o = options_from(cfg, n_display_ids);
  g_engine = ravel_new(formats, engine_opt, ch_count, n_display_ids, 0, orlo::release_frame, 0, 0,
                       0, 24, o.display_ids, o.engine_word, o.engine_block);
  if (g_engine == nullptr) return discard(h_display);

  // The format is judged once the engine stands.  One outside the table is
  // a refusal, not an abort: the engine stays, but no handle is given.
  const orlo::display_size size = orlo::size_of_format(formats[0]);
  if (size.width == 0) {
    g_warning("not supported display format:%d\n", formats[0]);
    return discard(h_display);
  }
  finish_handle(h_display, size, h_audio);
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
