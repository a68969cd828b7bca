#include "audio_io.h"

#include <samplerate.h>
#include <sndfile.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common.h"
#include "delay.h"

namespace kvaec::tool {

namespace {

std::string dirOf(const std::string &path) {
    const size_t p = path.find_last_of('/');
    if (p == std::string::npos) return ".";
    if (p == 0) return "/";
    return path.substr(0, p);
}

std::string baseOf(const std::string &path) {
    const size_t p = path.find_last_of('/');
    return p == std::string::npos ? path : path.substr(p + 1);
}

const char *kindOf(mode_t m) {
    if (S_ISFIFO(m)) return "a FIFO";
    if (S_ISCHR(m)) return "a character device";
    if (S_ISBLK(m)) return "a block device";
    if (S_ISSOCK(m)) return "a socket";
    if (S_ISDIR(m)) return "a directory";
    return "not a regular file";
}

// Temporary files (and directories made for outputs) of all live output
// sets, for the signal handler: fixed storage, so that the handler only reads
// memory and calls unlink() and rmdir(). gTempUsed: 0 free, 1 file,
// 2 + n directory made n-th (removed innermost first).
constexpr int kMaxTemps = 64;
char gTemps[kMaxTemps][PATH_MAX];
volatile sig_atomic_t gTempUsed[kMaxTemps];
int gDirSerial = 0;

// Blocks SIGINT and SIGTERM while the registry changes.
class SignalBlock {
public:
    SignalBlock() {
        sigset_t s;
        sigemptyset(&s);
        sigaddset(&s, SIGINT);
        sigaddset(&s, SIGTERM);
        sigprocmask(SIG_BLOCK, &s, &old_);
    }
    ~SignalBlock() { sigprocmask(SIG_SETMASK, &old_, nullptr); }
private:
    sigset_t old_;
};

void registerTemp(const std::string &path, bool directory = false) {
    SignalBlock b;
    for (int i = 0; i < kMaxTemps; ++i)
        if (!gTempUsed[i] && path.size() < PATH_MAX) {
            std::memcpy(gTemps[i], path.c_str(), path.size() + 1);
            gTempUsed[i] = directory ? 2 + gDirSerial++ : 1;
            return;
        }
}

void unregisterTemp(const std::string &path) {
    SignalBlock b;
    for (int i = 0; i < kMaxTemps; ++i)
        if (gTempUsed[i] && path == gTemps[i]) {
            gTempUsed[i] = 0;
            return;
        }
}

void onInterrupt(int sig) {
    for (int i = 0; i < kMaxTemps; ++i)
        if (gTempUsed[i] == 1) ::unlink(gTemps[i]);
    // Directories made for the outputs, the last made first.
    for (;;) {
        int last = -1;
        for (int i = 0; i < kMaxTemps; ++i)
            if (gTempUsed[i] >= 2 && (last < 0 || gTempUsed[i] > gTempUsed[last])) last = i;
        if (last < 0) break;
        ::rmdir(gTemps[last]);
        gTempUsed[last] = 0;
    }
    const char *msg = sig == SIGINT ? "\nkvaec: interrupted (SIGINT); no output written, temporary files removed\n"
                                    : "\nkvaec: terminated (SIGTERM); no output written, temporary files removed\n";
    const ssize_t r = ::write(2, msg, std::strlen(msg));
    (void)r;
    // End with the signal itself, so that the parent sees the interruption.
    std::signal(sig, SIG_DFL);
    ::raise(sig);
}

std::string tempDirectory() {
    const char *t = std::getenv("TMPDIR");
    return t && *t ? t : "/tmp";
}

// Lines of libsndfile's header log that say a declared size disagrees with
// the file ("data : 128000 (should be 12800)").
std::vector<std::string> headerMismatches(SNDFILE *f) {
    std::vector<std::string> out;
    char log[8192] = {0};
    sf_command(f, SFC_GET_LOG_INFO, log, sizeof log);
    const char *p = log;
    while (*p) {
        const char *e = std::strchr(p, '\n');
        const std::string line(p, e ? static_cast<size_t>(e - p) : std::strlen(p));
        if (line.find("(should be") != std::string::npos) {
            std::string t = line;
            while (!t.empty() && (t.front() == ' ' || t.front() == '\t')) t.erase(t.begin());
            out.push_back(t);
        }
        if (!e) break;
        p = e + 1;
    }
    return out;
}

}  // namespace

FileId fileId(const std::string &path) {
    FileId id;
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0) {
        id.exists = true;
        id.dev = static_cast<unsigned long long>(st.st_dev);
        id.ino = static_cast<unsigned long long>(st.st_ino);
        return id;
    }
    char buf[PATH_MAX];
    const std::string dir = dirOf(path);
    id.resolved = (::realpath(dir.c_str(), buf) ? std::string(buf) : dir) + "/" + baseOf(path);
    return id;
}

void installInterruptHandler() {
    struct sigaction sa {};
    sa.sa_handler = onInterrupt;
    sigemptyset(&sa.sa_mask);
    sigaddset(&sa.sa_mask, SIGINT);
    sigaddset(&sa.sa_mask, SIGTERM);
    sa.sa_flags = 0;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    // A FIFO output whose reader goes away gives a write error (EPIPE) and a
    // clean exit instead of a silent death that would leave temporaries.
    std::signal(SIGPIPE, SIG_IGN);
}

SNDFILE *openAudio(const std::string &path, int &rate, int &channels, long long &frames, int &format,
                   std::vector<std::string> *warnings) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0)
        throw ToolError("cannot open '" + path + "': " + std::strerror(errno));
    if (S_ISDIR(st.st_mode)) throw ToolError("'" + path + "' is a directory, not an audio file");
    // A FIFO or a device is refused before it is opened: opening a FIFO
    // without a writer would wait for ever, and the whole file is needed
    // (length, delay estimate) before processing starts.
    if (!S_ISREG(st.st_mode))
        throw ToolError("'" + path + "' is " + kindOf(st.st_mode) +
                        ", not a regular file: inputs must be audio files (save the stream to a file first)");
    if (::access(path.c_str(), R_OK) != 0)
        throw ToolError("cannot read '" + path + "': " + std::strerror(errno));
    SF_INFO info{};
    SNDFILE *f = sf_open(path.c_str(), SFM_READ, &info);
    if (!f) throw ToolError("'" + path + "' is not a readable audio file (" + sf_strerror(nullptr) + ")");
    if (info.samplerate <= 0 || info.channels <= 0) {
        sf_close(f);
        throw ToolError("'" + path + "' has no usable sample rate or channel count");
    }
    if (warnings)
        for (const std::string &m : headerMismatches(f))
            warnings->push_back("'" + path + "': the header disagrees with the file's size (" + m +
                                "): truncated or damaged file; using the " + std::to_string(info.frames) +
                                " sample frames present");
    if (info.frames == 0) {
        sf_close(f);
        throw ToolError("'" + path + "' holds no samples");
    }
    rate = info.samplerate;
    channels = info.channels;
    frames = info.frames;
    format = info.format;
    return f;
}

Audio readAudio(const std::string &path, std::vector<std::string> *warnings) {
    Audio a;
    long long frames = 0;
    int format = 0;
    SNDFILE *f = openAudio(path, a.rate, a.channels, frames, format, warnings);
    SF_INFO info{};
    info.frames = frames;
    info.channels = a.channels;
    a.samples.resize(static_cast<size_t>(info.frames) * static_cast<size_t>(info.channels));
    const sf_count_t got = sf_readf_float(f, a.samples.data(), info.frames);
    sf_close(f);
    if (got != info.frames)
        throw ToolError("'" + path + "' is truncated: read " + std::to_string(got) + " of " +
                        std::to_string(info.frames) + " frames");
    if (info.frames == 0) throw ToolError("'" + path + "' holds no samples");
    return a;
}

std::vector<float> pickChannel(const Audio &a, int channel, const std::string &what) {
    // --channel chooses among the channels of multi-channel files; a mono
    // file is used as it is whatever the choice.
    if (a.channels == 1) return a.samples;
    if (channel == 0)
        throw ToolError(what + " has " + std::to_string(a.channels) +
                        " channels: choose one with --channel N (1.." + std::to_string(a.channels) + ")");
    if (channel < 1 || channel > a.channels)
        throw ToolError(what + " has " + std::to_string(a.channels) + " channel(s); --channel " +
                        std::to_string(channel) + " does not exist");
    std::vector<float> x(static_cast<size_t>(a.frames()));
    for (long i = 0; i < a.frames(); ++i)
        x[static_cast<size_t>(i)] = a.samples[static_cast<size_t>(i * a.channels + channel - 1)];
    return x;
}

std::vector<float> resample(const std::vector<float> &x, int fromRate, int toRate) {
    if (fromRate == toRate || x.empty()) return x;
    const double ratio = static_cast<double>(toRate) / fromRate;
    std::vector<float> y(static_cast<size_t>(std::ceil(static_cast<double>(x.size()) * ratio)) + 16);
    SRC_DATA d{};
    d.data_in = x.data();
    d.input_frames = static_cast<long>(x.size());
    d.data_out = y.data();
    d.output_frames = static_cast<long>(y.size());
    d.src_ratio = ratio;
    const int err = src_simple(&d, SRC_SINC_BEST_QUALITY, 1);
    if (err != 0) throw ToolError(std::string("resampling failed: ") + src_strerror(err));
    y.resize(static_cast<size_t>(d.output_frames_gen));
    return y;
}

std::vector<float> loadSignal(const std::string &path, const std::string &what, int channel, int rate,
                              bool allowResample, std::vector<std::string> &notes) {
    std::vector<std::string> warnings;
    const Audio a = readAudio(path, &warnings);
    for (const std::string &w : warnings) warn(w);
    std::vector<float> x = pickChannel(a, channel, what + " '" + path + "'");
    long finite = 0;
    for (float v : x) finite += std::isfinite(v) ? 1 : 0;
    if (finite == 0)
        throw ToolError(what + " '" + path + "' holds no usable samples (all " + std::to_string(x.size()) +
                        " are NaN or infinite)");
    // The resampler would spread a non-finite sample over its whole filter.
    if (finite < static_cast<long>(x.size()) && a.rate != rate)
        for (float &v : x)
            if (!std::isfinite(v)) v = 0.0f;
    if (a.rate != rate) {
        if (!allowResample)
            throw ToolError(what + " '" + path + "' is sampled at " + std::to_string(a.rate) + " Hz; the canceller runs at " +
                            std::to_string(rate) + " Hz and resampling is switched off (--no-resample)");
        x = resample(x, a.rate, rate);
        notes.push_back(what + " '" + path + "' resampled from " + std::to_string(a.rate) + " Hz to " +
                        std::to_string(rate) + " Hz");
    }
    return x;
}

InputCheck checkInput(const std::vector<float> &x, int rate) {
    InputCheck c;
    double p = 0;
    long n = 0;
    for (size_t i = 0; i < x.size(); ++i) {
        const float v = x[i];
        if (!std::isfinite(v)) {
            ++c.nonFinite;
            continue;
        }
        if (std::fabs(v) >= 0.999f) {
            if (c.clipped == 0) c.firstClipSec = static_cast<double>(i) / rate;
            ++c.clipped;
        }
        p += static_cast<double>(v) * v;
        ++n;
    }
    (void)n;
    // The level leaves out frames with non-finite samples or bursts, so that
    // a few absurd values cannot make a recording look loud.
    const std::vector<uint8_t> ok = usableFrames(x.data(), static_cast<long>(x.size()), rate);
    const long frame = rate / 100;
    double pu = 0;
    long nu = 0;
    for (size_t k = 0; k < ok.size(); ++k) {
        if (!ok[k]) {
            ++c.badFrames;
            continue;
        }
        for (long i = 0; i < frame; ++i) {
            const double v = x[k * static_cast<size_t>(frame) + static_cast<size_t>(i)];
            pu += v * v;
        }
        nu += frame;
    }
    for (size_t i = ok.size() * static_cast<size_t>(frame); i < x.size(); ++i)
        if (std::isfinite(x[i]) && std::fabs(x[i]) <= 1000.0f) {
            pu += static_cast<double>(x[i]) * x[i];
            ++nu;
        }
    c.rmsDb = nu > 0 && pu > 0 ? 10.0 * std::log10(pu / static_cast<double>(nu)) : -200.0;
    return c;
}

OutputSet::~OutputSet() {
    for (Item &it : items_)
        if (it.fd >= 0) ::close(it.fd);
    if (committed_) return;
    for (const Item &it : items_)
        if (!it.temp.empty()) {
            ::unlink(it.temp.c_str());
            unregisterTemp(it.temp);
        }
    for (auto d = createdDirs_.rbegin(); d != createdDirs_.rend(); ++d) {
        ::rmdir(d->c_str());
        unregisterTemp(*d);
    }
}

namespace {

// Creates the missing directories of `dir`, outermost first, and appends
// each one made to `created`.
void makeDirectories(const std::string &dir, const std::string &named, std::vector<std::string> &created) {
    std::string sofar;
    size_t pos = 0;
    while (pos <= dir.size()) {
        const size_t next = dir.find('/', pos);
        sofar = dir.substr(0, next == std::string::npos ? dir.size() : next);
        pos = next == std::string::npos ? dir.size() + 1 : next + 1;
        if (sofar.empty()) continue;
        struct stat st {};
        if (::stat(sofar.c_str(), &st) == 0) continue;
        SignalBlock hold;  // made and registered as one step
        if (::mkdir(sofar.c_str(), 0777) != 0 && errno != EEXIST)
            throw ToolError("cannot write " + named + ": cannot create directory '" + sofar + "': " +
                            std::strerror(errno));
        created.push_back(sofar);
        registerTemp(sofar, true);
    }
}

}  // namespace

void OutputSet::addExternal(const std::string &path, const std::string &what) {
    Input ex{path, what, fileId(path)};
    for (const Input &in : inputs_)
        if (in.id == ex.id)
            throw ToolError("output '" + path + "' (" + what + ") is the input '" + in.path + "' (" + in.what +
                            "): it would be overwritten; choose another output");
    for (const Item &it : items_)
        if (it.id == ex.id)
            throw ToolError("output '" + path + "' (" + what + ") and output '" + it.path + "' are the same file");
    externals_.push_back(ex);
}

void OutputSet::protectInput(const std::string &path, const std::string &what) {
    Input in{path, what, fileId(path)};
    for (const Input &ex : externals_)
        if (ex.id == in.id)
            throw ToolError("output '" + ex.path + "' (" + ex.what + ") is the input '" + path + "' (" + what +
                            "): it would be overwritten; choose another output");
    for (const Item &it : items_)
        if (it.id == in.id)
            throw ToolError("output '" + it.path + "'" + (it.what.empty() ? "" : " (" + it.what + ")") +
                            " is the input '" + path + "' (" + what + "): it would be overwritten; choose another output");
    inputs_.push_back(in);
}

int OutputSet::add(const std::string &path, const std::string &what) {
    if (path.empty()) throw ToolError("empty output path" + (what.empty() ? "" : " for " + what));
    const std::string named = "'" + path + "'" + (what.empty() ? "" : " (" + what + ")");
    const std::string dir = dirOf(path);
    struct stat pst {};
    const bool exists = ::stat(path.c_str(), &pst) == 0;
    if (exists && S_ISDIR(pst.st_mode)) throw ToolError("cannot write " + named + ": it is a directory");
    const bool special = exists && !S_ISREG(pst.st_mode);
    Item item{path, what, "", fileId(path), special, -1, false};
    for (const Input &in : inputs_)
        if (in.id == item.id)
            throw ToolError("output " + named + " is the input '" + in.path + "' (" + in.what +
                            "): it would be overwritten; choose another output");
    for (const Input &ex : externals_)
        if (ex.id == item.id)
            throw ToolError("output " + named + " and output '" + ex.path + "' (" + ex.what + ") are the same file");
    for (const Item &it : items_)
        if (it.id == item.id && !(special && S_ISCHR(pst.st_mode)))
            throw ToolError("output " + named + " and output '" + it.path + "'" +
                            (it.what.empty() ? "" : " (" + it.what + ")") + " are the same file");
    std::string tmpl;
    if (special) {
        // Written into, never renamed over. Opened now and held open until
        // commit: a FIFO needs its reader already (nothing waits), and the
        // reader sees one writer from start to end.
        const int fd = ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) {
            if (errno == ENXIO)
                throw ToolError("cannot write " + named + ": it is a FIFO with no reader (start the reader first)");
            throw ToolError("cannot write " + named + ": " + std::strerror(errno));
        }
        // Blocking writes from here on (a slow reader is waited for).
        ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
        item.fd = fd;
        tmpl = tempDirectory() + "/kvaec-" + baseOf(path) + ".XXXXXX";
    } else {
        makeDirectories(dir, named, createdDirs_);
        struct stat st {};
        if (::stat(dir.c_str(), &st) != 0)
            throw ToolError("cannot write " + named + ": directory '" + dir + "': " + std::strerror(errno));
        if (!S_ISDIR(st.st_mode)) throw ToolError("cannot write " + named + ": '" + dir + "' is not a directory");
        tmpl = dir + "/." + baseOf(path) + ".XXXXXX";
    }
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    int fd;
    {
        // Created and registered with the signals held back, so that an
        // interrupt in between cannot leave it behind.
        SignalBlock b;
        fd = ::mkstemp(buf.data());
        if (fd >= 0) registerTemp(buf.data());
    }
    if (fd < 0) {
        const int e = errno;
        if (item.fd >= 0) ::close(item.fd);
        throw ToolError("cannot write " + named + (special ? " (temporary file in " + tempDirectory() + ")" : "") +
                        ": " + std::strerror(e));
    }
    ::close(fd);
    item.temp = buf.data();
    items_.push_back(item);
    return static_cast<int>(items_.size()) - 1;
}

void OutputSet::writeWav(int index, const std::vector<float> &x, int rate, bool pcm16) {
    Item &it = items_.at(static_cast<size_t>(index));
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = 1;
    info.format = SF_FORMAT_WAV | (pcm16 ? SF_FORMAT_PCM_16 : SF_FORMAT_FLOAT);
    SNDFILE *f = sf_open(it.temp.c_str(), SFM_WRITE, &info);
    if (!f) throw ToolError("cannot write '" + it.path + "': " + sf_strerror(nullptr));
    if (pcm16) sf_command(f, SFC_SET_CLIPPING, nullptr, SF_TRUE);
    const sf_count_t n = static_cast<sf_count_t>(x.size());
    const sf_count_t put = sf_writef_float(f, x.data(), n);
    const int err = sf_error(f);
    if (sf_close(f) != 0 || put != n || err != 0)
        throw ToolError("writing '" + it.path + "' failed (disk full?)");
    it.written = true;
}

void OutputSet::writeText(int index, const std::string &text) {
    Item &it = items_.at(static_cast<size_t>(index));
    FILE *f = std::fopen(it.temp.c_str(), "w");
    if (!f) throw ToolError("cannot write '" + it.path + "': " + std::strerror(errno));
    const size_t put = std::fwrite(text.data(), 1, text.size(), f);
    if (std::fclose(f) != 0 || put != text.size()) throw ToolError("writing '" + it.path + "' failed (disk full?)");
    it.written = true;
}

namespace {

// Copies the finished temporary file into an existing special file, open
// as `out` (closed here).
void copyInto(const std::string &from, const std::string &to, int out) {
    const int in = ::open(from.c_str(), O_RDONLY);
    if (in < 0) {
        const int e = errno;
        ::close(out);
        throw ToolError("cannot read the finished output for '" + to + "': " + std::strerror(e));
    }
    char buf[65536];
    bool ok = true;
    for (;;) {
        const ssize_t n = ::read(in, buf, sizeof buf);
        if (n <= 0) {
            ok = n == 0;
            break;
        }
        for (ssize_t done = 0; done < n;) {
            const ssize_t w = ::write(out, buf + done, static_cast<size_t>(n - done));
            if (w < 0) {
                if (errno == EINTR) continue;
                ok = false;
                break;
            }
            done += w;
        }
        if (!ok) break;
    }
    const int e = errno;
    ::close(in);
    if (::close(out) != 0) ok = false;
    if (!ok) throw ToolError("writing '" + to + "' failed: " + std::strerror(e));
}

}  // namespace

void OutputSet::commit() {
    for (Item &it : items_)
        if (!it.written) throw ToolError("internal: output '" + it.path + "' was never written");
    for (Item &it : items_) {
        if (it.special) {
            const int fd = it.fd;
            it.fd = -1;
            copyInto(it.temp, it.path, fd);
            ::unlink(it.temp.c_str());
            unregisterTemp(it.temp);
            it.temp.clear();
            continue;
        }
        // Temporary files are created 0600; give outputs the usual mode.
        const mode_t mask = ::umask(0);
        ::umask(mask);
        ::chmod(it.temp.c_str(), 0666 & ~mask);
        if (std::rename(it.temp.c_str(), it.path.c_str()) != 0)
            throw ToolError("cannot rename the finished output to '" + it.path + "': " + std::strerror(errno));
        unregisterTemp(it.temp);
        it.temp.clear();
    }
    for (const std::string &d : createdDirs_) unregisterTemp(d);
    committed_ = true;
}

void writeWavAtomic(const std::string &path, const std::vector<float> &x, int rate, bool pcm16) {
    OutputSet o;
    const int i = o.add(path);
    o.writeWav(i, x, rate, pcm16);
    o.commit();
}

void ensureDirectory(const std::string &dir) {
    struct stat st {};
    if (::stat(dir.c_str(), &st) != 0) return;
    if (!S_ISDIR(st.st_mode)) throw ToolError("'" + dir + "' exists and is not a directory");
    if (::access(dir.c_str(), W_OK) != 0)
        throw ToolError("output directory '" + dir + "' is not writable: " + std::strerror(errno));
}

}  // namespace kvaec::tool
