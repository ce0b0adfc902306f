// The command-line tool, run as a user runs it (the binary beside the library in
// the installed layout of the build tree).
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include "output_files.h"

namespace fs = std::filesystem;

namespace {

struct Outcome {
    int code;
    std::string err;
};

class Tool : public ::testing::Test {
protected:
    void SetUp() override
    {
        // One folder per test and process, so that runs side by side never share one.
        dir_ = fs::path(testing::TempDir()) /
               ("qvrecon_" + std::string(testing::UnitTest::GetInstance()->current_test_info()->name()) + "_" +
                std::to_string(getpid()));
        fs::remove_all(dir_);
        fs::create_directories(dir_);
    }
    void TearDown() override { fs::remove_all(dir_); }

    // The tool's command: the binary, behind the emulator when the tests run under one.
    static std::string Binary() { return std::string(QVRECON_EMULATOR " ") + QVRECON_BINARY; }
    // Runs the tool through the shell, after `setup` (shell commands, e.g. a ulimit).
    Outcome Qvrecon(const std::string& args, const std::string& setup = "")
    {
        const std::string err = (dir_ / "stderr.txt").string();
        const std::string cmd = setup + Tool::Binary() + " " + args + " > /dev/null 2> " + err;
        const int status = std::system(cmd.c_str());
        std::ifstream in(err);
        std::stringstream text;
        text << in.rdbuf();
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, text.str()};
    }
    std::string P(const std::string& name) const { return (dir_ / name).string(); }
    static std::string Contents(const fs::path& path)
    {
        std::ifstream in(path, std::ios::binary);
        return std::string((std::istreambuf_iterator<char>(in)), {});
    }
    static size_t Files(const fs::path& folder)
    {
        if (!fs::exists(folder))
            return 0;
        return static_cast<size_t>(std::distance(fs::directory_iterator(folder), fs::directory_iterator()));
    }

    fs::path dir_;
};

TEST_F(Tool, SimulateThenDepthGivesTheSceneBack)
{
    // Three captures of the same name in one batch: each keeps outputs of its own
    // (capture, capture-2, capture-3 in the order given).
    std::string batch;
    for (const char* stream : {"dual", "single", "binned"}) {
        const std::string cap = P(std::string("cap_") + stream);
        ASSERT_EQ(Qvrecon(std::string("simulate --scene plane --tilt 20 --distance 1600 --stream ") + stream +
                          " --out " + cap).code, 0);
        batch += " " + cap + "/capture.raw";
    }
    const std::string out = P("out");
    const Outcome run = Qvrecon("depth" + batch + " --out " + out);
    ASSERT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(Files(out), 12u);
    for (const char* stream : {"dual", "single", "binned"}) {
        const std::string cap = P(std::string("cap_") + stream);
        const std::string stem = out + (stream[0] == 'd' ? "/capture" : stream[0] == 's' ? "/capture-2" : "/capture-3");
        for (const char* suffix : {"_depth.png", "_colour.png", "_ir.png", ".ply"})
            EXPECT_TRUE(fs::exists(stem + suffix)) << stream << suffix;
        const cv::Mat depth = cv::imread(stem + "_depth.png", cv::IMREAD_UNCHANGED);
        const cv::Mat truth = cv::imread(cap + "/truth_depth.png", cv::IMREAD_UNCHANGED);
        ASSERT_EQ(depth.type(), CV_16UC1);
        ASSERT_EQ(depth.size(), truth.size());
        // Rows 0 and 1 carry no depth, and the median sees them beside row 2.
        int checked = 0, outside = 0;
        for (int r = 3; r < depth.rows - 2; ++r)
            for (int c = 1; c < depth.cols - 1; ++c) {
                ++checked;
                outside += std::abs(depth.at<uint16_t>(r, c) - truth.at<uint16_t>(r, c)) > 3;
            }
        EXPECT_EQ(outside, 0) << stream << " of " << checked;
    }

    // Worker processes write the same files. One that cannot write stops the batch
    // with one line and exit 1.
    const Outcome parallel = Qvrecon("depth" + batch + " --jobs 2 --out " + P("out2"));
    ASSERT_EQ(parallel.code, 0) << parallel.err;
    for (const auto& f : fs::directory_iterator(out)) {
        std::ifstream x(f.path(), std::ios::binary), y(P("out2") / f.path().filename(), std::ios::binary);
        const std::string a((std::istreambuf_iterator<char>(x)), {}), b((std::istreambuf_iterator<char>(y)), {});
        EXPECT_TRUE(!a.empty() && a == b) << f.path().filename();
    }
    fs::create_directories(P("out3") + "/capture-2_ir.png");
    const Outcome failed = Qvrecon("depth" + batch + " --jobs 3 --out " + P("out3"));
    EXPECT_EQ(failed.code, 1);
    size_t messages = 0;
    for (size_t at = failed.err.find("qvrecon: "); at != std::string::npos; at = failed.err.find("qvrecon: ", at + 1))
        ++messages;
    EXPECT_EQ(messages, 1u) << failed.err;
    EXPECT_NE(failed.err.find("capture-2_ir.png"), std::string::npos) << failed.err;
    for (const auto& f : fs::directory_iterator(P("out3")))
        EXPECT_EQ(f.path().filename().string().find(".tmp-"), std::string::npos) << f.path();
}

// The vertices of a PLY file the tool wrote (x, y, z floats), binary or ASCII.
std::vector<float> ReadPly(const std::string& path, std::string& format)
{
    std::ifstream in(path, std::ios::binary);
    std::string line;
    size_t count = 0;
    while (std::getline(in, line) && line != "end_header") {
        if (line.rfind("format ", 0) == 0)
            format = line.substr(7);
        if (line.rfind("element vertex ", 0) == 0)
            count = std::stoul(line.substr(15));
    }
    std::vector<float> v(3 * count);
    if (format == "ascii 1.0") {
        for (float& x : v) {
            std::string word;
            in >> word;
            x = std::stof(word);  // "nan" included
        }
    } else {
        in.read(reinterpret_cast<char*>(v.data()), static_cast<std::streamsize>(v.size() * sizeof(float)));
    }
    EXPECT_TRUE(in.good()) << path;
    return v;
}

TEST_F(Tool, PointCloudsInBinaryOrAsciiPointsOrOrganisedMillimetresOrMetres)
{
    ASSERT_EQ(Qvrecon("simulate --scene boxes --stream dual --out " + P("cap")).code, 0);
    const char* variants[] = {"", "--ply-format ascii", "--ply-layout organised --ply-units m"};
    std::vector<float> clouds[3];
    for (int k = 0; k < 3; ++k) {
        const std::string out = P("ply" + std::to_string(k));
        ASSERT_EQ(Qvrecon("depth " + P("cap/capture.raw") + " --outputs ply --out " + out + " " + variants[k]).code, 0);
        std::string format;
        clouds[k] = ReadPly(out + "/capture.ply", format);
        EXPECT_EQ(format, k == 1 ? "ascii 1.0" : "binary_little_endian 1.0");
    }
    // The default: binary millimetres, only points with depth; ASCII gives the same to 0.05 mm.
    ASSERT_GT(clouds[0].size(), 3u * 250000);
    ASSERT_EQ(clouds[1].size(), clouds[0].size());
    for (size_t i = 0; i < clouds[0].size(); ++i)
        ASSERT_NEAR(clouds[0][i], clouds[1][i], 0.0501f) << i;
    // Organised: every pixel, NaN without depth; the others are the same points in metres.
    ASSERT_EQ(clouds[2].size(), 3u * 640 * 480);
    std::vector<float> valid;
    for (size_t i = 0; i < clouds[2].size(); i += 3)
        if (!std::isnan(clouds[2][i + 2]))
            valid.insert(valid.end(), {clouds[2][i], clouds[2][i + 1], clouds[2][i + 2]});
    ASSERT_EQ(valid.size(), clouds[0].size());
    for (size_t i = 0; i < valid.size(); ++i)
        ASSERT_FLOAT_EQ(valid[i], clouds[0][i] * 0.001f) << i;
}

TEST_F(Tool, BadInputsGiveOneMessageAnExitCodeAndNoOutput)
{
    ASSERT_EQ(Qvrecon("simulate --out " + P("cap")).code, 0);
    std::ofstream(P("short.raw"), std::ios::binary) << std::string(1000, 'x');
    std::ofstream(P("unknown.yaml")) << "%YAML:1.0\n---\nfull:\n   depthLens:\n      focal: 3\n";
    std::ofstream(P("badtype.yaml")) << "%YAML:1.0\n---\nfull:\n   tableCountF1: 2.5\n";
    std::ofstream(P("garbage.yaml")) << "{{{ not yaml";
    std::ofstream(P("wide.yaml")) << "binned:\n  depthLens: {width: 4294967296}\n";
    std::ofstream(P("huge.yaml")) << "full:\n  depthOffsetF2: -1e39\n";
    std::ofstream(P("trailing.json")) << "{\"full\": {\"tableCountF1\": 12}} 7";
    std::ofstream(P("large.yaml")) << std::string(2 << 20, '#');
    std::ofstream(P("afile")) << "x";
    ASSERT_EQ(mkfifo(P("fifo").c_str(), 0600), 0);
    struct Case {
        std::string args, message;
        int code = 1;  // 1: the run failed; 2: the command line cannot be run
    } cases[] = {
        {"depth " + P("missing.raw") + " --out " + P("o1"), "missing.raw: cannot read"},
        {"depth /dev/zero --out " + P("o1"), "/dev/zero: not a regular file"},
        {"depth " + P("fifo") + " --out " + P("o1"), "fifo: not a regular file"},
        {"info --calib " + P("fifo"), "fifo: not a regular file"},
        {"info --calib " + P("large.yaml"), "more than the 1048576"},
        {"register " + P("fifo") + " " + P("cap/colour.nv12") + " --out " + P("o1"), "fifo: not a regular file"},
        {"info --calib " + P("wide.yaml"), "binned.depthLens.width: 4294967296 is outside the range of a 32-bit integer"},
        {"info --calib " + P("huge.yaml"), "full.depthOffsetF2: -1e39 is outside the range of a 32-bit float"},
        {"info --calib " + P("trailing.json"), "text follows the calibration"},
        {"simulate --device 3 --out " + P("o1"), "--device: 3 not in {0,1,4}", 2},
        {"simulate --distance -5 --out " + P("o1"), "--distance: Value -5 not in range [1 - 65535]", 2},
        {"simulate --distance nan --out " + P("o1"), "not in range [1 - 65535]", 2},
        {"depth --out " + P("o1"), "captures is required", 2},
        {"depth " + P("cap/capture.raw") + " --range 100 70000 --out " + P("o1"), "not in range", 2},
        {"frobnicate", "A subcommand is required", 2},
        {"depth " + P("short.raw") + " --out " + P("o2"), "1000 bytes fit no stream"},
        {"depth " + P("cap/capture.raw") + " --stream single --out " + P("o3"), "a single capture has 614400"},
        {"depth " + P("cap/capture.raw") + " --calib " + P("unknown.yaml") + " --out " + P("o4"),
         "full.depthLens: unknown field 'focal'"},
        {"depth " + P("cap/capture.raw") + " --calib " + P("badtype.yaml") + " --out " + P("o5"),
         "full.tableCountF1: expected an integer"},
        {"info --calib " + P("garbage.yaml"), "not a readable YAML or JSON calibration"},
        {"depth " + P("cap/capture.raw") + " --out " + P("afile") + "/sub", "cannot create the output folder"},
        {"register " + P("cap/capture.raw") + " " + P("cap/colour.nv12") + " --out " + P("o6"),
         "expected a 16-bit 640x480 depth PNG"},
        {"register " + P("nothing.png") + " " + P("cap/colour.nv12") + " --out " + P("o7"), "nothing.png: cannot open"},
        {"depth " + P("cap/capture.raw") + " " + P("cap/capture.raw") + " --colour " + P("cap/colour.nv12") + " " +
             P("cap/colour.nv12") + " " + P("cap/colour.nv12") + " --out " + P("o1"),
         "one per capture (2), not 3"},
        {"depth " + P("cap/capture.raw") + " --colour " + P("cap/capture.raw") + " --out " + P("o1"),
         "capture.raw: 9830400 bytes, an NV12 1920x1080 frame has 3110400"},
        {"depth " + P("cap/capture.raw") + " --colour " + P("cap/colour.nv12") + " --outputs depth --out " + P("o1"),
         "ply must be among --outputs"},
        {"info --format pcl", "--format: pcl not in {text,open3d,ros}", 2},
    };
    for (const Case& c : cases) {
        const Outcome run = Qvrecon(c.args);
        EXPECT_EQ(run.code, c.code) << c.args;
        EXPECT_NE(run.err.find(c.message), std::string::npos) << c.args << "\n" << run.err;
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
    }
    for (const char* o : {"o1", "o2", "o3", "o4", "o5", "o6", "o7"})
        EXPECT_EQ(Files(dir_ / o), 0u) << o;
    EXPECT_EQ(Qvrecon("--version").code, 0);
}

// Outputs are written through exclusive temporary files: a link planted at an
// output's name is replaced, not written through; a file-size limit, like a full
// disk, is one message and exit 1 with nothing left behind; and a run stopped by
// SIGTERM or SIGINT leaves no temporary file.
TEST_F(Tool, OutputsAreWholeOrAbsent)
{
    std::ofstream(P("victim")) << "keep";
    fs::create_directories(P("out"));
    fs::create_symlink(P("victim"), P("out/truth_depth.png"));
    ASSERT_EQ(Qvrecon("simulate --out " + P("out")).code, 0);
    EXPECT_FALSE(fs::is_symlink(P("out/truth_depth.png")));
    std::ifstream victim(P("victim"));
    std::string kept;
    victim >> kept;
    EXPECT_EQ(kept, "keep");

    // 9,830,400 bytes of capture against a limit of 1,000 blocks.
    const Outcome limited = Qvrecon("simulate --out " + P("limited"), "ulimit -f 1000; ");
    EXPECT_EQ(limited.code, 1);
    EXPECT_NE(limited.err.find("capture.raw: cannot write (File too large)"), std::string::npos) << limited.err;
    EXPECT_EQ(std::count(limited.err.begin(), limited.err.end(), '\n'), 1) << limited.err;
    EXPECT_EQ(Files(P("limited")), 0u);

    // Signals at several moments of a run that writes large files; whatever each one
    // interrupts, what is left is complete outputs only.
    for (int sig : {SIGTERM, SIGINT}) {
        for (int delayMs : {5, 40, 120, 300}) {
            const std::string folder = P("stopped_" + std::to_string(sig) + "_" + std::to_string(delayMs));
            const pid_t child = fork();
            ASSERT_GE(child, 0);
            if (child == 0) {
                const std::string run = "exec " + Binary() + " simulate --out " + folder;
                execl("/bin/sh", "sh", "-c", run.c_str(), static_cast<char*>(nullptr));
                _exit(127);
            }
            usleep(delayMs * 1000);
            kill(child, sig);
            int status = 0;
            waitpid(child, &status, 0);
            if (fs::exists(folder))
                for (const auto& entry : fs::directory_iterator(folder)) {
                    const std::string name = entry.path().filename().string();
                    EXPECT_EQ(name.find(".tmp-"), std::string::npos) << name;
                    if (name == "capture.raw") {
                        EXPECT_EQ(fs::file_size(entry.path()), 16u * 640 * 480 * 2);
                    }
                }
        }
    }
}

TEST_F(Tool, RegisterInfoAndDemo)
{
    ASSERT_EQ(Qvrecon("simulate --scene boxes --out " + P("cap")).code, 0);
    ASSERT_EQ(Qvrecon("depth " + P("cap/capture.raw") + " --outputs depth --filter off --out " + P("d")).code, 0);
    EXPECT_FALSE(fs::exists(P("d/capture_ir.png")));
    const Outcome reg = Qvrecon("register " + P("d/capture_depth.png") + " " + P("cap/colour.nv12") + " --out " + P("r"));
    ASSERT_EQ(reg.code, 0) << reg.err;
    const cv::Mat registered = cv::imread(P("r/registered_depth.png"), cv::IMREAD_UNCHANGED);
    EXPECT_EQ(registered.size(), cv::Size(1920, 1080));
    EXPECT_GT(cv::countNonZero(registered), 1920 * 1080 / 3);
    EXPECT_EQ(cv::imread(P("r/overlay.png")).size(), cv::Size(1920, 1080));
    EXPECT_EQ(Qvrecon("info").code, 0);
    const Outcome demo = Qvrecon("demo --out " + P("demo"));
    ASSERT_EQ(demo.code, 0) << demo.err;
    EXPECT_GE(Files(dir_ / "demo"), 11u);
}

// Each binned capture halves the library's amplitude threshold until the stream's next
// Init, so a binned capture's outputs depend on the binned captures right before it.
// Workers that each see only some captures must still write the serial run's files.
TEST_F(Tool, JobsWriteTheSerialRunsFilesOnMixedBinnedAndFullCaptures)
{
    // Noise and a dark patch give pixels whose amplitude lies between the thresholds.
    ASSERT_EQ(Qvrecon("simulate --stream dual --noise 3 --dark --out " + P("full")).code, 0);
    ASSERT_EQ(Qvrecon("simulate --stream binned --noise 3 --dark --out " + P("binned")).code, 0);
    const std::string b = " " + P("binned/capture.raw"), d = " " + P("full/capture.raw");
    const std::string batch = b + d + b + b + b + b + d + b + b;
    const Outcome serial = Qvrecon("depth" + batch + " --out " + P("serial"));
    ASSERT_EQ(serial.code, 0) << serial.err;
    // The threshold matters here: the second binned capture in a row differs from the first.
    EXPECT_NE(Contents(P("serial/capture-3_depth.png")), Contents(P("serial/capture-4_depth.png")));
    // Binned and full captures share the full stream's Init, as in a live session: the
    // full capture after five binned ones meets a threshold halved to 0, the one after a
    // single binned capture a threshold of 2.
    EXPECT_NE(Contents(P("serial/capture-2_depth.png")), Contents(P("serial/capture-7_depth.png")));
    for (int jobs : {2, 3}) {
        const std::string out = P("jobs" + std::to_string(jobs));
        const Outcome run = Qvrecon("depth" + batch + " --jobs " + std::to_string(jobs) + " --out " + out);
        ASSERT_EQ(run.code, 0) << run.err;
        EXPECT_EQ(Files(out), Files(P("serial")));
        for (const auto& f : fs::directory_iterator(P("serial")))
            EXPECT_TRUE(Contents(f.path()) == Contents(fs::path(out) / f.path().filename()))
                << "--jobs " << jobs << ": " << f.path().filename();
    }
}

// One naming rule with Python's batch (os.path.splitext on the file name): the last
// extension goes, and leading dots never start one.
TEST_F(Tool, OutputNamesKeepLeadingDots)
{
    const std::pair<const char*, const char*> stems[] = {
        {"x.raw", "x"},       {"dir/a.b.raw", "a.b"}, {".raw", ".raw"}, {"..raw", "..raw"}, {"...", "..."},
        {"..a.raw", "..a"},   {"x", "x"},             {"x.", "x"},       {"d.d/x", "x"},     {"/a/.x.y", ".x"},
    };
    for (const auto& [path, stem] : stems)
        EXPECT_EQ(qvrecon::OutputStem(path), stem) << path;

    ASSERT_EQ(Qvrecon("simulate --stream single --out " + P("cap")).code, 0);
    fs::copy_file(P("cap/capture.raw"), P("..raw"));
    fs::copy_file(P("cap/capture.raw"), P(".raw"));
    const Outcome run = Qvrecon("depth " + P("..raw") + " " + P(".raw") + " --outputs depth ply --out " + P("out"));
    ASSERT_EQ(run.code, 0) << run.err;
    for (const char* name : {"..raw_depth.png", "..raw.ply", ".raw_depth.png", ".raw.ply"})
        EXPECT_TRUE(fs::exists(P("out") + "/" + name)) << name;
    EXPECT_EQ(Files(P("out")), 4u);
}

// info --format open3d|ros writes its files together: a lens it cannot describe, or
// a file it cannot put in place, leaves none of them.
TEST_F(Tool, InfoWritesAllItsFilesOrNone)
{
    ASSERT_EQ(Qvrecon("simulate --out " + P("cap")).code, 0);
    // The binned record's depth lens (the first fx of the file) without a focal length.
    std::string yaml = Contents(P("cap/calibration.yaml"));
    const size_t fx = yaml.find("fx: ");
    ASSERT_NE(fx, std::string::npos);
    yaml.replace(fx, yaml.find('\n', fx) - fx, "fx: 0");
    std::ofstream(P("nofx.yaml")) << yaml;
    for (const char* format : {"open3d", "ros"}) {
        const std::string out = P(std::string("nofx_") + format);
        const Outcome run = Qvrecon(std::string("info --format ") + format + " --calib " + P("nofx.yaml") + " --out " + out);
        EXPECT_EQ(run.code, 1);
        EXPECT_NE(run.err.find("the depth_single lens has no usable pinhole"), std::string::npos) << run.err;
        EXPECT_EQ(Files(out), 0u) << format;
    }
    // The third file cannot be renamed into place (a folder has its name): the two
    // already in place go again.
    fs::create_directories(P("blocked/depth_single.json"));
    const Outcome blocked = Qvrecon("info --format open3d --out " + P("blocked"));
    EXPECT_EQ(blocked.code, 1);
    EXPECT_NE(blocked.err.find("depth_single.json: cannot write"), std::string::npos) << blocked.err;
    EXPECT_EQ(Files(P("blocked")), 1u);
    ASSERT_EQ(Qvrecon("info --format open3d --out " + P("whole")).code, 0);
    EXPECT_EQ(Files(P("whole")), 4u);
}

TEST_F(Tool, OutputsHonourTheUmask)
{
    ASSERT_EQ(Qvrecon("simulate --out " + P("cap")).code, 0);
    for (const int mask : {0027, 0002, 0077}) {
        char setup[32];
        std::snprintf(setup, sizeof setup, "umask %03o; ", mask);
        const std::string out = P("out" + std::to_string(mask));
        for (const std::string& args : {"simulate --stream binned --out " + out + "/sim",
                                        "depth " + P("cap/capture.raw") + " " + P("cap/capture.raw") +
                                            " --jobs 2 --out " + out + "/depth",
                                        "info --format ros --out " + out + "/info"}) {
            const Outcome run = Qvrecon(args, setup);
            ASSERT_EQ(run.code, 0) << run.err;
        }
        size_t files = 0;
        for (const auto& f : fs::recursive_directory_iterator(out)) {
            if (!f.is_regular_file())
                continue;
            struct stat st {};
            ASSERT_EQ(stat(f.path().c_str(), &st), 0);
            EXPECT_EQ(st.st_mode & 0777, 0666u & ~static_cast<unsigned>(mask)) << f.path();
            ++files;
        }
        EXPECT_GE(files, 13u);
    }
}

// Processes whose command line mentions `text` (the tool and any worker it forked).
std::vector<pid_t> ProcessesMentioning(const std::string& text)
{
    std::vector<pid_t> found;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos)
            continue;
        std::ifstream in(entry.path() / "cmdline", std::ios::binary);
        const std::string cmdline((std::istreambuf_iterator<char>(in)), {});
        if (cmdline.find(text) != std::string::npos)
            found.push_back(static_cast<pid_t>(std::stoi(name)));
    }
    return found;
}

// SIGTERM, SIGINT or SIGHUP to `depth --jobs 2` reaches its workers: once the tool has
// ended, none of them runs on, and what is left are whole outputs only.
TEST_F(Tool, SignalsStopTheWorkersAndLeaveOnlyWholeFiles)
{
    ASSERT_EQ(Qvrecon("simulate --out " + P("cap")).code, 0);
    ASSERT_EQ(Qvrecon("depth " + P("cap/capture.raw") + " --out " + P("reference")).code, 0);
    std::string batch;
    for (int k = 0; k < 80; ++k)
        batch += " " + P("cap/capture.raw");
    for (int sig : {SIGTERM, SIGINT, SIGHUP}) {
        const std::string folder = P("stopped_" + std::to_string(sig));
        const pid_t tool = fork();
        ASSERT_GE(tool, 0);
        if (tool == 0) {
            const std::string run = "exec " + Binary() + " depth" + batch + " --jobs 2 --out " + folder + " 2>/dev/null";
            execl("/bin/sh", "sh", "-c", run.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        // Once the first file (or temporary) appears, the workers are writing.
        int status = 0;
        bool ended = false;
        while (Files(folder) == 0 && !ended)
            ended = waitpid(tool, &status, WNOHANG) == tool || (usleep(1000), false);
        ASSERT_FALSE(ended) << "the tool ended before writing";
        kill(tool, sig);
        ASSERT_EQ(waitpid(tool, &status, 0), tool);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == sig) << status;
        EXPECT_TRUE(ProcessesMentioning(folder).empty()) << "a worker outlived the tool (signal " << sig << ")";
        size_t whole = 0;
        for (const auto& f : fs::directory_iterator(folder)) {
            const std::string name = f.path().filename().string();
            ASSERT_EQ(name.find(".tmp-"), std::string::npos) << name;
            // capture-N_depth.png holds what capture_depth.png holds.
            const size_t end = name.find_first_of("_.", name.find("capture") + 7);
            const std::string reference = "capture" + name.substr(end);
            EXPECT_TRUE(Contents(f.path()) == Contents(P("reference/" + reference))) << name;
            ++whole;
        }
        EXPECT_LT(whole, 4u * 80) << "the run was not stopped";
    }
}

}  // namespace
