// Shared between the two elements of the kvaec GStreamer plugin: the far-end
// ring the probe fills and the dsp reads, and the process-wide registry the
// dsp finds its probe in by name.
#ifndef KVAEC_GST_PROBE_H
#define KVAEC_GST_PROBE_H

#include <gst/audio/audio.h>
#include <gst/audio/gstaudiofilter.h>
#include <gst/gst.h>

#include <cstdint>
#include <vector>

G_BEGIN_DECLS

#define GST_TYPE_KVAEC_ECHO_PROBE (gst_kvaec_echo_probe_get_type())
G_DECLARE_FINAL_TYPE(GstKvaecEchoProbe, gst_kvaec_echo_probe, GST, KVAEC_ECHO_PROBE, GstAudioFilter)

#define GST_TYPE_KVAEC_DSP (gst_kvaec_dsp_get_type())
G_DECLARE_FINAL_TYPE(GstKvaecDsp, gst_kvaec_dsp, GST, KVAEC_DSP, GstAudioFilter)

G_END_DECLS

// Rate of the canceller and of the far-end ring.
constexpr int kKvaecRate = 16000;

// Far-end samples at 16 kHz, mono, indexed by play position: the running time
// at which the sink plays them (buffer running time plus pipeline latency),
// in samples at 16 kHz. Positions [start, end) are valid; everything else
// reads as silence. Guarded by the probe's lock.
struct KvaecFarRing {
    static constexpr int64_t kSize = int64_t{1} << 17;  // 8.2 s at 16 kHz
    std::vector<float> buf = std::vector<float>(static_cast<size_t>(kSize), 0.0f);
    int64_t start = 0, end = 0;
    bool anchored = false;
    bool active = false;     // between the probe's start and stop
    bool gone = false;       // stopped after having been found: readers let go
    bool eos = false;        // the far end ended: readers stop waiting
    bool flushing = false;
    bool live = false;       // the far end comes from a live source: the probe never waits
    // The reader (a dsp) and the oldest position it still needs: a probe that
    // runs ahead on a non-live pipeline waits instead of overwriting it.
    bool reader = false;
    int64_t reader_pos = 0;
    uint64_t generation = 0;  // bumped on every re-anchoring (flush, jump)
};

// Process-wide registry of probes (the dsp finds one by its element name).
// Returns a new reference or nullptr.
GstKvaecEchoProbe *kvaec_probe_find(const char *name);

// Lock and condition of a probe's ring (always take the lock before touching
// the ring returned by kvaec_probe_ring).
GMutex *kvaec_probe_lock(GstKvaecEchoProbe *probe);
GCond *kvaec_probe_cond(GstKvaecEchoProbe *probe);
KvaecFarRing *kvaec_probe_ring(GstKvaecEchoProbe *probe);

GST_DEBUG_CATEGORY_EXTERN(kvaec_gst_debug);

#endif
