// Promise: reliability (hostile input). The frame fuzzer's corpus keeps the promises of fuzz/frame_case.h.
#include "frame_case.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

namespace {

TEST(FrameCorpus, EveryInputKeepsThePromises) {
    int inputs = 0;
    for (const auto &file : std::filesystem::directory_iterator(FLATMORPH_FUZZ_CORPUS)) {
        std::ifstream in(file.path(), std::ios::binary);
        const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        EXPECT_EQ(fmfuzz::run_frame_case(bytes.data(), bytes.size()), "") << file.path();
        inputs++;
    }
    EXPECT_GT(inputs, 0);
}

}  // namespace
