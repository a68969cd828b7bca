// GStreamer plugin "kvaec": kvaecechoprobe (playback branch) and kvaecdsp
// (capture branch), an acoustic echo canceller pair around libkvaec.
#include "kvaec_probe.h"

#ifndef PACKAGE
#define PACKAGE "kvaec"
#endif
#ifndef KVAEC_GST_VERSION
#define KVAEC_GST_VERSION "0.0.0"
#endif

static gboolean plugin_init(GstPlugin *plugin) {
    GST_DEBUG_CATEGORY_INIT(kvaec_gst_debug, "kvaec", 0, "kvaec echo canceller");
    return gst_element_register(plugin, "kvaecechoprobe", GST_RANK_NONE, GST_TYPE_KVAEC_ECHO_PROBE) &&
           gst_element_register(plugin, "kvaecdsp", GST_RANK_NONE, GST_TYPE_KVAEC_DSP);
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, kvaec, "Acoustic echo canceller (libkvaec)", plugin_init,
                  KVAEC_GST_VERSION, GST_LICENSE_UNKNOWN, "libkvaec", "libkvaec")
