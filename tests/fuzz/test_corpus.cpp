// Replays the checked-in fuzz seed corpus (and any reproducer added to it)
// through the fuzz harness, so every build of the suite, including the
// sanitizer and valgrind runs, checks these inputs.
// 64-bit directory offsets and inode numbers also on 32-bit targets: without
// them readdir fails (EOVERFLOW) on file systems with large inode numbers.
#ifndef _FILE_OFFSET_BITS
#define _FILE_OFFSET_BITS 64
#endif
#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "harness.h"

namespace {

std::string corpusDir() {
    std::string f = __FILE__;
    return f.substr(0, f.find_last_of('/')) + "/corpus";
}

std::vector<std::string> corpusFiles() {
    std::vector<std::string> out;
    const std::string dir = corpusDir();
    if (DIR *d = opendir(dir.c_str())) {
        while (dirent *e = readdir(d))
            if (e->d_name[0] != '.') out.push_back(dir + "/" + e->d_name);
        closedir(d);
    }
    std::sort(out.begin(), out.end());
    return out;
}

std::vector<uint8_t> readFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST(FuzzCorpus, EverySeedPassesGuardBistAndRecoveryChecks) {
    const std::vector<std::string> files = corpusFiles();
    ASSERT_GE(files.size(), 8u) << "seed corpus missing in " << corpusDir();
    for (const std::string &f : files) {
        const std::vector<uint8_t> data = readFile(f);
        const char *e = kvaec_fuzz::runOne(data.data(), data.size());
        EXPECT_EQ(e, nullptr) << f << ": " << (e ? e : "");
    }
}

// The guard check the harness applies: a bypass frame keeps whatever the
// guard words hold (here deliberately wrong values), a normal frame writes
// both.
TEST(FuzzCorpus, BypassKeepsGuardWordsAndNormalFrameWritesThem) {
    aecx_init(nullptr);
    aecx_control(KVAEC_MODE_BYPASS, nullptr, 0.0f);
    AEC_Sc.uiGuardLo = 0xdeadbeefu;
    AEC_Sc.uiGuardHi = 0x01020304u;
    float rin[KVAEC_FRAME_SAMPLES] = {}, sin[KVAEC_FRAME_SAMPLES] = {};
    ASSERT_EQ(kvaec_fuzz::frame(rin, sin), nullptr);
    EXPECT_EQ(AEC_Sc.uiGuardLo, 0xdeadbeefu);
    EXPECT_EQ(AEC_Sc.uiGuardHi, 0x01020304u);
    aecx_control(0, nullptr, 0.0f);
    ASSERT_EQ(kvaec_fuzz::frame(rin, sin), nullptr);
    EXPECT_EQ(AEC_Sc.uiGuardLo, AEC_SC_GUARD_LO);
    EXPECT_EQ(AEC_Sc.uiGuardHi, AEC_SC_GUARD_HI);
}

// Recovery is checked after non-finite input: a NaN frame poisons the state,
// and the harness's reset-and-run restores a sound state.
TEST(FuzzCorpus, RecoveryAfterANanFrameLeavesASoundState) {
    std::vector<uint8_t> prog(1 + 320 * 4, 0);
    prog[0] = 0;  // raw frame
    for (size_t i = 1; i + 3 < prog.size(); i += 4) {  // quiet NaN 0x7fc00000
        prog[i + 2] = 0xc0;
        prog[i + 3] = 0x7f;
    }
    // Without the recovery the state holds non-finite words.
    std::memset(&AEC_Sc, 0, sizeof AEC_Sc);
    aecx_init(nullptr);
    float rin[KVAEC_FRAME_SAMPLES], sin[KVAEC_FRAME_SAMPLES];
    for (int k = 0; k < KVAEC_FRAME_SAMPLES; ++k) rin[k] = sin[k] = std::nanf("");
    aecx_process(rin, sin);
    EXPECT_GT(aecx_bist(), 0);
    EXPECT_EQ(kvaec_fuzz::runOne(prog.data(), prog.size()), nullptr);
    EXPECT_EQ(aecx_bist(), 0);
}

}  // namespace
