// Chooses the row kernels once.  Until colorspace_init has filled the
// tables, the plain kernels run: they read the zero tables as they are.
// From then on the tables hold fixed values that the vector kernels build
// from their constants, and one load picks the set for each call.
#include <atomic>

#include "colorspace.h"
#include "colorspace_rows.hh"

namespace orlo::colorspace {
namespace {

std::atomic<bool> tables_filled{false};
std::atomic<bool> vector_enabled{true};
std::atomic<const RowKernels *> chosen{nullptr};

void choose() {
  const bool vector = tables_filled.load() && vector_enabled.load();
  chosen.store(vector ? &vector_row_kernels() : &plain_row_kernels(), std::memory_order_release);
}

}  // namespace

void tables_ready() {
  if (tables_filled.exchange(true)) return;
  choose();
}

void set_vector_kernels_enabled(bool enabled) {
  vector_enabled.store(enabled);
  choose();
}

const RowKernels &row_kernels() {
  const RowKernels *k = chosen.load(std::memory_order_acquire);
  return k ? *k : plain_row_kernels();
}

}  // namespace orlo::colorspace
