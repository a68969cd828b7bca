// Audio file input and output for the kvaec tool: reading any format
// libsndfile understands, channel selection, resampling to the library's
// 16 kHz, input checks, and outputs that appear only when complete.
#ifndef KVAEC_TOOL_AUDIO_IO_H
#define KVAEC_TOOL_AUDIO_IO_H

#include <stdexcept>
#include <string>
#include <vector>

namespace kvaec::tool {

// Every error the tool reports to the user (message without a prefix).
struct ToolError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// One audio file as read: interleaved samples, full scale +-1.
struct Audio {
    int rate = 0;
    int channels = 0;
    std::vector<float> samples;  // frames * channels, interleaved
    long frames() const { return channels > 0 ? static_cast<long>(samples.size()) / channels : 0; }
};

// Reads `path`. Throws ToolError with a clear message when the file is
// missing, is not a regular readable file, or is not audio.
Audio readAudio(const std::string &path);

// Picks one channel. `channel` is 1-based; 0 means "not given", which is only
// accepted for mono files (a multi-channel file needs an explicit choice).
// A mono file is returned whole whatever `channel` says.
std::vector<float> pickChannel(const Audio &a, int channel, const std::string &what);

// Resamples with libsamplerate (best sinc converter). Same rate: a copy.
std::vector<float> resample(const std::vector<float> &x, int fromRate, int toRate);

// Reads a mono signal at `rate`: picks the channel, resamples when the file
// has another rate (and appends a note to `notes`), or throws when
// `allowResample` is false.
std::vector<float> loadSignal(const std::string &path, const std::string &what, int channel, int rate,
                              bool allowResample, std::vector<std::string> &notes);

// Input checks that only warn.
struct InputCheck {
    long clipped = 0;        // samples with magnitude >= 0.999
    double firstClipSec = -1;
    long nonFinite = 0;      // NaN or infinite samples
    double rmsDb = -200.0;   // level over the whole signal, dBFS (10 log10 of the mean power)
};
InputCheck checkInput(const std::vector<float> &x, int rate);

// A set of output files written as temporary files in their target
// directories and renamed into place only by commit(). The temporary files
// are created when an output is added, so an output path that cannot be
// written fails at once, before any processing. Whatever was not committed
// is removed by the destructor.
class OutputSet {
public:
    OutputSet() = default;
    OutputSet(const OutputSet &) = delete;
    OutputSet &operator=(const OutputSet &) = delete;
    ~OutputSet();

    // Reserves `path`, creating its missing parent directories (throws
    // ToolError when that fails or the directory is not writable). Returns
    // the index to pass to the write functions.
    int add(const std::string &path);
    // Writes a mono WAV (32-bit float, or 16-bit PCM) to the temporary file.
    void writeWav(int index, const std::vector<float> &x, int rate, bool pcm16 = false);
    // Writes text to the temporary file.
    void writeText(int index, const std::string &text);
    // Temporary file of an output (for writers outside this class).
    const std::string &tempPath(int index) const { return items_.at(static_cast<size_t>(index)).temp; }
    const std::string &finalPath(int index) const { return items_.at(static_cast<size_t>(index)).path; }
    // Renames every temporary file to its final name.
    void commit();

private:
    struct Item {
        std::string path;
        std::string temp;
        bool written = false;
    };
    std::vector<Item> items_;
    std::vector<std::string> createdDirs_;  // made by add(), removed again unless committed
    bool committed_ = false;
};

// Writes a mono WAV atomically (temporary file in the same directory, then rename).
void writeWavAtomic(const std::string &path, const std::vector<float> &x, int rate, bool pcm16 = false);

// When `dir` exists, checks that it is a writable directory (a missing one is
// created by OutputSet::add, and removed again if the run fails).
void ensureDirectory(const std::string &dir);

}  // namespace kvaec::tool

#endif
