/* Both public headers compile as strict C99 with -pedantic -Werror. */
#include "kvaec.h"
#include "kvaec_records.h"

int kvaec_header_c99_probe(void);
int kvaec_header_c99_probe(void) {
    AEC_tCfg cfg = AEC_DefaultCfg;
    cfg.iProfile = 1;
    aecx_init(&cfg);
    aecx_control(KVAEC_CMD_RESET | KVAEC_MODE_BYPASS, 0, 0.0f);
    return aecx_bist() + (int)(sizeof(AEC_tSc) / 4) - AEC_SC_WORDS + (int)AEC_Db.uiFlags - (int)KVAEC_MODE_BYPASS;
}
