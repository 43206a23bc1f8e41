// Chooses between the plain and the vector row kernels.
#include <atomic>
#include <cstring>

#include "colorspace.h"
#include "colorspace_rows.hh"

namespace orlo::colorspace {
namespace {

std::atomic<bool> vector_enabled{true};

// The vector kernels build the table values from their constants, so they
// stand in only while the tables hold what colorspace_init writes (before it,
// the tables are zero and every pixel converts to the same colour).
bool tables_standard() {
  struct Tables {
    int32_t y[256], bu[256], gu[256], gv[256], rv[256];
  };
  static const Tables expected = [] {
    Tables t;
    for (int32_t i = 0; i < 256; i++) {
      t.y[i] = 9535 * (i - 16);
      t.bu[i] = 16531 * (i - 128);
      t.gu[i] = 3203 * (i - 128);
      t.gv[i] = 6660 * (i - 128);
      t.rv[i] = 13074 * (i - 128);
    }
    return t;
  }();
  return std::memcmp(RGB_Y_tab, expected.y, sizeof expected.y) == 0 &&
         std::memcmp(B_U_tab, expected.bu, sizeof expected.bu) == 0 &&
         std::memcmp(G_U_tab, expected.gu, sizeof expected.gu) == 0 &&
         std::memcmp(G_V_tab, expected.gv, sizeof expected.gv) == 0 &&
         std::memcmp(R_V_tab, expected.rv, sizeof expected.rv) == 0;
}

// Vector kernels where they don't depend on the tables.
const RowKernels &table_free_vector_kernels() {
  thread_local RowKernels kernels;
  kernels = [] {
    RowKernels k = vector_row_kernels();
    const RowKernels &p = plain_row_kernels();
    k.pair_to_rgb555 = p.pair_to_rgb555;
    k.pair_to_rgb565 = p.pair_to_rgb565;
    k.pair_to_bgr24 = p.pair_to_bgr24;
    k.pair_to_rgb0 = p.pair_to_rgb0;
    k.to_rgb555 = p.to_rgb555;
    k.to_rgb565 = p.to_rgb565;
    k.to_bgr24 = p.to_bgr24;
    k.to_rgb0 = p.to_rgb0;
    k.interleaved_to_bgr24 = p.interleaved_to_bgr24;
    k.yvyu_to_bgr24 = p.yvyu_to_bgr24;
    k.yvyu_to_bgr16 = p.yvyu_to_bgr16;
    return k;
  }();
  return kernels;
}

}  // namespace

void set_vector_kernels_enabled(bool enabled) { vector_enabled.store(enabled); }

const RowKernels &row_kernels() {
  if (!vector_enabled.load(std::memory_order_relaxed)) return plain_row_kernels();
  return tables_standard() ? vector_row_kernels() : table_free_vector_kernels();
}

}  // namespace orlo::colorspace
