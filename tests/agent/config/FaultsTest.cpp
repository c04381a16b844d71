// What the operator is told of a file with faults, and where.
#include "agent/config/Configuration.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

namespace Agent {
namespace {

using Lines = std::vector<std::string>;

Lines saidOf(std::string const& text) {
    Lines lines;
    for (Diagnostic const& found : configurationParse(text, "f").diagnostics)
        lines.push_back(found.stringValue());
    return lines;
}

/// Behind each faulty line of the files in IHP_FAULTS stands all that is said of it, as comments
/// "#! COLUMN LEVEL: TEXT".
TEST(FaultsTest, EachFaultyLineIsReportedAtItsPlace) {
    for (auto const& entry : std::filesystem::directory_iterator(IHP_FAULTS)) {
        std::ifstream file(entry.path());
        std::string text;
        Lines expected;
        int number = 0;
        for (std::string line; std::getline(file, line); text += line + "\n") {
            ++number;
            for (auto at = line.find("#! "); at != line.npos;) {
                auto const end = line.find(" #! ", at), space = line.find(' ', at + 3);
                expected.push_back("f:" + std::to_string(number) + ":" +
                                   line.substr(at + 3, space - at - 3) + ": " +
                                   line.substr(space + 1, end - space - 1));
                at = end == line.npos ? end : end + 1;
            }
        }
        Lines said = saidOf(text);
        bool const fault = std::ranges::any_of(
            said, [](auto const& line) { return line.find(": error: ") != line.npos; });
        EXPECT_EQ(configurationParse(text, "f").valid(), !fault);
        std::ranges::sort(said);
        std::ranges::sort(expected);
        EXPECT_EQ(said, expected) << entry.path();
    }
}

TEST(FaultsTest, OneReadingFindsAllErrorsInTheirOrder) {
    EXPECT_EQ(saidOf("[interface.z.group]\n\"1\" = {}\n[interface.a]\nigmp-version = 0\n"
                     "access-lists = ['a']\n[y]\n[[access-list.a]]\nsequence = 1\n"
                     "action = 'permit'\nsource = 'any'\ndestination = '239.1.1.1'\n"),
              (Lines{"f:2:1: error: \"1\" found, expected a multicast address or prefix in quotes, "
                     "such as \"239.1.1.1\" or \"239.1.1.0/24\"",
                     "f:4:16: error: igmp-version is 0, expected an integer from 1 to 3",
                     "f:6:2: error: unknown key \"y\", expected one of access-list, allow-empty, "
                     "control, forwarding-table, include, interface, keep-groups, metrics, vrf",
                     "f:11:15: info: selects 1 group"}))
        << "infos behind faults";
}

TEST(FaultsTest, OfOneKindTheFirstAreShownAndTheRestCounted) {
    std::string text = "[interface.up0.group]\n";
    for (int i = 0; i < 30; ++i)
        text += "'239.1.1." + std::to_string(i) + "' = { exclude = ['10.0.0." +
                std::to_string(i + 1) + "'] }\n";
    Lines const lines = saidOf(text + "'232.1.1.1' = {}\nlater = {}\n");
    ASSERT_EQ(lines.size(), 22u);
    std::string const words = " excludes sources: some routers ignore exclude lists (RFC 5790)";
    EXPECT_EQ(lines[18], "f:20:1: warning: \"239.1.1.18\"" + words);
    EXPECT_EQ(lines[19], "f:21:1: warning: \"239.1.1.19\"" + words + " (and 10 more like this)");
    EXPECT_NE(lines[20].find("RFC 4604"), std::string::npos) << "the only one of its kind";
    EXPECT_NE(lines[21].find("error: \"later\""), std::string::npos);
}

} // namespace
} // namespace Agent
