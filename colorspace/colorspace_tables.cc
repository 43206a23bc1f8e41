// The five YUV-to-RGB lookup tables.
#include "colorspace.h"
#include "colorspace_rows.hh"

int32_t RGB_Y_tab[256];
int32_t B_U_tab[256];
int32_t G_U_tab[256];
int32_t G_V_tab[256];
int32_t R_V_tab[256];

extern "C" void colorspace_init(void) {
  for (int32_t i = 0; i < 256; i++) {
    RGB_Y_tab[i] = 9535 * (i - 16);
    B_U_tab[i] = 16531 * (i - 128);
    G_U_tab[i] = 3203 * (i - 128);
    G_V_tab[i] = 6660 * (i - 128);
    R_V_tab[i] = 13074 * (i - 128);
  }
  orlo::colorspace::tables_ready();
}
