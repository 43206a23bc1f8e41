/* Every public header, compiled as C. */
#include "colorspace.h"
#include "orlo_display.h"
#include "orlo_lumen_pipe.h"
#include "orlo_sst_pipe.h"
#include "shell.h"

int public_headers_compile_as_c(void) { return ORLO_MAX_SLOT; }
