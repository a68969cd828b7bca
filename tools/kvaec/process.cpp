// kvaec process: offline echo cancellation of a far-end recording and the
// microphone recording made while it was played.
//
// The recorded echo was made from the unprocessed far end, so any loss the
// canceller put on the receive path would not show in the microphone file:
// all loss is kept on the send path (single-stage suppression, mode 0x40).
//
// Alignment: the library cancels the echo of its own receive output, and
// only echo that reaches it at least KVAEC_ECHO_MIN_DELAY samples after the
// receive output left it (kvaec.h). The recording's echo lags the far end by
// its bulk delay D (estimated by GCC-PHAT unless given); kvaec_align_shift()
// says how far to delay the microphone (or, when negative, the far end) so
// that the echo reaches the library KVAEC_ECHO_MIN_DELAY + margin samples
// after the receive output. The outputs are shifted back so that OUT.wav
// lines up with MIC.wav and the far-end output with FAR.wav, sample for
// sample.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "audio_io.h"
#include "commands.h"
#include "delay.h"
#include "health.h"
#include "kvaec_records.h"

namespace kvaec::tool {

namespace {

double parseMs(const std::string &s) {
    char *end = nullptr;
    const double v = std::strtod(s.c_str(), &end);
    if (s.empty() || *end != '\0' || !std::isfinite(v) || v < 0)
        throw ToolError("--delay takes 'auto' or a non-negative number of milliseconds, not '" + s + "'");
    return v;
}

// Replaces non-finite samples by silence; returns how many there were.
long silenceNonFinite(std::vector<float> &x) {
    long n = 0;
    for (float &v : x)
        if (!std::isfinite(v)) {
            v = 0.0f;
            ++n;
        }
    return n;
}

// Whether the `len` samples of `x` from `from` on (any part may lie outside
// it) touch an unusable 10 ms frame of x.
bool touchesBad(const std::vector<uint8_t> &usable, long from, long len) {
    const long lo = std::max(from, 0L) / kFrame, hi = (from + len - 1) / kFrame;
    for (long f = lo; f <= hi && f < static_cast<long>(usable.size()); ++f)
        if (f >= 0 && !usable[static_cast<size_t>(f)]) return true;
    return false;
}

}  // namespace

int runProcess(const ProcessArgs &a) {
    std::vector<std::string> notes;
    checkSettings(a.settings);
    const double givenMs = a.delay == "auto" ? -1.0 : parseMs(a.delay);
    // Reserve the outputs first: an unwritable path, or one that is an input,
    // fails before any work.
    OutputSet outs;
    outs.protectInput(a.far, "--far");
    outs.protectInput(a.mic, "--mic");
    const int outIdx = outs.add(a.out, "--out");
    const int farOutIdx = a.farOut.empty() ? -1 : outs.add(a.farOut, "--far-out");

    std::vector<float> far = loadSignal(a.far, "far-end file", a.channel, kRate, !a.noResample, notes);
    std::vector<float> mic = loadSignal(a.mic, "microphone file", a.channel, kRate, !a.noResample, notes);
    for (const std::string &n : notes) note(n);

    const long farLen = static_cast<long>(far.size()), micLen = static_cast<long>(mic.size());
    if (farLen != micLen)
        note(fmt("the files differ in length (far end %.3f s, microphone %.3f s): the shorter is padded with "
                 "silence; the output has the microphone's length",
                 static_cast<double>(farLen) / kRate, static_cast<double>(micLen) / kRate));

    const InputCheck cf = checkInput(far, kRate), cm = checkInput(mic, kRate);
    // Microphone frames left out of the figures: non-finite samples or bursts
    // (flagged before the non-finite samples become silence below).
    const std::vector<uint8_t> micUsable = usableFrames(mic.data(), micLen, kRate);
    const std::vector<uint8_t> farUsable = usableFrames(far.data(), farLen, kRate);
    if (cf.rmsDb < -70.0)
        warn(fmt("the far end is silent (%.1f dBFS): there is no echo reference, the canceller can only "
                 "suppress noise", cf.rmsDb));
    if (cf.clipped > 0)
        warn(fmt("far-end input clips: %ld samples at full scale, first at %.2f s", cf.clipped, cf.firstClipSec));
    if (cm.clipped > 0)
        warn(fmt("microphone input clips: %ld samples at full scale, first at %.2f s (clipped echo cannot be "
                 "cancelled fully)", cm.clipped, cm.firstClipSec));
    if (cf.nonFinite > 0)
        warn(fmt("far-end input holds %ld non-finite samples: processed as silence", silenceNonFinite(far)));
    if (cm.nonFinite > 0)
        warn(fmt("microphone input holds %ld non-finite samples: processed as silence, left out of the figures",
                 silenceNonFinite(mic)));

    // Bulk delay of the recording.
    long bulk = 0;
    std::string delayText;
    if (a.delay == "auto") {
        const DelayEstimate e = estimateDelay(far, mic, kRate, static_cast<long>(a.maxDelayMs * kRate / 1000.0),
                                              a.estimateSeconds);
        if (e.farExcluded + e.micExcluded > 0)
            note(fmt("delay estimate: %ld far-end and %ld microphone frames with bursts left out", e.farExcluded,
                     e.micExcluded));
        if (e.found) {
            bulk = e.delay;
            delayText = fmt("%.2f ms (%ld samples, estimated on %.1f-%.1f s, peak/mean %.1f)",
                            1000.0 * static_cast<double>(bulk) / kRate, bulk, e.startSec,
                            e.startSec + e.lengthSec, e.peakToMean);
            if (e.peakToMean < 8.0)
                warn("the delay estimate is weak (little correlation between far end and microphone); "
                     "give --delay MS if you know it");
        } else {
            delayText = "0 ms (no far-end activity to estimate from)";
        }
    } else {
        // A delay the microphone recording cannot hold is refused before
        // anything is allocated for it.
        const double micMs = 1000.0 * static_cast<double>(micLen) / kRate;
        if (givenMs >= micMs)
            throw ToolError(fmt("--delay %g ms is beyond the end of the microphone recording '%s' (%.1f ms): its "
                                "echo would never appear in it", givenMs, a.mic.c_str(), micMs));
        bulk = static_cast<long>(std::lround(givenMs * kRate / 1000.0));
        delayText = fmt("%.2f ms (%ld samples, given)", 1000.0 * static_cast<double>(bulk) / kRate, bulk);
    }
    const long margin = static_cast<long>(std::lround(a.delayMarginMs * kRate / 1000.0));
    const long shift = kvaec_align_shift(static_cast<int32_t>(std::min(bulk, 0x7fffffffL)),
                                         static_cast<int32_t>(margin));
    const long farShift = std::max(-shift, 0L), micShift = std::max(shift, 0L);

    // Frames to run: enough to bring every microphone sample and every
    // far-end sample through the library.
    const long need = std::max(micLen + kSinDelay + micShift, farLen + kRinDelay + farShift);
    const long frames = (need + kFrame - 1) / kFrame;
    std::vector<float> send(static_cast<size_t>(frames * kFrame)), played(static_cast<size_t>(frames * kFrame));

    Settings st = a.settings;
    st.mode |= KVAEC_MODE_SEND_ONLY_LOSS;
    startCanceller(st);
    HealthWatch health(st);
    Progress bar(frames, !a.quiet && micLen > 10L * kRate);

    // ERLE bookkeeping over frames where the far end (as the canceller sees it) is active.
    double erleIn = 0, erleOut = 0;
    long erleFrames = 0;
    const double farActiveDb = std::max(-60.0, cf.rmsDb - 30.0);
    std::vector<char> farActive(static_cast<size_t>(frames), 0);
    std::vector<double> micPow(static_cast<size_t>(frames), 0.0);

    const auto t0 = std::chrono::steady_clock::now();
    float rin[kFrame], sin[kFrame];
    for (long k = 0; k < frames; ++k) {
        for (int n = 0; n < kFrame; ++n) {
            const long m = k * kFrame + n;
            const long fi = m - farShift, mi = m - micShift;
            rin[n] = fi >= 0 && fi < farLen ? far[static_cast<size_t>(fi)] : 0.0f;
            sin[n] = mi >= 0 && mi < micLen ? mic[static_cast<size_t>(mi)] : 0.0f;
        }
        farActive[static_cast<size_t>(k)] = powerDb(rin, kFrame) > farActiveDb;
        if (st.applyEq) aecx_miceq(sin);
        {
            double p = 0;
            for (int n = 0; n < kFrame; ++n) p += std::isfinite(sin[n]) ? static_cast<double>(sin[n]) * sin[n] : 0.0;
            micPow[static_cast<size_t>(k)] = p;
        }
        aecx_process(rin, sin);
        if (health.afterFrame(k, rin, sin) && health.events().size() <= 10) {
            const HealthEvent &e = health.events().back();
            warn(fmt("at %.2f s: %d non-finite output samples, self-test count %d; canceller reset and its settings reloaded",
                     e.timeSec, e.nonFiniteOut, e.bistCount));
        }
        if (st.applyEq) aecx_spkeq(rin);
        std::copy(rin, rin + kFrame, played.begin() + k * kFrame);
        std::copy(sin, sin + kFrame, send.begin() + k * kFrame);
        bar.update(k + 1);
    }
    bar.finish();
    const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();

    // Send output y[m] holds the input microphone sample m - 120, which is
    // microphone file sample m - 120 - micShift; the played signal p[m] holds
    // far-end file sample m - 40 - farShift.
    std::vector<float> out(static_cast<size_t>(micLen), 0.0f), farOut;
    for (long n = 0; n < micLen; ++n) {
        const long m = n + kSinDelay + micShift;
        if (m < static_cast<long>(send.size())) out[static_cast<size_t>(n)] = send[static_cast<size_t>(m)];
    }
    if (farOutIdx >= 0) {
        farOut.assign(static_cast<size_t>(farLen), 0.0f);
        for (long n = 0; n < farLen; ++n) {
            const long m = n + kRinDelay + farShift;
            if (m < static_cast<long>(played.size())) farOut[static_cast<size_t>(n)] = played[static_cast<size_t>(m)];
        }
    }
    // ERLE: microphone power of each far-active frame over the send power of
    // the same samples after the 120-sample send delay.
    for (long k = 0; k < frames; ++k) {
        if (!farActive[static_cast<size_t>(k)]) continue;
        // Frames with bad input samples, and frames around a reset, would
        // only measure the fault.
        if (touchesBad(micUsable, k * kFrame - micShift, kFrame) ||
            touchesBad(farUsable, k * kFrame - farShift, kFrame) || health.nearReset(k))
            continue;
        const long m0 = k * kFrame + kSinDelay;
        if (m0 + kFrame > static_cast<long>(send.size())) break;
        double p = 0;
        for (int n = 0; n < kFrame; ++n) p += static_cast<double>(send[static_cast<size_t>(m0 + n)]) * send[static_cast<size_t>(m0 + n)];
        erleIn += micPow[static_cast<size_t>(k)];
        erleOut += p;
        ++erleFrames;
    }

    outs.writeWav(outIdx, out, kRate, a.pcm16);
    if (farOutIdx >= 0) outs.writeWav(farOutIdx, farOut, kRate, a.pcm16);
    outs.commit();

    const double dur = static_cast<double>(micLen) / kRate;
    std::printf("duration:        %.2f s (%ld frames)\n", dur, frames);
    std::printf("real-time factor: %.4f (%.1f s of audio per second)\n", secs / dur, secs > 0 ? dur / secs : 0.0);
    std::printf("bulk delay:      %s\n", delayText.c_str());
    std::printf("alignment:       far end delayed %ld samples, microphone delayed %ld samples: the echo reaches "
                "the canceller %ld samples after the receive output (least %d)\n",
                farShift, micShift, bulk + micShift - farShift - kRinDelay, KVAEC_ECHO_MIN_DELAY);
    const double erle = 10.0 * std::log10((erleIn + 1e-20) / (erleOut + 1e-20));
    if (erleFrames > 0 && std::isfinite(erle))
        std::printf("ERLE:            %.1f dB over %ld frames with far-end activity\n", erle, erleFrames);
    else
        std::printf("ERLE:            n/a (no usable frame with far-end activity)\n");
    std::printf("%s\n", health.summary().c_str());
    std::printf("wrote:           %s%s%s\n", a.out.c_str(), a.farOut.empty() ? "" : ", ", a.farOut.c_str());
    return 0;
}

}  // namespace kvaec::tool
