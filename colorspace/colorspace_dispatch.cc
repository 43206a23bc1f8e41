// Chooses between the plain and the vector row kernels.
#include <atomic>

#include "colorspace_rows.hh"

namespace orlo::colorspace {
namespace {
std::atomic<bool> vector_enabled{true};
}

void set_vector_kernels_enabled(bool enabled) { vector_enabled.store(enabled); }

const RowKernels &row_kernels() {
  if (!vector_enabled.load(std::memory_order_relaxed)) return plain_row_kernels();
  return plain_row_kernels();
}

}  // namespace orlo::colorspace
