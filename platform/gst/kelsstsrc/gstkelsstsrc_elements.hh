// The element types of libgstkelsstsrc.so, for the plugin's registration.
#pragma once

#include <gst/gst.h>

namespace kelsst {
GType recorder_get_type();
}
