/*
 * libkvaec - the global records and tables, for hosts and debuggers that
 * inspect the canceller. Everything here is owned by the library: a host
 * reads it between frames and never writes it.
 *
 * All records are made of 32-bit words (floats, int32, uint32); only the
 * three store pointers at the head of AEC_tDb follow the platform's pointer
 * size. Word counts below are for a 32-bit target.
 */
#ifndef KVAEC_RECORDS_H
#define KVAEC_RECORDS_H

#include "kvaec.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define KVAEC_ANON __extension__
#else
#define KVAEC_ANON
#endif

/* ---- geometry ---- */
#define AEC_NBANDS 41        /* complex sub-bands, 200 Hz apart, DC to Nyquist */
#define AEC_NSUB 4           /* sub-samples per band and frame (hop 40 samples) */
#define AEC_NSTRIPS 30       /* strips: 19 single bands, then 11 pairs */
#define AEC_NSTRIPREC 31     /* strip records: 30 strips + the full band (index 30) */
#define AEC_FULLBAND 30      /* index of the full-band record */
#define AEC_NSINGLE 19       /* strips 0..18 hold one band each */
#define AEC_REF_FLOATS 5522  /* size of the reference store AEC_afRef */
#define AEC_ADF_FLOATS 4992  /* size of each coefficient store */
#define AEC_REFNRG_LEN 357   /* reference energy history entries, all strips */
#define AEC_DB_WORDS 3472    /* AEC_tDb on a 32-bit target */
#define AEC_SC_WORDS 2452    /* AEC_tSc */
#define AEC_SC_CLEAR_WORDS 2450 /* words cleared per normal frame (low guard included) */
#define AEC_SC_GUARD_LO 0x12345678u
#define AEC_SC_GUARD_HI 0x87654321u

/* Persistent per-strip record (12 words). Entry 30 of atStrip is the full band. */
typedef struct AEC_tStripRec {
    float fErleAvgDb;   /* 0  smoothed ERLE, dB, 0..40 (start 0) */
    float fErlDb;       /* 1  smoothed ERL, dB, >= tCfg.fErlInitDb (start fErlInitDb) */
    float fDtAccDb;     /* 2  double-talk accumulator, dB, -6..30 */
    float fDtAcc2Db;    /* 3  slower double-talk accumulator, dB, -6..30 */
    float fCopyScore;   /* 4  signed score fast-vs-slow filter, reset after each copy */
    float fErrFloorDb;  /* 5  noise floor of the error signal, dB, fLevelFloorDb..-33 (start -33) */
    float fErrActDb;    /* 6  error-signal activity accumulator, dB, -6..30 */
    float fRinActDb;    /* 7  receive activity accumulator, dB, -6..30 */
    float fRinFloorDb;  /* 8  receive noise floor, dB, fLevelFloorDb..-33 (start -33) */
    float fRefDbPrev2;  /* 9  reference level two frames back, dB (start -65) */
    float fRefDbPrev1;  /* 10 reference level one frame back, dB (start -65) */
    uint32_t uiMergeCnt;/* 11 merge counters: bits 8..15 and 16..23, each value + 50 */
} AEC_tStripRec;

/* Per-frame level record (13 words), in the same strip order. */
typedef struct AEC_tStripScRec {
    float fRefDb;       /* 0  newest reference frame level, dB */
    float fRinDb;       /* 1  receive sub-band level, dB */
    float fSinDb;       /* 2  send (microphone) sub-band level, dB */
    float fErrAdfDb;    /* 3  level of the fast filter's error, dB */
    float fErrAdsDb;    /* 4  level of the slow filter's error, dB */
    float fErleDb;      /* 5  ERLE of the frame, dB, >= 0 */
    float fErlFrameDb;  /* 6  ERL of the frame, dB */
    float fMuAdf;       /* 7  step size of the fast filter, 0 or 0.003..1 */
    float fMuAds;       /* 8  step size of the slow filter, 0 or 0.003..1 */
    float fRinAttDb;    /* 9  receive attenuation in dB, then the linear receive gain */
    float fSinAttDb;    /* 10 send attenuation in dB, then the linear send gain */
    float fExpTailDb;   /* 11 expected echo level including the tail, dB */
    float fExpEchoDb;   /* 12 expected echo level over the filter span, dB */
} AEC_tStripScRec;

/* Smoothed 4x4 reference correlation of one low band (20 words). */
typedef struct AEC_tRefCorrRec {
    float acRow0[4][2]; /* r00..r03 (r00 real in use) */
    float acLow[6][2];  /* (1,1), (1,2), (1,3), (2,2), (2,3), (3,3) */
} AEC_tRefCorrRec;

/* Per-strip noise-reduction work record (5 words). */
typedef struct AEC_tNrRec {
    float fNrgNoisy;    /* noisy power per complex sample and band, with a noise share */
    float fNoisePow;    /* noise power estimate, linear */
    float fSpeechPow;   /* decision-directed clean-speech power */
    float fNrgNbr;      /* power of the neighbouring strips */
    float fNrGain;      /* gain of the strip, 0..1 */
} AEC_tNrRec;

/*
 * Persistent state (3472 words on a 32-bit target). Word offsets assume
 * 32-bit pointers; everything after the pointers is 32-bit words.
 */
typedef struct AEC_tDb {
    float *pafRef;                   /* 0    -> AEC_afRef */
    float *pafAdf;                   /* 1    -> AEC_afAdf (fast bank) */
    float *pafAds;                   /* 2    -> AEC_afAds (slow bank) */
    /* module states */
    float afRefPowAdf[AEC_NBANDS];   /* 3    fast-bank reference power per band */
    float afRefPowAds[AEC_NBANDS];   /* 44   slow-bank reference power per band */
    float afSndAnaHist[240];         /* 85   send analysis delay line, oldest first */
    float afSndSynOla[240];          /* 325  send synthesis overlap-add accumulator */
    float afRcvAnaHist[240];         /* 565  receive analysis delay line */
    float afRcvSynOla[240];          /* 805  receive synthesis accumulator */
    float afRefAnaHist[480];         /* 1045 reference analysis delay line (outgoing receive signal) */
    AEC_tStripRec atStrip[AEC_NSTRIPREC]; /* 1525 per-strip records, 30 = full band */
    AEC_tRefCorrRec atRefCorr[AEC_NSINGLE]; /* 1897 correlation of bands 0..18 */
    float acDecorr[AEC_NSINGLE][4][2];/* 2277 decorrelation filters of bands 0..18 */
    float afRefNrgHist[AEC_REFNRG_LEN]; /* 2429 reference energy history, newest first per strip */
    float afNrClean[AEC_NSTRIPS];    /* 2786 previous clean power per strip (noise reduction) */
    int32_t iRinSilentFrames;        /* 2816 silent receive frames, 0..70000 */
    float afTdDecHist[40];           /* 2817 tone-detector decimator history */
    float afTd4k[480];               /* 2857 4 kHz receive signal, oldest first */
    int32_t iTdPhase;                /* 3337 tone-detector frame phase, 0 or 1 */
    float afHpState[3][2];           /* 3338 send high-pass section states */
    float afSpkEqHpState[3][2];      /* 3344 speaker equalizer high-pass states */
    float afSpkEqHist[48];           /* 3350 speaker equalizer input history */
    float afMicEqHist[48];           /* 3398 microphone equalizer input history */
    float fRinInCorr;                /* 3446 receive input tilt state */
    float fSinInCorr;                /* 3447 send input tilt state */
    float fRinOutCorr;               /* 3448 receive output tilt state */
    float fSinOutCorr;               /* 3449 send output tilt state */
    float fLoopOutCorr;              /* 3450 loopback output tilt state */
    /* control block */
    float fEpcFreqDb;                /* 3451 echo-path-change evidence (error shape), -6..30 */
    float fEpcDerleDb;               /* 3452 echo-path-change evidence (fast-filter advantage), -6..30 */
    float fEpcDb;                    /* 3453 combined echo-path-change measure, >= -6 */
    float fAdaptTime;                /* 3454 adaptation progress, 0..2000 */
    float fClipDb;                   /* 3455 microphone clipping accumulator, dB, -6..30 */
    float fRinPeakHoldDb;            /* 3456 strip-3 receive peak hold (profile 1), dB */
    float fNlpParam;                 /* 3457 caller-set NLP value, dB */
    float fTdAlarmDb;                /* 3458 tone alarm level, dB, -6..30 */
    float fRinPeakDb;                /* 3459 smoothed receive peak level, dB, >= -80 on release */
    uint32_t uiFlags;                /* 3460 mode word */
    int32_t iDoubleTalk;             /* 3461 double-talk flag, 0 or 1 */
    uint32_t uiNoiseSeed;            /* 3462 noise generator state, sign-extended 16 bits */
    int32_t iErlStrip;               /* 3463 next strip of the coefficient ERL update */
    AEC_tCfg tCfg;                   /* 3464 active configuration (8 words, last) */
} AEC_tDb;

/* Words of the per-frame work area shared by stages with disjoint lifetimes. */
#define AEC_SC_WORK_WORDS 449
/* Tone-detector work area: overlays the filter-bank work and the shared area. */
#define AEC_SC_TD_WORDS (80 + 200 + AEC_SC_WORK_WORDS)

/*
 * Per-frame scratch (2452 words). Cleared at the start of every normal
 * frame; nothing in it survives a frame.
 *
 * The work areas at words 1716..2444 are shared. Each group below is used
 * only inside the named stages, and those stages never run interleaved:
 *   afFbTime/afFbWork  filter-bank analyses and syntheses
 *   acStepErr/acRefWhite  aec_adf_adapt (aec_adapt1/2/4)
 *   afNrgWork          aec_nrg_in, aec_nrg_erf
 *   afExpSpreadDb      aec_exp_full
 *   atNr               aec_nr
 *   afEqWork           aec_spkeq / aec_miceq (outside aecx_process)
 *   afTdWork           aec_td (overlays all of the above; runs after the
 *                      noise reduction and before the send synthesis)
 * The reference analysis also borrows acErrAds after the send path is done.
 */
typedef struct AEC_tSc {
    uint32_t uiGuardLo;                      /* 0    0x12345678 after a normal frame starts */
    float acRcvSb[AEC_NBANDS][AEC_NSUB][2];  /* 1    receive sub-band frame */
    float acSndSb[AEC_NBANDS][AEC_NSUB][2];  /* 329  send sub-band frame as analysed */
    float acErrAdf[AEC_NBANDS][AEC_NSUB][2]; /* 657  fast-filter error, then the output frame */
    float acErrAds[AEC_NBANDS][AEC_NSUB][2]; /* 985  slow-filter error */
    AEC_tStripScRec atStripSc[AEC_NSTRIPREC];/* 1313 per-frame level records, 30 = full band */
    KVAEC_ANON union {                       /* 1716 shared work areas */
        KVAEC_ANON struct {
            float afFbTime[80];              /* 1716 folded block / inverse transform output */
            float afFbWork[200];             /* 1796 transform work area */
            KVAEC_ANON union {               /* 1996 */
                KVAEC_ANON struct {
                    float acStepErr[AEC_NBANDS][AEC_NSUB][2]; /* step-scaled errors */
                    float acRefWhite[52][2]; /* decorrelated reference of one band */
                };
                float afNrgWork[AEC_NSTRIPREC];   /* linear energies before dB conversion */
                float afExpSpreadDb[AEC_NSTRIPS]; /* spread tail predictions */
                AEC_tNrRec atNr[AEC_NSTRIPS];     /* noise-reduction records */
                float afEqWork[208];              /* equalizer work buffer */
                float afWork[AEC_SC_WORK_WORDS];  /* sets the size of the area */
            };
        };
        float afTdWork[AEC_SC_TD_WORDS];     /* tone detector: fold/spectrum, transform work */
    };
    float fExpLevelDb;                       /* 2445 power sum of the spread predictions, dB */
    float fExpEchoSumDb;                     /* 2446 power sum of the echo predictions, dB */
    float fExpSpreadThrDb;                   /* 2447 spreading threshold, dB */
    float fClipStepDb;                       /* 2448 clipping step of the frame, dB */
    int32_t iToneAlarm;                      /* 2449 per-frame tone-alarm decision */
    uint32_t uiGuardHi;                      /* 2450 0x87654321 after a normal frame starts */
    uint32_t uiSpare;                        /* 2451 */
} AEC_tSc;

/* ---- global records ---- */
extern KVAEC_API AEC_tDb AEC_Db;
extern KVAEC_API AEC_tSc AEC_Sc;
extern KVAEC_API float AEC_afRef[AEC_REF_FLOATS];
extern KVAEC_API float AEC_afAdf[AEC_ADF_FLOATS];
extern KVAEC_API float AEC_afAds[AEC_ADF_FLOATS];
extern KVAEC_API int _Test;
extern KVAEC_API int _Frame;

/* ---- strip tables (built by aecx_init_tabs) ---- */
extern KVAEC_API int AEC_aiBandsPerStrip[AEC_NSTRIPS];
extern KVAEC_API float AEC_afInvBandsPerStrip[AEC_NSTRIPS];
extern KVAEC_API int AEC_aiBandOffStrip[AEC_NSTRIPS];
extern KVAEC_API int AEC_aiRefSzStrip[AEC_NSTRIPS];
extern KVAEC_API int AEC_aiRefOffStrip[AEC_NSTRIPS];
extern KVAEC_API int AEC_aiAdfSzStrip[AEC_NSTRIPS];
extern KVAEC_API int AEC_aiAdfOffStrip[AEC_NSTRIPS];
extern KVAEC_API int AEC_aiRefNrgOffStrip[AEC_NSTRIPS];
extern KVAEC_API int AEC_aiBand2Strip[AEC_NBANDS];

#ifdef __cplusplus
}
#endif

#endif /* KVAEC_RECORDS_H */
