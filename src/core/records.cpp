// The global records: the one canceller instance and its stores.
#include "core.h"

#include <cstddef>

extern "C" {
AEC_tDb AEC_Db;
AEC_tSc AEC_Sc;
float AEC_afRef[AEC_REF_FLOATS];
float AEC_afAdf[AEC_ADF_FLOATS];
float AEC_afAds[AEC_ADF_FLOATS];
int _Test;
int _Frame;

const AEC_tCfg AEC_DefaultCfg = {-10.0f, 45.0f, 30.0f, 4.5f, -95.0f, 0.0f, 100.0f, 0};
const AEC_tCfg kvaec_full_duplex_cfg = {-10.0f, 60.0f, 20.0f, 3.0f, -95.0f, 0.0f, 100.0f, 0};
}

// Layout checks. Everything after the three store pointers is 32-bit words,
// so the word offsets hold on every target once the pointer block is removed.
namespace {
constexpr std::size_t kPtrBytes = 3 * sizeof(float *);
constexpr std::size_t dbWord(std::size_t off) { return 3 + (off - kPtrBytes) / 4; }

static_assert(sizeof(AEC_tCfg) == 8 * 4, "configuration is eight words");
static_assert(sizeof(AEC_tStripRec) == 12 * 4, "strip record is 12 words");
static_assert(sizeof(AEC_tStripScRec) == 13 * 4, "strip scratch record is 13 words");
static_assert(sizeof(AEC_tRefCorrRec) == 20 * 4, "correlation record is 20 words");
static_assert(sizeof(AEC_tNrRec) == 5 * 4, "noise-reduction record is 5 words");

static_assert(offsetof(AEC_tDb, afRefPowAdf) == kPtrBytes, "states follow the pointers");
static_assert(dbWord(offsetof(AEC_tDb, atStrip)) == 1525, "atStrip offset");
static_assert(dbWord(offsetof(AEC_tDb, fRinPeakDb)) == 3459, "fRinPeakDb is the last scanned word");
static_assert(dbWord(offsetof(AEC_tDb, uiFlags)) == 3460, "mode word after the scanned block");
static_assert(dbWord(offsetof(AEC_tDb, iErlStrip)) == 3463, "iErlStrip before tCfg");
static_assert(dbWord(offsetof(AEC_tDb, tCfg)) == 3464, "tCfg is last");
static_assert(dbWord(offsetof(AEC_tDb, tCfg)) + 8 == AEC_DB_WORDS, "AEC_tDb totals 3472 words");
static_assert(kvaec::kDbBistWords == 3457, "self-test scans 3457 words of AEC_Db");
static_assert(kvaec::kDbResetWords == 3461, "reset clears 3461 words of AEC_Db");

static_assert(sizeof(AEC_tSc) == AEC_SC_WORDS * 4, "AEC_tSc totals 2452 words");
static_assert(offsetof(AEC_tSc, uiGuardLo) == 0, "low guard at word 0");
static_assert(offsetof(AEC_tSc, uiGuardHi) == AEC_SC_CLEAR_WORDS * 4, "high guard at word 2450");
static_assert(offsetof(AEC_tSc, iToneAlarm) == (AEC_SC_CLEAR_WORDS - 1) * 4,
              "tone-alarm decision is the last scratch word");
static_assert(offsetof(AEC_tSc, fExpLevelDb) == 2445 * 4, "full-band prediction words");
static_assert(offsetof(AEC_tSc, afWork) + sizeof(AEC_Sc.afWork) == offsetof(AEC_tSc, fExpLevelDb),
              "shared area ends at the full-band words");
static_assert(sizeof(AEC_Sc.afWork) >= sizeof(AEC_Sc.acStepErr) + sizeof(AEC_Sc.acRefWhite),
              "adaptation scratch fits the shared area");
static_assert(sizeof(AEC_Sc.afWork) >= sizeof(AEC_Sc.atNr), "noise-reduction records fit");
static_assert(sizeof(AEC_Sc.afWork) >= sizeof(AEC_Sc.afEqWork), "equalizer work fits");
static_assert(sizeof(AEC_Sc.afTdWork) >= (160 + 360) * 4, "tone-detector work fits");
static_assert(offsetof(AEC_tSc, afTdWork) + sizeof(AEC_Sc.afTdWork) == offsetof(AEC_tSc, fExpLevelDb),
              "tone-detector area ends at the full-band words");

#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(AEC_tDb) == AEC_DB_WORDS * 4, "AEC_tDb is 3472 words on a 32-bit target");
#endif
}  // namespace
