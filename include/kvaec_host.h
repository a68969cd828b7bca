/*
 * libkvaec_host - helpers shared by the hosts of libkvaec (the kvaec tool,
 * the Python package, audio-server plugins): one implementation of the rules
 * a host applies to its recorded or live signals before they reach the
 * canceller.
 *
 * Unlike libkvaec this library allocates (temporary buffers), so it is not
 * meant for a real-time audio thread; call it from a setup or worker thread.
 * Every function is reentrant (no global state) and never throws.
 */
#ifndef KVAEC_HOST_H
#define KVAEC_HOST_H

#include <stdint.h>

#if defined(_WIN32)
#define KVAEC_HOST_API
#else
#define KVAEC_HOST_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Result of kvaec_host_estimate_delay(). */
typedef struct kvaec_delay_result {
    int32_t found;               /* 1: estimated; 0: no usable far-end activity */
    int32_t delay;               /* samples by which the microphone lags the far end */
    double start_sec;            /* start of the analysed stretch of the far end */
    double length_sec;           /* its length */
    double peak_to_mean;         /* correlation peak over the mean magnitude (confidence; < 8 is weak) */
    int64_t far_excluded_frames; /* 10 ms far-end frames left out: non-finite samples or bursts */
    int64_t mic_excluded_frames; /* the same for the microphone */
} kvaec_delay_result;

/*
 * Bulk delay of the echo in `mic` behind `far` (both mono, `rate` Hz, full
 * scale +-1), searched in [0, max_delay] samples by a phase-transform
 * cross-correlation over the first `seconds` of the far end that carry
 * activity (10 ms frames above -60 dBFS and within 40 dB of the loudest).
 *
 * Bad samples do not mislead it: a 10 ms frame that holds a non-finite
 * sample, a sample beyond +-1000, or a level more than 20 dB above the
 * 90th percentile of the signal's frame levels is left out (set to silence)
 * on both signals, so a short burst of huge values neither sets the activity
 * threshold nor captures the correlation.
 *
 * Returns 0 and fills `*out`; -1 for bad arguments (null pointer with a
 * non-zero length, a negative length, rate < 100, max_delay < 0, seconds not
 * a positive finite number); -2 when memory runs out.
 */
KVAEC_HOST_API int kvaec_host_estimate_delay(const float *far, int64_t far_len, const float *mic, int64_t mic_len,
                                             int32_t rate, int32_t max_delay, double seconds,
                                             kvaec_delay_result *out);

/*
 * Marks the usable 10 ms frames of `x` (`len` samples at `rate` Hz): frame k
 * covers samples [k*rate/100, (k+1)*rate/100); usable[k] becomes 1 unless
 * the frame holds a non-finite sample or is a burst (the rule of
 * kvaec_host_estimate_delay). `usable` has room for len / (rate/100) bytes
 * (a final partial frame is not marked). Returns the number of usable frames,
 * or -1 for bad arguments, -2 when memory runs out. Hosts use it to keep
 * such frames out of their level and echo-loss figures.
 */
KVAEC_HOST_API int64_t kvaec_host_usable_frames(const float *x, int64_t len, int32_t rate, uint8_t *usable);

/* Number of finite samples in `x` (0 for a null pointer or len <= 0). */
KVAEC_HOST_API int64_t kvaec_host_count_finite(const float *x, int64_t len);

#ifdef __cplusplus
}
#endif

#endif /* KVAEC_HOST_H */
