#include "agent/Log.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace Agent {
namespace {

TEST(LogTest, LineStaysOneLineWhateverItsText) {
    testing::internal::CaptureStderr();
    log(LogLevel::warning, "name {}", "a\n<3>b\x1b[2J\xff");
    log(LogLevel::info, "plain");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "warning: name a\\x0a<3>b\\x1b[2J\\xff\nplain\n");
}

TEST(LogTest, GraverLinesThanTheLevelAreWritten) {
    testing::internal::CaptureStderr();
    logLevelIs(LogLevel::warning);
    log(LogLevel::info, "no");
    log(LogLevel::error, "yes");
    logLevelIs(LogLevel::info);
    log(LogLevel::debug, "no");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "error: yes\n");
}

TEST(LogTest, PrefixesAreForTheJournalAlone) {
    testing::internal::CaptureStderr();
    struct stat status {};
    ASSERT_EQ(fstat(STDERR_FILENO, &status), 0);
    std::string const here = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
    setenv("JOURNAL_STREAM", here.c_str(), 1);
    log(LogLevel::error, "seen by the journal");
    setenv("JOURNAL_STREAM", "1:1", 1);
    log(LogLevel::error, "redirected");
    unsetenv("JOURNAL_STREAM");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "<3>seen by the journal\nerror: redirected\n");
}

TEST(LogTest, LimitTellsHowManyLinesItHeldBack) {
    LogLimit limit(60);
    EXPECT_EQ(limit.admitted(0), 0u);
    EXPECT_EQ(limit.admitted(1), std::nullopt);
    EXPECT_EQ(limit.admitted(59.9), std::nullopt);
    EXPECT_EQ(limit.admitted(60), 2u);
    EXPECT_EQ(limit.admitted(119), std::nullopt);
    EXPECT_EQ(limit.admitted(500), 1u);
}

} // namespace
} // namespace Agent
