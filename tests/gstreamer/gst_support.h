// Support for the tests of the GStreamer elements kvaecechoprobe and kvaecdsp:
// loading the plugin from the build tree, feeding the two elements through
// GstHarness with exact timestamps, and the signals (speech-like far end, a
// decaying room response, drift) made with fixed seeds.
#ifndef KVAEC_TEST_GST_SUPPORT_H
#define KVAEC_TEST_GST_SUPPORT_H

#include <gst/gst.h>
#include <gst/check/gstharness.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kvaec::gsttest {

enum class Fmt { F32, S16 };

// Loads libgstkvaec.so from the build tree into the default registry, in
// this process (no plugin scanner, so sanitizer builds load it too).
// Call once from main() after gst_init().
bool loadPlugin(std::string *err);

// Caps string of raw interleaved audio.
std::string capsString(Fmt fmt, int rate, int channels);

// One harnessed element fed with interleaved float samples, converted to the
// stream's format; the timestamps come from the sample count. `ppm` makes
// the stream's samples run that many parts per million fast against the
// pipeline time (PTS of sample n = n / (rate * (1 + ppm * 1e-6)) s).
class Stream {
public:
    // Takes ownership of `element` (floating or not).
    Stream(GstElement *element, Fmt fmt, int rate, int channels, double ppm = 0.0);
    ~Stream();
    Stream(const Stream &) = delete;
    Stream &operator=(const Stream &) = delete;

    GstElement *element() const { return element_; }
    GstHarness *harness() const { return h_; }
    int rate() const { return rate_; }
    int channels() const { return channels_; }

    // Pushes `frames` sample frames (frames * channels interleaved values)
    // and pulls everything the element has output so far.
    GstFlowReturn push(const float *x, int frames);
    // Sends EOS and pulls the rest.
    void eos();
    // Stops and frees the element (the harness tears down).
    void teardown();

    // Output collected so far, converted to float and interleaved.
    const std::vector<float> &out() const { return out_; }
    // Raw output bytes and the timestamps of every output buffer.
    const std::vector<uint8_t> &outBytes() const { return outBytes_; }
    const std::vector<GstClockTime> &outPts() const { return outPts_; }
    const std::vector<GstClockTime> &outDur() const { return outDur_; }
    const std::vector<GstClockTime> &inPts() const { return inPts_; }
    const std::vector<uint8_t> &inBytes() const { return inBytes_; }
    // Caps on the element's source pad (null before the first buffer).
    GstCaps *outCaps() const;
    uint64_t pushedFrames() const { return offset_; }

private:
    void pullAll();
    GstHarness *h_ = nullptr;
    GstElement *element_ = nullptr;
    Fmt fmt_;
    int rate_, channels_;
    double ppm_;
    uint64_t offset_ = 0;
    std::vector<float> out_;
    std::vector<uint8_t> outBytes_, inBytes_;
    std::vector<GstClockTime> outPts_, outDur_, inPts_;
};

// Makes an element by factory name with a given object name (asserts).
GstElement *makeElement(const char *factory, const char *name);

// Speech-like source (syllabic, speech spectrum), `seconds` long at `rate`.
std::vector<float> speech(uint32_t seed, int rate, double seconds, double levelDbfs, bool bursts = false);
// Echo: `x` through a room response with `bulkMs` of pure delay, a
// random tail decaying 60 dB over `tailMs`, `erlDb` below its input.
std::vector<float> echoOf(const std::vector<float> &x, uint32_t seed, int rate, double bulkMs, double erlDb,
                          double tailMs = 60.0);
// Resamples by `ratio` (output rate / input rate) with libsamplerate's best
// converter.
std::vector<float> resample(const std::vector<float> &x, double ratio);
// Interleaves channels of equal length.
std::vector<float> interleave(const std::vector<std::vector<float>> &ch);
// One channel out of interleaved samples.
std::vector<float> channelOf(const std::vector<float> &x, int channels, int c);

// Power in dB of x[from, to) (samples), 10*log10(mean square).
double powerDb(const std::vector<float> &x, size_t from, size_t to);

// Reads a double / uint64 / int64 / boolean field out of the dsp's `stats`.
GstStructure *stats(GstElement *dsp);

}  // namespace kvaec::gsttest

#endif
