// The overlap repair of the geometry change.  Self-contained (GLib
// logging only), so that a test can build it into its own program.
#include "display/display_overlap.hh"

#include <cstdint>

namespace orlo {

void _fix_dispOverlap(orlo_vr_t *vr, int vr_num) {
  constexpr char fn[] = "_fix_dispOverlap";
  for (int i = 0; i + 1 < vr_num; i++) {
    orlo_vr_t &a = vr[i];
    for (int j = i + 1; j < vr_num; j++) {
      const orlo_vr_t &b = vr[j];
      // Edges in 64 bits: a caller's extreme values compare without
      // overflow.
      const int64_t ax = a.x, ay = a.y, aw = a.width, ah = a.height;
      const int64_t bx = b.x, by = b.y, bw = b.width, bh = b.height;
      // Equal edges fall to the second branch: the earlier region lies
      // above or to the left.
      int64_t oy;
      bool below;
      if (ay > by) {
        if (!(ay < by + bh)) continue;
        oy = by + bh - ay;
        below = true;
      } else {
        if (!(by < ay + ah)) continue;
        oy = ay + ah - by;
        below = false;
      }
      int64_t ox;
      bool right;
      if (ax > bx) {
        if (!(ax < bx + bw)) continue;
        ox = bx + bw - ax;
        right = true;
      } else {
        if (!(bx < ax + aw)) continue;
        ox = ax + aw - bx;
        right = false;
      }

      if (ox <= 2) {
        if (right) {
          g_warning("%s:%d: vr[%d].x:%d < (vr[%d].x:%d + vr[%d].width:%d)\n", fn, __LINE__, i, a.x,
                    j, b.x, j, b.width);
          a.x = static_cast<int32_t>(ax + ox);
        } else {
          g_warning("%s:%d: (vr[%d].x:%d + vr[%d].width:%d) > vr[%d].x:%d\n", fn, __LINE__, i, a.x,
                    i, a.width, j, b.x);
        }
        a.width = static_cast<int32_t>(aw - ox);
      } else if (oy <= 2) {
        if (below) {
          g_warning("%s:%d: vr[%d].y:%d < (vr[%d].y:%d + vr[%d].height:%d)\n", fn, __LINE__, i, a.y,
                    j, b.y, j, b.height);
          a.y = static_cast<int32_t>(ay + oy);
        } else {
          g_warning("%s:%d: (vr[%d].y:%d + vr[%d].height:%d) > vr[%d].y:%d\n", fn, __LINE__, i, a.y,
                    i, a.height, j, b.y);
        }
        a.height = static_cast<int32_t>(ah - oy);
      }
    }
  }
}

}  // namespace orlo
