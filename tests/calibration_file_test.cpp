// The calibration library: round trips, the shipped sample, and text that must be
// refused with the field named (fuzz findings among it).
#include <sys/stat.h>
#include <unistd.h>

#include <clocale>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <locale>
#include <memory>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include <qvreconstruction/calibration_file.h>

#include "sample_calibration.h"

namespace {

namespace fs = std::filesystem;
using qvapi::CalibrationError;
using qvapi::CameraCalibrationParam;
using qvapi::ModuleCalibration;

// Every field, byte for byte (the label's bytes, the numbers' bits).
void ExpectSameRecords(const ModuleCalibration& a, const ModuleCalibration& b, const std::string& what)
{
    const size_t after = offsetof(CameraCalibrationParam, depthLens);
    for (auto [x, y] : {std::make_pair(&a.binned, &b.binned), std::make_pair(&a.full, &b.full)}) {
        EXPECT_EQ(x->reserved0, y->reserved0) << what;
        EXPECT_EQ(x->reserved1, y->reserved1) << what;
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
    bad = cal;
    bad.binned.label = "ab\xff";
    try {
        qvapi::WriteCalibration((dir / "cal.json").string(), bad);
        ADD_FAILURE() << "a label that is not UTF-8 was written";
    } catch (const CalibrationError& e) {
        EXPECT_NE(std::string(e.what()).find("cal.json: binned.label: is not UTF-8 text"), std::string::npos)
            << e.what();
    }
    EXPECT_THROW(qvapi::WriteCalibration((dir / "missing" / "c.yaml").string(), cal), CalibrationError);
    EXPECT_THROW(qvapi::ReadCalibration(dir.string()), CalibrationError);          // a folder
    EXPECT_THROW(qvapi::ReadCalibration((dir / "none.yaml").string()), CalibrationError);
    fs::remove_all(dir);
}

// Switches the C and the C++ locale to German, whose decimal separator is a comma and
// whose thousands are grouped with points, for its lifetime. Where the system has no
// such locale it is compiled into a temporary folder (localedef, from libc-bin, with
// the definitions of Debian's locales package, which scripts/deps.sh installs): no
// root and nothing installed.
class GermanLocale {
public:
    GermanLocale()
    {
        if (!std::setlocale(LC_ALL, "de_DE.UTF-8")) {
            dir_ = fs::path(testing::TempDir()) / ("qv_locales_" + std::to_string(getpid()));
            fs::create_directories(dir_);
            const std::string command =
                "localedef -i de_DE -f UTF-8 '" + (dir_ / "de_DE.UTF-8").string() + "' >/dev/null 2>&1";
            [[maybe_unused]] const int status = std::system(command.c_str());  // warnings give 1
            setenv("LOCPATH", dir_.c_str(), 1);
            if (!std::setlocale(LC_ALL, "de_DE.UTF-8"))
                return;
        }
        std::locale::global(std::locale("de_DE.UTF-8"));
        active_ = true;
    }
    ~GermanLocale()
    {
        std::locale::global(std::locale::classic());
        std::setlocale(LC_ALL, "C");
        if (!dir_.empty()) {
            unsetenv("LOCPATH");
            fs::remove_all(dir_);
        }
    }
    bool active() const { return active_; }

private:
    fs::path dir_;
    bool active_ = false;
};

TEST(CalibrationFile, ReadsWhatItWroteUnderACommaDecimalLocale)
{
    ModuleCalibration cal{qvsim::SampleBinnedCalibration(), qvsim::SampleCalibration()};
    cal.full.depthOffsetF2 = 0.1f;
    cal.full.reserved3 = 1234567;  // grouped as 1.234.567 by a German stream
    cal.full.tableF1[3] = 1.5e-40f;
    const std::string yaml = qvapi::CalibrationText(cal, false);
    const std::string json = qvapi::CalibrationText(cal, true);

    const fs::path dir = fs::path(testing::TempDir()) / ("qv_calibration_locale_" + std::to_string(getpid()));
    fs::create_directories(dir);
    {
        GermanLocale german;
        ASSERT_TRUE(german.active()) << "no de_DE.UTF-8 locale and localedef could not make one "
                                        "(Debian's locales package, scripts/deps.sh)";
        ASSERT_STREQ(std::localeconv()->decimal_point, ",");
        ASSERT_EQ(std::to_string(0.5), "0,500000");  // the C locale bites

        // The same text as in the C locale, and read back bit for bit.
        EXPECT_EQ(qvapi::CalibrationText(cal, false), yaml);
        EXPECT_EQ(qvapi::CalibrationText(cal, true), json);
        for (const char* name : {"cal.yaml", "cal.json"}) {
            const std::string path = (dir / name).string();
            qvapi::WriteCalibration(path, cal);
            ExpectSameRecords(qvapi::ReadCalibration(path), cal, name);
        }
        // A point is the decimal separator and a comma is not, whatever the locale.
        EXPECT_EQ(qvapi::ParseCalibrationText("full:\n  depthOffsetF2: 12.5\n", "t.yaml").full.depthOffsetF2, 12.5f);
        EXPECT_NE(ErrorOf("full:\n  depthOffsetF2: 12,5\n").find("expected a number, found '12,5'"),
                  std::string::npos);
    }
    fs::remove_all(dir);
}

TEST(CalibrationFile, RoundTripsEveryBitOfEveryFloatAndEveryLabel)
{
    // Floats the shortest text must still give back exactly, and -0.0 behind a table's
    // count, which a writer that drops trailing zeros by value would turn into +0.0.
    ModuleCalibration cal{qvsim::SampleBinnedCalibration(), qvsim::SampleCalibration()};
    const float extremes[] = {-0.0f,
                              std::numeric_limits<float>::denorm_min(),
                              -std::numeric_limits<float>::denorm_min(),
                              std::numeric_limits<float>::min(),
                              std::nextafter(std::numeric_limits<float>::min(), 0.0f),
                              std::numeric_limits<float>::max(),
                              std::numeric_limits<float>::lowest(),
                              0.1f,
                              16777217.0f,
                              std::nextafter(1.0f, 2.0f)};
    cal.full.tableCountF1 = 3;
    cal.full.tableCountF2 = 0;
    cal.full.tableF1[3] = cal.full.tableF1[255] = -0.0f;
    cal.full.tableF2[0] = -0.0f;
    cal.binned.vectorCount = 0;
    cal.binned.vector[255] = -0.0f;
    for (size_t k = 0; k < std::size(extremes); ++k)
        cal.binned.table3[k] = extremes[k];
    cal.binned.tableCount3 = -5;  // a count outside the table: every entry is still kept
    cal.full.depthLens.k3 = -0.0f;
    cal.full.reserved0 = INT32_MIN;
    cal.full.reserved1 = INT32_MAX;

    // Labels with what JSON must escape and YAML readers take for line breaks, byte
    // order marks or non-printable text: controls, NUL, DEL, C1 controls, a no-break
    // space, noncharacters, the last code point, quotes and backslashes.
    const std::string labels[] = {
        std::string("nul \0 bell \a esc \x1b del \x7f tab\tcr\rlf\n end", 24),
        "C1 \xc2\x80 NEL \xc2\x85 \xc2\x9f NBSP \xc2\xa0 LS \xe2\x80\xa8 PS \xe2\x80\xa9 BOM \xef\xbb\xbf",
        "nonchars \xef\xbf\xbe \xef\xbf\xbf \xef\xb7\x90 \xef\xb7\xaf \xf0\x9f\xbf\xbe \xf4\x8f\xbf\xbf",
        "\"quoted\" back\\slash \\u0041 \\x41 # not a comment: - [a, b] {c: d} &e *f !g %h @i `j",
        " leading and trailing spaces ",
        "",
    };
    for (const std::string& label : labels) {
        cal.binned.label = label;
        cal.full.label = label + label;
        for (bool json : {false, true}) {
            const std::string text = qvapi::CalibrationText(cal, json);
            ExpectSameRecords(qvapi::ParseCalibrationText(text, json ? "t.json" : "t.yaml"), cal, text);
        }
    }

    // Random bit patterns in every float field: each finite value back exactly.
    std::mt19937 random(34);
    for (int round = 0; round < 20; ++round) {
        ModuleCalibration r = cal;
        for (CameraCalibrationParam* p : {&r.binned, &r.full}) {
            char* begin = reinterpret_cast<char*>(p) + offsetof(CameraCalibrationParam, depthLens);
            for (char* at = begin; at < reinterpret_cast<char*>(std::end(p->table3)); at += 4) {
                uint32_t bits = static_cast<uint32_t>(random());
                if ((bits & 0x7f800000u) == 0x7f800000u)
                    bits &= ~0x00800000u;  // a finite value, as a file can only hold those
                std::memcpy(at, &bits, 4);
            }
        }
        for (bool json : {false, true})
            ExpectSameRecords(qvapi::ParseCalibrationText(qvapi::CalibrationText(r, json), "t"), r,
                              "round " + std::to_string(round));
    }
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
        // Labels that are not UTF-8, raw or escaped: refused here, not when a caller
        // (Python's str) decodes them. Messages quote bytes from the file as \xNN.
        {"full:\n  label: \"ab\xff\"\n", "t.yaml: full.label: is not UTF-8 text (byte 0xFF at offset 2)"},
        {"binned:\n  label: x\xc0\xaf\n", "binned.label: is not UTF-8 text (byte 0xC0 at offset 1)"},
        {"full:\n  label: \"\xed\xa0\x80\"\n", "full.label: is not UTF-8 text (byte 0xED at offset 0)"},  // a surrogate
        {"full:\n  label: \"\xf4\x90\x80\x80\"\n", "full.label: is not UTF-8 text (byte 0xF4 at offset 0)"},
        {"full:\n  label: \"ok \xe6\xb7\"\n", "full.label: is not UTF-8 text (byte 0xE6 at offset 3)"},
        {"full:\n  fx\xff\x01: 1\n", "full: unknown field 'fx\\xFF\\x01'"},
        {"full:\n  depthOffsetF1: 1\xff\n", "full.depthOffsetF1: expected a number, found '1\\xFF'"},
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
