// Tests of the kvaec tool's building blocks: FFT and delay estimate, room
// model, file input/output and the health watch.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <random>
#include <sndfile.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "audio_io.h"
#include "common.h"
#include "delay.h"
#include "health.h"
#include "kvaec.h"
#include "kvaec_host.h"
#include "kvaec_records.h"
#include "rir.h"

using namespace kvaec::tool;

namespace {

std::vector<float> noise(unsigned seed, size_t n, float amp = 0.1f) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> g(0.0f, 1.0f);
    std::vector<float> x(n);
    for (float &v : x) v = amp * g(rng);
    return x;
}

std::string tempDir() {
    char t[] = "/tmp/kvaec-tooltest-XXXXXX";
    EXPECT_NE(::mkdtemp(t), nullptr);
    return t;
}

std::vector<std::string> listDir(const std::string &d) {
    std::vector<std::string> v;
    DIR *dir = ::opendir(d.c_str());
    if (!dir) return v;
    while (dirent *e = ::readdir(dir)) {
        const std::string n = e->d_name;
        if (n != "." && n != "..") v.push_back(n);
    }
    ::closedir(dir);
    return v;
}

void removeTree(const std::string &d) {
    for (const std::string &n : listDir(d)) ::unlink((d + "/" + n).c_str());
    ::rmdir(d.c_str());
}

}  // namespace

TEST(Fft, MatchesDirectTransform) {
    const size_t n = 64;
    const std::vector<float> x = noise(1, 2 * n, 1.0f);
    std::vector<std::complex<double>> a(n);
    for (size_t i = 0; i < n; ++i) a[i] = {x[2 * i], x[2 * i + 1]};
    std::vector<std::complex<double>> b = a;
    ASSERT_TRUE(fft(b, false));
    for (size_t k = 0; k < n; ++k) {
        std::complex<double> s = 0;
        for (size_t i = 0; i < n; ++i) s += a[i] * std::polar(1.0, -2.0 * M_PI * static_cast<double>(i * k) / n);
        // Double precision over 64 terms of magnitude ~1: errors far below 1e-9.
        EXPECT_NEAR(b[k].real(), s.real(), 1e-9);
        EXPECT_NEAR(b[k].imag(), s.imag(), 1e-9);
    }
}

TEST(Fft, InverseRestoresInput) {
    const std::vector<float> x = noise(2, 1024, 1.0f);
    std::vector<std::complex<double>> a(x.begin(), x.end()), b = a;
    ASSERT_TRUE(fft(b, false));
    ASSERT_TRUE(fft(b, true));
    for (size_t i = 0; i < a.size(); ++i) EXPECT_NEAR(b[i].real(), a[i].real(), 1e-12);
}

TEST(Fft, RejectsLengthThatIsNotAPowerOfTwo) {
    std::vector<std::complex<double>> a(48);
    EXPECT_FALSE(fft(a, false));
}

TEST(DelayEstimate, FindsBulkDelayOfReverberantEcho) {
    const std::vector<float> far = noise(3, 16000 * 4);
    // Echo: direct path 700 samples late, two weaker reflections later.
    std::vector<float> mic(far.size(), 0.0f);
    const std::vector<float> n = noise(4, far.size(), 0.005f);
    for (size_t i = 0; i < far.size(); ++i) {
        float v = n[i];
        if (i >= 700) v += 0.5f * far[i - 700];
        if (i >= 760) v += 0.3f * far[i - 760];
        if (i >= 1100) v += -0.2f * far[i - 1100];
        mic[i] = v;
    }
    const DelayEstimate e = estimateDelay(far, mic, 16000, 8000, 3.0);
    ASSERT_TRUE(e.found);
    EXPECT_EQ(e.delay, 700);
    EXPECT_GT(e.peakToMean, 20.0);
}

TEST(DelayEstimate, FindsInvertedEchoAndStartsAtFarEndActivity) {
    std::vector<float> far(16000 * 5, 0.0f);
    const std::vector<float> act = noise(5, 16000 * 3);
    for (size_t i = 0; i < act.size(); ++i) far[16000 * 2 + i] = act[i];  // silent for 2 s
    std::vector<float> mic(far.size(), 0.0f);
    for (size_t i = 333; i < far.size(); ++i) mic[i] = -0.7f * far[i - 333];
    const DelayEstimate e = estimateDelay(far, mic, 16000, 8000, 2.0);
    ASSERT_TRUE(e.found);
    EXPECT_EQ(e.delay, 333);
    EXPECT_DOUBLE_EQ(e.startSec, 2.0);
}

TEST(DelayEstimate, ReportsNothingForSilentFarEnd) {
    const std::vector<float> far(16000, 0.0f), mic = noise(6, 16000);
    EXPECT_FALSE(estimateDelay(far, mic, 16000, 8000, 2.0).found);
}

namespace {

// Far end of noise and its echo 301 samples (18.8 ms) later at half the level.
void echoPair(std::vector<float> &far, std::vector<float> &mic, size_t n = 16000 * 4) {
    far = noise(21, n);
    mic.assign(n, 0.0f);
    const std::vector<float> nn = noise(22, n, 0.002f);
    for (size_t i = 0; i < n; ++i) mic[i] = nn[i] + (i >= 301 ? 0.5f * far[i - 301] : 0.0f);
}

}  // namespace

TEST(DelayEstimate, IgnoresNonFiniteSamples) {
    std::vector<float> far, mic;
    echoPair(far, mic);
    far[5000] = NAN;
    far[9000] = INFINITY;
    mic[12000] = -INFINITY;
    mic[30000] = NAN;
    const DelayEstimate e = estimateDelay(far, mic, 16000, 8000, 3.0);
    ASSERT_TRUE(e.found);
    EXPECT_EQ(e.delay, 301);
    EXPECT_EQ(e.farExcluded, 2);
    EXPECT_EQ(e.micExcluded, 2);
    EXPECT_DOUBLE_EQ(e.startSec, 0.0);
}

TEST(DelayEstimate, IsNotCapturedByAShortBurstOfHugeValues) {
    std::vector<float> far, mic;
    echoPair(far, mic);
    // 10 ms of 1e30 in the far end at 1 s, 10 ms of 1e30 in the microphone at
    // 1.5 s: a burst that set the activity threshold or dominated the
    // correlation would give 8000 samples, or start the analysis at 1 s.
    for (int i = 0; i < 160; ++i) {
        far[16000 + i] = (i & 1) ? 1e30f : -1e30f;
        mic[24000 + i] = 1e30f;
    }
    DelayEstimate e = estimateDelay(far, mic, 16000, 8000, 3.0);
    ASSERT_TRUE(e.found);
    EXPECT_EQ(e.delay, 301);
    EXPECT_DOUBLE_EQ(e.startSec, 0.0);
    EXPECT_EQ(e.farExcluded, 1);
    EXPECT_EQ(e.micExcluded, 1);
    // A burst of plausible-looking but 40 dB too loud samples is left out as well.
    echoPair(far, mic);
    for (int i = 0; i < 320; ++i) far[32000 + i] = 10.0f * ((i & 1) ? 1.0f : -1.0f);
    e = estimateDelay(far, mic, 16000, 8000, 3.0);
    EXPECT_EQ(e.delay, 301);
    EXPECT_EQ(e.farExcluded, 2);
}

TEST(DelayEstimate, AllBadFarEndGivesNoEstimate) {
    std::vector<float> far(16000, NAN), mic = noise(6, 16000);
    const DelayEstimate e = estimateDelay(far, mic, 16000, 8000, 2.0);
    EXPECT_FALSE(e.found);
    EXPECT_EQ(e.farExcluded, 100);
}

TEST(HostLibrary, CInterfaceMatchesTheToolsEstimate) {
    std::vector<float> far, mic;
    echoPair(far, mic);
    far[100] = NAN;
    kvaec_delay_result r{};
    ASSERT_EQ(kvaec_host_estimate_delay(far.data(), static_cast<int64_t>(far.size()), mic.data(),
                                        static_cast<int64_t>(mic.size()), 16000, 8000, 3.0, &r),
              0);
    const DelayEstimate e = estimateDelay(far, mic, 16000, 8000, 3.0);
    EXPECT_EQ(r.found, 1);
    EXPECT_EQ(r.delay, e.delay);
    EXPECT_EQ(r.delay, 301);
    EXPECT_DOUBLE_EQ(r.peak_to_mean, e.peakToMean);
    EXPECT_EQ(r.far_excluded_frames, 1);
    EXPECT_EQ(r.mic_excluded_frames, 0);
}

TEST(HostLibrary, BadArgumentsAreRefused) {
    std::vector<float> x(1600, 0.1f);
    kvaec_delay_result r{};
    const int64_t n = static_cast<int64_t>(x.size());
    EXPECT_EQ(kvaec_host_estimate_delay(x.data(), n, x.data(), n, 16000, 800, 1.0, nullptr), -1);
    EXPECT_EQ(kvaec_host_estimate_delay(nullptr, n, x.data(), n, 16000, 800, 1.0, &r), -1);
    EXPECT_EQ(kvaec_host_estimate_delay(x.data(), -1, x.data(), n, 16000, 800, 1.0, &r), -1);
    EXPECT_EQ(kvaec_host_estimate_delay(x.data(), n, x.data(), n, 0, 800, 1.0, &r), -1);
    EXPECT_EQ(kvaec_host_estimate_delay(x.data(), n, x.data(), n, 16000, -1, 1.0, &r), -1);
    EXPECT_EQ(kvaec_host_estimate_delay(x.data(), n, x.data(), n, 16000, 800, NAN, &r), -1);
    EXPECT_EQ(kvaec_host_estimate_delay(x.data(), n, x.data(), n, 16000, 800, 0.0, &r), -1);
    EXPECT_EQ(kvaec_host_estimate_delay(nullptr, 0, nullptr, 0, 16000, 800, 1.0, &r), 0);
    EXPECT_EQ(r.found, 0);
    EXPECT_EQ(kvaec_host_usable_frames(x.data(), n, 16000, nullptr), -1);
    EXPECT_EQ(kvaec_host_count_finite(nullptr, 5), 0);
}

TEST(HostLibrary, UsableFramesMarksNonFiniteAndBurstFrames) {
    std::vector<float> x = noise(30, 16000 + 80);  // 100 whole frames and a partial one
    x[161] = NAN;            // frame 1
    x[50 * 160] = 1e30f;     // frame 50
    for (int i = 0; i < 160; ++i) x[70 * 160 + i] = 5.0f;  // frame 70: 34 dB above the rest
    x[16000 + 10] = NAN;     // partial frame: not marked
    std::vector<uint8_t> u(100, 7);
    EXPECT_EQ(kvaec_host_usable_frames(x.data(), static_cast<int64_t>(x.size()), 16000, u.data()), 97);
    for (int k = 0; k < 100; ++k) EXPECT_EQ(u[static_cast<size_t>(k)], (k == 1 || k == 50 || k == 70) ? 0 : 1) << k;
    EXPECT_EQ(kvaec_host_count_finite(x.data(), static_cast<int64_t>(x.size())), 16078);
}

TEST(RoomModel, ReflectionCoefficientFollowsSabine) {
    Room r;
    r.size = {4.0, 5.0, 2.5};
    r.rt60 = 0.5;
    // V = 50, S = 2 (20 + 10 + 12.5) = 85, alpha = 0.161 * 50 / (85 * 0.5).
    const double alpha = 0.161 * 50.0 / 42.5;
    EXPECT_NEAR(reflectionCoefficient(r), std::sqrt(1.0 - alpha), 1e-12);
}

TEST(RoomModel, DirectPathArrivesAtDistanceOverSoundSpeed) {
    Room r;
    r.size = {6.0, 6.0, 3.0};
    r.rt60 = 0.05;  // nearly absorbing walls: the direct path dominates
    r.mic = {3.0, 3.0, 1.5};
    r.spk = {3.0, 3.0 + 0.686, 1.5};  // 0.686 m = 32 samples at 16 kHz
    const std::vector<float> h = imageMethodRir(r, 16000, 800);
    size_t peak = 0;
    for (size_t i = 1; i < h.size(); ++i)
        if (std::fabs(h[i]) > std::fabs(h[peak])) peak = i;
    EXPECT_EQ(peak, 32u);
    // Amplitude 1 / (4 pi d) at an integer delay: the sinc tap is exactly 1.
    EXPECT_NEAR(h[32], 1.0 / (4.0 * M_PI * 0.686), 0.02 / (4.0 * M_PI * 0.686));
}

TEST(RoomModel, LongerReverberationGivesMoreLateEnergy) {
    Room a, b;
    a.rt60 = 0.2;
    b.rt60 = 0.6;
    const std::vector<float> ha = imageMethodRir(a, 16000, 6000), hb = imageMethodRir(b, 16000, 6000);
    auto late = [](const std::vector<float> &h) {
        double e = 0;
        for (size_t i = 1600; i < h.size(); ++i) e += static_cast<double>(h[i]) * h[i];
        return e;
    };
    EXPECT_GT(late(hb), 10.0 * late(ha));
}

TEST(RoomModel, RejectsPositionOutsideRoom) {
    Room r;
    r.mic = {9.0, 1.0, 1.0};
    EXPECT_THROW(imageMethodRir(r, 16000, 100), std::invalid_argument);
}

TEST(RoomModel, ScaleToErlSetsEnergy) {
    std::vector<float> h = noise(7, 500);
    scaleToErl(h, 12.0);
    double e = 0;
    for (float v : h) e += static_cast<double>(v) * v;
    // Single-precision storage of 500 taps: relative error well below 1e-5.
    EXPECT_NEAR(10.0 * std::log10(e), -12.0, 1e-4);
}

TEST(RoomModel, ParsesThreeNumbers) {
    Vec3 v{};
    EXPECT_TRUE(parseVec3("4x5x2.7", v));
    EXPECT_DOUBLE_EQ(v[2], 2.7);
    EXPECT_TRUE(parseVec3("1,2.5,3", v));
    EXPECT_DOUBLE_EQ(v[1], 2.5);
    EXPECT_FALSE(parseVec3("1,2", v));
    EXPECT_FALSE(parseVec3("1,2,3,4", v));
    EXPECT_FALSE(parseVec3("a,b,c", v));
}

TEST(AudioFiles, OutputAppearsOnlyOnCommit) {
    const std::string d = tempDir();
    {
        OutputSet o;
        const int i = o.add(d + "/a.wav");
        o.writeWav(i, std::vector<float>(100, 0.25f), 16000);
        EXPECT_EQ(::access((d + "/a.wav").c_str(), F_OK), -1);
        EXPECT_EQ(listDir(d).size(), 1u);  // only the temporary file
    }
    EXPECT_TRUE(listDir(d).empty());  // not committed: removed
    {
        OutputSet o;
        const int i = o.add(d + "/a.wav");
        o.writeWav(i, std::vector<float>(100, 0.25f), 16000);
        o.commit();
    }
    EXPECT_EQ(listDir(d), std::vector<std::string>{"a.wav"});
    const Audio a = readAudio(d + "/a.wav");
    EXPECT_EQ(a.rate, 16000);
    ASSERT_EQ(a.frames(), 100);
    EXPECT_EQ(a.samples[50], 0.25f);  // float WAV keeps the value exactly
    removeTree(d);
}

TEST(AudioFiles, OutputUnderARegularFileFailsAtOnce) {
    char t[] = "/tmp/kvaec-outtest-XXXXXX";
    ASSERT_NE(::mkdtemp(t), nullptr);
    const std::string d = t, file = d + "/plain";
    std::FILE *f = std::fopen(file.c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fclose(f);
    OutputSet o;
    EXPECT_THROW(o.add(file + "/sub/x.wav"), ToolError);
    std::system(("rm -rf '" + d + "'").c_str());
}

TEST(AudioFiles, MissingDirectoriesAreCreatedAndRemovedAgainWithoutCommit) {
    char t[] = "/tmp/kvaec-outtest-XXXXXX";
    ASSERT_NE(::mkdtemp(t), nullptr);
    const std::string d = t;
    struct stat st {};
    {
        OutputSet o;
        o.add(d + "/a/b/x.wav");
        EXPECT_EQ(::stat((d + "/a/b").c_str(), &st), 0);
    }
    EXPECT_NE(::stat((d + "/a").c_str(), &st), 0);  // not committed: nothing left
    {
        OutputSet o;
        const int i = o.add(d + "/a/b/x.wav");
        o.writeText(i, "x");
        o.commit();
    }
    EXPECT_EQ(::stat((d + "/a/b/x.wav").c_str(), &st), 0);
    std::system(("rm -rf '" + d + "'").c_str());
}

TEST(AudioFiles, MissingAndNonAudioFilesGiveClearErrors) {
    const std::string d = tempDir();
    try {
        readAudio(d + "/none.wav");
        ADD_FAILURE() << "no error";
    } catch (const ToolError &e) {
        EXPECT_NE(std::string(e.what()).find("No such file"), std::string::npos) << e.what();
    }
    FILE *f = std::fopen((d + "/text.wav").c_str(), "w");
    std::fputs("this is not audio\n", f);
    std::fclose(f);
    try {
        readAudio(d + "/text.wav");
        ADD_FAILURE() << "no error";
    } catch (const ToolError &e) {
        EXPECT_NE(std::string(e.what()).find("not a readable audio file"), std::string::npos) << e.what();
    }
    EXPECT_THROW(readAudio(d), ToolError);  // a directory
    removeTree(d);
}

TEST(AudioFiles, MultiChannelNeedsAChannelChoice) {
    Audio a;
    a.rate = 16000;
    a.channels = 2;
    a.samples = {1, 2, 3, 4, 5, 6};
    EXPECT_THROW(pickChannel(a, 0, "x"), ToolError);
    EXPECT_THROW(pickChannel(a, 3, "x"), ToolError);
    EXPECT_EQ(pickChannel(a, 2, "x"), (std::vector<float>{2, 4, 6}));
}

TEST(AudioFiles, ResamplingKeepsDurationAndFrequency) {
    std::vector<float> x(48000);
    for (size_t i = 0; i < x.size(); ++i) x[i] = static_cast<float>(0.5 * std::sin(2 * M_PI * 1000.0 * i / 48000.0));
    const std::vector<float> y = resample(x, 48000, 16000);
    EXPECT_NEAR(static_cast<double>(y.size()), 16000.0, 2.0);
    // Correlation with a 1 kHz sine at 16 kHz in the settled middle: the
    // converter's passband ripple and delay allow a few per cent.
    double c = 0, s = 0;
    for (size_t i = 4000; i < 12000; ++i) {
        c += y[i] * std::cos(2 * M_PI * 1000.0 * i / 16000.0);
        s += y[i] * std::sin(2 * M_PI * 1000.0 * i / 16000.0);
    }
    EXPECT_NEAR(2.0 * std::hypot(c, s) / 8000.0, 0.5, 0.01);
}

TEST(AudioFiles, InputCheckCountsClippingAndNonFinite) {
    std::vector<float> x(16000, 0.1f);
    x[8000] = 1.0f;
    x[8001] = -0.9995f;
    x[9000] = std::nanf("");
    const InputCheck c = checkInput(x, 16000);
    EXPECT_EQ(c.clipped, 2);
    EXPECT_DOUBLE_EQ(c.firstClipSec, 0.5);
    EXPECT_EQ(c.nonFinite, 1);
}

TEST(HealthWatch, NonFiniteOutputResetsAndKeepsModeWord) {
    aecx_init(nullptr);
    const unsigned mode = KVAEC_MODE_SEND_ONLY_LOSS | KVAEC_MODE_NO_NR;
    aecx_control(mode, nullptr, 0.0f);
    AEC_Db.fClipDb = 17.0f;  // a state word the reset must clear
    HealthWatch h(mode);
    float rin[160] = {}, sin[160] = {};
    EXPECT_FALSE(h.afterFrame(5, rin, sin));
    sin[3] = std::nanf("");
    rin[7] = INFINITY;
    EXPECT_TRUE(h.afterFrame(6, rin, sin));
    EXPECT_EQ(sin[3], 0.0f);
    EXPECT_EQ(rin[7], 0.0f);
    EXPECT_EQ(AEC_Db.uiFlags, mode);
    EXPECT_EQ(AEC_Db.fClipDb, 0.0f);
    ASSERT_EQ(h.events().size(), 1u);
    EXPECT_EQ(h.events()[0].nonFiniteOut, 2);
    EXPECT_DOUBLE_EQ(h.events()[0].timeSec, 0.06);
}

TEST(HealthWatch, SelfTestRunsOnceASecond) {
    aecx_init(nullptr);
    aecx_control(KVAEC_MODE_FREEZE, nullptr, 0.0f);
    HealthWatch h(KVAEC_MODE_FREEZE, 100);
    float rin[160] = {}, sin[160] = {};
    AEC_afAds[10] = std::nanf("");
    EXPECT_FALSE(h.afterFrame(98, rin, sin));  // frame 99 of the second: no self-test yet
    EXPECT_TRUE(std::isnan(AEC_afAds[10]));
    EXPECT_TRUE(h.afterFrame(99, rin, sin));   // 100th frame: self-test finds it, reset clears it
    EXPECT_EQ(AEC_afAds[10], 0.0f);
    ASSERT_EQ(h.events().size(), 1u);
    EXPECT_EQ(h.events()[0].bistCount, 1);
    EXPECT_EQ(h.events()[0].nonFiniteOut, 0);
    EXPECT_EQ(AEC_Db.uiFlags, static_cast<unsigned>(KVAEC_MODE_FREEZE));
}

TEST(HealthWatch, ResetReloadsTheCheckedSettings) {
    Settings s;
    s.cfg.fNrLevelDb = 0.5f;
    s.cfg.fDtdMarginDb = 3.0f;
    s.mode = KVAEC_MODE_SEND_ONLY_LOSS;
    s.nlpParamSet = true;
    s.nlpParam = 2.5f;
    checkSettings(s);
    startCanceller(s);
    HealthWatch h(s);
    // A fault that damaged the active configuration: a reset alone would keep it.
    AEC_Db.tCfg.fErlInitDb = std::nanf("");
    AEC_Db.tCfg.iProfile = 99;
    float rin[160] = {}, sin[160] = {};
    sin[0] = std::nanf("");
    EXPECT_TRUE(h.afterFrame(0, rin, sin));
    EXPECT_EQ(std::memcmp(&AEC_Db.tCfg, &s.cfg, sizeof s.cfg), 0);
    EXPECT_EQ(AEC_Db.fNlpParam, 2.5f);
    EXPECT_EQ(AEC_Db.uiFlags, s.mode);
    EXPECT_TRUE(h.nearReset(0));
    EXPECT_TRUE(h.nearReset(100));
    EXPECT_FALSE(h.nearReset(101));
}

TEST(Settings, CheckRefusesWithTheLibrarysReason) {
    Settings s;
    s.cfg.fErlInitDb = std::nanf("");
    try {
        checkSettings(s);
        FAIL() << "accepted";
    } catch (const ToolError &e) {
        EXPECT_STREQ(e.what(), "invalid configuration: fErlInitDb: must be a finite number from -40 to 10 (dB)");
    }
    s = Settings{};
    s.nlpParamSet = true;
    s.nlpParam = INFINITY;
    EXPECT_THROW(checkSettings(s), ToolError);
}

TEST(AudioFiles, OutputSetComparesFilesByIdentity) {
    const std::string d = tempDir();
    const std::vector<float> x = noise(1, 160);
    writeWavAtomic(d + "/in.wav", x, 16000);
    ASSERT_EQ(::symlink((d + "/in.wav").c_str(), (d + "/ln.wav").c_str()), 0);
    {
        OutputSet o;
        o.protectInput(d + "/in.wav", "--mic");
        EXPECT_THROW(o.add(d + "/ln.wav", "--out"), ToolError);
        EXPECT_THROW(o.add(d + "/../" + d.substr(d.rfind('/') + 1) + "/in.wav", "--out"), ToolError);
        o.add(d + "/new.wav", "--out");
        EXPECT_THROW(o.add(d + "/./new.wav", "--far-out"), ToolError);  // does not exist yet: by resolved path
        EXPECT_THROW(o.protectInput(d + "/new.wav", "--far"), ToolError);
    }
    EXPECT_TRUE(fileId(d + "/in.wav") == fileId(d + "/ln.wav"));
    EXPECT_FALSE(fileId(d + "/in.wav") == fileId(d + "/other.wav"));
    EXPECT_EQ(listDir(d).size(), 2u);  // in.wav, ln.wav: the reserved output's temporary is gone
    removeTree(d);
}
