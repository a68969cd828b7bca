#include "rir.h"

#include <cmath>
#include <cstdlib>
#include <stdexcept>

namespace kvaec::tool {

double reflectionCoefficient(const Room &r) {
    const double V = r.size[0] * r.size[1] * r.size[2];
    const double S = 2.0 * (r.size[0] * r.size[1] + r.size[0] * r.size[2] + r.size[1] * r.size[2]);
    double alpha = 0.161 * V / (S * r.rt60);
    if (alpha > 1.0) alpha = 1.0;
    if (alpha < 0.0) alpha = 0.0;
    return std::sqrt(1.0 - alpha);
}

std::vector<float> imageMethodRir(const Room &r, int rate, int lengthSamples) {
    for (int i = 0; i < 3; ++i) {
        if (!(r.size[static_cast<size_t>(i)] > 0)) throw std::invalid_argument("room sizes must be positive");
        const double L = r.size[static_cast<size_t>(i)];
        if (!(r.mic[static_cast<size_t>(i)] >= 0 && r.mic[static_cast<size_t>(i)] <= L))
            throw std::invalid_argument("the microphone position lies outside the room");
        if (!(r.spk[static_cast<size_t>(i)] >= 0 && r.spk[static_cast<size_t>(i)] <= L))
            throw std::invalid_argument("the loudspeaker position lies outside the room");
    }
    if (!(r.rt60 > 0)) throw std::invalid_argument("the reverberation time must be positive");
    const double beta = reflectionCoefficient(r);
    std::vector<double> h(static_cast<size_t>(lengthSamples), 0.0);
    const double maxDist = kSoundSpeed * lengthSamples / rate;
    constexpr int kHalf = 16;  // sinc half-length in samples
    // Image index ranges per axis: images up to maxDist away.
    int nmax[3];
    for (int a = 0; a < 3; ++a) nmax[a] = static_cast<int>(std::ceil(maxDist / (2.0 * r.size[static_cast<size_t>(a)]))) + 1;
    for (int nx = -nmax[0]; nx <= nmax[0]; ++nx)
        for (int ny = -nmax[1]; ny <= nmax[1]; ++ny)
            for (int nz = -nmax[2]; nz <= nmax[2]; ++nz)
                for (int p = 0; p < 8; ++p) {
                    // p selects the mirrored (q = 1) or direct (q = 0) source per axis.
                    const int q[3] = {p & 1, (p >> 1) & 1, (p >> 2) & 1};
                    const int n[3] = {nx, ny, nz};
                    double d2 = 0;
                    int reflections = 0;
                    for (int a = 0; a < 3; ++a) {
                        const size_t ai = static_cast<size_t>(a);
                        const double img = (1 - 2 * q[a]) * r.spk[ai] + 2.0 * n[a] * r.size[ai];
                        const double diff = img - r.mic[ai];
                        d2 += diff * diff;
                        reflections += std::abs(n[a] - q[a]) + std::abs(n[a]);
                    }
                    const double d = std::sqrt(d2);
                    if (d > maxDist) continue;
                    const double gain = std::pow(beta, reflections) / (4.0 * M_PI * std::max(d, 0.01));
                    const double t = d / kSoundSpeed * rate;
                    const long c = static_cast<long>(std::floor(t));
                    for (long k = c - kHalf + 1; k <= c + kHalf; ++k) {
                        if (k < 0 || k >= lengthSamples) continue;
                        const double x = static_cast<double>(k) - t;
                        const double sinc = std::fabs(x) < 1e-12 ? 1.0 : std::sin(M_PI * x) / (M_PI * x);
                        const double win = 0.5 * (1.0 + std::cos(M_PI * x / kHalf));
                        h[static_cast<size_t>(k)] += gain * sinc * win;
                    }
                }
    std::vector<float> out(h.size());
    for (size_t i = 0; i < h.size(); ++i) out[i] = static_cast<float>(h[i]);
    return out;
}

void scaleToErl(std::vector<float> &h, double erlDb) {
    double e = 0;
    for (float v : h) e += static_cast<double>(v) * v;
    if (e <= 0) return;
    const double g = std::pow(10.0, -erlDb / 20.0) / std::sqrt(e);
    for (float &v : h) v = static_cast<float>(v * g);
}

bool parseVec3(const std::string &s, Vec3 &v) {
    const char *p = s.c_str();
    for (int i = 0; i < 3; ++i) {
        char *end = nullptr;
        const double x = std::strtod(p, &end);
        if (end == p || !std::isfinite(x)) return false;
        v[static_cast<size_t>(i)] = x;
        p = end;
        if (i < 2) {
            if (*p != ',' && *p != 'x' && *p != 'X') return false;
            ++p;
        }
    }
    return *p == '\0';
}

}  // namespace kvaec::tool
