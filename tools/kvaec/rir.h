// Room impulse responses from the image-source model of a shoebox room.
#ifndef KVAEC_TOOL_RIR_H
#define KVAEC_TOOL_RIR_H

#include <array>
#include <string>
#include <vector>

namespace kvaec::tool {

using Vec3 = std::array<double, 3>;

struct Room {
    Vec3 size{4.0, 5.0, 2.7};     // width, depth, height, m
    double rt60 = 0.3;            // reverberation time, s (Sabine)
    Vec3 mic{2.0, 2.0, 1.2};      // microphone position, m
    Vec3 spk{2.3, 2.1, 1.2};      // loudspeaker position, m
};

// Speed of sound, m/s.
constexpr double kSoundSpeed = 343.0;

// Wall reflection coefficient (pressure) that gives `rt60` in Sabine's
// formula for the room's volume and surface: beta = sqrt(1 - alpha),
// alpha = 0.161 V / (S RT60), limited to [0, 1].
double reflectionCoefficient(const Room &r);

// Impulse response at `rate` of length `lengthSamples`: every image source
// within reach adds beta^(reflections) / (4 pi d) at delay d / c, placed with
// a Hann-windowed sinc of 32 taps (fractional delays). Throws
// std::invalid_argument when a position lies outside the room or a size is
// not positive.
std::vector<float> imageMethodRir(const Room &r, int rate, int lengthSamples);

// Scales `h` so that white noise through it loses `erlDb` (sum of h^2 =
// 10^(-erlDb/10)).
void scaleToErl(std::vector<float> &h, double erlDb);

// Parses "A,B,C" or "AxBxC" into three numbers; false on any other text.
bool parseVec3(const std::string &s, Vec3 &v);

}  // namespace kvaec::tool

#endif
