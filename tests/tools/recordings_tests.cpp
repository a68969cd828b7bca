// Tests of `kvaec process` on recording pairs made on two clocks: offset,
// drift, jumps, a silent far end, an unrelated far end, other rates and
// channel layouts, a wrongly declared rate. The pairs come from the shared
// generator (tests/support/recording_sim.h), which knows the true delay at
// every microphone sample; the tool runs as a program and its report, frame
// figures and output files are checked.
//
// Tests named Long* run whole recordings of several minutes (CTest label
// `long`); the others are their short versions for the normal suite.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sndfile.h>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "audio_io.h"
#include "recording_sim.h"

namespace {

using kvaec::test::makeRecording;
using kvaec::test::Recording;
using kvaec::test::RecordingPlan;

struct ToolRun {
    int code;
    std::string out;
};

ToolRun sh(const std::string &cmd) {
    FILE *p = ::popen((cmd + " 2>&1").c_str(), "r");
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

// Writes `x` (mono) as `channels` channels: channel c gets x times (1 - 0.1 c).
void writeWav(const std::string &path, const std::vector<float> &x, int rate, int channels = 1,
              int format = SF_FORMAT_WAV | SF_FORMAT_FLOAT) {
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = channels;
    info.format = format;
    SNDFILE *f = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(f, nullptr) << sf_strerror(nullptr);
    std::vector<float> blk;
    for (size_t i = 0; i < x.size(); i += 65536) {
        const size_t n = std::min<size_t>(65536, x.size() - i);
        blk.resize(n * static_cast<size_t>(channels));
        for (size_t k = 0; k < n; ++k)
            for (int c = 0; c < channels; ++c)
                blk[k * static_cast<size_t>(channels) + static_cast<size_t>(c)] = x[i + k] * (1.0f - 0.1f * c);
        sf_writef_float(f, blk.data(), static_cast<sf_count_t>(n));
    }
    sf_close(f);
}

struct Wav {
    int rate = 0, channels = 0;
    long long frames = 0;
    std::vector<float> x;
};

Wav readWav(const std::string &path) {
    SF_INFO info{};
    SNDFILE *f = sf_open(path.c_str(), SFM_READ, &info);
    Wav w;
    if (!f) return w;
    w.rate = info.samplerate;
    w.channels = info.channels;
    w.frames = info.frames;
    w.x.resize(static_cast<size_t>(info.frames * info.channels));
    sf_readf_float(f, w.x.data(), info.frames);
    sf_close(f);
    return w;
}

std::string slurp(const std::string &p) {
    std::ifstream f(p);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

// Number after "key": in a JSON text (first occurrence at or after `from`).
double jnum(const std::string &j, const std::string &key, size_t from = 0) {
    const size_t at = j.find("\"" + key + "\":", from);
    if (at == std::string::npos) return std::nan("");
    return std::atof(j.c_str() + at + key.size() + 3);
}

std::string jstr(const std::string &j, const std::string &key) {
    const size_t at = j.find("\"" + key + "\": \"");
    if (at == std::string::npos) return {};
    const size_t b = at + key.size() + 5;
    return j.substr(b, j.find('"', b) - b);
}

// Rows of the per-frame CSV.
struct Frame {
    double t, farDb, micDb, outDb;
    int farActive, dt;
    double delayMs;
};

std::vector<Frame> readFrames(const std::string &path) {
    std::vector<Frame> v;
    std::ifstream f(path);
    std::string line;
    std::getline(f, line);
    while (std::getline(f, line)) {
        Frame r{};
        long long k;
        double erle, lin;
        if (std::sscanf(line.c_str(), "%lld,%lf,%lf,%lf,%lf,%lf,%lf,%d,%d,%lf", &k, &r.t, &r.farDb, &r.micDb, &r.outDb,
                        &erle, &lin, &r.farActive, &r.dt, &r.delayMs) == 10)
            v.push_back(r);
    }
    return v;
}

// Echo reduction (microphone power over output power) over the frames with
// far-end activity in [from, to) s.
double erleDb(const std::vector<Frame> &fr, double from, double to) {
    double a = 0, b = 0;
    for (const Frame &f : fr)
        if (f.t >= from && f.t < to && f.farActive) {
            a += std::pow(10.0, f.micDb / 10.0);
            b += std::pow(10.0, f.outDb / 10.0);
        }
    return 10.0 * std::log10((a + 1e-30) / (b + 1e-30));
}

class Recordings : public ::testing::Test {
public:
    void SetUp() override {
        char t[] = "/tmp/kvaec-rectest-XXXXXX";
        ASSERT_NE(::mkdtemp(t), nullptr);
        dir = t;
    }
    void TearDown() override { std::system(("rm -rf '" + dir + "'").c_str()); }
    std::string p(const std::string &n) const { return dir + "/" + n; }

    // Writes the pair and runs the tool in linear mode with a report and the
    // frame figures.
    ToolRun process(const Recording &r, const std::string &extra = "--no-nlp --no-nr", const std::string &tag = "") {
        writeWav(p("far" + tag + ".wav"), r.far, r.rate);
        writeWav(p("mic" + tag + ".wav"), r.mic, r.rate);
        return tool("process -q " + extra + " --far " + p("far" + tag + ".wav") + " --mic " + p("mic" + tag + ".wav") +
                    " -o " + p("out" + tag + ".wav") + " --report " + p("report" + tag + ".json") + " --frames " +
                    p("frames" + tag + ".csv"));
    }
    ToolRun tool(const std::string &args) { return sh(std::string(KVAEC_TOOL_EXE) + " " + args); }
    std::string dir;
};

RecordingPlan plan(double seconds, double bulk, double ppm, uint32_t seed = 3) {
    RecordingPlan s;
    s.seconds = seconds;
    s.bulk_delay_sec = bulk;
    s.drift_ppm = ppm;
    s.seed = seed;
    // Microphone noise far below the echo (-36 dBFS), so that the figures
    // measure the alignment and the filters rather than the noise floor.
    s.noise_dbfs = -100;
    return s;
}

// Largest error of the fitted track (the report's segments) against the true
// delay, every second of the recording but the 2 s around a jump, in
// samples: the residual offset of the compensation.
double trackError(const std::string &report, const Recording &r) {
    struct Seg {
        double start, delay, ppm;
    };
    std::vector<Seg> segs;
    size_t at = report.find("\"segments\"");
    for (;;) {
        at = report.find("\"start_sec\":", at + 1);
        if (at == std::string::npos || at > report.find("\"breaks\"")) break;
        segs.push_back({jnum(report, "start_sec", at - 1), jnum(report, "delay_ms", at) / 1000.0,
                        jnum(report, "drift_ppm", at)});
    }
    if (segs.empty()) return 1e9;
    double worst = 0;
    for (double t = 0; t < r.plan.seconds; t += 1.0) {
        if (r.plan.jump_at_sec >= 0 && std::fabs(t - r.plan.jump_at_sec) < 2.0) continue;
        size_t i = 0;
        while (i + 1 < segs.size() && t >= segs[i + 1].start) ++i;
        const double fitted = segs[i].delay + segs[i].ppm * 1e-6 * (t - segs[i].start);
        worst = std::max(worst, std::fabs(fitted - r.delayAt(t)) * r.rate);
    }
    return worst;
}

}  // namespace

// Offset, drift and the linear echo reduction of a pair on one clock.
TEST_F(Recordings, NoDriftFindsTheOffsetToAQuarterSampleAndCancelsLinearly) {
    const Recording r = makeRecording(plan(60, 0.1, 0));
    const ToolRun run = process(r);
    ASSERT_EQ(run.code, 0) << run.out;
    const std::string rep = slurp(p("report.json"));
    EXPECT_NEAR(jnum(rep, "offset_at_start_samples"), r.delayAt(0) * r.rate, 0.25) << rep;
    EXPECT_NEAR(jnum(rep, "drift_ppm"), 0.0, 0.5) << rep;
    EXPECT_LE(jnum(rep, "residual_offset_max_samples"), 0.25) << rep;
    EXPECT_GE(jnum(rep, "trusted_share"), 0.9) << rep;
    EXPECT_EQ(jstr(rep, "verdict"), "echo removed") << rep;
    const std::vector<Frame> fr = readFrames(p("frames.csv"));
    EXPECT_GE(erleDb(fr, 10, 60), 35.0);
    EXPECT_TRUE(has(run, "verdict:         echo removed")) << run.out;
}

// A far end aligned too late (the echo comes before its reference) is only
// turned down by the residual suppression: the verdict says so.
TEST_F(Recordings, EchoOnlyTurnedDownIsNotCalledRemoved) {
    const Recording r = makeRecording(plan(40, 0.1, 0));
    const ToolRun bad = process(r, "--delay 150");
    ASSERT_EQ(bad.code, 0) << bad.out;
    const std::string rep = slurp(p("report.json"));
    EXPECT_EQ(jstr(rep, "verdict"), "echo not removed") << rep;
    EXPECT_LT(jnum(rep, "linear_echo_reduction_db"), 10.0) << rep;
    EXPECT_GT(jnum(rep, "output_echo_reduction_db"), jnum(rep, "linear_echo_reduction_db") + 6.0) << rep;
    EXPECT_TRUE(has(bad, "verdict:         echo not removed")) << bad.out;
    const ToolRun good = process(r, "--delay 100");
    ASSERT_EQ(good.code, 0) << good.out;
    EXPECT_EQ(jstr(slurp(p("report.json")), "verdict"), "echo removed");
}

// Processing that also turns down the seconds without echo (here the
// strongest noise reduction on steady microphone noise) is not called
// removal, however large the linear figure; the default settings leave those
// seconds alone.
TEST_F(Recordings, OutputTurnedDownWithoutEchoIsNotCalledRemoved) {
    RecordingPlan s = plan(50, 0.1, 0);
    s.noise_dbfs = -60;
    s.silence_start_sec = 20;
    s.silence_len_sec = 15;
    const Recording r = makeRecording(s);
    const ToolRun strong = process(r, "--nr-level 1");
    ASSERT_EQ(strong.code, 0) << strong.out;
    std::string rep = slurp(p("report.json"));
    EXPECT_GE(jnum(rep, "echo_free_seconds"), 3.0) << rep;
    EXPECT_LT(jnum(rep, "echo_free_level_change_db"), -3.0) << rep;
    EXPECT_GE(jnum(rep, "linear_echo_reduction_db"), 10.0) << rep;
    EXPECT_EQ(jstr(rep, "verdict"), "echo not removed") << rep;
    EXPECT_TRUE(has(strong, "verdict:         echo not removed")) << strong.out;
    const ToolRun plain = process(r, "");
    ASSERT_EQ(plain.code, 0) << plain.out;
    rep = slurp(p("report.json"));
    EXPECT_LE(std::fabs(jnum(rep, "echo_free_level_change_db")), 3.0) << rep;
    EXPECT_EQ(jstr(rep, "verdict"), "echo removed") << rep;
}

// The seconds after the far end falls silent hold the echo tail of its last
// words, which the filters cancel: they are not echo-free, and a recording
// whose far end ends before the microphone's keeps its verdict.
TEST_F(Recordings, EchoTailAfterTheFarEndStopsIsNotEchoFree) {
    const Recording r = makeRecording(plan(40, -3.0, 0));
    const ToolRun run = process(r);
    ASSERT_EQ(run.code, 0) << run.out;
    const std::string rep = slurp(p("report.json"));
    EXPECT_GE(jnum(rep, "echo_free_seconds"), 1.0) << rep;
    EXPECT_LE(std::fabs(jnum(rep, "echo_free_level_change_db")), 3.0) << rep;
    EXPECT_EQ(jstr(rep, "verdict"), "echo removed") << rep;
}

namespace {

// ERLE over the last `tail` seconds of a drifting pair next to the same pair
// without drift.
void expectDriftFollowed(Recordings *t, double seconds, double tail, double ppm, double bulk = 0.1) {
    SCOPED_TRACE(std::to_string(ppm) + " ppm");
    const Recording r0 = makeRecording(plan(seconds, bulk, 0));
    const Recording r1 = makeRecording(plan(seconds, bulk, ppm));
    const ToolRun a = t->process(r0, "--no-nlp --no-nr", "0"), b = t->process(r1, "--no-nlp --no-nr", "1");
    ASSERT_EQ(a.code, 0) << a.out;
    ASSERT_EQ(b.code, 0) << b.out;
    const std::string rep = slurp(t->p("report1.json"));
    EXPECT_NEAR(jnum(rep, "drift_ppm"), ppm, 2.0) << rep;
    EXPECT_LE(trackError(rep, r1), 0.25) << rep;
    const double e0 = erleDb(readFrames(t->p("frames0.csv")), seconds - tail, seconds);
    const double e1 = erleDb(readFrames(t->p("frames1.csv")), seconds - tail, seconds);
    std::printf("%+.0f ppm: fitted %.3f ppm, ERLE of the last %.0f s %.2f dB (no drift %.2f dB)\n", ppm,
                jnum(rep, "drift_ppm"), tail, e1, e0);
    EXPECT_GE(e1, e0 - 1.5) << "no drift " << e0 << " dB, drift " << e1 << " dB";
}

}  // namespace

TEST_F(Recordings, DriftOfHundredsOfPpmKeepsTheEchoReduction) {
    for (double ppm : {100.0, -500.0}) expectDriftFollowed(this, 120, 30, ppm);
}

TEST_F(Recordings, LongDriftOfTenToFiveHundredPpmKeepsTheEchoReductionInTheLastMinute) {
    for (double ppm : {10.0, -10.0, 100.0, -100.0, 500.0, -500.0}) expectDriftFollowed(this, 600, 60, ppm);
}

namespace {

// A jump of the delay: the echo reduction is back within 3 dB 2 s after it.
void expectJumpFollowed(Recordings *t, double seconds, double at, double jump) {
    SCOPED_TRACE(std::to_string(jump * 1000) + " ms");
    RecordingPlan s = plan(seconds, 0.1, 0);
    s.jump_at_sec = at;
    s.jump_sec = jump;
    const Recording r = makeRecording(s);
    const ToolRun run = t->process(r);
    ASSERT_EQ(run.code, 0) << run.out;
    const std::string rep = slurp(t->p("report.json"));
    ASSERT_NE(rep.find("\"breaks\": [\n"), std::string::npos) << rep;
    EXPECT_NEAR(jnum(rep, "size_ms", rep.find("\"breaks\"")), 1000 * jump, 0.1) << rep;
    EXPECT_NEAR(jnum(rep, "time_sec", rep.find("\"breaks\"")), at, 2.0) << rep;
    EXPECT_LE(trackError(rep, r), 0.25) << rep;
    const std::vector<Frame> fr = readFrames(t->p("frames.csv"));
    // Before: up to 1 s ahead of the jump (the break is placed to a fraction
    // of a window, and the frames between the two are misaligned).
    const double before = erleDb(fr, at - 20, at - 1), after = erleDb(fr, at + 2, at + 22);
    std::printf("jump %+.0f ms at %.0f s: break at %.2f s, ERLE before (20 s to 1 s) %.2f dB, from 2 s after %.2f dB\n",
                1000 * jump, at, jnum(rep, "time_sec", rep.find("\"breaks\"")), before, after);
    EXPECT_GE(after, before - 3.0) << "before " << before << " dB, after " << after << " dB";
}

}  // namespace

TEST_F(Recordings, JumpOfFortyMillisecondsIsFollowedWithinTwoSeconds) {
    expectJumpFollowed(this, 90, 45, 0.040);
    expectJumpFollowed(this, 90, 45, -0.040);
}

TEST_F(Recordings, LongJumpOfFortyMillisecondsAtFiveMinutes) {
    expectJumpFollowed(this, 360, 300, 0.040);
    expectJumpFollowed(this, 360, 300, -0.040);
}

namespace {

void expectDriftChangeFollowed(Recordings *t, double seconds, double at) {
    RecordingPlan s = plan(seconds, 0.1, 50);
    s.drift_change_sec = at;
    s.drift2_ppm = 80;
    const Recording r = makeRecording(s);
    const ToolRun run = t->process(r);
    ASSERT_EQ(run.code, 0) << run.out;
    const std::string rep = slurp(t->p("report.json"));
    EXPECT_LE(trackError(rep, r), 0.5) << rep;
    const std::vector<Frame> fr = readFrames(t->p("frames.csv"));
    EXPECT_GE(erleDb(fr, seconds - 30, seconds), erleDb(fr, at - 30, at) - 1.5);
}

}  // namespace

TEST_F(Recordings, ChangeOfDriftIsFollowed) { expectDriftChangeFollowed(this, 120, 60); }

TEST_F(Recordings, LongChangeOfDriftFromFiftyToEightyPpmAtFourMinutes) { expectDriftChangeFollowed(this, 420, 240); }

namespace {

void expectSilenceBridged(Recordings *t, double seconds, double from, double len) {
    RecordingPlan s = plan(seconds, 0.1, 100);
    s.silence_start_sec = from;
    s.silence_len_sec = len;
    const Recording r = makeRecording(s);
    const ToolRun run = t->process(r);
    ASSERT_EQ(run.code, 0) << run.out;
    const std::string rep = slurp(t->p("report.json"));
    EXPECT_EQ(jstr(rep, "verdict"), "echo removed") << rep;
    EXPECT_GT(jnum(rep, "echo_free_seconds"), len * 0.8) << rep;
    // Linear mode, nothing to cancel there: the level changes only by what
    // the send path does to the white microphone noise (-100 dBFS); 1.46 dB
    // measured on the long version, 2 dB allowed.
    EXPECT_LT(std::fabs(jnum(rep, "echo_free_level_change_db")), 2.0) << rep;
    const std::vector<Frame> fr = readFrames(t->p("frames.csv"));
    const double before = erleDb(fr, from - 20, from), after = erleDb(fr, from + len + 2, from + len + 22);
    EXPECT_GE(after, before - 3.0) << "before " << before << " dB, after " << after << " dB";
}

}  // namespace

TEST_F(Recordings, SilentStretchOfTheFarEndIsBridged) { expectSilenceBridged(this, 100, 40, 20); }

TEST_F(Recordings, LongTwoMinutesOfSilentFarEnd) { expectSilenceBridged(this, 360, 120, 120); }

TEST_F(Recordings, UnrelatedFarEndIsReportedAndTheMicrophoneKept) {
    const Recording r = makeRecording(plan(40, 0.1, 0, 3));
    const Recording other = makeRecording(plan(40, 0.1, 0, 77));
    writeWav(p("far.wav"), other.far, 16000);
    writeWav(p("mic.wav"), r.mic, 16000);
    const ToolRun run = tool("process -q --no-nlp --no-nr --far " + p("far.wav") + " --mic " + p("mic.wav") + " -o " +
                         p("out.wav") + " --report " + p("report.json"));
    ASSERT_EQ(run.code, 0) << run.out;
    EXPECT_TRUE(has(run, "warning: the far end does not match the microphone")) << run.out;
    EXPECT_TRUE(has(run, "verdict:         reference does not match the microphone")) << run.out;
    EXPECT_EQ(jstr(slurp(p("report.json")), "verdict"), "reference does not match the microphone");
    const Wav o = readWav(p("out.wav"));
    ASSERT_EQ(o.x.size(), r.mic.size());
    double pm = 0, pd = 0;
    for (size_t i = 0; i < o.x.size(); ++i) {
        pm += static_cast<double>(r.mic[i]) * r.mic[i];
        pd += static_cast<double>(o.x[i] - r.mic[i]) * (o.x[i] - r.mic[i]);
    }
    EXPECT_LT(10.0 * std::log10((pd + 1e-30) / pm), -60.0);
}

// The user's format: 48 kHz stereo far end, 44.1 kHz stereo microphone on a
// clock 30 ppm off: the output is 44.1 kHz stereo of the microphone's exact
// length, the echo gone from the cleaned channel.
TEST_F(Recordings, OtherRatesAndChannelsKeepTheMicrophoneFormat) {
    RecordingPlan s = plan(60, 0.12, 30);
    s.rate = 48000;
    const Recording r = makeRecording(s);
    const std::vector<float> mic441 = kvaec::tool::resample(r.mic, 48000, 44100);
    writeWav(p("far.wav"), r.far, 48000, 2);
    writeWav(p("mic.wav"), mic441, 44100, 2, SF_FORMAT_WAV | SF_FORMAT_PCM_24);
    const ToolRun run = tool("process -q --no-nlp --no-nr --far " + p("far.wav") + " --mic " + p("mic.wav") + " -o " +
                         p("out.wav") + " --report " + p("report.json"));
    ASSERT_EQ(run.code, 0) << run.out;
    SF_INFO in{}, out{};
    SNDFILE *a = sf_open(p("mic.wav").c_str(), SFM_READ, &in);
    SNDFILE *b = sf_open(p("out.wav").c_str(), SFM_READ, &out);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    sf_close(a);
    sf_close(b);
    EXPECT_EQ(out.samplerate, 44100);
    EXPECT_EQ(out.channels, 2);
    EXPECT_EQ(out.frames, in.frames);
    EXPECT_EQ(out.format, in.format);  // 24-bit PCM WAV kept
    const std::string rep = slurp(p("report.json"));
    EXPECT_NEAR(jnum(rep, "drift_ppm"), 30.0, 2.0) << rep;
    EXPECT_EQ(jstr(rep, "verdict"), "echo removed") << rep;
    const Wav o = readWav(p("out.wav")), m = readWav(p("mic.wav"));
    double pm = 0, po = 0;
    for (long long i = 10 * 44100; i < o.frames; ++i) {
        pm += static_cast<double>(m.x[static_cast<size_t>(2 * i)]) * m.x[static_cast<size_t>(2 * i)];
        po += static_cast<double>(o.x[static_cast<size_t>(2 * i)]) * o.x[static_cast<size_t>(2 * i)];
    }
    EXPECT_GT(10.0 * std::log10(pm / po), 20.0);
}

TEST_F(Recordings, WronglyDeclaredRateIsAnErrorNamingTheLikelyCause) {
    RecordingPlan s = plan(60, 0.1, 0);
    s.rate = 48000;
    s.far_rate_ratio = 0.91875;  // 44.1 kHz data declared as 48 kHz
    const Recording r = makeRecording(s);
    writeWav(p("far.wav"), r.far, 48000);
    writeWav(p("mic.wav"), r.mic, 48000);
    const ToolRun run = tool("process -q --far " + p("far.wav") + " --mic " + p("mic.wav") + " -o " + p("out.wav"));
    EXPECT_EQ(run.code, 1) << run.out;
    EXPECT_TRUE(has(run, "the far end looks like 44.1 kHz audio declared as 48 kHz in '" + p("far.wav") + "'"))
        << run.out;
    EXPECT_FALSE(std::ifstream(p("out.wav")).good());
}

// The default search reaches 5 s either way: a microphone recording that
// started 3 s after the far end's is found to a sample.
TEST_F(Recordings, MicrophoneStartingThreeSecondsLateIsFound) {
    const Recording r = makeRecording(plan(60, -3.0, 0));
    const ToolRun run = process(r);
    ASSERT_EQ(run.code, 0) << run.out;
    const std::string rep = slurp(p("report.json"));
    EXPECT_NEAR(jnum(rep, "offset_at_start_samples"), -3.0 * r.rate, 1.0) << rep;
    EXPECT_EQ(jstr(rep, "verdict"), "echo removed") << rep;
    EXPECT_GE(erleDb(readFrames(p("frames.csv")), 10, 60), 30.0);
}

// An hour at +100 ppm through the streamed passes: memory stays bounded and
// the report is written. The pair is 48 kHz stereo, as a call recorder
// writes it.
TEST_F(Recordings, LongHourAtHundredPpmStreamsInBoundedMemory) {
    {
        RecordingPlan s = plan(3600, 0.08, 100);
        s.rate = 48000;
        const Recording r = makeRecording(s);
        writeWav(p("far.wav"), r.far, 48000, 2);
        writeWav(p("mic.wav"), r.mic, 48000, 2);
    }
    const ToolRun run = sh("/usr/bin/time -f 'maxrss_kb %M elapsed_s %e' " + std::string(KVAEC_TOOL_EXE) +
                       " process -q --far " + p("far.wav") + " --mic " + p("mic.wav") + " -o " + p("out.wav") +
                       " --report " + p("report.json"));
    ASSERT_EQ(run.code, 0) << run.out;
    const size_t at = run.out.find("maxrss_kb ");
    ASSERT_NE(at, std::string::npos) << run.out;
    const double kb = std::atof(run.out.c_str() + at + 10);
    std::printf("hour at 48 kHz stereo: %s", run.out.substr(at).c_str());
    EXPECT_LE(kb, 200.0 * 1024) << run.out;
    const std::string rep = slurp(p("report.json"));
    EXPECT_NEAR(jnum(rep, "drift_ppm"), 100.0, 2.0) << rep;
    EXPECT_EQ(jstr(rep, "verdict"), "echo removed") << rep;
    SF_INFO oi{};
    SNDFILE *o = sf_open(p("out.wav").c_str(), SFM_READ, &oi);
    ASSERT_NE(o, nullptr);
    sf_close(o);
    EXPECT_EQ(oi.frames, 3600LL * 48000);
    EXPECT_EQ(oi.channels, 2);
}
