// Runs every benchmark on one core and ends with the table of each frame operation
// beside its scalar reference and the time to stream-read its input.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>

#include <opencv2/core/utility.hpp>

#include "simd/targets.h"

namespace {

class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred)
                continue;
            // Aggregates of repeated runs: keep the median; single runs otherwise.
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median")
                continue;
            // The name given to the benchmark, without arguments or aggregate suffix.
            const std::string name = run.run_name.function_name;
            const size_t slash = name.rfind('/');
            if (slash == std::string::npos)
                continue;
            const std::string op = name.substr(0, slash), kind = name.substr(slash + 1);
            times_[op][kind] = run.GetAdjustedRealTime() * Scale(run.time_unit);
        }
    }
    void Finalize() override
    {
        ConsoleReporter::Finalize();
        std::printf("\n| operation | fast (ms) | scalar reference (ms) | speed-up | stream-read input (ms) | fast / stream-read |\n");
        std::printf("|---|---:|---:|---:|---:|---:|\n");
        for (const auto& [op, t] : times_) {
            const auto get = [&](const char* k) { auto it = t.find(k); return it == t.end() ? -1.0 : it->second; };
            const double fast = get("fast"), ref = get("reference"), stream = get("stream_read");
            if (fast < 0)
                continue;
            std::printf("| %s | %.3f | %s | %s | %s | %s |\n", op.c_str(), fast,
                        ref < 0 ? "-" : Fmt(ref, "%.3f").c_str(), ref < 0 ? "-" : Fmt(ref / fast, "%.1fx").c_str(),
                        stream < 0 ? "-" : Fmt(stream, "%.3f").c_str(),
                        stream < 0 ? "-" : Fmt(fast / stream, "%.1f").c_str());
        }
        for (const auto& [op, t] : times_) {
            const auto fast = t.find("fast"), opencv = t.find("opencv_registerDepth");
            if (fast != t.end() && opencv != t.end())
                std::printf("\n%s: %.3f ms, OpenCV's rgbd::registerDepth of the same frame: %.3f ms (%.1fx)\n",
                            op.c_str(), fast->second, opencv->second, opencv->second / fast->second);
        }
    }

private:
    static double Scale(benchmark::TimeUnit unit)
    {
        switch (unit) {
        case benchmark::kNanosecond: return 1e-6;
        case benchmark::kMicrosecond: return 1e-3;
        case benchmark::kMillisecond: return 1.0;
        default: return 1e3;
        }
    }
    static std::string Fmt(double v, const char* f)
    {
        char b[32];
        std::snprintf(b, sizeof b, f, v);
        return b;
    }
    std::map<std::string, std::map<std::string, double>> times_;
};

}  // namespace

int main(int argc, char** argv)
{
    // One core: OpenCV's own parallel loops (median, remap, colour conversion) run
    // on the calling thread.
    cv::setNumThreads(1);
    benchmark::Initialize(&argc, argv);
    // Which compilation of the depth kernels ran (QV_KERNELS=baseline|avx2 caps it).
    benchmark::AddCustomContext("depth kernels", qvapi::FastPathName());
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
