#include "audio_io.h"

#include <samplerate.h>
#include <sndfile.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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

}  // namespace

Audio readAudio(const std::string &path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0)
        throw ToolError("cannot open '" + path + "': " + std::strerror(errno));
    if (S_ISDIR(st.st_mode)) throw ToolError("'" + path + "' is a directory, not an audio file");
    if (::access(path.c_str(), R_OK) != 0)
        throw ToolError("cannot read '" + path + "': " + std::strerror(errno));
    SF_INFO info{};
    SNDFILE *f = sf_open(path.c_str(), SFM_READ, &info);
    if (!f) throw ToolError("'" + path + "' is not a readable audio file (" + sf_strerror(nullptr) + ")");
    Audio a;
    a.rate = info.samplerate;
    a.channels = info.channels;
    if (a.rate <= 0 || a.channels <= 0) {
        sf_close(f);
        throw ToolError("'" + path + "' has no usable sample rate or channel count");
    }
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
    const Audio a = readAudio(path);
    std::vector<float> x = pickChannel(a, channel, what + " '" + path + "'");
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
    c.rmsDb = n > 0 && p > 0 ? 10.0 * std::log10(p / static_cast<double>(n)) : -200.0;
    return c;
}

OutputSet::~OutputSet() {
    if (committed_) return;
    for (const Item &it : items_)
        if (!it.temp.empty()) ::unlink(it.temp.c_str());
    for (auto d = createdDirs_.rbegin(); d != createdDirs_.rend(); ++d) ::rmdir(d->c_str());
}

namespace {

// Creates the missing directories of `dir`, outermost first, and appends
// each one made to `created`.
void makeDirectories(const std::string &dir, const std::string &forPath, std::vector<std::string> &created) {
    std::string sofar;
    size_t pos = 0;
    while (pos <= dir.size()) {
        const size_t next = dir.find('/', pos);
        sofar = dir.substr(0, next == std::string::npos ? dir.size() : next);
        pos = next == std::string::npos ? dir.size() + 1 : next + 1;
        if (sofar.empty()) continue;
        struct stat st {};
        if (::stat(sofar.c_str(), &st) == 0) continue;
        if (::mkdir(sofar.c_str(), 0777) != 0 && errno != EEXIST)
            throw ToolError("cannot write '" + forPath + "': cannot create directory '" + sofar + "': " +
                            std::strerror(errno));
        created.push_back(sofar);
    }
}

}  // namespace

int OutputSet::add(const std::string &path) {
    if (path.empty()) throw ToolError("empty output path");
    const std::string dir = dirOf(path);
    makeDirectories(dir, path, createdDirs_);
    struct stat st {};
    if (::stat(dir.c_str(), &st) != 0)
        throw ToolError("cannot write '" + path + "': directory '" + dir + "': " + std::strerror(errno));
    if (!S_ISDIR(st.st_mode)) throw ToolError("cannot write '" + path + "': '" + dir + "' is not a directory");
    struct stat pst {};
    if (::stat(path.c_str(), &pst) == 0 && S_ISDIR(pst.st_mode))
        throw ToolError("cannot write '" + path + "': it is a directory");
    for (const Item &it : items_)
        if (it.path == path) throw ToolError("output '" + path + "' is named twice");
    std::string tmpl = dir + "/." + baseOf(path) + ".XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    const int fd = ::mkstemp(buf.data());
    if (fd < 0) throw ToolError("cannot write '" + path + "': " + std::strerror(errno));
    ::close(fd);
    items_.push_back(Item{path, std::string(buf.data()), false});
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

void OutputSet::commit() {
    for (Item &it : items_)
        if (!it.written) throw ToolError("internal: output '" + it.path + "' was never written");
    for (Item &it : items_) {
        // Temporary files are created 0600; give outputs the usual mode.
        const mode_t mask = ::umask(0);
        ::umask(mask);
        ::chmod(it.temp.c_str(), 0666 & ~mask);
        if (std::rename(it.temp.c_str(), it.path.c_str()) != 0)
            throw ToolError("cannot rename the finished output to '" + it.path + "': " + std::strerror(errno));
        it.temp.clear();
    }
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
