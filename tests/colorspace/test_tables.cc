#include <gtest/gtest.h>

#include "colorspace.h"

TEST(ColorspaceTables, ZeroBeforeInitAndExactAfterEachCall) {
  EXPECT_EQ(RGB_Y_tab[200], 0);
  colorspace_init();
  EXPECT_EQ(RGB_Y_tab[16], 0);
  EXPECT_EQ(B_U_tab[128], 0);
  EXPECT_EQ(G_U_tab[128], 0);
  EXPECT_EQ(G_V_tab[128], 0);
  EXPECT_EQ(R_V_tab[128], 0);
  const int32_t first[5][2] = {{RGB_Y_tab[0], RGB_Y_tab[255]},
                               {B_U_tab[0], B_U_tab[255]},
                               {G_U_tab[0], G_U_tab[255]},
                               {G_V_tab[0], G_V_tab[255]},
                               {R_V_tab[0], R_V_tab[255]}};
  const int32_t expected[5][2] = {{-152560, 2278865},
                                  {-2115968, 2099437},
                                  {-409984, 406781},
                                  {-852480, 845820},
                                  {-1673472, 1660398}};
  for (int t = 0; t < 5; t++) {
    EXPECT_EQ(first[t][0], expected[t][0]) << "table " << t;
    EXPECT_EQ(first[t][1], expected[t][1]) << "table " << t;
  }
  colorspace_init();
  EXPECT_EQ(RGB_Y_tab[255], 2278865);
  EXPECT_EQ(R_V_tab[0], -1673472);
}
