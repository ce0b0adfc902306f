// The calibration library: round trips, the shipped sample, and text that must be
// refused with the field named (fuzz findings among it).
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include <qvreconstruction/calibration_file.h>

#include "sample_calibration.h"

namespace {

namespace fs = std::filesystem;
using qvapi::CalibrationError;
using qvapi::CameraCalibrationParam;
using qvapi::ModuleCalibration;

// Every field after the label, byte for byte, and the label.
void ExpectSameRecords(const ModuleCalibration& a, const ModuleCalibration& b, const std::string& what)
{
    const size_t after = offsetof(CameraCalibrationParam, depthLens);
    for (auto [x, y] : {std::make_pair(&a.binned, &b.binned), std::make_pair(&a.full, &b.full)}) {
        EXPECT_EQ(x->label, y->label) << what;
        EXPECT_EQ(0, std::memcmp(reinterpret_cast<const char*>(x) + after, reinterpret_cast<const char*>(y) + after,
                                 sizeof(CameraCalibrationParam) - after))
            << what;
    }
}

// The message of the error the text gives, or "" when it is read.
std::string ErrorOf(const std::string& text)
{
    try {
        qvapi::ParseCalibrationText(text, "t.yaml");
    } catch (const CalibrationError& e) {
        return e.what();
    }
    return "";
}

TEST(CalibrationFile, RoundTripsTheShippedSampleAndFilesThatAppearWhole)
{
    const fs::path dir = fs::path(testing::TempDir()) / ("qv_calibration_" + std::to_string(getpid()));
    fs::remove_all(dir);
    fs::create_directories(dir);
    const ModuleCalibration sample{qvsim::SampleBinnedCalibration(), qvsim::SampleCalibration()};
    ExpectSameRecords(qvapi::ReadCalibration(QV_SAMPLE_CALIBRATION), sample, "shipped sample");

    // Every value back bit for bit, in both formats: a UTF-8 label, extreme and
    // negative-zero floats, entries beyond a table's count.
    ModuleCalibration cal = sample;
    cal.binned.label = "Modul \xc3\x84 \xe6\xb7\xb1\xe5\xba\xa6 \"quoted\"";
    cal.full.vectorCount = 4;
    cal.full.vector[3] = 3.4028235e38f;
    cal.full.depthLens.k3 = -0.0f;
    cal.full.tableF2[7] = 1.17549435e-38f;
    cal.full.table3[200] = -7.25f;
    cal.full.reserved0 = INT32_MIN;
    for (const char* name : {"cal.yaml", "cal.json"}) {
        const std::string path = (dir / name).string();
        qvapi::WriteCalibration(path, cal);
        ExpectSameRecords(qvapi::ReadCalibration(path), cal, name);
        EXPECT_EQ(qvapi::CalibrationText(cal, std::string(name) == "cal.json"),
                  std::string(std::istreambuf_iterator<char>(*std::make_unique<std::ifstream>(path)), {}));
    }
    EXPECT_EQ(qvapi::CalibrationText(cal, true).front(), '{');

    // A value that cannot be written leaves the old file as it was and nothing beside it.
    ModuleCalibration bad = cal;
    bad.full.fppnF1[2] = std::numeric_limits<float>::quiet_NaN();
    try {
        qvapi::WriteCalibration((dir / "cal.yaml").string(), bad);
        ADD_FAILURE() << "a NaN was written";
    } catch (const CalibrationError& e) {
        EXPECT_NE(std::string(e.what()).find("cal.yaml: full.fppnF1"), std::string::npos) << e.what();
    }
    ExpectSameRecords(qvapi::ReadCalibration((dir / "cal.yaml").string()), cal, "after a failed write");
    EXPECT_EQ(std::distance(fs::directory_iterator(dir), fs::directory_iterator()), 2);
    EXPECT_THROW(qvapi::WriteCalibration((dir / "missing" / "c.yaml").string(), cal), CalibrationError);
    EXPECT_THROW(qvapi::ReadCalibration(dir.string()), CalibrationError);          // a folder
    EXPECT_THROW(qvapi::ReadCalibration((dir / "none.yaml").string()), CalibrationError);
    fs::remove_all(dir);
}

TEST(CalibrationFile, RefusesWhatItCannotReadAndNamesTheField)
{
    // Missing fields stay zero; standard YAML and the old "%YAML:1.0" line both read.
    for (const char* text : {"full:\n  depthOffsetF2: 12.5\n", "%YAML:1.0\n---\nfull:\n   depthOffsetF2: 12.5\n",
                             "{\"full\": {\"depthOffsetF2\": 12.5}}"}) {
        const ModuleCalibration partial = qvapi::ParseCalibrationText(text, "t.yaml");
        EXPECT_EQ(partial.full.depthOffsetF2, 12.5f) << text;
        EXPECT_EQ(partial.full.depthLens.fx, 0.0f);
        EXPECT_EQ(partial.binned.tableCountF1, 0);
    }
    const std::pair<const char*, const char*> refused[] = {
        {"full:\n  depthLens:\n    fx: abc\n", "t.yaml: full.depthLens.fx: expected a number, found 'abc'"},
        {"binned:\n  tableCountF1: 2147483648\n", "t.yaml: binned.tableCountF1: 2147483648 is outside the range"},
        {"full:\n  tableCountF2: 1.5\n", "full.tableCountF2: expected an integer"},
        {"full:\n  coefF1: [1, 2, 3, 4, 5]\n", "full.coefF1: holds 5 values, at most 4 fit"},
        {"full:\n  fppnF1: [1, 1e39]\n", "full.fppnF1[1]: 1e39 is outside the range of a 32-bit float"},
        {"full:\n  depthOffsetF1: nan\n", "full.depthOffsetF1: expected a finite number"},
        {"full:\n  depthOfset: 3\n", "t.yaml: full: unknown field 'depthOfset'"},
        {"full:\n  label: a\n  label: b\n", "full.label: given twice"},
        {"full: {}\n---\nfull: {}\n", "text follows the calibration"},
        {"[1, 2]", "expected the maps 'binned' and 'full'"},
        {"full: [\n", "not a readable YAML or JSON calibration (line"},
    };
    for (const auto& [text, message] : refused)
        EXPECT_NE(ErrorOf(text).find(message), std::string::npos) << text << " gave: " << ErrorOf(text);

    // Found by fuzzing: text on which other parsers threw a length error or never
    // returned, and a comma after a document, on which yaml-cpp's LoadAll never
    // returns. Each is refused at once.
    for (const char* name : {"calibration_parser_length_error.bin", "calibration_parser_hang.bin",
                             "calibration_parser_hang_non_ascii.bin", "calibration_parser_hang_ascii.bin",
                             "calibration_parser_comma_hang.bin"}) {
        std::ifstream found(std::string(QV_REGRESSIONS "/") + name, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(found)), std::istreambuf_iterator<char>());
        ASSERT_GT(bytes.size(), 1u) << name;
        EXPECT_NE(ErrorOf(bytes.substr(1)), "") << name;  // the harness's first byte picks the format
    }
}

}  // namespace
