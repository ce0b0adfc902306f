// The logger, checked by reading its file back.
#include <cstdio>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "qvreconstruction/logger.h"

namespace {

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
    const std::string stamp = "[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]\\d \\d\\d:\\d\\d:\\d\\d \\d{4}";
    const std::regex expected("^" + stamp + " -- \\[WRN\\] -- disk 93% full\n" +
                              stamp + " -- \\[ERR\\] -- first\n" +
                              stamp + " -- \\[INF\\] -- second\n" +
                              stamp + " -- \\[VRB\\] -- now verbose passes\n" +
                              stamp + " -- \\[CRT\\] -- d\nc\n" +
                              stamp + " -- \\[VRB\\] -- current message keeps its level\n" +
                              stamp + " -- \\[CRT\\] -- default applies from the next message\n" +
                              stamp + " -- \\[\\] -- no tag\n$");
    EXPECT_TRUE(std::regex_match(text, expected)) << text;
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
    const std::string text = ReadAll(path_);
    EXPECT_EQ(text.rfind("earlier content\n", 0), 0u) << text;
    EXPECT_NE(text.find(" -- [INF] -- a"), std::string::npos);
    EXPECT_NE(text.find("a", text.find("[INF] -- a") + 10), std::string::npos);
    EXPECT_EQ(text.back(), '\n');
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2);  // "a" runs into the next line
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
