// Audio file input and output for the kvaec tool: reading any format
// libsndfile understands, channel selection, resampling to the library's
// 16 kHz, input checks, and outputs that appear only when complete.
#ifndef KVAEC_TOOL_AUDIO_IO_H
#define KVAEC_TOOL_AUDIO_IO_H

#include <sndfile.h>

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
// missing, is not a regular readable file (a FIFO or a device is refused
// without being opened, so nothing waits for a writer), or is not audio.
// A header that disagrees with the file's size (a truncated or damaged
// file) is reported in `warnings`; the samples present are used.
Audio readAudio(const std::string &path, std::vector<std::string> *warnings = nullptr);

// Opens `path` for streamed reading with the checks of readAudio (missing
// file, not a regular file, not audio, no samples); header warnings go to
// `warnings`. The caller closes the handle with sf_close.
SNDFILE *openAudio(const std::string &path, int &rate, int &channels, long long &frames, int &format,
                       std::vector<std::string> *warnings = nullptr);

// Picks one channel. `channel` is 1-based; 0 means "not given", which is only
// accepted for mono files (a multi-channel file needs an explicit choice).
// A mono file is returned whole whatever `channel` says.
std::vector<float> pickChannel(const Audio &a, int channel, const std::string &what);

// Resamples with libsamplerate (best sinc converter). Same rate: a copy.
std::vector<float> resample(const std::vector<float> &x, int fromRate, int toRate);

// Reads a mono signal at `rate`: picks the channel, resamples when the file
// has another rate (and appends a note to `notes`), or throws when
// `allowResample` is false. Header warnings are printed at once. Throws when
// the channel holds no finite sample (nothing usable).
std::vector<float> loadSignal(const std::string &path, const std::string &what, int channel, int rate,
                              bool allowResample, std::vector<std::string> &notes);

// Input checks that only warn.
struct InputCheck {
    long clipped = 0;        // samples with magnitude >= 0.999
    double firstClipSec = -1;
    long nonFinite = 0;      // NaN or infinite samples
    double rmsDb = -200.0;   // level over the usable frames, dBFS (10 log10 of the mean power)
    long badFrames = 0;      // 10 ms frames left out of the level: non-finite samples or bursts
};
InputCheck checkInput(const std::vector<float> &x, int rate);

// Identity of a file for the "same file" tests: device and inode when it
// exists (so hard links, symbolic links and "a/../a" spellings all match),
// else the path with its directory resolved.
struct FileId {
    bool exists = false;
    unsigned long long dev = 0, ino = 0;
    std::string resolved;
    bool operator==(const FileId &o) const {
        return exists == o.exists && (exists ? dev == o.dev && ino == o.ino : resolved == o.resolved);
    }
};
FileId fileId(const std::string &path);

// A set of output files written as temporary files in their target
// directories and renamed into place only by commit(). The temporary files
// are created when an output is added, so an output path that cannot be
// written fails at once, before any processing. Whatever was not committed
// is removed by the destructor, and by the handler of SIGINT and SIGTERM
// (installed by installInterruptHandler()).
//
// Outputs never replace inputs: every input is registered with
// protectInput() and every output is compared with the inputs and the other
// outputs by FileId; a clash is an error before any work. An output that
// exists and is not a regular file (a device such as /dev/null, a FIFO) is
// never renamed over: its temporary file lives in the temporary directory
// and commit() copies it into the existing file.
class OutputSet {
public:
    OutputSet() = default;
    OutputSet(const OutputSet &) = delete;
    OutputSet &operator=(const OutputSet &) = delete;
    ~OutputSet();

    // Registers an input (`what`: how messages name it, e.g. "--far").
    // Throws when an output already added is the same file.
    void protectInput(const std::string &path, const std::string &what);
    // Reserves `path`, creating its missing parent directories (throws
    // ToolError when that fails, its directory is not writable, or it is an
    // input or another output). `what` names the option. Returns the index
    // to pass to the write functions.
    int add(const std::string &path, const std::string &what = "");
    // Registers an output written by another program (e.g. the plot): it is
    // compared with the inputs and outputs like one added here, but no
    // temporary file is made for it.
    void addExternal(const std::string &path, const std::string &what);
    // Writes a mono WAV (32-bit float, or 16-bit PCM) to the temporary file.
    void writeWav(int index, const std::vector<float> &x, int rate, bool pcm16 = false);
    // Writes text to the temporary file.
    void writeText(int index, const std::string &text);
    // Marks an output written by the caller into tempPath() (streamed writers).
    void markWritten(int index) { items_.at(static_cast<size_t>(index)).written = true; }
    // Temporary file of an output (for writers outside this class).
    const std::string &tempPath(int index) const { return items_.at(static_cast<size_t>(index)).temp; }
    const std::string &finalPath(int index) const { return items_.at(static_cast<size_t>(index)).path; }
    // Renames every temporary file to its final name (copies it into a
    // special file).
    void commit();

private:
    struct Item {
        std::string path;
        std::string what;
        std::string temp;
        FileId id;
        bool special = false;  // existing non-regular file: written into, never renamed over
        int fd = -1;           // a special output, held open from add() to commit()
        bool written = false;
    };
    struct Input {
        std::string path, what;
        FileId id;
    };
    std::vector<Item> items_;
    std::vector<Input> inputs_;
    std::vector<Input> externals_;
    std::vector<std::string> createdDirs_;  // made by add(), removed again unless committed
    bool committed_ = false;
};

// Installs handlers of SIGINT and SIGTERM that remove every temporary file of
// every live OutputSet, say so on stderr and end the program with the signal
// (shell status 128 + signal number: 130 for Ctrl-C, 143 for SIGTERM).
void installInterruptHandler();

// Writes a mono WAV atomically (temporary file in the same directory, then rename).
void writeWavAtomic(const std::string &path, const std::vector<float> &x, int rate, bool pcm16 = false);

// When `dir` exists, checks that it is a writable directory (a missing one is
// created by OutputSet::add, and removed again if the run fails).
void ensureDirectory(const std::string &dir);

}  // namespace kvaec::tool

#endif
