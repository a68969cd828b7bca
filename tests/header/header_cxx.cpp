// Both public headers compile as C++ with -pedantic -Werror.
#include "kvaec.h"
#include "kvaec_records.h"

extern "C" int kvaec_header_cxx_probe(void);
extern "C" int kvaec_header_cxx_probe(void) {
    AEC_tCfg cfg = AEC_DefaultCfg;
    aecx_init(&cfg);
    return aecx_bist() + static_cast<int>(sizeof(AEC_tSc) / 4) - AEC_SC_WORDS +
           static_cast<int>(AEC_Sc.uiGuardLo);
}
