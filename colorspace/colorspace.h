/* liborlo: colour-space conversion between YV12 and packed RGB and YUV
 * layouts.  Plain C; include it from C or C++. */
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

/* Fills the five tables; a repeated call rewrites the same values. */
COLORSPACE_API void colorspace_init(void);

#ifdef __cplusplus
}
#endif

#endif /* ORLO_COLORSPACE_H */
