// Geometry change: a region list in the 1920 x 1080 space is scaled to the
// first display, rounded, its small overlaps repaired, and handed to the
// engine; the first change also lays out the fixed 1280 x 720 second output.
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "display/display_overlap.hh"
#include "display/display_state.hh"
#include "shared_word.hh"

namespace orlo {

namespace {

constexpr char kFn[] = "orlo_display_change";

// 64-bit steps so that no caller's value overflows on the way; results are
// taken back to the record's 32 bits.
int32_t even(int64_t n) { return static_cast<int32_t>((n + 1) / 2 * 2); }
int32_t eight(int64_t n) { return static_cast<int32_t>((n + 7) / 8 * 8); }
int32_t scale(int64_t n, int64_t to, int64_t from) { return static_cast<int32_t>(n * to / from); }

int count_regions(const orlo_vr_t *vr) {
  int n = 0;
  while (n < ORLO_MAX_VR && vr[n].ch != -1) n++;
  return n;
}

void scale_for_first_display(orlo_vr_t *vr, int vr_num, int D, int E) {
  for (int i = 0; i < vr_num; i++) {
    orlo_vr_t &r = vr[i];
    r.width = even(r.width);
    r.height = even(r.height);
    r.x = scale(r.x, D, 1920);
    r.width = scale(r.width, D, 1920);
    r.y = scale(r.y, E, 1080);
    r.height = scale(r.height, E, 1080);
    r.x = eight(r.x);
    r.width = eight(r.width);
    r.y = even(r.y);
    r.height = even(r.height);
  }
}

// The second output is fixed at 1280 x 720 and takes even values only.
void scale_for_second_output(orlo_vr_t *vr, int vr_num) {
  for (int i = 0; i < vr_num; i++) {
    orlo_vr_t &r = vr[i];
    r.x = even(scale(r.x, 1280, 1920));
    r.width = even(scale(r.width, 1280, 1920));
    r.y = even(scale(r.y, 720, 1080));
    r.height = even(scale(r.height, 720, 1080));
  }
}

// 0 for live modes, 1 for playback ones.
int kind_of(int mode) {
  if ((mode >= 0 && mode <= 10) || mode == 100) return 0;
  if ((mode >= 11 && mode <= 22) || mode == 101) return 1;
  g_warning("%s:%d: config_mode: %d\n", kFn, __LINE__, mode);
  return 0;
}

const ravel_region_t *regions(const std::array<orlo_vr_t, ORLO_MAX_VR> &vr) {
  static_assert(sizeof(orlo_vr_t) == sizeof(ravel_region_t));
  return reinterpret_cast<const ravel_region_t *>(vr.data());
}

}  // namespace

}  // namespace orlo

extern "C" ORLO_API int orlo_display_change(orlo_display_t *h_display, const orlo_vr_t *vr,
                                            int /*reserved*/, int mode) {
  if (h_display == nullptr || vr == nullptr) {
    g_return_if_fail_warning(nullptr, orlo::kFn, "h_display != NULL && vr != NULL");
    return -1;
  }
  std::array<orlo_vr_t, ORLO_MAX_VR> local;
  std::memcpy(h_display->vr, vr, sizeof h_display->vr);
  std::memcpy(local.data(), vr, sizeof(orlo_vr_t) * ORLO_MAX_VR);

  const int vr_num = orlo::count_regions(local.data());
  orlo::scale_for_first_display(local.data(), vr_num, orlo::load_word(h_display->disp_width),
                                orlo::load_word(h_display->disp_height));
  orlo::_fix_dispOverlap(local.data(), vr_num);

  const int kind = orlo::kind_of(mode);
  printf("%s: %d: vr_num = %d, mode: %d\n", orlo::kFn, __LINE__, vr_num, kind);
  fflush(stdout);

  int32_t ret = ravel_change_geometry(g_engine, orlo::regions(local), vr_num, 0, kind);
  if (ret < 0) return ret;

  // The second output gets the first list that reached the engine, once.
  if (_first_init.exchange(1) != 0) return 0;
  g_message("%s:%d: _first_init: %d\n", orlo::kFn, __LINE__, 0);

  std::memcpy(local.data(), h_display->vr, sizeof(orlo_vr_t) * ORLO_MAX_VR);
  orlo::scale_for_second_output(local.data(), vr_num);
  ret = ravel_change_geometry(g_engine, orlo::regions(local), vr_num, 2, kind);
  return ret < 0 ? ret : 0;
}
