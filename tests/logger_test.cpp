// The logger, checked by reading its file back.
#include <cctype>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "qvreconstruction/logger.h"

namespace {

// Whether `s` has the shape of a time stamp such as "Sun Nov 15 11:29:02 2026" (the
// day of the month padded with a space).
bool IsStamp(const std::string& s)
{
    const std::string shape = "Aaa Aaa _9 99:99:99 9999";
    if (s.size() != shape.size())
        return false;
    for (size_t i = 0; i < s.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        const bool ok = shape[i] == 'A'   ? std::isupper(c) != 0
                        : shape[i] == 'a' ? std::islower(c) != 0
                        : shape[i] == '9' ? std::isdigit(c) != 0
                        : shape[i] == '_' ? (c == ' ' || std::isdigit(c) != 0)
                                          : c == static_cast<unsigned char>(shape[i]);
        if (!ok)
            return false;
    }
    return true;
}

std::string ReadAll(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

class LoggerFile : public ::testing::Test {
protected:
    void SetUp() override
    {
        path_ = testing::TempDir() + "qv_logger_" +
                testing::UnitTest::GetInstance()->current_test_info()->name() + ".log";
        std::remove(path_.c_str());
    }
    void TearDown() override { std::remove(path_.c_str()); }
    std::string path_;
};

TEST_F(LoggerFile, LevelsTagsThresholdAndDroppedMessages)
{
    {
        Logger log(path_);
        log << "untagged is below the default threshold\n" << Logger::emit;
        log << logger_level::warning << "disk " << 93 << "% full\n" << Logger::emit;
        log << logger_level::error << "first\n";
        log.flush();
        log << "back at the default line level\n" << Logger::emit;  // dropped, and cleared
        log << logger_level::info << "second\n" << Logger::emit;
        log.set_level(logger_level::verbose);
        log << "now verbose passes\n" << Logger::emit;
        log << logger_level::debug << "d\n" << logger_level::critical << "c\n" << Logger::emit;
        log.set_default_line_level(logger_level::critical);
        log << logger_level::verbose << "current message keeps its level\n" << Logger::emit;
        log << "default applies from the next message\n" << Logger::emit;
        log << static_cast<logger_level>(9) << "no tag\n" << Logger::emit;
        log << logger_level::critical << "never flushed";
    }
    const std::string text = ReadAll(path_);
    // Each message starts with a stamp such as "Sun Nov 15 11:29:02 2026"; a message
    // of two lines has the stamp once.
    const std::vector<std::string> expected = {
        "* -- [WRN] -- disk 93% full", "* -- [ERR] -- first", "* -- [INF] -- second",
        "* -- [VRB] -- now verbose passes", "* -- [CRT] -- d", "c",
        "* -- [VRB] -- current message keeps its level",
        "* -- [CRT] -- default applies from the next message", "* -- [] -- no tag"};
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    ASSERT_EQ(lines.size(), expected.size()) << text;
    EXPECT_EQ(text.back(), '\n');
    for (size_t i = 0; i < lines.size(); ++i) {
        if (expected[i][0] != '*') {
            EXPECT_EQ(lines[i], expected[i]);
            continue;
        }
        EXPECT_TRUE(IsStamp(lines[i].substr(0, 24))) << lines[i];
        EXPECT_EQ(lines[i].substr(std::min<size_t>(24, lines[i].size())), expected[i].substr(1));
    }
}

TEST_F(LoggerFile, AppendsToAnExistingFileAndAddsNoLineFeed)
{
    {
        std::ofstream(path_) << "earlier content\n";
    }
    {
        Logger log(path_.c_str());
        log << logger_level::info << "a" << Logger::emit;
        log << logger_level::info << "b\n" << Logger::emit;
    }
    // "a" has no line break of its own, so the next message's stamp follows it on
    // the same line: earlier content, then <stamp> -- [INF] -- a<stamp> -- [INF] -- b.
    const std::string text = ReadAll(path_);
    const std::string first = "earlier content\n";
    ASSERT_EQ(text.rfind(first, 0), 0u) << text;
    const std::string line = text.substr(first.size());
    const std::string a = " -- [INF] -- a", b = " -- [INF] -- b\n";
    ASSERT_EQ(line.size(), 24 + a.size() + 24 + b.size()) << text;
    EXPECT_TRUE(IsStamp(line.substr(0, 24))) << line;
    EXPECT_EQ(line.substr(24, a.size()), a);
    EXPECT_TRUE(IsStamp(line.substr(24 + a.size(), 24))) << line;
    EXPECT_EQ(line.substr(48 + a.size()), b);
}

TEST(Logger, TimeHasNoTrailingLineFeedAndAnUnopenableFileIsHarmless)
{
    Logger log("/nonexistent-directory/x.log");
    const std::string t = log.get_time();
    ASSERT_FALSE(t.empty());
    EXPECT_NE(t.back(), '\n');
    EXPECT_EQ(t.size(), 24u);
    log << logger_level::critical << "lost\n" << Logger::emit;
    EXPECT_TRUE(log.str().empty());
}

}  // namespace
