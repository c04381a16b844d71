#include "agent/loop/Log.h"

#include <algorithm>
#include <climits>
#include <csignal>
#include <gtest/gtest.h>
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

TEST(LogTest, LinesThatNobodyReadsAreLostAndCounted) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    int const before = dup(STDERR_FILENO);
    ASSERT_EQ(dup2(ends[1], STDERR_FILENO), STDERR_FILENO);
    auto const taken = [&] {
        std::string text(1 << 20, '\0');
        text.resize(std::size_t(read(ends[0], text.data(), text.size())));
        return text;
    };
    constexpr int all = 2000;
    for (int i = 0; i < all; ++i) log(LogLevel::info, "{}", std::string(100, 'x'));
    std::string const early = taken();
    log(LogLevel::info, "{}", std::string(100000, 'z'));
    std::string const later = taken();
    close(ends[0]);
    auto* const ignored = signal(SIGPIPE, SIG_IGN);
    log(LogLevel::info, "nobody is there");
    signal(SIGPIPE, ignored);
    dup2(before, STDERR_FILENO);
    for (int const fd : {before, ends[1]}) close(fd);

    auto const lines = std::count(early.begin(), early.end(), '\n');
    EXPECT_GT(lines, 0);
    EXPECT_EQ(later.substr(0, later.find('z')),
              "warning: " + std::to_string(all - lines) + " lines of the log were lost\n");
    EXPECT_EQ(later.back(), '\n');
    EXPECT_LE(later.size(), std::size_t(PIPE_BUF));
    testing::internal::CaptureStderr();
    log(LogLevel::info, "here");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "warning: 1 lines of the log were lost\nhere\n");
}

} // namespace
} // namespace Agent
