// Inputs that once troubled the MCAP reader, and crafted hostile files, replayed
// through the fuzzer's own steps (tests/data/recording; new findings go there).
#include <gtest/gtest.h>

#include <dirent.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "../../fuzz/fuzz_recording.cpp"

TEST(RecordingRegressions, EveryKeptInputReadsWithoutFault)
{
    std::vector<std::string> names;
    DIR* dir = opendir(QV_RECORDING_REGRESSIONS);
    ASSERT_NE(dir, nullptr);
    while (dirent* e = readdir(dir)) {
        const std::string name = e->d_name;
        if (name.size() > 5 && name.substr(name.size() - 5) == ".mcap") names.push_back(name);
    }
    closedir(dir);
    ASSERT_GE(names.size(), 2u);
    for (const std::string& name : names) {
        std::ifstream in(std::string(QV_RECORDING_REGRESSIONS) + "/" + name, std::ios::binary);
        std::stringstream ss;
        ss << in.rdbuf();
        const std::string bytes = ss.str();
        SCOPED_TRACE(name);
        EXPECT_EQ(LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()), 0);
        // Each kept file is damaged: opening it reports what is wrong.
        Reader reader;
        Status s = reader.Open(MemorySource(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()), name);
        EXPECT_TRUE(!s.ok() || !reader.Problems().empty());
    }
}
