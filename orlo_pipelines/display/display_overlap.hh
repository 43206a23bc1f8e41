// The overlap repair of the geometry change.  Internal to liborlo.
#pragma once

#include "orlo_display.h"

namespace orlo {

// Repairs overlaps of at most 2 pixels between neighbours of a scaled list,
// which the rounding leaves behind, by shrinking the earlier region of a
// pair; later pairs see the change.  Larger overlaps are meant (an inset)
// and stay.  Each repair is logged at warning level.
void _fix_dispOverlap(orlo_vr_t *vr, int vr_num);

}  // namespace orlo
