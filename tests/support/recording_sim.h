// Recording pairs as a person brings them to the delay track: a far-end file
// and the microphone recording made while it played, on two clocks.
//
// The far end is speech-like (noise shaped by a speech spectrum, a
// syllable-rate envelope, talk spurts and pauses), band-limited to 0.4 of the
// rate as coded wideband speech is. The microphone hears it through an
// exponentially decaying room (direct sound, then reflections from 2.5 ms on,
// 40-80 ms long) about 10 dB down, plus an optional local talker and noise.
// The clock difference is made by resampling the far end before the room with
// an accurate windowed-sinc interpolator at the exact fractional position the
// delay model asks for, so the true delay at every microphone sample is known.
//
// Everything is deterministic for a seed and works at any rate.
#ifndef KVAEC_TEST_RECORDING_SIM_H
#define KVAEC_TEST_RECORDING_SIM_H

#include <cstdint>
#include <vector>

namespace kvaec::test {

struct RecordingPlan {
    int rate = 16000;            // rate of both files, Hz
    double seconds = 120;        // length of both files
    uint32_t seed = 1;
    // Delay of the echo behind the far end at microphone time 0, s; negative
    // when the microphone recording started after the far end's.
    double bulk_delay_sec = 0.1;
    double drift_ppm = 0;        // change of the delay per second of microphone time
    double drift_change_sec = -1;  // from this microphone time on (if >= 0) ...
    double drift2_ppm = 0;         // ... the drift is this one (the delay stays continuous)
    double jump_at_sec = -1;     // at this microphone time (if >= 0) the delay steps ...
    double jump_sec = 0;         // ... by this much
    double silence_start_sec = -1;  // the far end is silent from this far-end time (if >= 0) ...
    double silence_len_sec = 0;     // ... for this long
    double room_ms = 60;         // length of the room response (40-80)
    double echo_db = -10;        // echo level relative to the far end
    double far_dbfs = -26;       // far-end level while talking
    bool local_talker = false;   // a local talker 20 % of the time
    double noise_dbfs = -60;     // microphone noise
    // The far file's samples were taken at rate * far_rate_ratio but are
    // declared at `rate` (0.91875: 44.1 kHz data in a 48 kHz file).
    double far_rate_ratio = 1.0;
};

struct Recording {
    int rate = 16000;
    std::vector<float> far;
    std::vector<float> mic;
    RecordingPlan plan;
    // True delay at microphone time t (s), as the plan's model defines it.
    double delayAt(double t) const;
};

Recording makeRecording(const RecordingPlan &plan);

// Speech-like signal: `seconds` at `rate`, RMS `dbfs` while talking, pauses
// between talk spurts (about a third of the time silent).
std::vector<float> speechLike(int rate, double seconds, uint32_t seed, double dbfs);

// Value of x (sampled at integer positions) at fractional position `pos`,
// by a Blackman-windowed sinc of 2 x 24 taps with cut-off `cutoff` (relative
// to Nyquist, <= 1); 0 outside the signal.
double interpolateAt(const std::vector<float> &x, double pos, double cutoff = 1.0);

}  // namespace kvaec::test

#endif
