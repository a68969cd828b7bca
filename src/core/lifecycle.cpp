// Lifecycle and control: start values, commands, mode word, self-test.
#include "core.h"

extern int aec_tabs_built;

namespace {

// Start values of the per-strip records that are not zero.
void fillStripRecords(AEC_tDb *db) {
    for (int s = 0; s < AEC_NSTRIPREC; ++s) {
        AEC_tStripRec *r = &db->atStrip[s];
        r->fErlDb = db->tCfg.fErlInitDb;
        r->fErrFloorDb = -33.0f;
        r->fRinFloorDb = -33.0f;
        r->fRefDbPrev2 = -65.0f;
        r->fRefDbPrev1 = -65.0f;
    }
}

// First word after the three store pointers.
uint32_t *dbStateWords(AEC_tDb *db) {
    return reinterpret_cast<uint32_t *>(reinterpret_cast<char *>(db) + kvaec::kDbStateStart);
}

void loadCfg(AEC_tDb *db, const AEC_tCfg *cfg) {
    const AEC_tCfg *src = cfg ? cfg : &AEC_DefaultCfg;
    aec_cpy(reinterpret_cast<uint32_t *>(&db->tCfg), reinterpret_cast<const uint32_t *>(src), 8);
}

}  // namespace

void aecx_init(const AEC_tCfg *cfg) {
    if (!aec_tabs_built) aecx_init_tabs();
    AEC_tDb *db = &AEC_Db;
    aec_memclr(db, sizeof(AEC_tDb) / 4);
    db->pafRef = AEC_afRef;
    db->pafAdf = AEC_afAdf;
    db->pafAds = AEC_afAds;
    aec_memclr(db->pafRef, AEC_REF_FLOATS);
    aec_memclr(db->pafAdf, AEC_ADF_FLOATS);
    aec_memclr(db->pafAds, AEC_ADF_FLOATS);
    loadCfg(db, cfg);
    fillStripRecords(db);
    db->iErlStrip = 1;
}

void aecx_control(unsigned flags, const AEC_tCfg *cfg, float value) {
    AEC_tDb *db = &AEC_Db;
    if (flags & KVAEC_CMD_LOAD_CFG) loadCfg(db, cfg);
    if (flags & KVAEC_CMD_RESET) {
        aec_memclr(dbStateWords(db), kvaec::kDbResetWords);
        aec_memclr(db->pafRef, AEC_REF_FLOATS);
        if (!(flags & KVAEC_CMD_KEEP_FILTERS)) {
            aec_memclr(db->pafAdf, AEC_ADF_FLOATS);
            aec_memclr(db->pafAds, AEC_ADF_FLOATS);
        }
        fillStripRecords(db);
        db->iErlStrip = 1;
    }
    if (flags & KVAEC_CMD_SET_NLP_PARAM) db->fNlpParam = value;
    db->uiFlags = flags & ~KVAEC_CMD_MASK;
}

int aecx_bist(void) {
    AEC_tDb *db = &AEC_Db;
    unsigned n = aec_isnaninf(dbStateWords(db), static_cast<int>(kvaec::kDbBistWords));
    n += aec_isnaninf(reinterpret_cast<const uint32_t *>(&AEC_Sc), static_cast<int>(kvaec::kScBistWords));
    n += aec_isnaninf(reinterpret_cast<const uint32_t *>(db->pafRef), AEC_REF_FLOATS);
    n += aec_isnaninf(reinterpret_cast<const uint32_t *>(db->pafAdf), AEC_ADF_FLOATS);
    n += aec_isnaninf(reinterpret_cast<const uint32_t *>(db->pafAds), AEC_ADF_FLOATS);
    return static_cast<int>(n);
}
