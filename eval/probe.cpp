// Looks inside libkvaec on an evaluation scenario, to explain its figures.
//
//   kvaec_eval_probe FAR.f32 MIC.f32 [MODE [STRIP]]
//
// Runs the library open-loop on a far-end signal and a microphone signal
// (e.g. a scenario's far.f32 and the pass-through run's mic.f32, whose echo
// was made from the unprocessed far end) with the given mode word, and prints
// per 2 s: microphone, send, far-end and played levels (dBFS), the number of
// frames flagged as double talk, then for one strip (STRIP, default 30 = the
// full-band record) the mean receive and send gains of the residual
// suppression (linear, 1 = no loss) and the library's own levels (dB on its
// internal scale): send, slow-filter error, expected echo over the filter
// span and including the tail, error floor, smoothed ERLE and ERL.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "kvaec.h"
#include "kvaec_records.h"

namespace {
std::vector<float> readF32(const char *path) {
    std::vector<float> v;
    FILE *f = std::fopen(path, "rb");
    if (!f) {
        std::fprintf(stderr, "cannot read %s\n", path);
        std::exit(2);
    }
    float buf[4096];
    size_t n;
    while ((n = std::fread(buf, sizeof(float), 4096, f)) > 0) v.insert(v.end(), buf, buf + n);
    std::fclose(f);
    return v;
}
double dbfs(double sum, double n) { return 10.0 * std::log10(sum / n + 1e-30); }
}  // namespace

int main(int argc, char **argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s FAR.f32 MIC.f32 [MODE]\n", argv[0]);
        return 2;
    }
    const auto far = readF32(argv[1]);
    const auto mic = readF32(argv[2]);
    const unsigned mode = argc > 3 ? static_cast<unsigned>(std::strtoul(argv[3], nullptr, 0)) : 0u;
    const int strip = argc > 4 ? std::atoi(argv[4]) : AEC_NSTRIPS;
    if (strip < 0 || strip > AEC_NSTRIPS) {
        std::fprintf(stderr, "strip must be 0..%d\n", AEC_NSTRIPS);
        return 2;
    }
    aecx_init(nullptr);
    if (mode != 0) aecx_control(mode, nullptr, 0.0f);
    const size_t n = std::min(far.size(), mic.size()) / 160 * 160;
    const size_t block = 200;  // frames per printed line (2 s)
    double pMic = 0, pSnd = 0, pFar = 0, pPly = 0, gR = 0, gS = 0, lSin = 0, lErr = 0, lExp = 0, lTail = 0, lFloor = 0, lErle = 0, lErl = 0;
    int dt = 0;
    size_t cnt = 0;
    std::printf("mode 0x%x, strip %d\n   t/s  mic  send   far played  DTframes |  rxGain  txGain  sinDb  errDb expEcho expTail  floor   erle    erl\n",
                mode, strip);
    for (size_t k = 0; k < n; k += 160) {
        float r[160], s[160];
        for (int i = 0; i < 160; ++i) {
            r[i] = far[k + i];
            s[i] = mic[k + i];
            pFar += static_cast<double>(r[i]) * r[i];
            pMic += static_cast<double>(s[i]) * s[i];
        }
        aecx_process(r, s);
        for (int i = 0; i < 160; ++i) {
            pSnd += static_cast<double>(s[i]) * s[i];
            pPly += static_cast<double>(r[i]) * r[i];
        }
        dt += AEC_Db.iDoubleTalk;
        gR += AEC_Sc.atStripSc[strip].fRinAttDb;
        gS += AEC_Sc.atStripSc[strip].fSinAttDb;
        lSin += AEC_Sc.atStripSc[strip].fSinDb;
        lErr += AEC_Sc.atStripSc[strip].fErrAdsDb;
        lExp += AEC_Sc.atStripSc[strip].fExpEchoDb;
        lTail += AEC_Sc.atStripSc[strip].fExpTailDb;
        lFloor += AEC_Db.atStrip[strip].fErrFloorDb;
        lErle += AEC_Db.atStrip[strip].fErleAvgDb;
        lErl += AEC_Db.atStrip[strip].fErlDb;
        if (++cnt == block) {
            const double ns = static_cast<double>(block * 160);
            const double b = static_cast<double>(block);
            std::printf("%6.1f %5.0f %5.0f %5.0f %5.0f %9d | %7.3f %7.3f %6.1f %6.1f %7.1f %7.1f %6.1f %6.1f %6.1f\n",
                        static_cast<double>(k + 160) / 16000.0, dbfs(pMic, ns), dbfs(pSnd, ns), dbfs(pFar, ns),
                        dbfs(pPly, ns), dt, gR / b, gS / b, lSin / b, lErr / b, lExp / b, lTail / b, lFloor / b,
                        lErle / b, lErl / b);
            pMic = pSnd = pFar = pPly = gR = gS = lSin = lErr = lExp = lTail = lFloor = lErle = lErl = 0;
            dt = 0;
            cnt = 0;
        }
    }
    return 0;
}
