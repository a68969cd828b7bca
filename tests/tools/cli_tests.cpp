// Tests of the kvaec program: it is run on files the tests make, and its
// exit code, messages and outputs are checked.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <csignal>
#include <cstdlib>
#include <cstdint>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <random>
#include <sndfile.h>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "kvaec.h"

namespace {

struct ToolRun {
    int code;
    std::string out;  // stdout and stderr together
};

ToolRun kvaec(const std::string &args) {
    const std::string cmd = std::string(KVAEC_TOOL_EXE) + " " + args + " 2>&1";
    FILE *p = ::popen(cmd.c_str(), "r");
    ToolRun r{-1, {}};
    if (!p) return r;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
    const int st = ::pclose(p);
    r.code = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

// Runs a shell command line (stdout and stderr together).
ToolRun run(const std::string &cmdline) {
    FILE *p = ::popen((cmdline + " 2>&1").c_str(), "r");
    ToolRun r{-1, {}};
    if (!p) return r;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
    const int st = ::pclose(p);
    r.code = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

bool has(const ToolRun &r, const std::string &s) { return r.out.find(s) != std::string::npos; }

bool exists(const std::string &p) { return ::access(p.c_str(), F_OK) == 0; }

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

void writeWav(const std::string &path, const std::vector<float> &x, int rate = 16000, int channels = 1,
              int format = SF_FORMAT_WAV | SF_FORMAT_FLOAT) {
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = channels;
    info.format = format;
    SNDFILE *f = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(f, nullptr) << sf_strerror(nullptr);
    sf_writef_float(f, x.data(), static_cast<sf_count_t>(x.size() / static_cast<size_t>(channels)));
    sf_close(f);
}

struct Wav {
    int rate = 0;
    std::vector<float> x;
};

Wav readWav(const std::string &path) {
    SF_INFO info{};
    SNDFILE *f = sf_open(path.c_str(), SFM_READ, &info);
    Wav w;
    if (!f) return w;
    w.rate = info.samplerate;
    w.x.resize(static_cast<size_t>(info.frames * info.channels));
    sf_readf_float(f, w.x.data(), info.frames);
    sf_close(f);
    return w;
}

std::vector<float> noise(unsigned seed, size_t n, float amp = 0.05f) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> g(0.0f, 1.0f);
    std::vector<float> x(n);
    for (float &v : x) v = amp * g(rng);
    return x;
}

// Microphone recording: the far end `delay` samples late at half amplitude,
// plus a little noise.
std::vector<float> echoOf(const std::vector<float> &far, size_t delay, size_t len) {
    std::vector<float> m = noise(99, len, 0.001f);
    for (size_t i = delay; i < len && i - delay < far.size(); ++i) m[i] += 0.5f * far[i - delay];
    return m;
}

// Lag (in [-range, range]) at which b best matches a (b[i] ~ a[i - lag]).
long bestLag(const std::vector<float> &a, const std::vector<float> &b, long range) {
    long best = 0;
    double bv = -1;
    for (long lag = -range; lag <= range; ++lag) {
        double s = 0;
        for (long i = 2000; i < static_cast<long>(std::min(a.size(), b.size())) - 2000; ++i)
            s += static_cast<double>(a[static_cast<size_t>(i - lag)]) * b[static_cast<size_t>(i)];
        if (std::fabs(s) > bv) {
            bv = std::fabs(s);
            best = lag;
        }
    }
    return best;
}

class Tool : public ::testing::Test {
protected:
    void SetUp() override {
        char t[] = "/tmp/kvaec-clitest-XXXXXX";
        ASSERT_NE(::mkdtemp(t), nullptr);
        dir = t;
    }
    void TearDown() override {
        std::system(("rm -rf '" + dir + "'").c_str());
    }
    std::string p(const std::string &name) const { return dir + "/" + name; }
    // A 3 s far end and its echo 50 ms late.
    void makePair(size_t delay = 800, double seconds = 3.0) {
        const size_t n = static_cast<size_t>(seconds * 16000);
        far = noise(1, n);
        writeWav(p("far.wav"), far);
        writeWav(p("mic.wav"), echoOf(far, delay, n));
    }
    std::string dir;
    std::vector<float> far;
};

}  // namespace

TEST_F(Tool, HelpNamesEveryConfigurationFieldAndModeBit) {
    const ToolRun r = kvaec("process --help");
    EXPECT_EQ(r.code, 0);
    for (const char *s : {"fErlInitDb", "fNlpAttMaxDb", "fNlpAttMinDb", "fDtdMarginDb", "fLevelFloorDb", "fNrLevelDb",
                          "fRinLevelRefDb", "iProfile", "0x10", "0x20", "0x40", "0x100", "0x200", "0x400", "0x2000",
                          "always set by 'process'"})
        EXPECT_TRUE(has(r, s)) << s;
}

TEST_F(Tool, ProcessEstimatesBulkDelayAndWritesOutputOfMicrophoneLength) {
    makePair(800);
    const ToolRun r = kvaec("process -q --far " + p("far.wav") + " --mic " + p("mic.wav") + " -o " + p("out.wav"));
    ASSERT_EQ(r.code, 0) << r.out;
    EXPECT_TRUE(has(r, "bulk delay:      50.00 ms (800.0 samples at the start")) << r.out;
    // The echo must reach the canceller KVAEC_ECHO_MIN_DELAY + 32 (2 ms
    // margin) samples after the receive output, which trails the far end by
    // KVAEC_RCV_DELAY_SAMPLES: an echo 800 samples late leaves the far end
    // to be delayed.
    const int farShift = 800 - (KVAEC_ECHO_MIN_DELAY + 32 + KVAEC_RCV_DELAY_SAMPLES);
    ASSERT_GT(farShift, 0);
    EXPECT_TRUE(has(r, "far end delayed " + std::to_string(farShift) + " samples, microphone delayed 0 samples"))
        << r.out;
    EXPECT_TRUE(has(r, "the echo reaches the canceller " + std::to_string(KVAEC_ECHO_MIN_DELAY + 32) +
                           " samples after the receive output"))
        << r.out;
    EXPECT_TRUE(has(r, "real-time factor")) << r.out;
    EXPECT_TRUE(has(r, "ERLE:")) << r.out;
    const Wav o = readWav(p("out.wav"));
    EXPECT_EQ(o.rate, 16000);
    EXPECT_EQ(o.x.size(), 48000u);
    EXPECT_EQ(listDir(dir).size(), 3u);  // no temporary file left
}

TEST_F(Tool, ProcessUsesGivenDelay) {
    makePair(800);
    const ToolRun r = kvaec("process -q --delay 20 --far " + p("far.wav") + " --mic " + p("mic.wav") + " -o " + p("out.wav"));
    ASSERT_EQ(r.code, 0) << r.out;
    EXPECT_TRUE(has(r, "20.00 ms (320 samples, given)")) << r.out;
    EXPECT_TRUE(has(r, "far end delayed 0 samples, microphone delayed " +
                           std::to_string(KVAEC_ECHO_MIN_DELAY + 32 + KVAEC_RCV_DELAY_SAMPLES - 320) + " samples"))
        << r.out;
}

TEST_F(Tool, ProcessDelaysMicrophoneWhenEchoComesSoonerThanTheCancellerNeeds) {
    makePair(0);
    const ToolRun r = kvaec("process -q --delay 0 --far " + p("far.wav") + " --mic " + p("mic.wav") + " -o " + p("out.wav"));
    ASSERT_EQ(r.code, 0) << r.out;
    EXPECT_TRUE(has(r, "far end delayed 0 samples, microphone delayed " +
                           std::to_string(KVAEC_ECHO_MIN_DELAY + 32 + KVAEC_RCV_DELAY_SAMPLES) + " samples"))
        << r.out;
}

TEST_F(Tool, ProcessDelayMarginAddsToTheLeastEchoDelay) {
    makePair(800);
    const ToolRun r = kvaec("process -q --delay-margin 5 --far " + p("far.wav") + " --mic " + p("mic.wav") + " -o " +
                            p("out.wav"));
    ASSERT_EQ(r.code, 0) << r.out;
    EXPECT_TRUE(has(r, "the echo reaches the canceller " + std::to_string(KVAEC_ECHO_MIN_DELAY + 80) +
                           " samples after the receive output"))
        << r.out;
}

TEST_F(Tool, ProcessOutputsLineUpWithTheirRecordings) {
    // In bypass the signals only pass the filter banks and fixed corrections,
    // so each output must match its input at lag 0 after the realignment.
    makePair(800);
    const ToolRun r = kvaec("process -q --bypass --far " + p("far.wav") + " --mic " + p("mic.wav") + " -o " + p("out.wav") +
                        " --far-out " + p("farout.wav"));
    ASSERT_EQ(r.code, 0) << r.out;
    const Wav mic = readWav(p("mic.wav")), out = readWav(p("out.wav")), fo = readWav(p("farout.wav"));
    ASSERT_EQ(out.x.size(), mic.x.size());
    ASSERT_EQ(fo.x.size(), far.size());
    EXPECT_EQ(bestLag(mic.x, out.x, 200), 0);
    EXPECT_EQ(bestLag(far, fo.x, 200), 0);
}

TEST_F(Tool, ProcessResamplesOtherRatesAndSaysSo) {
    const std::vector<float> f48 = noise(3, 48000 * 2);
    writeWav(p("far.wav"), f48, 48000);
    writeWav(p("mic.wav"), echoOf(f48, 2400, f48.size()), 48000);
    const ToolRun r = kvaec("process -q --far " + p("far.wav") + " --mic " + p("mic.wav") + " -o " + p("out.wav"));
    ASSERT_EQ(r.code, 0) << r.out;
    EXPECT_TRUE(has(r, "resampled from 48000 Hz to 16000 Hz")) << r.out;
    EXPECT_TRUE(has(r, "bulk delay:      50.00 ms")) << r.out;
    // The output keeps the microphone file's rate and exact length.
    const Wav o = readWav(p("out.wav"));
    EXPECT_EQ(o.rate, 48000);
    EXPECT_EQ(o.x.size(), f48.size());
}

TEST_F(Tool, ProcessRefusesOtherRateWhenResamplingIsOff) {
    writeWav(p("far.wav"), noise(3, 8000), 8000);
    writeWav(p("mic.wav"), noise(4, 8000), 8000);
    const ToolRun r = kvaec("process --no-resample --far " + p("far.wav") + " --mic " + p("mic.wav") + " -o " + p("out.wav"));
    EXPECT_NE(r.code, 0);
    EXPECT_TRUE(has(r, "8000 Hz")) << r.out;
    EXPECT_TRUE(has(r, "--no-resample")) << r.out;
    EXPECT_FALSE(exists(p("out.wav")));
    EXPECT_EQ(listDir(dir).size(), 2u);
}

TEST_F(Tool, ProcessCleansTheChosenMicrophoneChannelAndPassesTheOthersThrough) {
    makePair(800);
    const std::vector<float> m = readWav(p("mic.wav")).x;
    const std::vector<float> other = noise(5, m.size(), 0.02f);
    std::vector<float> st(2 * m.size());
    for (size_t i = 0; i < m.size(); ++i) {
        st[2 * i] = other[i];
        st[2 * i + 1] = m[i];
    }
    writeWav(p("mic2.wav"), st, 16000, 2);
    const ToolRun r = kvaec("process -q --mic-channel 2 --far " + p("far.wav") + " --mic " + p("mic2.wav") + " -o " +
                            p("out.wav"));
    ASSERT_EQ(r.code, 0) << r.out;
    EXPECT_TRUE(has(r, "50.00 ms")) << r.out;  // channel 2 carries the echo
    EXPECT_TRUE(has(r, "channel 2 is cleaned, the others pass through unchanged")) << r.out;
    SF_INFO info{};
    SNDFILE *f = sf_open(p("out.wav").c_str(), SFM_READ, &info);
    ASSERT_NE(f, nullptr);
    std::vector<float> o(static_cast<size_t>(info.frames * info.channels));
    sf_readf_float(f, o.data(), info.frames);
    sf_close(f);
    ASSERT_EQ(info.channels, 2);
    ASSERT_EQ(info.frames, static_cast<sf_count_t>(m.size()));
    double pin = 0, pout = 0;
    for (size_t i = 0; i < m.size(); ++i) {
        ASSERT_EQ(o[2 * i], other[i]) << i;  // float WAV: passed through bit for bit
        if (i >= 16000) {
            pin += static_cast<double>(m[i]) * m[i];
            pout += static_cast<double>(o[2 * i + 1]) * o[2 * i + 1];
        }
    }
    EXPECT_GT(10.0 * std::log10(pin / pout), 10.0);  // the echo is gone from channel 2
}

TEST_F(Tool, ProcessHandlesAndReportsDifferentLengths) {
    far = noise(1, 32000);
    writeWav(p("far.wav"), far);
    writeWav(p("mic.wav"), echoOf(far, 800, 40000));
    const ToolRun r = kvaec("process -q --far " + p("far.wav") + " --mic " + p("mic.wav") + " -o " + p("out.wav") +
                        " --far-out " + p("fo.wav"));
    ASSERT_EQ(r.code, 0) << r.out;
    EXPECT_TRUE(has(r, "differ in length (far end 2.000 s, microphone 2.500 s)")) << r.out;
    EXPECT_EQ(readWav(p("out.wav")).x.size(), 40000u);
    EXPECT_EQ(readWav(p("fo.wav")).x.size(), 32000u);
}

TEST_F(Tool, ProcessFailsClearlyOnMissingFile) {
    makePair();
    const ToolRun r = kvaec("process --far " + p("nope.wav") + " --mic " + p("mic.wav") + " -o " + p("out.wav"));
    EXPECT_EQ(r.code, 1);
    EXPECT_TRUE(has(r, "kvaec: error: cannot open '" + p("nope.wav") + "': No such file or directory")) << r.out;
    EXPECT_EQ(listDir(dir).size(), 2u);  // no output, no temporary file
}

TEST_F(Tool, ProcessFailsClearlyOnNonAudioFile) {
    makePair();
    std::ofstream(p("notes.wav")) << "hello, this is text\n";
    const ToolRun r = kvaec("process --far " + p("far.wav") + " --mic " + p("notes.wav") + " -o " + p("out.wav"));
    EXPECT_EQ(r.code, 1);
    EXPECT_TRUE(has(r, "is not a readable audio file")) << r.out;
    EXPECT_FALSE(exists(p("out.wav")));
}

TEST_F(Tool, ProcessFailsBeforeWorkWhenOutputIsNotWritable) {
    makePair();
    ToolRun r = kvaec("process --far " + p("far.wav") + " --mic " + p("mic.wav") + " -o " + p("far.wav/dir/out.wav"));
    EXPECT_EQ(r.code, 1);
    EXPECT_TRUE(has(r, "cannot write '" + p("far.wav/dir/out.wav") + "'")) << r.out;
    // One good and one bad output: neither appears.
    r = kvaec("process --far " + p("far.wav") + " --mic " + p("mic.wav") + " -o " + p("out.wav") + " --far-out " + dir);
    EXPECT_EQ(r.code, 1);
    EXPECT_TRUE(has(r, "is a directory")) << r.out;
    EXPECT_FALSE(exists(p("out.wav")));
    EXPECT_EQ(listDir(dir).size(), 2u);
}

TEST_F(Tool, OutputOptionsCreateMissingDirectoriesAndAFailedRunLeavesNone) {
    makePair();
    ToolRun r = kvaec("process -q --far " + p("far.wav") + " --mic " + p("mic.wav") + " -o " + p("new/sub/out.wav"));
    ASSERT_EQ(r.code, 0) << r.out;
    EXPECT_TRUE(exists(p("new/sub/out.wav")));
    r = kvaec("process -q --far " + p("far.wav") + " --mic " + p("mic.wav") + " -o " + p("other/out.wav") +
              " --far-out " + dir);
    EXPECT_EQ(r.code, 1);
    EXPECT_FALSE(exists(p("other"))) << r.out;
    r = kvaec("simulate -q --no-plot --no-espeak --duration 1 -o " + p("runs/first"));
    ASSERT_EQ(r.code, 0) << r.out;
    EXPECT_TRUE(exists(p("runs/first/send.wav")));
}

TEST_F(Tool, FailedRunLeavesExistingOutputUntouched) {
    makePair();
    std::ofstream(p("out.wav")) << "previous result";
    std::ofstream(p("bad.wav")) << "garbage";
    const ToolRun r = kvaec("process --far " + p("bad.wav") + " --mic " + p("mic.wav") + " -o " + p("out.wav"));
    EXPECT_EQ(r.code, 1);
    std::ifstream in(p("out.wav"));
    std::stringstream ss;
    ss << in.rdbuf();
    EXPECT_EQ(ss.str(), "previous result");
}

TEST_F(Tool, ProcessWarnsOnSilentFarEnd) {
    writeWav(p("far.wav"), std::vector<float>(32000, 0.0f));
    writeWav(p("mic.wav"), noise(2, 32000));
    const ToolRun r = kvaec("process -q --far " + p("far.wav") + " --mic " + p("mic.wav") + " -o " + p("out.wav"));
    EXPECT_EQ(r.code, 0) << r.out;
    EXPECT_TRUE(has(r, "warning: the far end is silent")) << r.out;
    EXPECT_TRUE(has(r, "no far-end activity")) << r.out;
    EXPECT_TRUE(exists(p("out.wav")));
}

TEST_F(Tool, ProcessWarnsOnClippingInput) {
    makePair();
    std::vector<float> m = readWav(p("mic.wav")).x;
    for (size_t i = 16000; i < 16010; ++i) m[i] = 1.0f;
    writeWav(p("mic.wav"), m);
    const ToolRun r = kvaec("process -q --far " + p("far.wav") + " --mic " + p("mic.wav") + " -o " + p("out.wav"));
    EXPECT_EQ(r.code, 0) << r.out;
    EXPECT_TRUE(has(r, "warning: microphone input clips: 10 samples at full scale, first at 1.00 s")) << r.out;
}

TEST_F(Tool, ProcessTakesNonFiniteInputSamplesAsSilence) {
    makePair(800);
    std::vector<float> m = readWav(p("mic.wav")).x;
    m[24000] = std::nanf("");  // at 1.5 s
    writeWav(p("mic.wav"), m);
    const ToolRun r = kvaec("process -q --far " + p("far.wav") + " --mic " + p("mic.wav") + " -o " + p("out.wav"));
    ASSERT_EQ(r.code, 0) << r.out;
    EXPECT_TRUE(has(r, "microphone input holds 1 non-finite samples: processed as silence")) << r.out;
    EXPECT_TRUE(has(r, "health: no failures")) << r.out;
    const Wav o = readWav(p("out.wav"));
    ASSERT_EQ(o.x.size(), m.size());
    for (float v : o.x) ASSERT_TRUE(std::isfinite(v));
}

TEST_F(Tool, ProcessRejectsBadDelayText) {
    makePair();
    const ToolRun r = kvaec("process --delay soon --far " + p("far.wav") + " --mic " + p("mic.wav") + " -o " + p("out.wav"));
    EXPECT_EQ(r.code, 1);
    EXPECT_TRUE(has(r, "--delay takes 'auto' or a non-negative number of milliseconds")) << r.out;
}

TEST_F(Tool, MissingRequiredOptionIsAUsageError) {
    const ToolRun r = kvaec("process --far x.wav");
    EXPECT_EQ(r.code, 2);
    EXPECT_TRUE(has(r, "kvaec: error:")) << r.out;
    EXPECT_TRUE(has(r, "--mic")) << r.out;
}

TEST_F(Tool, SimulateWritesEveryOutputAndFigures) {
    const ToolRun r = kvaec("simulate -q --no-plot --duration 4 -o " + p("sim"));
    ASSERT_EQ(r.code, 0) << r.out;
    for (const char *f : {"mic.wav", "send.wav", "played.wav", "echo.wav", "far.wav", "near.wav", "frames.csv"})
        EXPECT_TRUE(exists(p("sim/") + f)) << f;
    EXPECT_EQ(readWav(p("sim/send.wav")).x.size(), 64000u);
    std::ifstream csv(p("sim/frames.csv"));
    std::string line;
    int lines = 0;
    std::getline(csv, line);
    EXPECT_EQ(line.rfind("frame,time_s,far_db,near_db,echo_db,mic_db,out_db,played_db,erle_db,far_active,near_active,"
                         "double_talk,tone_alarm_db,epc_db,adapt_time", 0), 0u);
    while (std::getline(csv, line)) ++lines;
    EXPECT_EQ(lines, 400);
    for (const char *s : {"ERLE over time", "total echo loss:", "double talk:", "health: no failures", "plot:             skipped (--no-plot)"})
        EXPECT_TRUE(has(r, s)) << s << "\n" << r.out;
    EXPECT_EQ(listDir(p("sim")).size(), 7u);
}

TEST_F(Tool, SimulateDefaultEchoTrailsTheOutputEnoughAndShortLatencyWarns) {
    const ToolRun d = kvaec("simulate -q --no-plot --no-espeak --duration 1 -o " + p("sim"));
    ASSERT_EQ(d.code, 0) << d.out;
    EXPECT_TRUE(has(d, "echo delay:")) << d.out;
    EXPECT_FALSE(has(d, "warning")) << d.out;
    const size_t at = d.out.find("echo delay:");
    ASSERT_NE(at, std::string::npos);
    EXPECT_GE(std::atol(d.out.c_str() + at + 11), KVAEC_ECHO_MIN_DELAY) << d.out;
    const ToolRun s = kvaec("simulate -q --no-plot --no-espeak --duration 1 --latency 10 -o " + p("sim10"));
    ASSERT_EQ(s.code, 0) << s.out;
    EXPECT_TRUE(has(s, "warning: the echo reaches the microphone")) << s.out;
    EXPECT_TRUE(has(s, "KVAEC_ECHO_MIN_DELAY")) << s.out;
}

TEST_F(Tool, SimulateWithBuiltinSpeechSaysSo) {
    const ToolRun r = kvaec("simulate -q --no-plot --no-espeak --duration 2 -o " + p("sim"));
    ASSERT_EQ(r.code, 0) << r.out;
    EXPECT_TRUE(has(r, "far end:          built-in speech-like signal")) << r.out;
}

TEST_F(Tool, SimulateEchoIsMadeFromWhatWasPlayed) {
    // Impulse response: one tap of 0.5 at 30 ms; playback latency 20 ms.
    std::vector<float> ir(480, 0.0f);
    ir[479] = 0.5f;
    writeWav(p("ir.wav"), ir);
    const ToolRun r = kvaec("simulate -q --no-plot --no-eq --no-espeak --duration 3 --latency 20 --rir " + p("ir.wav") +
                        " -o " + p("sim"));
    ASSERT_EQ(r.code, 0) << r.out;
    const Wav played = readWav(p("sim/played.wav")), echo = readWav(p("sim/echo.wav")),
              mic = readWav(p("sim/mic.wav")), near = readWav(p("sim/near.wav"));
    ASSERT_EQ(echo.x.size(), played.x.size());
    const size_t lag = 320 + 479;
    double e = 0;
    for (size_t i = 0; i < echo.x.size(); ++i) {
        const float want = i >= lag ? 0.5f * played.x[i - lag] : 0.0f;
        // One product summed in double and rounded to float: exact.
        ASSERT_EQ(echo.x[i], want) << i;
        e += std::fabs(want);
        // Microphone = echo + near-end signal, one float addition.
        ASSERT_EQ(mic.x[i], echo.x[i] + near.x[i]) << i;
    }
    EXPECT_GT(e, 1.0);  // the far end was really played
}

TEST_F(Tool, SimulateNoiseFollowsSnr) {
    writeWav(p("silent.wav"), std::vector<float>(48000, 0.0f));
    const ToolRun r = kvaec("simulate -q --no-plot --no-espeak --duration 3 --near " + p("silent.wav") +
                        " --noise pink --snr 25 -o " + p("sim"));
    ASSERT_EQ(r.code, 0) << r.out;
    const Wav n = readWav(p("sim/near.wav"));
    double s = 0;
    for (float v : n.x) s += static_cast<double>(v) * v;
    // Near-end talker reference -30 dBFS, 25 dB below: -55 dBFS, set exactly
    // on the generated noise (float rounding only).
    EXPECT_NEAR(10.0 * std::log10(s / static_cast<double>(n.x.size())), -55.0, 0.05);
}

TEST_F(Tool, SimulateRejectsPositionOutsideRoom) {
    const ToolRun r = kvaec("simulate -q --no-plot --room 3x3x2.5 --mic-pos 4,1,1 -o " + p("sim"));
    EXPECT_EQ(r.code, 1);
    EXPECT_TRUE(has(r, "microphone position lies outside the room")) << r.out;
    EXPECT_TRUE(listDir(p("sim")).empty());
}

TEST_F(Tool, SimulateResetsOnABurstOfHugeValuesAndGoesOn) {
    std::vector<float> f = noise(5, 48000);
    f[20000] = INFINITY;
    for (int i = 0; i < 160; ++i) f[30000 + static_cast<size_t>(i)] = 1e30f;  // finite, but far beyond full scale
    writeWav(p("far.wav"), f);
    const ToolRun r = kvaec("simulate -q --no-plot --far " + p("far.wav") + " -o " + p("sim"));
    ASSERT_EQ(r.code, 0) << r.out;
    EXPECT_TRUE(has(r, "holds 1 non-finite samples: used as silence")) << r.out;
    EXPECT_TRUE(has(r, "canceller reset and its settings reloaded")) << r.out;
    EXPECT_TRUE(has(r, "frames around a reset left out")) << r.out;
    EXPECT_FALSE(has(r, "nan")) << r.out;
    EXPECT_FALSE(has(r, "inf")) << r.out;
    for (const char *w : {"sim/send.wav", "sim/played.wav", "sim/echo.wav"})
        for (float v : readWav(p(w)).x) ASSERT_TRUE(std::isfinite(v)) << w;
}

// ---- nothing of the user's is lost, every bad input gets one clear line ----

namespace {

std::string slurp(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    std::ostringstream o;
    o << f.rdbuf();
    return o.str();
}

// Runs the tool in the background (arguments split on spaces), returns its pid.
pid_t spawn(const std::string &args) {
    std::vector<std::string> parts;
    std::istringstream in(args);
    for (std::string w; in >> w;) parts.push_back(w);
    const pid_t pid = ::fork();
    if (pid == 0) {
        std::vector<char *> argv;
        argv.push_back(const_cast<char *>(KVAEC_TOOL_EXE));
        for (std::string &w : parts) argv.push_back(w.data());
        argv.push_back(nullptr);
        const int devnull = ::open("/dev/null", O_WRONLY);
        ::dup2(devnull, 1);
        ::dup2(devnull, 2);
        ::execv(KVAEC_TOOL_EXE, argv.data());
        ::_exit(127);
    }
    return pid;
}

// Waits (up to 20 s) until a hidden temporary file appears in `dir`.
bool waitForTemporary(const std::string &dir) {
    for (int i = 0; i < 2000; ++i) {
        for (const std::string &n : listDir(dir))
            if (!n.empty() && n[0] == '.') return true;
        ::usleep(10000);
    }
    return false;
}

}  // namespace

TEST_F(Tool, ProcessNeverWritesOverAnInput) {
    makePair();
    const std::string farBytes = slurp(p("far.wav")), micBytes = slurp(p("mic.wav"));
    ASSERT_EQ(::symlink(p("mic.wav").c_str(), p("link.wav").c_str()), 0);
    ASSERT_EQ(::link(p("far.wav").c_str(), p("hard.wav").c_str()), 0);
    ASSERT_EQ(::mkdir(p("sub").c_str(), 0777), 0);
    const std::string in = " -q --far " + p("far.wav") + " --mic " + p("mic.wav");
    struct Case {
        std::string args, message;
    };
    const Case cases[] = {
        {"-o " + p("mic.wav"), "output '" + p("mic.wav") + "' (--out) is the input '" + p("mic.wav") + "' (--mic)"},
        {"-o " + p("out.wav") + " --far-out " + p("far.wav"), "(--far-out) is the input '" + p("far.wav") + "' (--far)"},
        {"-o " + p("link.wav"), "(--out) is the input '" + p("mic.wav") + "' (--mic)"},
        {"-o " + p("hard.wav"), "(--out) is the input '" + p("far.wav") + "' (--far)"},
        {"-o " + dir + "/./sub/../mic.wav", "is the input"},
    };
    for (const Case &c : cases) {
        const ToolRun r = kvaec("process" + in + " " + c.args);
        EXPECT_EQ(r.code, 1) << c.args;
        EXPECT_TRUE(has(r, c.message)) << r.out;
        EXPECT_TRUE(has(r, "it would be overwritten")) << r.out;
    }
    EXPECT_EQ(slurp(p("far.wav")), farBytes);
    EXPECT_EQ(slurp(p("mic.wav")), micBytes);
    EXPECT_EQ(listDir(dir).size(), 5u);  // far, mic, link, hard, sub: no output, no temporary
}

TEST_F(Tool, TwoOutputsThatAreOneFileAreRefused) {
    makePair();
    ASSERT_EQ(::mkdir(p("o").c_str(), 0777), 0);
    const ToolRun r = kvaec("process -q --far " + p("far.wav") + " --mic " + p("mic.wav") + " -o " + dir +
                            "/./o/../o/out.wav --far-out " + p("o/out.wav"));
    EXPECT_EQ(r.code, 1);
    EXPECT_TRUE(has(r, "are the same file")) << r.out;
    EXPECT_TRUE(listDir(p("o")).empty());
}

TEST_F(Tool, SimulateNeverWritesOverItsInput) {
    ASSERT_EQ(::mkdir(p("sim").c_str(), 0777), 0);
    const std::vector<float> f = noise(3, 48000);
    writeWav(p("sim/far.wav"), f, 48000);
    const std::string before = slurp(p("sim/far.wav"));
    const ToolRun r = kvaec("simulate -q --no-plot -o " + p("sim") + " --far " + p("sim/far.wav"));
    EXPECT_EQ(r.code, 1);
    EXPECT_TRUE(has(r, "output '" + p("sim/far.wav") + "' is the input '" + p("sim/far.wav") + "' (--far)")) << r.out;
    EXPECT_EQ(slurp(p("sim/far.wav")), before);
    EXPECT_EQ(listDir(p("sim")).size(), 1u);
}

TEST_F(Tool, OutputToDevNullIsWrittenIntoTheDevice) {
    makePair();
    struct stat before {};
    ASSERT_EQ(::stat("/dev/null", &before), 0);
    const ToolRun r = kvaec("process -q --far " + p("far.wav") + " --mic " + p("mic.wav") + " -o /dev/null --far-out /dev/null");
    EXPECT_EQ(r.code, 0) << r.out;
    struct stat after {};
    ASSERT_EQ(::stat("/dev/null", &after), 0);
    EXPECT_TRUE(S_ISCHR(after.st_mode));
    EXPECT_EQ(after.st_rdev, before.st_rdev);
    EXPECT_EQ(after.st_ino, before.st_ino);
}

TEST_F(Tool, OutputToAFifoGoesToItsReaderAndTheFifoStays) {
    makePair();
    ASSERT_EQ(::mkfifo(p("out.fifo").c_str(), 0600), 0);
    // With no reader: a clear error at once, no waiting.
    ToolRun r = kvaec("process -q --far " + p("far.wav") + " --mic " + p("mic.wav") + " -o " + p("out.fifo"));
    EXPECT_EQ(r.code, 1);
    EXPECT_TRUE(has(r, "it is a FIFO with no reader")) << r.out;
    // With a reader (cat into a file), the reader gets the whole WAV.
    const std::string reader = "timeout 60 cat " + p("out.fifo") + " > " + p("got.wav") + " &";
    ASSERT_EQ(std::system(("sh -c '" + reader + " sleep 0.3; timeout 60 " + KVAEC_TOOL_EXE + " process -q --far " + p("far.wav") +
                           " --mic " + p("mic.wav") + " -o " + p("out.fifo") + " >/dev/null 2>&1; echo $? > " +
                           p("rc") + "; wait'").c_str()),
              0);
    EXPECT_EQ(slurp(p("rc")), "0\n");
    struct stat st {};
    ASSERT_EQ(::stat(p("out.fifo").c_str(), &st), 0);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
    EXPECT_EQ(readWav(p("got.wav")).x.size(), far.size());
}

TEST_F(Tool, InterruptedRunsLeaveNoTemporaryAndSaySo) {
    // simulate, SIGINT
    const pid_t a = spawn("simulate -q --no-plot --no-espeak --duration 3000 -o " + p("sim"));
    ASSERT_TRUE(waitForTemporary(p("sim")));
    ::kill(a, SIGINT);
    int st = 0;
    ASSERT_EQ(::waitpid(a, &st, 0), a);
    EXPECT_TRUE(WIFSIGNALED(st) && WTERMSIG(st) == SIGINT);
    EXPECT_FALSE(exists(p("sim")));  // made for the run, removed with its temporaries
    // process, SIGTERM (a long recording, so that it is still at work)
    const size_t n = 16000 * 600;
    std::vector<float> f = noise(1, n);
    writeWav(p("far.wav"), f);
    writeWav(p("mic.wav"), echoOf(f, 800, n));
    ASSERT_EQ(::mkdir(p("out").c_str(), 0777), 0);
    const pid_t b = spawn("process -q --far " + p("far.wav") + " --mic " + p("mic.wav") + " -o " + p("out/o.wav") +
                          " --far-out " + p("out/new/f.wav"));
    ASSERT_TRUE(waitForTemporary(p("out")));
    ::kill(b, SIGTERM);
    ASSERT_EQ(::waitpid(b, &st, 0), b);
    EXPECT_TRUE(WIFSIGNALED(st) && WTERMSIG(st) == SIGTERM);
    EXPECT_TRUE(listDir(p("out")).empty());
}

TEST_F(Tool, BadConfigurationIsRefusedBeforeAnyWorkNamingFieldAndRange) {
    makePair();
    const std::string in = "process -q --far " + p("far.wav") + " --mic " + p("mic.wav") + " -o " + p("out.wav");
    struct Case {
        std::string args, message;
    };
    const Case cases[] = {
        {"--fErlInitDb nan", "invalid configuration: fErlInitDb: must be a finite number from -40 to 10 (dB)"},
        {"--fErlInitDb 1e9", "fErlInitDb: must be a finite number from -40 to 10 (dB)"},
        {"--fLevelFloorDb 1e38", "fLevelFloorDb: must be a finite number from -120 to -50 (dB)"},
        {"--fLevelFloorDb 0", "fLevelFloorDb: must be a finite number from -120 to -50 (dB)"},
        {"--fRinLevelRefDb -inf", "fRinLevelRefDb: must be a finite number from -20 to 150 (dB)"},
        {"--fNrLevelDb 2", "fNrLevelDb: must be a finite number from 0 to 1"},
        {"--iProfile 7", "iProfile: must be an integer from 0 to 6"},
        {"--fNlpAttMinDb 70", "fNlpAttMinDb: must not exceed fNlpAttMaxDb"},
        {"--nlp-param nan", "fNlpParam: must be a finite number"},
    };
    for (const Case &c : cases) {
        const ToolRun r = kvaec(in + " " + c.args);
        EXPECT_EQ(r.code, 1) << c.args;
        EXPECT_TRUE(has(r, c.message)) << r.out;
        EXPECT_FALSE(exists(p("out.wav")));
    }
    const ToolRun s = kvaec("simulate -q --no-plot -o " + p("sim") + " --fDtdMarginDb 30");
    EXPECT_EQ(s.code, 1);
    EXPECT_TRUE(has(s, "fDtdMarginDb: must be a finite number from 0 to 20 (dB)")) << s.out;
    EXPECT_FALSE(exists(p("sim")));
    const ToolRun e = kvaec("simulate -q --no-plot -o " + p("sim") + " --erl nan");
    EXPECT_EQ(e.code, 1);
    EXPECT_TRUE(has(e, "--erl must be a finite number")) << e.out;
}

TEST_F(Tool, SimulateRefusesAnImpulseResponseWithNonFiniteTaps) {
    std::vector<float> h(400, 0.0f);
    h[20] = 0.5f;
    h[100] = std::nanf("");
    writeWav(p("rir.wav"), h);
    const ToolRun r = kvaec("simulate -q --no-plot --duration 2 --rir " + p("rir.wav") + " -o " + p("sim"));
    EXPECT_EQ(r.code, 1);
    EXPECT_TRUE(has(r, "impulse-response file '" + p("rir.wav") + "' holds an unusable tap")) << r.out;
    EXPECT_TRUE(listDir(p("sim")).empty());
}

TEST_F(Tool, DelayOutOfRangeGetsAClearMessage) {
    makePair();
    const std::string in = "process -q --far " + p("far.wav") + " --mic " + p("mic.wav") + " -o " + p("out.wav");
    ToolRun r = kvaec(in + " --delay 1e9");
    EXPECT_EQ(r.code, 1);
    EXPECT_TRUE(has(r, "--delay 1e+09 ms is beyond the end of the microphone recording")) << r.out;
    EXPECT_FALSE(has(r, "bad_alloc")) << r.out;
    r = kvaec(in + " --delay 3000");  // the recording is 3 s long
    EXPECT_EQ(r.code, 1);
    EXPECT_TRUE(has(r, "--delay 3000 ms is beyond the end of the microphone recording")) << r.out;
    r = kvaec(in + " --delay inf");
    EXPECT_EQ(r.code, 1);
    EXPECT_TRUE(has(r, "--delay takes 'auto' or a non-negative number of milliseconds")) << r.out;
    EXPECT_FALSE(exists(p("out.wav")));
}

TEST_F(Tool, ChannelZeroGetsAClearMessage) {
    makePair();
    const ToolRun r = kvaec("process -q --channel 0 --far " + p("far.wav") + " --mic " + p("mic.wav") + " -o " + p("out.wav"));
    EXPECT_EQ(r.code, 2);
    EXPECT_TRUE(has(r, "a channel number counted from 1 (1 = the first channel) is needed, not '0'")) << r.out;
    EXPECT_LT(r.out.size(), 400u) << r.out;
}

TEST_F(Tool, FifoInputIsRefusedWithoutWaiting) {
    makePair();
    ASSERT_EQ(::mkfifo(p("mic.fifo").c_str(), 0600), 0);
    // `timeout` would turn a hang into exit code 124.
    const ToolRun r = run("timeout 20 " + std::string(KVAEC_TOOL_EXE) + " process -q --far " + p("far.wav") +
                          " --mic " + p("mic.fifo") + " -o " + p("out.wav"));
    EXPECT_EQ(r.code, 1);
    EXPECT_TRUE(has(r, "'" + p("mic.fifo") + "' is a FIFO, not a regular file")) << r.out;
    EXPECT_FALSE(exists(p("out.wav")));
}

TEST_F(Tool, HeaderThatDisagreesWithTheFileSizeIsReported) {
    makePair();
    // Cut the microphone file short: its header still declares 3 s.
    std::string bytes = slurp(p("mic.wav"));
    bytes.resize(bytes.size() - 16000 * 4);
    std::ofstream(p("mic.wav"), std::ios::binary) << bytes;
    const ToolRun r = kvaec("process -q --far " + p("far.wav") + " --mic " + p("mic.wav") + " -o " + p("out.wav"));
    EXPECT_EQ(r.code, 0) << r.out;
    EXPECT_TRUE(has(r, "warning: '" + p("mic.wav") + "': the header disagrees with the file's size")) << r.out;
    EXPECT_TRUE(has(r, "truncated or damaged file; using the 32000 sample frames present")) << r.out;
}

TEST_F(Tool, InputWithoutUsableSamplesIsAnError) {
    makePair();
    writeWav(p("nan.wav"), std::vector<float>(16000, std::nanf("")));
    ToolRun r = kvaec("process -q --far " + p("far.wav") + " --mic " + p("nan.wav") + " -o " + p("out.wav"));
    EXPECT_EQ(r.code, 1);
    EXPECT_TRUE(has(r, "microphone file '" + p("nan.wav") + "' holds no usable samples (all 16000 are NaN or infinite)")) << r.out;
    r = kvaec("process -q --far " + p("nan.wav") + " --mic " + p("mic.wav") + " -o " + p("out.wav"));
    EXPECT_EQ(r.code, 1);
    EXPECT_TRUE(has(r, "far-end file '" + p("nan.wav") + "' holds no usable samples")) << r.out;
    EXPECT_FALSE(exists(p("out.wav")));
}

TEST_F(Tool, BadSamplesDoNotMisleadTheDelayOrTheFigures) {
    makePair(301, 4.0);
    std::vector<float> f = readWav(p("far.wav")).x, m = readWav(p("mic.wav")).x;
    f[3000] = std::nanf("");                                              // one NaN early on
    for (size_t i = 0; i < 160; ++i) m[16000 + 1600 + i] = 1e30f;          // 10 ms burst in the microphone
    for (size_t i = 0; i < 160; ++i) f[40000 + i] = i % 2 ? 1e30f : -1e30f;  // and one in the far end
    writeWav(p("far.wav"), f);
    writeWav(p("mic.wav"), m);
    const ToolRun r = kvaec("process -q --far " + p("far.wav") + " --mic " + p("mic.wav") + " -o " + p("out.wav"));
    ASSERT_EQ(r.code, 0) << r.out;
    EXPECT_TRUE(has(r, "bulk delay:      18.8")) << r.out;  // 301 samples
    const size_t at = r.out.find("ERLE:");
    ASSERT_NE(at, std::string::npos) << r.out;
    const double erle = std::atof(r.out.c_str() + at + 5);
    EXPECT_TRUE(std::isfinite(erle));
    EXPECT_LT(erle, 80.0) << r.out;  // the burst frames would give hundreds of dB
    EXPECT_FALSE(has(r, "nan")) << r.out;
}

TEST_F(Tool, NumericOptionsRefuseNaN) {
    makePair();
    const std::string in = "process -q --far " + p("far.wav") + " --mic " + p("mic.wav") + " -o " + p("out.wav");
    for (const char *o : {"--delay-margin nan", "--max-delay nan", "--delay-margin 60"}) {
        const ToolRun r = kvaec(in + " " + o);
        EXPECT_EQ(r.code, 2) << o;
        EXPECT_TRUE(has(r, "a finite number from")) << r.out;
    }
    const ToolRun s = kvaec("simulate -q --no-plot --nonlinear nan -o " + p("sim"));
    EXPECT_EQ(s.code, 2);
    EXPECT_TRUE(has(s, "--nonlinear: a finite number from 0 to 100 is needed, not 'nan'")) << s.out;
    EXPECT_FALSE(exists(p("out.wav")));
}

TEST_F(Tool, SimulateRefusesToDrawThePlotOverAnInput) {
    ASSERT_EQ(::mkdir(p("sim").c_str(), 0777), 0);
    writeWav(p("sim/plot.png"), noise(3, 16000));  // an audio file that happens to be called so
    const std::string before = slurp(p("sim/plot.png"));
    const ToolRun r = kvaec("simulate -q -o " + p("sim") + " --far " + p("sim/plot.png"));
    EXPECT_EQ(r.code, 1);
    EXPECT_TRUE(has(r, "(the plot) is the input")) << r.out;
    EXPECT_EQ(slurp(p("sim/plot.png")), before);
}

// Every field of a configuration record as options of the tool.
std::string spelled(const AEC_tCfg &c) {
    return " --erl-init-db " + std::to_string(c.fErlInitDb) + " --nlp-att-max-db " + std::to_string(c.fNlpAttMaxDb) +
           " --nlp-att-min-db " + std::to_string(c.fNlpAttMinDb) + " --dtd-margin-db " +
           std::to_string(c.fDtdMarginDb) + " --level-floor-db " + std::to_string(c.fLevelFloorDb) +
           " --nr-level " + std::to_string(c.fNrLevelDb) + " --rin-level-ref-db " +
           std::to_string(c.fRinLevelRefDb) + " --profile " + std::to_string(c.iProfile) + " ";
}

TEST_F(Tool, PresetLoadsTheFullDuplexRecordAndGivenFieldsOverrideIt) {
    // The preset equals the library's record spelled out field by field and
    // differs from the defaults; fields given beside a preset win over it.
    const std::string common = "simulate -q --no-plot --no-espeak --duration 4 ";
    ASSERT_EQ(kvaec(common + "--preset full-duplex -o " + p("fd")).code, 0);
    ASSERT_EQ(kvaec(common + "--preset default" + spelled(kvaec_full_duplex_cfg) + "-o " + p("spelled")).code, 0);
    ASSERT_EQ(kvaec(common + "--preset default -o " + p("def")).code, 0);
    ASSERT_EQ(kvaec(common + "-o " + p("none")).code, 0);  // nothing said: full-duplex
    ASSERT_EQ(kvaec(common + "--preset full-duplex" + spelled(AEC_DefaultCfg) + "-o " + p("fd_def")).code, 0);
    const auto fd = readWav(p("fd/send.wav")).x, sp = readWav(p("spelled/send.wav")).x,
               def = readWav(p("def/send.wav")).x, fdDef = readWav(p("fd_def/send.wav")).x;
    ASSERT_EQ(fd.size(), 64000u);
    EXPECT_EQ(fd, sp);
    EXPECT_NE(fd, def);
    EXPECT_EQ(fdDef, def);
    EXPECT_EQ(readWav(p("none/send.wav")).x, fd);
    const ToolRun bad = kvaec(common + "--preset loud -o " + p("bad"));
    EXPECT_EQ(bad.code, 2);
    EXPECT_TRUE(has(bad, "--preset")) << bad.out;
    EXPECT_TRUE(has(kvaec("process --help"), "Default: full-duplex"));
}

namespace {

// FNV-1a 64 over the bit patterns of float samples (least significant byte first).
uint64_t fnv(const std::vector<float> &x) {
    uint64_t h = 0xcbf29ce484222325ull;
    for (float v : x) {
        uint32_t w;
        std::memcpy(&w, &v, sizeof w);
        for (int b = 0; b < 4; ++b) {
            h ^= (w >> (8 * b)) & 0xffu;
            h *= 0x100000001b3ull;
        }
    }
    return h;
}

// Noise made with integer arithmetic and one exact division, so that the
// input files are the same on every target.
std::vector<float> integerNoise(uint32_t seed, size_t n, int scale) {
    std::vector<float> x(n);
    uint32_t s = seed;
    for (float &v : x) {
        s = s * 1664525u + 1013904223u;
        v = static_cast<float>(static_cast<int32_t>(s >> 16) - 32768) / static_cast<float>(scale);
    }
    return x;
}

}  // namespace

// With the delay given, 16 kHz mono files and no drift, the output is the one
// the single-shift alignment gives (the far end or the microphone moved by a
// whole number of samples), bit for bit. The hashes were taken from that
// path; a change of the library that changes them is updated here together
// with tests/golden/golden_hash.txt.
TEST_F(Tool, GivenDelayOnSixteenKilohertzMonoKeepsTheSingleShiftOutput) {
    const size_t n = 4 * 16000;
    const std::vector<float> f = integerNoise(7, n, 655360);  // about -26 dBFS
    std::vector<float> m = integerNoise(11, n, 65536000);     // noise floor about -66 dBFS
    for (size_t i = 800; i < n; ++i) m[i] += 0.5f * f[i - 800];
    writeWav(p("far.wav"), f);
    writeWav(p("mic.wav"), m);
    // 50 ms: the far end is delayed; 5 ms: the microphone is delayed.
    for (const auto &c : {std::make_pair("50", 0x63d1e8a4eaf75688ull), std::make_pair("5", 0x2d2a07fceb385b28ull)}) {
        const ToolRun r = kvaec(std::string("process -q --delay ") + c.first + " --far " + p("far.wav") + " --mic " +
                                p("mic.wav") + " -o " + p("out.wav"));
        ASSERT_EQ(r.code, 0) << r.out;
        const Wav o = readWav(p("out.wav"));
        ASSERT_EQ(o.x.size(), n);
        EXPECT_EQ(fnv(o.x), c.second) << "--delay " << c.first << ": " << std::hex << fnv(o.x);
    }
}
