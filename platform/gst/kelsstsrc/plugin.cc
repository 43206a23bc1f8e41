// libgstkelsstsrc.so: the playback source "kelsstsrc" and the recorder
// "kelsstrec" that writes what it plays.
#include <gst/gst.h>

#include "gstkelsstsrc_elements.hh"
#include "kelsstsrc.h"

namespace {

gboolean plugin_init(GstPlugin *plugin) {
  return gst_element_register(plugin, "kelsstsrc", GST_RANK_NONE, gst_kelsstsrc_get_type()) &&
         gst_element_register(plugin, "kelsstrec", GST_RANK_NONE, kelsst::recorder_get_type());
}

}  // namespace

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, kelsstsrc,
                  "Recorded channels: player and recorder", plugin_init, ORLO_VERSION, "LGPL",
                  PACKAGE, ORLO_ORIGIN)
