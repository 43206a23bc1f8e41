/* liborlo: colour-space conversion between YV12 and packed RGB and YUV
 * layouts.  Plain C; include it from C or C++.
 *
 * The converters own nothing: every plane and picture is the caller's, read
 * or written during the call only.  They check nothing and report nothing:
 * `width` is even, the buffers are large enough.  They keep no state, so any
 * number of threads may convert at once, once colorspace_init has filled the
 * tables (orlo_display_new does so).  Counts: `width` and `height` in pixels;
 * a plane's stride in bytes, a packed picture's stride in pixels.  Multi-byte
 * pixels below are listed byte by byte in memory order; 16-bit words are
 * little-endian. */
#ifndef ORLO_COLORSPACE_H
#define ORLO_COLORSPACE_H

#include <stdint.h>

#if defined(__GNUC__)
#define COLORSPACE_API __attribute__((visibility("default")))
#else
#define COLORSPACE_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* YUV-to-RGB terms with 13 fractional bits, studio range (BT.601).  Zero at
 * load, valid from the first colorspace_init on. */
COLORSPACE_API extern int32_t RGB_Y_tab[256];
COLORSPACE_API extern int32_t B_U_tab[256];
COLORSPACE_API extern int32_t G_U_tab[256];
COLORSPACE_API extern int32_t G_V_tab[256];
COLORSPACE_API extern int32_t R_V_tab[256];

/* Fills the five tables; a repeated call rewrites the same values.  Call it
 * before converting on another thread, not while one converts. */
COLORSPACE_API void colorspace_init(void);

/* Argument shape of the conversions into YV12.  The source rows lie back to
 * back; stride is the pitch of the Y plane in bytes, the chroma planes have
 * stride / 2. */
typedef void (*to_yv12_fn)(uint8_t *y_out, uint8_t *u_out, uint8_t *v_out, const uint8_t *src,
                           int width, int height, int stride);

/* Argument shape of the conversions out of YV12 (and of planar 4:2:2).
 * dst_stride counts pixels for packed destinations, bytes for planar ones;
 * y_stride and uv_stride count bytes.  A negative height flips. */
typedef void (*from_yv12_fn)(uint8_t *dst, int dst_stride, const uint8_t *y_src,
                             const uint8_t *u_src, const uint8_t *v_src, int y_stride,
                             int uv_stride, int width, int height);

/* Into YV12.  width is even; an odd height leaves the last destination row
 * alone.  The 16-bit forms flip on a negative height; the 24- and 32-bit
 * forms always read their source bottom-up.  Source pixels:
 *   rgb555  16-bit word 0rrrrrgg gggbbbbb (top bit ignored)
 *   rgb565  16-bit word rrrrrggg gggbbbbb
 *   rgb24   bytes B, G, R
 *   rgb32   bytes B, G, R, X (X ignored)
 *   yuv     planes Y, U, V back to back, no row gaps
 *   yuyv    bytes Y0, U, Y1, V for two pixels
 *   uyvy    bytes U, Y0, V, Y1 for two pixels */
COLORSPACE_API void rgb555_to_yv12_c(uint8_t *y_out, uint8_t *u_out, uint8_t *v_out,
                                     const uint8_t *src, int width, int height, int stride);
COLORSPACE_API void rgb565_to_yv12_c(uint8_t *y_out, uint8_t *u_out, uint8_t *v_out,
                                     const uint8_t *src, int width, int height, int stride);
COLORSPACE_API void rgb24_to_yv12_c(uint8_t *y_out, uint8_t *u_out, uint8_t *v_out,
                                    const uint8_t *src, int width, int height, int stride);
COLORSPACE_API void rgb32_to_yv12_c(uint8_t *y_out, uint8_t *u_out, uint8_t *v_out,
                                    const uint8_t *src, int width, int height, int stride);
COLORSPACE_API void yuv_to_yv12_c(uint8_t *y_out, uint8_t *u_out, uint8_t *v_out,
                                  const uint8_t *src, int width, int height, int stride);
COLORSPACE_API void yuyv_to_yv12_c(uint8_t *y_out, uint8_t *u_out, uint8_t *v_out,
                                   const uint8_t *src, int width, int height, int stride);
COLORSPACE_API void uyvy_to_yv12_c(uint8_t *y_out, uint8_t *u_out, uint8_t *v_out,
                                   const uint8_t *src, int width, int height, int stride);

/* YV12 to RGB.  555 and 565 carry the dropped low bits along each line.
 * Destination pixels:
 *   rgb555       16-bit word 0rrrrrgg gggbbbbb
 *   rgb565       16-bit word rrrrrggg gggbbbbb (so is the _crop form, the
 *                same operation: crop through the pointers and sizes)
 *   rgb24        bytes B, G, R
 *   rgb32        bytes R, G, B, 0 (see below for its planes) */
COLORSPACE_API void yv12_to_rgb555_c(uint8_t *dst, int dst_stride, const uint8_t *y_src,
                                     const uint8_t *u_src, const uint8_t *v_src, int y_stride,
                                     int uv_stride, int width, int height);
COLORSPACE_API void yv12_to_rgb565_c(uint8_t *dst, int dst_stride, const uint8_t *y_src,
                                     const uint8_t *u_src, const uint8_t *v_src, int y_stride,
                                     int uv_stride, int width, int height);
COLORSPACE_API void yv12_to_rgb565_crop(uint8_t *dst, int dst_stride, const uint8_t *y_src,
                                        const uint8_t *u_src, const uint8_t *v_src, int y_stride,
                                        int uv_stride, int width, int height);
COLORSPACE_API void yv12_to_rgb24_c(uint8_t *dst, int dst_stride, const uint8_t *y_src,
                                    const uint8_t *u_src, const uint8_t *v_src, int y_stride,
                                    int uv_stride, int width, int height);
/* Bytes R, G, B, 0, the opposite order of yv12_to_rgb24_c; u_src holds V
 * and v_src holds U. */
COLORSPACE_API void yv12_to_rgb32_c(uint8_t *dst, int dst_stride, const uint8_t *y_src,
                                    const uint8_t *u_src, const uint8_t *v_src, int y_stride,
                                    int uv_stride, int width, int height);

/* YV12 to one contiguous planar buffer (dst_stride in bytes: Y rows, then U
 * and V rows of dst_stride / 2) and to packed 4:2:2 (dst_stride in pixels):
 * yuyv writes bytes Y0, U, Y1, V and uyvy bytes U, Y0, V, Y1 for two
 * pixels. */
COLORSPACE_API void yv12_to_yuv_c(uint8_t *dst, int dst_stride, const uint8_t *y_src,
                                  const uint8_t *u_src, const uint8_t *v_src, int y_stride,
                                  int uv_stride, int width, int height);
COLORSPACE_API void yv12_to_yuyv_c(uint8_t *dst, int dst_stride, const uint8_t *y_src,
                                   const uint8_t *u_src, const uint8_t *v_src, int y_stride,
                                   int uv_stride, int width, int height);
COLORSPACE_API void yv12_to_uyvy_c(uint8_t *dst, int dst_stride, const uint8_t *y_src,
                                   const uint8_t *u_src, const uint8_t *v_src, int y_stride,
                                   int uv_stride, int width, int height);

/* 4:2:2 sources straight to RGB, row by row: chroma planes at half width
 * and full height.  yv16_to_rgb24_c writes bytes B, G, R; yv16_to_rgb32_c
 * bytes R, G, B, 0 with u_src holding V, as yv12_to_rgb32_c. */
COLORSPACE_API void yv16_to_rgb24_c(uint8_t *dst, int dst_stride, const uint8_t *y_src,
                                    const uint8_t *u_src, const uint8_t *v_src, int y_stride,
                                    int uv_stride, int width, int height);
COLORSPACE_API void yv16_to_rgb32_c(uint8_t *dst, int dst_stride, const uint8_t *y_src,
                                    const uint8_t *u_src, const uint8_t *v_src, int y_stride,
                                    int uv_stride, int width, int height);
/* uv_src alternates U and V, U first, and has the pitch of the Y plane.
 * Writes bytes B, G, R. */
COLORSPACE_API void yv16i_to_rgb24_c(uint8_t *dst, int dst_stride, const uint8_t *y_src,
                                     const uint8_t *uv_src, int y_stride, int width, int height);
/* Packed source, bytes Y0, V, Y1, U for two pixels; src_stride and
 * dst_stride count pixels.  Both write three bytes B, G, R per pixel (rgb16
 * too: each byte a 5-bit value moved up by 3) and keep 0 out of the output:
 * the least value is 1 (rgb24) or 8 (rgb16). */
COLORSPACE_API void yvyu_to_rgb24_c(uint8_t *dst, int dst_stride, const uint8_t *src,
                                    int src_stride, int width, int height);
COLORSPACE_API void yvyu_to_rgb16_c(uint8_t *dst, int dst_stride, const uint8_t *src,
                                    int src_stride, int width, int height);

/* Null at load and never touched by the library: for the application to
 * point at the plain versions above or at its own. */
COLORSPACE_API extern to_yv12_fn rgb555_to_yv12;
COLORSPACE_API extern to_yv12_fn rgb565_to_yv12;
COLORSPACE_API extern to_yv12_fn rgb24_to_yv12;
COLORSPACE_API extern to_yv12_fn rgb32_to_yv12;
COLORSPACE_API extern to_yv12_fn yuv_to_yv12;
COLORSPACE_API extern to_yv12_fn yuyv_to_yv12;
COLORSPACE_API extern to_yv12_fn uyvy_to_yv12;
COLORSPACE_API extern from_yv12_fn yv12_to_rgb555;
COLORSPACE_API extern from_yv12_fn yv12_to_rgb565;
COLORSPACE_API extern from_yv12_fn yv12_to_rgb24;
COLORSPACE_API extern from_yv12_fn yv12_to_rgb32;
COLORSPACE_API extern from_yv12_fn yv12_to_yuv;
COLORSPACE_API extern from_yv12_fn yv12_to_yuyv;
COLORSPACE_API extern from_yv12_fn yv12_to_uyvy;

#ifdef __cplusplus
}
#endif

#endif /* ORLO_COLORSPACE_H */
