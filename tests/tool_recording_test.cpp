// The tool on recordings, run as a user runs it: a recording of capture files replays
// to the files' own outputs, frames are selected as asked, workers write the serial
// run's files, another calibration changes the result, and a recording cut short is
// still summed up.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace {

struct Outcome {
    int code;
    std::string out, err;
};

class ToolRecording : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir_ = fs::path(testing::TempDir()) /
               ("qvrecon_rec_" + std::string(testing::UnitTest::GetInstance()->current_test_info()->name()) + "_" +
                std::to_string(getpid()));
        fs::remove_all(dir_);
        fs::create_directories(dir_);
    }
    void TearDown() override { fs::remove_all(dir_); }

    Outcome Qvrecon(const std::string& args)
    {
        const std::string out = P("stdout.txt"), err = P("stderr.txt");
        const std::string cmd = std::string(QVRECON_EMULATOR " ") + QVRECON_BINARY + " " + args + " > " + out +
                                " 2> " + err;
        const int status = std::system(cmd.c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, Contents(out), Contents(err)};
    }
    std::string P(const std::string& name) const { return (dir_ / name).string(); }
    static std::string Contents(const fs::path& path)
    {
        std::ifstream in(path, std::ios::binary);
        return std::string((std::istreambuf_iterator<char>(in)), {});
    }
    static std::vector<std::string> Names(const fs::path& folder)
    {
        std::vector<std::string> names;
        if (fs::exists(folder))
            for (const auto& f : fs::directory_iterator(folder))
                names.push_back(f.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }
    // A simulated capture file; returns its path.
    std::string Capture(const std::string& name, const std::string& options)
    {
        const Outcome o = Qvrecon("simulate --scene boxes " + options + " --out " + P(name));
        EXPECT_EQ(o.code, 0) << o.err;
        return P(name) + "/capture.raw";
    }

    fs::path dir_;
};

// Full and binned captures of the full stream, warmer and noisier one by one: the
// binned one halves the threshold for the full capture after it.
TEST_F(ToolRecording, DepthReplayedFromARecordingEqualsDepthFromTheCaptureFiles)
{
    const std::vector<std::string> caps = {Capture("a", "--stream dual --noise 3 --seed 4"),
                                           Capture("b", "--stream binned --temperature 30 --noise 3"),
                                           Capture("c", "--stream dual --temperature 35 --distance 1800")};
    const std::string list = caps[0] + " " + caps[1] + " " + caps[2];
    const Outcome rec = Qvrecon("record " + list + " --fps 30 --start-time 1000000000 --out " + P("rec.mcap"));
    ASSERT_EQ(rec.code, 0) << rec.err;
    ASSERT_EQ(Qvrecon("depth " + list + " --out " + P("files")).code, 0);
    const Outcome replay = Qvrecon("depth " + P("rec.mcap") + " --out " + P("replay"));
    ASSERT_EQ(replay.code, 0) << replay.err;
    const Outcome jobs = Qvrecon("depth " + P("rec.mcap") + " --jobs 2 --out " + P("jobs"));
    ASSERT_EQ(jobs.code, 0) << jobs.err;

    const char* fileStems[] = {"capture", "capture-2", "capture-3"};
    ASSERT_EQ(Names(P("replay")).size(), 12u);
    for (int k = 0; k < 3; ++k)
        for (const char* suffix : {"_depth.png", "_colour.png", "_ir.png", ".ply"}) {
            const std::string replayed = P("replay") + "/rec_00000" + std::to_string(k) + suffix;
            const std::string original = Contents(P("files") + "/" + fileStems[k] + suffix);
            EXPECT_FALSE(original.empty()) << fileStems[k] << suffix;
            EXPECT_TRUE(Contents(replayed) == original) << replayed;
            EXPECT_TRUE(Contents(P("jobs") + "/rec_00000" + std::to_string(k) + suffix) == original) << k << suffix;
        }

    // The recording says what was recorded: three captures 1/30 s apart, the
    // temperature codes the simulator wrote (25 and 35 degrees), nothing dropped.
    const Outcome info = Qvrecon("info " + P("rec.mcap"));
    ASSERT_EQ(info.code, 0) << info.err;
    EXPECT_NE(info.out.find("frames: 3, 0 with a colour frame"), std::string::npos) << info.out;
    EXPECT_NE(info.out.find("duration: 0.067 s (first capture at 1000000000 ns"), std::string::npos) << info.out;
    EXPECT_NE(info.out.find("codes 296 to 350"), std::string::npos) << info.out;
    EXPECT_NE(info.out.find("gaps: none"), std::string::npos) << info.out;
    EXPECT_NE(info.out.find("dropped frames: 0\n"), std::string::npos) << info.out;
    EXPECT_NE(info.out.find("calibration: attached, full record \"sample module"), std::string::npos) << info.out;
}

TEST_F(ToolRecording, StartEndAndEverySelectFramesBothEndsIncluded)
{
    const std::string cap = Capture("a", "--stream single");
    const Outcome rec = Qvrecon("record " + cap + " " + cap + " " + cap + " " + cap + " " + cap + " " + cap +
                                " --fps 10 --out " + P("r.mcap"));
    ASSERT_EQ(rec.code, 0) << rec.err;
    ASSERT_EQ(Qvrecon("depth " + P("r.mcap") + " --outputs depth --start 1 --end 4 --every 3 --out " + P("s")).code, 0);
    EXPECT_EQ(Names(P("s")), (std::vector<std::string>{"r_000001_depth.png", "r_000004_depth.png"}));
    // An end past the last frame stops at the last; a capture file named like a
    // recording's frame keeps outputs of its own.
    fs::copy_file(cap, P("r_000005.raw"));
    ASSERT_EQ(Qvrecon("depth " + P("r.mcap") + " " + P("r_000005.raw") + " --outputs depth --start 4 --end 99 --out " +
                      P("e")).code, 0);
    EXPECT_EQ(Names(P("e")), (std::vector<std::string>{"r_000004_depth.png", "r_000005-2_depth.png",
                                                       "r_000005_depth.png"}));
    // Nothing selected, or a selection without a recording: one line, exit 1, no files.
    for (const std::string& bad : {"depth " + P("r.mcap") + " --start 6", "depth " + P("r.mcap") + " --start 3 --end 2",
                                   "depth " + cap + " --start 1"}) {
        const Outcome o = Qvrecon(bad + " --out " + P("bad"));
        EXPECT_EQ(o.code, 1) << bad;
        EXPECT_EQ(std::count(o.err.begin(), o.err.end(), '\n'), 1) << o.err;
        EXPECT_TRUE(Names(P("bad")).empty()) << bad;
    }
}

TEST_F(ToolRecording, AnotherCalibrationReplacesTheRecordingsOwn)
{
    const std::string cap = Capture("a", "--stream dual");
    ASSERT_EQ(Qvrecon("record " + cap + " --fps 30 --out " + P("r.mcap")).code, 0);
    // The sample module with the full record's second-frequency offset moved by 40 mm.
    std::string yaml = Contents(P("a") + "/calibration.yaml");
    const std::string key = "depthOffsetF2:";
    const size_t at = yaml.rfind(key);  // the full record follows the binned one
    ASSERT_NE(at, std::string::npos) << yaml;
    const size_t end = yaml.find('\n', at);
    const double offset = std::stod(yaml.substr(at + key.size(), end - at - key.size()));
    yaml.replace(at, end - at, key + " " + std::to_string(offset + 40.0));
    std::ofstream(P("other.yaml")) << yaml;

    ASSERT_EQ(Qvrecon("depth " + P("r.mcap") + " --outputs depth --out " + P("own")).code, 0);
    ASSERT_EQ(Qvrecon("depth " + P("r.mcap") + " --outputs depth --calib " + P("other.yaml") + " --out " + P("other")).code, 0);
    ASSERT_EQ(Qvrecon("depth " + cap + " --outputs depth --calib " + P("other.yaml") + " --out " + P("files")).code, 0);
    const std::string own = Contents(P("own") + "/r_000000_depth.png");
    const std::string other = Contents(P("other") + "/r_000000_depth.png");
    EXPECT_FALSE(own.empty());
    EXPECT_NE(own, other);
    EXPECT_EQ(other, Contents(P("files") + "/capture_depth.png"));
}

TEST_F(ToolRecording, InfoOnARecordingCutShortSaysItScannedAndCountsItsCompleteFrames)
{
    // Uncompressed full-stream captures: each fills a chunk of its own.
    const std::string cap = Capture("a", "--stream dual");
    ASSERT_EQ(Qvrecon("record " + cap + " " + cap + " " + cap + " " + cap + " --compression none --out " +
                      P("r.mcap")).code, 0);
    const uintmax_t size = fs::file_size(P("r.mcap"));
    fs::resize_file(P("r.mcap"), size * 6 / 10);  // inside the third capture's chunk
    const Outcome info = Qvrecon("info " + P("r.mcap"));
    EXPECT_EQ(info.code, 1);
    EXPECT_NE(info.out.find("rebuilt by a scan"), std::string::npos) << info.out;
    EXPECT_NE(info.out.find("frames: 2,"), std::string::npos) << info.out;
    EXPECT_NE(info.err.find("cut short"), std::string::npos) << info.err;
    // Its complete frames still convert.
    const Outcome depth = Qvrecon("depth " + P("r.mcap") + " --outputs depth --out " + P("d"));
    EXPECT_EQ(depth.code, 0) << depth.err;
    EXPECT_EQ(Names(P("d")), (std::vector<std::string>{"r_000000_depth.png", "r_000001_depth.png"}));
}

}  // namespace
