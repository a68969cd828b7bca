// Sample-rate converters between a stream's rate and the canceller's 16 kHz,
// shared by the two elements of the kvaec GStreamer plugin.
//
// When one rate is a whole multiple M of the other (32, 48, 96 kHz to and
// from 16 kHz) the conversion is a linear-phase polyphase FIR decimator or
// interpolator of our own; equal rates are a plain copy. Every other pair
// (8 kHz, 44.1 kHz, ...) goes through SpeexDSP (quality 5).
//
// FIR design (computed at init in double precision, no table): a Kaiser-
// windowed sinc of N = 2 * kKvaecFirHalf * M + 1 taps at the higher rate,
//   h[k] = sinc((k - (N - 1) / 2) / M) * I0(beta * sqrt(1 - r^2)) / I0(beta),
//   r = (2k - (N - 1)) / (N - 1), beta = 6.2,
// normalised to unit gain at DC (times M when interpolating); its end taps
// are zeros of the sinc, so each of the M phases has 2 * kKvaecFirHalf taps
// (a multiple of four: the loops run four taps per pass). Cut-off at
// 8 kHz, transition 7..9 kHz: passband flat to 7 kHz, stopband (aliases and
// images) below -60 dB. Its group delay is (N - 1) / 2 = kKvaecFirHalf * M
// samples at the higher rate, kKvaecFirHalf samples at 16 kHz: whole samples
// at both rates, so the elements' latency stays exact.
#ifndef KVAEC_GST_RESAMPLE_H
#define KVAEC_GST_RESAMPLE_H

#include <speex/speex_resampler.h>

#include <cstdint>
#include <vector>

// Half length of the FIR converters, in samples at 16 kHz (their delay).
constexpr int kKvaecFirHalf = 16;

class KvaecResampler {
public:
    KvaecResampler() = default;
    KvaecResampler(const KvaecResampler &) = delete;
    KvaecResampler &operator=(const KvaecResampler &) = delete;
    ~KvaecResampler();

    // Converts mono `in_rate` to `out_rate`. False (with `error` set) if no
    // converter could be made.
    bool init(int in_rate, int out_rate, const char **error);
    bool ready() const { return mode_ != Mode::None; }

    // As speex_resampler_process_float: consumes up to *in_len samples
    // (nullptr: silence), writes up to *out_len; both are updated to the
    // counts actually consumed and written.
    void process(const float *in, uint32_t *in_len, float *out, uint32_t *out_len);

    // Back to the state after init (history cleared).
    void reset();

    // Delay in input-rate samples: output sample j stands for the input at
    // j * in_rate / out_rate - input_latency().
    int input_latency() const;

    // "copy", "fir decimator", "fir interpolator" or "speexdsp" (for logs).
    const char *kind() const;

private:
    enum class Mode { None, Copy, Down, Up, Speex };
    Mode mode_ = Mode::None;
    int m_ = 1;   // integer ratio of the FIR modes
    int q_ = 0;   // taps per phase
    // Down: taps reversed and zero-padded in front to q_ * m_, grouped by
    // phase: taps_[p * q_ + j] weights input (t + j) * M + p of the window
    // of output t. Up: taps_[r * q_ + j] weights input (t + q_ - 1 - j) for
    // output phase r.
    std::vector<float> taps_;
    std::vector<float> hist_;     // input history + pending input
    std::vector<float> scratch_;  // deinterleaved phases / per-phase outputs
    std::vector<float> acc_;
    SpeexResamplerState *speex_ = nullptr;
};

#endif
