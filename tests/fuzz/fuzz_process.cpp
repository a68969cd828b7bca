// libFuzzer target: feeds the frame entry point arbitrary frames interleaved
// with control, equalizer, self-test and init calls (see harness.h for the
// input format and the checks). Built and run by tests/fuzz/run.sh.
#include <cstdio>
#include <cstdlib>

#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (const char *e = kvaec_fuzz::runOne(data, size)) {
        std::fprintf(stderr, "kvaec fuzz check failed: %s\n", e);
        std::abort();
    }
    return 0;
}
