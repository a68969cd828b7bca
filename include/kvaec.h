/*
 * libkvaec - sub-band acoustic echo canceller for hands-free voice terminals.
 *
 * Public interface. One canceller instance lives in static global records
 * inside the library: there is no handle, no allocation and no error code.
 *
 * Calling order
 *   1. aecx_init()            once, before anything else (again = full restart)
 *   2. aecx_process()         once per 10 ms frame (160 samples at 16 kHz)
 *   3. aecx_control()         between frames, to change the mode word,
 *                             load a configuration, set the NLP value or reset
 *   4. aecx_spkeq()/miceq()   optional, on the loudspeaker / microphone frame
 *   aecx_bist()               at any time between frames, as a health check
 *
 * Threading: every entry point runs on the caller's thread and touches the
 * one global instance. Calls must be serialised by the host; none of them
 * may run concurrently with another.
 *
 * Samples are 32-bit floats with full scale +-1.0.
 */
#ifndef KVAEC_H
#define KVAEC_H

#include <stdint.h>

#if defined(_WIN32)
#define KVAEC_API
#else
/* Marks the symbols the library exports; everything else stays hidden. */
#define KVAEC_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

#define KVAEC_VERSION_MAJOR 0
#define KVAEC_VERSION_MINOR 1
#define KVAEC_VERSION_PATCH 0

/* Samples per frame and path (10 ms at 16 kHz). */
#define KVAEC_FRAME_SAMPLES 160
/* Nominal sample rate in Hz. */
#define KVAEC_SAMPLE_RATE 16000

/* ---- aecx_control() command bits: acted on during the call, never stored ---- */
/* Reset the canceller state to its start values (configuration kept). */
#define KVAEC_CMD_RESET 0x1u
/* With KVAEC_CMD_RESET: keep both adaptive filter banks through the reset. */
#define KVAEC_CMD_KEEP_FILTERS 0x2u
/* Store the call's float argument as the NLP value (dB, enters the echo-loss estimate). */
#define KVAEC_CMD_SET_NLP_PARAM 0x4u
/* Load a configuration: the record given, or the defaults when it is NULL. */
#define KVAEC_CMD_LOAD_CFG 0x8u
/* Mask of the four command bits. */
#define KVAEC_CMD_MASK 0xFu

/* ---- mode bits: stored in the mode word, read by the stages every frame ---- */
/* Bypass: frames only pass the corrections and filter banks (same delays). */
#define KVAEC_MODE_BYPASS 0x10u
/* Freeze adaptation: both adaptive filters keep their coefficients. */
#define KVAEC_MODE_FREEZE 0x20u
/* Single-stage suppression: all NLP loss on the send path, none on the receive path. */
#define KVAEC_MODE_SEND_ONLY_LOSS 0x40u
/* No residual suppression: NLP gains computed but neither applied nor comfort noise added. */
#define KVAEC_MODE_NO_NLP 0x100u
/* No noise reduction: the noise-reduction chain is skipped. */
#define KVAEC_MODE_NO_NR 0x200u
/* No send high-pass; comfort noise then starts at strip 0 instead of strip 1. */
#define KVAEC_MODE_NO_HIPASS 0x400u
/* Loopback: the send frame is replaced by the delayed, attenuated receive signal. */
#define KVAEC_MODE_LOOPBACK 0x2000u

/*
 * Configuration record: eight 32-bit fields, in this order.
 * Copied into the instance by aecx_init() and by aecx_control() with
 * KVAEC_CMD_LOAD_CFG; changes take effect at the next frame.
 *
 * Valid ranges (closed; kvaec_cfg_check() tests them, and non-finite values
 * are never valid). Every record inside them gives a working canceller; the
 * library itself does not check and runs whatever it is given.
 *   fErlInitDb      -40 .. 10 dB
 *   fNlpAttMaxDb      0 .. 80 dB
 *   fNlpAttMinDb      0 .. 80 dB, and not above fNlpAttMaxDb
 *   fDtdMarginDb      0 .. 20 dB
 *   fLevelFloorDb  -120 .. -50 dB
 *   fNrLevelDb        0 .. 1
 *   fRinLevelRefDb  -20 .. 150 dB
 *   iProfile          0 .. 6
 */
typedef struct AEC_tCfg {
    float fErlInitDb;     /* initial per-strip echo-path gain, dB (default -10); also the ERL floor */
    float fNlpAttMaxDb;   /* upper NLP attenuation level, dB (default 45) */
    float fNlpAttMinDb;   /* lower NLP attenuation level, dB (default 30) */
    float fDtdMarginDb;   /* double-talk and NLP margin, dB (default 4.5) */
    float fLevelFloorDb;  /* level below which a signal counts as absent, dB (default -95) */
    float fNrLevelDb;     /* noise-reduction strength, 0 = off .. 1 = strongest (default 0) */
    float fRinLevelRefDb; /* receive-level reference, dB (default 100) */
    int32_t iProfile;     /* acoustic profile, integer: 0 none, 1..4 equalizer curves, 5/6 echo tail rules */
} AEC_tCfg;

/* The ranges above as constants (dB unless noted), for hosts that show them. */
#define KVAEC_CFG_ERL_INIT_MIN (-40.0f)
#define KVAEC_CFG_ERL_INIT_MAX 10.0f
#define KVAEC_CFG_NLP_ATT_MIN 0.0f         /* fNlpAttMaxDb and fNlpAttMinDb */
#define KVAEC_CFG_NLP_ATT_MAX 80.0f
#define KVAEC_CFG_DTD_MARGIN_MIN 0.0f
#define KVAEC_CFG_DTD_MARGIN_MAX 20.0f
#define KVAEC_CFG_LEVEL_FLOOR_MIN (-120.0f)
#define KVAEC_CFG_LEVEL_FLOOR_MAX (-50.0f)
#define KVAEC_CFG_NR_LEVEL_MIN 0.0f        /* no unit: 0 = off .. 1 = strongest */
#define KVAEC_CFG_NR_LEVEL_MAX 1.0f
#define KVAEC_CFG_RIN_LEVEL_REF_MIN (-20.0f)
#define KVAEC_CFG_RIN_LEVEL_REF_MAX 150.0f
#define KVAEC_CFG_PROFILE_MIN 0
#define KVAEC_CFG_PROFILE_MAX 6

/* Default configuration: -10, 45, 30, 4.5, -95, 0, 100, 0. Read-only. */
KVAEC_API extern const AEC_tCfg AEC_DefaultCfg;

/*
 * Full-duplex configuration: -10, 60, 20, 3, -95, 0, 100, 0. Read-only; load
 * it with aecx_init(&kvaec_full_duplex_cfg). For hands-free terminals that
 * must keep both talkers in double talk (double-talk category type 1): a
 * smaller double-talk margin (3 dB) lets the near-end talker through, a
 * higher upper NLP level (60 dB) keeps the echo loss during double talk above
 * 27 dB, and a lower NLP level of 20 dB leaves the receive path unattenuated.
 * Measured by scripts/evaluate --dt-category (three rooms, comb-separated
 * talkers, echo as loud as the near end or louder): type 1 in all three rooms,
 * where the defaults reach type 2a in one (near-end send attenuation in double
 * talk 0.7-1.1 dB at the 95th percentile against 1.2-1.9 dB; echo loss in
 * double talk 27.4-35.9 dB against 26.8-36.3 dB). In single talk: 3.8 dB
 * more ERLE and echo loss than the defaults, the same near-end attenuation
 * with the far end silent (1.2 dB) and the same recovery after an echo-path
 * change, 0.7 dB less ERLE at its lowest just after the change. The tool and
 * the Python package use it when no preset is named (docs/tuning.md).
 */
KVAEC_API extern const AEC_tCfg kvaec_full_duplex_cfg;

/*
 * Bring the whole instance to its start values and load `cfg`
 * (NULL: AEC_DefaultCfg). Builds the band tables on the first call.
 * The mode word becomes 0 (every stage on).
 */
KVAEC_API void aecx_init(const AEC_tCfg *cfg);

/*
 * Commands, mode word and configuration, applied in this order:
 *   KVAEC_CMD_LOAD_CFG: copy `cfg` (NULL: defaults) into the instance;
 *   KVAEC_CMD_RESET:    reset every state (keeps the configuration;
 *                       with KVAEC_CMD_KEEP_FILTERS keeps both filter banks);
 *   KVAEC_CMD_SET_NLP_PARAM: store `value`;
 *   always: the mode word becomes `flags` without the four command bits.
 * Every call replaces the whole mode word: pass the mode bits to keep.
 * Unknown bits are stored and ignored. Call only between frames.
 */
KVAEC_API void aecx_control(unsigned flags, const AEC_tCfg *cfg, float value);

/*
 * Self-test: number of non-finite words (infinities, NaNs) found in the
 * state, the scratch record and the three sub-band stores. 0 = sound.
 * Only reads; a host that gets a non-zero count should reset.
 */
KVAEC_API int aecx_bist(void);

/* Build the band and strip tables (aecx_init does it; calling again rewrites the same values). */
KVAEC_API void aecx_init_tabs(void);

/*
 * Process one frame in place.
 *   rin: 160 receive-path (loudspeaker) samples; on return the signal to play
 *        (delayed by 40 samples, possibly attenuated by the NLP).
 *   sin: 160 send-path (microphone) samples; on return the echo-cancelled,
 *        suppressed send signal (delayed by 120 samples).
 * The buffers must not overlap. aecx_init() must have been called.
 *
 * Echo timing: the echo of a receive sample must reach the microphone input
 * of a later call no earlier than KVAEC_ECHO_MIN_DELAY (280) samples after
 * this function returned that sample in `rin`, or the canceller loses that
 * part of the echo (see the measured table at KVAEC_ECHO_MIN_DELAY). A host
 * whose loudspeaker-to-microphone latency is shorter delays the microphone
 * signal by the difference; kvaec_align_shift() gives the shift.
 */
KVAEC_API void aecx_process(float *rin, float *sin);

/* Equalise a 160-sample loudspeaker frame in place by iProfile (1..4); other profiles pass through. */
KVAEC_API void aecx_spkeq(float *x);

/* Equalise a 160-sample microphone frame in place by iProfile (1, 3, 4); other profiles pass through. */
KVAEC_API void aecx_miceq(float *x);

/* ---- host rules: one definition for every host (tool, Python, plugins) ---- */

/* Delay of the receive path through aecx_process, samples: the receive output
 * of a frame trails its input by this much. */
#define KVAEC_RCV_DELAY_SAMPLES 40
/* Delay of the send path through aecx_process, samples. */
#define KVAEC_SND_DELAY_SAMPLES 120

/*
 * Least delay, in samples at 16 kHz, from a receive sample leaving
 * aecx_process (the receive output) to its echo reaching the microphone input
 * of a later aecx_process call. The canceller cancels a microphone frame
 * against the reference history written by the previous calls, so its first
 * tap lies one frame after the receive output, and the filter banks spread an
 * arrival over some more samples: echo that arrives earlier than this is
 * partly or wholly missed. A host whose loudspeaker-to-microphone latency is
 * shorter delays the microphone by the difference (kvaec_align_shift).
 *
 * Measured in a closed loop (single-tap echo path, white far end at -26 dBFS,
 * NLP off; tests/scenario/test_echo_delay.cpp), linear ERLE against the delay
 * from the receive output to the echo at the microphone input:
 *   samples  160   180   200   220   240   260   280   300   320   480   960
 *   ERLE dB  16.3  18.0  25.0  31.6  35.5  36.9  36.5  37.1  36.5  36.6  36.3
 * From 260 samples on the figure is that of an ample delay; 240 still loses
 * about 1 dB; 280 leaves one filter-bank hop (40 samples) beyond that.
 */
#define KVAEC_ECHO_MIN_DELAY 280

/*
 * Alignment of recorded or live signals. `bulk_delay`: samples (16 kHz) from
 * a far-end sample as the host gives it to aecx_process (its receive input)
 * to the first arrival of its echo in the microphone signal as recorded.
 * `margin`: extra samples (>= 0) beyond KVAEC_ECHO_MIN_DELAY.
 * Returns how many samples the host delays the microphone signal relative to
 * the far end so that the echo reaches aecx_process exactly
 * KVAEC_ECHO_MIN_DELAY + margin samples after its receive output left it;
 * a negative value means: delay the far end by minus that many instead.
 */
KVAEC_API int32_t kvaec_align_shift(int32_t bulk_delay, int32_t margin);

/*
 * Checks a configuration against the documented ranges of its fields (see
 * AEC_tCfg; non-finite values are never valid). Returns NULL when the record
 * is valid (or `cfg` is NULL, which stands for the defaults); otherwise a
 * static, NUL-terminated one-line reason that starts with the first bad
 * field's name and states its range, e.g.
 * "fErlInitDb: must be a finite number from -40 to 10 (dB)". Hosts check a
 * configuration with this before loading it with aecx_init() or
 * aecx_control(), and refuse it with the reason. No I/O, no allocation.
 */
KVAEC_API const char *kvaec_cfg_check(const AEC_tCfg *cfg);

#ifdef __cplusplus
}
#endif

#endif /* KVAEC_H */
