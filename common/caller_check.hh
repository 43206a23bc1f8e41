// Preconditions of exported functions.  A failed one logs one critical line
// with the function's name and the check's text, as g_return_val_if_fail
// does (whose name would be the C++ signature here), and the function gives
// its family's failure answer.
#pragma once

#include <glib.h>

#define ORLO_RETURN_VAL_IF_FAIL(expr, val)                \
  do {                                                    \
    if (G_UNLIKELY(!(expr))) {                            \
      g_return_if_fail_warning(nullptr, __func__, #expr); \
      return (val);                                       \
    }                                                     \
  } while (0)

#define ORLO_RETURN_IF_FAIL(expr)                         \
  do {                                                    \
    if (G_UNLIKELY(!(expr))) {                            \
      g_return_if_fail_warning(nullptr, __func__, #expr); \
      return;                                             \
    }                                                     \
  } while (0)
