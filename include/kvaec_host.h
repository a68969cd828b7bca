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
 * sample or a sample beyond +-1000, or that goes beyond full scale (+-1)
 * with a level more than 20 dB above the 90th percentile of the signal's
 * frame levels, is left out (set to silence), so a short burst of huge
 * values neither sets the activity threshold nor captures the correlation,
 * while loud speech within full scale is always kept.
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

/* ------------------------------------------------------------------------
 * Delay track over a whole recording pair.
 *
 * The far end and the microphone recording of it were made on two clocks:
 * the echo's lag behind the far end drifts (crystals differ by 10-1000 ppm)
 * and jumps (dropped buffers, a restarted capture). A kvaec_track follows
 * it: phase-transform cross-correlation (GCC-PHAT) in windows over every
 * stretch where the far end is active, refined below one sample, each with
 * a confidence; then a robust piecewise-linear fit of delay against time,
 * with a drift per segment and a break wherever the delay jumps by
 * `break_sec` or more. Stretches without far-end activity are interpolated,
 * not estimated.
 *
 * Streaming: samples are pushed in blocks of any size and only a few
 * windows' worth is kept, so memory does not grow with the recording
 * (the list of window results grows by one entry per hop). Both streams are
 * at the same `rate` and are pushed from their first samples on; sample i
 * of each is its file position i at that rate (the caller converts the
 * files' rates). Times are seconds on the microphone's time line; delays are
 * seconds by which the microphone's echo lags the far end (negative: the
 * microphone recording started after the far end's).
 *
 * The fitted delay at microphone time t inside segment s is
 *   delay_sec(t) = s.delay_sec + s.drift_ppm * 1e-6 * (t - s.start_sec).
 * ---------------------------------------------------------------------- */

/* Analysis settings; kvaec_track_default_params() gives the defaults. */
typedef struct kvaec_track_params {
    double window_sec;     /* analysis window length, s (default 4) */
    double hop_sec;        /* hop between windows, s (default 2) */
    double max_offset_sec; /* largest |delay| searched, s (default 2) */
    double break_sec;      /* a jump of at least this much starts a new segment, s (default 0.002) */
    double max_drift_ppm;  /* largest drift followed, ppm (default 1000) */
} kvaec_track_params;

/* One analysis window. */
typedef struct kvaec_track_window {
    double time_sec;    /* centre of the window, microphone time */
    double delay_sec;   /* measured delay (valid when active) */
    double confidence;  /* peak sharpness of the correlation; trusted above a fixed threshold */
    float far_level_db; /* far-end level in the window, dBFS */
    float mic_level_db; /* microphone level in the window, dBFS */
    int32_t active;     /* 1: the far end carried enough activity to measure */
    int32_t trusted;    /* 1: the measurement entered the fit (confident and not an outlier) */
} kvaec_track_window;

/* One segment of the fitted track: constant drift, no jump inside. */
typedef struct kvaec_track_segment {
    double start_sec;   /* microphone time the segment starts at (0 for the first) */
    double end_sec;     /* where it ends (the next segment's start, or the end of the recording) */
    double delay_sec;   /* fitted delay at start_sec */
    double drift_ppm;   /* change of the delay per second of microphone time, ppm */
    double jump_sec;    /* step of the delay at start_sec from the previous segment's fitted end; 0 for
                           the first segment and where only the drift changes */
    int32_t is_break;   /* 1: the segment starts at a jump (|jump_sec| >= break_sec); 0: the first
                           segment, or a change of drift with the delay continuous */
    int32_t trusted_windows; /* trusted windows inside it */
} kvaec_track_segment;

/* Outcome of the fit. */
enum {
    KVAEC_TRACK_OK = 0,            /* a track was fitted */
    KVAEC_TRACK_NO_ACTIVITY = 1,   /* the far end is silent: no window to measure */
    KVAEC_TRACK_NO_MATCH = 2,      /* too few trusted windows: the far end does not match the microphone */
    KVAEC_TRACK_RATE_MISMATCH = 3  /* the delay changes by 0.5 % or more: a sample rate is declared wrongly */
};

typedef struct kvaec_track_summary {
    int32_t status;          /* one of KVAEC_TRACK_* */
    int32_t windows;         /* windows analysed */
    int32_t active_windows;  /* of which the far end was active */
    int32_t trusted_windows; /* of which trusted */
    int32_t segments;        /* segments of the fitted track (>= 1 when status is OK) */
    double rate_ratio;       /* with RATE_MISMATCH: the far end's apparent rate over its declared rate
                                relative to the microphone (e.g. 0.91875 for 44.1 kHz data in a 48 kHz
                                file); 1 otherwise */
} kvaec_track_summary;

typedef struct kvaec_track kvaec_track;

KVAEC_HOST_API void kvaec_track_default_params(kvaec_track_params *p);

/* A new track for streams at `rate` Hz (>= 8000); `p` may be NULL for the
 * defaults. NULL for bad arguments or when memory runs out. */
KVAEC_HOST_API kvaec_track *kvaec_track_create(int32_t rate, const kvaec_track_params *p);

/* Appends `far_n` far-end and `mic_n` microphone samples (either may be 0;
 * the streams may run ahead of each other). Non-finite samples and bursts
 * are left out as in kvaec_host_estimate_delay. Windows are measured as soon
 * as both streams cover them. Returns 0, -1 for bad arguments or after
 * kvaec_track_finish(), -2 when memory runs out. */
KVAEC_HOST_API int kvaec_track_push(kvaec_track *t, const float *far, int64_t far_n, const float *mic,
                                    int64_t mic_n);

/* Newest trusted window so far (for live hosts following the delay);
 * returns 1 and fills `*out`, or 0 when there is none yet. */
KVAEC_HOST_API int kvaec_track_latest(const kvaec_track *t, kvaec_track_window *out);

/* Ends the streams and fits the track. Returns 0 and fills `*out` (its
 * status says whether a track exists); -1 for bad arguments. */
KVAEC_HOST_API int kvaec_track_finish(kvaec_track *t, kvaec_track_summary *out);

/* After kvaec_track_finish(): copies up to `max` windows / segments and
 * returns how many there are in all (-1 for bad arguments). */
KVAEC_HOST_API int32_t kvaec_track_windows(const kvaec_track *t, kvaec_track_window *w, int32_t max);
KVAEC_HOST_API int32_t kvaec_track_segments(const kvaec_track *t, kvaec_track_segment *s, int32_t max);

/* After kvaec_track_finish() with status OK: the fitted delay at microphone
 * time `time_sec` (before the first segment: the first one extended; after
 * the last: the last one extended). NAN otherwise. */
KVAEC_HOST_API double kvaec_track_delay_at(const kvaec_track *t, double time_sec);

KVAEC_HOST_API void kvaec_track_destroy(kvaec_track *t);

#ifdef __cplusplus
}
#endif

#endif /* KVAEC_HOST_H */
