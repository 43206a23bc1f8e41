// Region layouts of the display modes, computed in the fixed 1920 x 1080
// space, and the scaling of a crop rectangle into an input frame.
//
// The layouts know the display's width only for the inner edges: on some
// displays the columns are moved by a few pixels so that, once scaled and
// rounded to 8, neighbouring tiles meet without a gap.
#include <cstdint>

#include "display/display_state.hh"
#include "shared_word.hh"

namespace orlo {
namespace {

constexpr char kFn[] = "orlo_display_get_user_vr";

// The rectangle being laid out and the values every layout derives from it.
struct frame {
  int W, H, D;
  int q, p, a, b;  // quarters and halves
  int t, s, g, h;  // thirds and two thirds
  int u, v;        // three quarters
  int e0, e1, e2;  // column corrections
};

frame make_frame(int W, int H, int D) {
  frame f{};
  f.W = W;
  f.H = H;
  f.D = D;
  f.q = W / 4;
  f.p = H / 4;
  f.a = W / 2;
  f.b = H / 2;
  f.t = W / 3;
  f.s = H / 3;
  f.g = 2 * W / 3;
  f.h = 2 * H / 3;
  f.u = 3 * W / 4;
  f.v = 3 * H / 4;
  if (W == 1920) {
    switch (D) {
      case 1280:
        f.e0 = 8, f.e1 = -16, f.e2 = 8;
        break;
      case 800:
        f.e0 = -6, f.e1 = 12, f.e2 = -6;
        break;
      case 640:
        f.e0 = 2, f.e1 = -4, f.e2 = 2;
        break;
      default:
        break;
    }
  }
  return f;
}

// The D = 800, W = 1728 rules of modes 5, 9, 16 and 20.
bool narrow_1728(const frame &f) { return f.D == 800 && f.W == 1728; }

void place(orlo_vr_t &r, int ch, int x, int y, int width, int height) {
  r.ch = ch;
  r.x = x;
  r.y = y;
  r.width = width;
  r.height = height;
}

// Everything a layout reads and may change besides the list.
struct layout_args {
  orlo_display_t *h_display;
  int mode;
  const int *c;
  frame f;
  int origin_x;
};

void layout_single(layout_args &l, orlo_vr_t *vr) {
  const frame &f = l.f;
  int width = f.W;
  // On a display 800 wide these origins would leave a gap at the left edge
  // after rounding to 8.
  if (l.mode == 1 && f.D == 800 && l.origin_x == 406) {
    l.origin_x = 402;
    width = f.W + 4;
  } else if (l.mode == 12 && f.D == 800 && l.origin_x == 48) {
    l.origin_x = 40;
    width = f.W + 8;
  }
  place(vr[0], l.c[0], 0, 0, width, f.H);
  if (l.mode == 1) return;

  // Playback of one channel: the second layer shows the port that receives
  // the copies.
  const int c0 = l.c[0];
  int m;
  if (c0 < l.h_display->ch_count)
    m = c0 == 0 ? 1 : 0;
  else
    m = c0 == 2 ? 1 : 0;
  store_word(l.h_display->main_port, m);
  vr[0].layer = 2;
  place(vr[1], m, 0, 0, f.W, f.H);
  vr[1].layer = 1;
}

void layout_quad(layout_args &l, orlo_vr_t *vr) {
  const frame &f = l.f;
  for (int i = 0; i < 4; i++) place(vr[i], l.c[i], f.a * (i % 2), f.b * (i / 2), f.a, f.b);
}

void layout_six(layout_args &l, orlo_vr_t *vr) {
  const frame &f = l.f;
  const int *c = l.c;
  place(vr[0], c[0], 0, 0, f.g - f.e2, f.h);
  place(vr[1], c[1], f.g - f.e2, 0, f.t + f.e2, f.s);
  place(vr[2], c[2], f.g - f.e2, f.s, f.t + f.e2, f.s);
  place(vr[3], c[3], 0, f.h, f.t + f.e0, f.s);
  place(vr[4], c[4], f.t + f.e0, f.h, f.t + f.e1, f.s);
  place(vr[5], c[5], f.g - f.e2, f.h, f.t + f.e2, f.s);
}

void layout_eight(layout_args &l, orlo_vr_t *vr) {
  const frame &f = l.f;
  const int *c = l.c;
  if (narrow_1728(f)) {
    const int u = f.u - 8;
    place(vr[0], c[0], 0, 0, u, f.v);
    place(vr[1], c[1], u, 0, 440, f.p);
    place(vr[2], c[2], u, f.p, 440, f.p);
    place(vr[3], c[3], u, f.b, 440, f.p);
    place(vr[4], c[4], 0, f.v, 424, f.p);
    place(vr[5], c[5], 424, f.v, 440, f.p);
    place(vr[6], c[6], 864, f.v, 424, f.p);
    place(vr[7], c[7], u, f.v, 440, f.p);
    return;
  }
  place(vr[0], c[0], 0, 0, f.u, f.v);
  place(vr[1], c[1], f.u, 0, f.q, f.p);
  place(vr[2], c[2], f.u, f.p, f.q, f.p);
  place(vr[3], c[3], f.u, f.b, f.q, f.p);
  place(vr[4], c[4], 0, f.v, f.q, f.p);
  place(vr[5], c[5], f.q, f.v, f.q, f.p);
  place(vr[6], c[6], f.a, f.v, f.q, f.p);
  place(vr[7], c[7], f.u, f.v, f.q, f.p);
}

void layout_nine(layout_args &l, orlo_vr_t *vr) {
  const frame &f = l.f;
  const int col_x[3] = {0, f.t + f.e0, 2 * f.t - f.e2};
  const int col_w[3] = {f.t + f.e0, f.t + f.e1, f.t + f.e2};
  // A device of eight channels shows a fixed ninth tile; playback always
  // does.
  const bool ninth_fixed = l.mode == 18 || l.h_display->ch_count == 8;
  for (int i = 0; i < 9; i++) {
    const int col = i % 3;
    const int row = i / 3;
    const int ch = i == 8 && ninth_fixed ? 8 : l.c[i];
    place(vr[i], ch, col_x[col], f.s * row, col_w[col], f.s);
  }
  if (ninth_fixed) vr[8].flag = 1;
}

void layout_thirteen(layout_args &l, orlo_vr_t *vr) {
  const frame &f = l.f;
  const int *c = l.c;
  place(vr[0], c[0], 0, 0, f.a, f.b);
  place(vr[1], c[1], f.a, 0, f.q, f.p);
  place(vr[2], c[2], f.u, 0, f.q, f.p);
  place(vr[3], c[3], f.a, f.p, f.q, f.p);
  place(vr[4], c[4], f.u, f.p, f.q, f.p);
  for (int i = 5; i < 13; i++)
    place(vr[i], c[i], f.q * ((i + 3) % 4), f.p * ((i + 3) / 4), f.q, f.p);
}

void layout_sixteen(layout_args &l, orlo_vr_t *vr) {
  const frame &f = l.f;
  for (int i = 0; i < 16; i++) {
    place(vr[i], l.c[i], f.q * (i % 4), f.p * (i / 4), f.q, f.p);
    if (narrow_1728(f)) {
      if (i % 2 == 0) {
        vr[i].width = f.q - 8;
      } else {
        vr[i].x -= 8;
        vr[i].width = f.q + 8;
      }
    }
  }
}

void layout_inset(layout_args &l, orlo_vr_t *vr) {
  const frame &f = l.f;
  const int big = l.mode == 21 ? load_word(l.h_display->main_port) : l.c[0];
  place(vr[0], big, 0, 0, f.W, f.H);
  vr[0].layer = 1;
  vr[0].crop_x = 0;
  vr[0].crop_width = f.W - 64;
  vr[0].crop_y = 0;
  vr[0].crop_height = f.H - 48;
  place(vr[1], l.c[0], f.W - 576, f.H - 392, 576, 324);
  vr[1].layer = 2;
}

void layout_three_by_two(layout_args &l, orlo_vr_t *vr) {
  const frame &f = l.f;
  for (int i = 0; i < 6; i++) place(vr[i], l.c[i], f.t * (i % 3), f.b * (i / 3), f.t, f.b);
}

using layout_fn = void (*)(layout_args &, orlo_vr_t *);

// The layout of a mode, or nullptr for a number without one.
layout_fn layout_of(int mode) {
  switch (mode) {
    case 1:
    case 12:
    case 22:
      return layout_single;
    case 2:
    case 13:
      return layout_quad;
    case 3:
    case 14:
      return layout_six;
    case 5:
    case 16:
      return layout_eight;
    case 7:
    case 18:
      return layout_nine;
    case 8:
    case 19:
      return layout_thirteen;
    case 9:
    case 20:
      return layout_sixteen;
    case 10:
    case 21:
      return layout_inset;
    case 100:
    case 101:
      return layout_three_by_two;
    default:
      return nullptr;
  }
}

// (n + align - 1) rounded down to a multiple of the power of two `align`.
unsigned round_up(unsigned n, unsigned align) { return (n + align - 1) & (0u - align); }

unsigned scale_up(unsigned in, unsigned value, unsigned disp, unsigned align) {
  const unsigned scaled = disp == 0 ? 0 : in * value / disp;
  return round_up(scaled, align);
}

}  // namespace
}  // namespace orlo

extern "C" ORLO_API int orlo_display_get_user_vr(orlo_display_t *h_display, int mode, int x, int y,
                                                 int width, int height, const int *channels,
                                                 const int *flags, orlo_vr_t *vr) {
  if (h_display == nullptr || channels == nullptr || vr == nullptr) {
    g_return_if_fail_warning(nullptr, orlo::kFn,
                             "h_display != NULL && channels != NULL && vr != NULL");
    return -1;
  }
  const int D = orlo::load_word(h_display->disp_width);
  const int E = orlo::load_word(h_display->disp_height);
  // The rectangle must fit the 1920 x 1080 space once scaled to the display.
  // 64-bit products: a caller's size never overflows the test.
  if (height < 0 || E < static_cast<int64_t>(height) * E / 1080) {
    g_warning("%s:invalid height\n", orlo::kFn);
    return -1;
  }
  if (width < 0 || D < static_cast<int64_t>(width) * D / 1920) {
    g_warning("%s:invalid width\n", orlo::kFn);
    return -1;
  }
  const orlo::layout_fn layout = orlo::layout_of(mode);
  if (layout == nullptr) {
    g_warning("%s:invalid mode:%d\n", orlo::kFn, mode);
    return -1;
  }
  if ((mode == 1 || mode == 12 || mode == 22) && channels[0] == -1) {
    g_return_if_fail_warning(nullptr, orlo::kFn, "channels[0] != -1");
    return -1;
  }

  for (int i = 0; i < ORLO_MAX_VR; i++)
    vr[i] = orlo_vr_t{-1, -1, -1, -1, -1, 1, -1, -1, -1, -1, flags != nullptr ? flags[i] : 0};

  orlo::layout_args args{h_display, mode, channels, orlo::make_frame(width, height, D), x};
  layout(args, vr);

  for (int i = 0; i < ORLO_MAX_VR; i++) {
    if (vr[i].ch == -1) continue;
    // Wraps rather than overflows for an origin far outside the space.
    vr[i].x = static_cast<int32_t>(static_cast<int64_t>(vr[i].x) + args.origin_x);
    vr[i].y = static_cast<int32_t>(static_cast<int64_t>(vr[i].y) + y);
  }
  return 0;
}

extern "C" ORLO_API void orlo_display_get_incrop_position(
    unsigned *out_x, unsigned *out_crop_w, unsigned *out_y, unsigned *out_crop_h, unsigned in_width,
    unsigned in_height, unsigned disp_w, unsigned disp_h, unsigned crop_x, unsigned crop_width,
    unsigned crop_y, unsigned crop_height, unsigned align) {
  if (out_x == nullptr || out_crop_w == nullptr || out_y == nullptr || out_crop_h == nullptr) {
    g_return_if_fail_warning(nullptr, "orlo_display_get_incrop_position",
                             "out_x && out_crop_w && out_y && out_crop_h");
    return;
  }
  *out_x = orlo::scale_up(in_width, crop_x, disp_w, align);
  *out_crop_w = orlo::scale_up(in_width, crop_width, disp_w, align);
  *out_y = orlo::scale_up(in_height, crop_y, disp_h, align);
  *out_crop_h = orlo::scale_up(in_height, crop_height, disp_h, align);
}
