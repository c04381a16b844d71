// What the files of a configuration come to, and what the operator is told of faulty ones.
#include "agent/config/Configuration.h"

#include "agent/ConfigurationText.h"
#include "agent/answers/ConfigurationAnswer.h"
#include "agent/config/Keys.h"
#include "agent/loop/Json.h"
#include "support/Folder.h"

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <sys/stat.h>

namespace Agent {
namespace {

using Lox::IpAddr;
using Testing::rule;
using Lines = std::vector<std::string>;

Lines diagnosticLines(ConfigurationReading const& reading) {
    Lines lines;
    for (Diagnostic const& found : reading.diagnostics) lines.push_back(found.stringValue());
    return lines;
}

std::string repeated(std::string const& part, int times, std::string before = "") {
    for (int i = 0; i < times; ++i) before += part;
    return before;
}

TEST(ConfigurationTest, TheLongestPrefixDecidesOverAGroup) {
    ConfigurationReading const reading =
        configurationParse("[interface.up0.group]\n\"239.255.255.0/24\" = {}\n"
                           "\"239.255.255.128/25\" = { include = [\"10.0.0.1\"] }\n"
                           "\"239.255.255.255\" = { include = [\"10.0.0.2\"] }\n",
                           "f");
    EXPECT_TRUE(reading.valid());
    auto const& groups = reading.configuration.interfaces.at("up0").groups;
    ASSERT_EQ(groups.size(), 256u);
    unsigned number = 0;
    for (auto const& [group, wanted] : groups) {
        EXPECT_EQ(group, IpAddr::fromHost(0xEFFFFF00 + number));
        unsigned const entry = number < 128 ? 0 : number < 255 ? 1 : 2;
        GroupConfiguration const entries[] = {
            {{}, {IpAddr()}}, {{IpAddr("10.0.0.1")}, {}}, {{IpAddr("10.0.0.2")}, {}}};
        EXPECT_EQ(wanted, entries[entry]);
        EXPECT_EQ(wanted.entry.line.number, 2 + entry);
        ++number;
    }
}

TEST(ConfigurationTest, RulesAboutAGroupAreFoundInTheirOrder) {
    auto const reading = configurationParse(
        rule("a", 4294967295, "any", "any", "deny") + rule("a", 10, "239.1.1.0/30") +
            rule("a", 0, "239.1.1.1") + rule("a", 20, "239.0.0.1/255.0.0.255") +
            rule("a", 15, "239.1.1.1", "any", "deny") + rule("a", 16, "239.1.1.2"),
        "f");
    AccessListConfiguration const& list = reading.configuration.accessLists.at("a");
    auto const about = [&](char const* group) {
        std::vector<std::uint32_t> rules;
        for (auto const* at = list.ruleAbout(IpAddr(group)); at;
             at = list.ruleAbout(IpAddr(group), at->first))
            rules.push_back(at->first);
        return rules;
    };
    EXPECT_EQ(about("239.1.1.1"), (std::vector<std::uint32_t>{0, 10, 15, 20, 4294967295}));
    EXPECT_EQ(about("239.1.1.2"), (std::vector<std::uint32_t>{10, 16, 4294967295}));
    EXPECT_EQ(about("239.1.1.4"), std::vector<std::uint32_t>{4294967295});
    EXPECT_EQ(list.groups(), 4u + 2u + 65536u) << "a range twice counts once";
}

/// Behind each faulty line of the files below faults/ stands all that is said of it, as comments
/// "#! COLUMN LEVEL: TEXT". Infos are said behind all else.
TEST(ConfigurationTest, EachFaultyLineIsReportedAtItsPlace) {
    for (auto const& entry : std::filesystem::directory_iterator(IHP_TEXTS "/faults")) {
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
        auto const is = [](char const* level) {
            return [level](std::string const& line) { return line.find(level) != line.npos; };
        };
        std::stable_partition(expected.begin(), expected.end(), std::not_fn(is(": info: ")));
        ConfigurationReading const reading = configurationParse(text, "f");
        EXPECT_EQ(diagnosticLines(reading), expected) << entry.path();
        EXPECT_EQ(reading.valid(), std::ranges::none_of(expected, is(": error: ")));
    }
}

/// What holds anyway is not shown, so the file gives each key another value.
TEST(ConfigurationTest, EachKeyIsShown) {
    using nlohmann::json;
    std::ifstream file(IHP_TEXTS "/shown.toml");
    ConfigurationReading const reading =
        configurationParse(std::string(std::istreambuf_iterator<char>(file), {}), "f");
    ASSERT_TRUE(reading.valid());
    JsonStream stream(
        configurationAnswer("f", [&]() -> Configuration const& { return reading.configuration; }));
    while (stream.next()) {
    }
    json shown = json::parse(stream.take()).at("configuration");
    shown["include"] = "as if it were part of the file";
    shown.at("vrf").at("blue").update(shown.at("vrf").at("green")); // one key keeps out the other
    std::pair<KeyTable const&, char const*> const sections[] = {
        {fileKeys, ""},
        {interfaceKeys, "/interface/eth0.7"},
        {groupKeys, "/interface/eth0.7/group/239.2.0.7"},
        {ruleKeys, "/access-list/iptv/0"},
        {controlKeys, "/control"},
        {forwardingTableKeys, "/forwarding-table"},
        {metricsKeys, "/metrics"},
        {vrfKeys, "/vrf/blue"},
    };
    for (auto const& [table, place] : sections)
        for (Key const& key : table.keys)
            EXPECT_TRUE(shown.at(json::json_pointer(place)).contains(std::string(key.name)))
                << table.header << ' ' << key.name;
}

TEST(ConfigurationTest, OfOneKindTheFirstAreShownAndTheRestCounted) {
    std::string text = "[interface.up0.group]\n";
    for (int i = 0; i < 30; ++i)
        text += "'239.1.1." + std::to_string(i) + "' = { exclude = ['10.0.0." +
                std::to_string(i + 1) + "'] }\n";
    Lines const lines =
        diagnosticLines(configurationParse(text + "'232.1.1.1' = {}\nlater = {}\n", "f"));
    ASSERT_EQ(lines.size(), 22u);
    std::string const words = " excludes sources: some routers ignore exclude lists (RFC 5790)";
    EXPECT_EQ(lines[18], "f:20:1: warning: \"239.1.1.18\"" + words);
    EXPECT_EQ(lines[19], "f:21:1: warning: \"239.1.1.19\"" + words + " (and 10 more like this)");
    EXPECT_NE(lines[20].find("RFC 4604"), std::string::npos) << "the only one of its kind";
    EXPECT_NE(lines[21].find("error: \"later\""), std::string::npos);
}

TEST(ConfigurationTest, HostileTextIsASyntaxErrorWithAPlace) {
    std::string const dots = repeated(".a", 500000, "a");
    std::string const texts[] = {
        repeated("[", 100000, "a = "),
        repeated("{a=", 100000, "a = "),
        dots + " = 1\n",
        dots + " = 1\n?",
        "[" + dots + "]",
        "b = \"\"\"\n' \"\"\"\"\"\n" + dots + " = 1\n",
        "b = '''\n\\'''\n" + dots + " = 1\n",
        "b = \"\\\"\"\n" + dots + " = 1\n",
        "a = 99999999999999999999",
        std::string("a = \"\0\"", 7),
        std::string("\0", 1),
        "a = \"\xff\"",
        "a = \"x",
        "[interface.a]\n\n[?]\n", // ends a process whose parser keeps its assertions
    };
    for (std::string const& text : texts) {
        ConfigurationReading const reading = configurationParse(text, "f");
        ASSERT_EQ(reading.diagnostics.size(), 1u) << text.substr(0, 60);
        EXPECT_FALSE(reading.valid());
        EXPECT_GE(reading.diagnostics[0].position.line, 1u);
    }
}

/// A folder of configuration files, of which "main" is read.
class ConfigurationFilesTest : public testing::Test {
  protected:
    ConfigurationReading read() const { return configurationRead(files.file("main")); }
    /// What is said of it, without the folder's name.
    Lines said() const {
        Lines lines = diagnosticLines(read());
        for (std::string& line : lines)
            for (std::size_t at; (at = line.find(folder)) != line.npos;)
                line.erase(at, folder.size());
        return lines;
    }

    Support::Folder files;
    std::string const folder = files.file("");
};

TEST_F(ConfigurationFilesTest, IncludedFilesAreReadAsPartsOfOne) {
    files.write("main",
                "include = ['d*/*.toml', 'b*.toml', 'none*']\n[interface.up0]\nvrf = 'red'\n"
                "[interface.'up[01]'.group]\n");
    files.write("b", "not TOML, and not read");
    files.write("b[x].toml", "[interface.'?p0']\n");
    files.write("d/2.toml", "[interface.'*']\n[vrf.red]\n");
    files.write("d/1.toml", "[interface.up1]\n\n[interface.up1.group]\n'239.1.1.0/31' = {}\n");
    ConfigurationReading const reading = read();
    EXPECT_EQ(said(), Lines{"d/1.toml:4:1: info: selects 2 groups"});
    Configuration const& all = reading.configuration;
    Line const line = all.interfaces.at("up1").groups.find(IpAddr("239.1.1.1"))->entry.line;
    EXPECT_EQ(std::to_string(line.number) + *line.file, "4" + files.file("d/1.toml"));
    EXPECT_EQ(all.interfaces.size(), 2u);
    EXPECT_TRUE(all.vrfs.contains("red"));
    std::pair<char const*, char const*> const cases[] = {
        {"up0", ""}, {"up1", ""}, {"tp0", "?p0"}, {"eth0", "*"}, {"up2", "*"}};
    for (auto const& [interface, pattern] : cases)
        EXPECT_EQ(all.entryFor(interface)->pattern, pattern) << interface;
    EXPECT_EQ(all.patterns.front().pattern, "up[01]") << "the file before what it includes";
}

TEST_F(ConfigurationFilesTest, WhatIsWrongWithAnIncludedFileIsSaidAtItsPlace) {
    files.write("main", "include = ['a', 'b']\n[forwarding-table]\n[interface.up0]\n");
    files.write("a",
                "[forwarding-table]\n[interface.up0]\nigmp-version = 9\n[interface.z]\nx = 1\n");
    files.write("b", "include = ['a']\n[interface.z]\n");
    EXPECT_EQ(
        said(),
        (Lines{"a:1:2: error: \"forwarding-table\" found, expected it in one file only: it is "
               "in \"main:2:2\", too",
               "a:2:12: error: \"up0\" found, expected it in one file only: it is in "
               "\"main:3:12\", too",
               "a:5:1: error: unknown key \"x\", expected one of igmp-version, "
               "unsolicited-report-interval, robustness, packets-per-100-ms, "
               "require-router-alert, ssm-only, group, access-lists, large-ranges, vrf",
               "b:1:1: error: \"include\" found, expected it in the file that includes this one "
               "only",
               "b:2:12: error: \"z\" found, expected it in one file only: it is in "
               "\"a:4:12\", too"}));
    files.write("main", "include = ['a', 'missing', '*', '/proc/self/status']\n");
    EXPECT_EQ(said(), Lines{"main: error: cannot be read: it keeps changing"});
    files.write("main", "include = ['a', 'missing', '*', '.']\n");
    files.write("b", "x =\n");
    EXPECT_EQ(
        said(),
        (Lines{"main:1:17: error: \"missing\" cannot be read: No such file or directory",
               "main:1:28: error: \"a\" found, expected each file once",
               "main:1:28: error: \"main\" found, expected each file once",
               "main:1:33: error: \".\" cannot be read: not a regular file",
               "b:1:4: error: Error while parsing key-value pair: expected value, saw '\\n'"}));
}

TEST_F(ConfigurationFilesTest, FilesThatCannotBeReadAreReportedByName) {
    std::string const file = files.file("main");
    EXPECT_EQ(diagnosticLines(configurationRead(file)),
              Lines{file + ": error: cannot be read: No such file or directory"});
    files.write("main", repeated("...", 100, "# no nesting: ") + "\n[interface.up0]\n");
    EXPECT_TRUE(read().valid());
    EXPECT_EQ(read().configuration.interfaces.at("up0"), InterfaceConfiguration());
    ASSERT_EQ(truncate(file.c_str(), (64 << 20) + 1), 0);
    EXPECT_EQ(said(), Lines{"main: error: cannot be read: File too large"});
    unlink(file.c_str());
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0); // nobody writes, and nobody waits for it
    for (std::string const& other : {file, folder, std::string("/dev/zero")})
        EXPECT_EQ(diagnosticLines(configurationRead(other)),
                  Lines{other + ": error: cannot be read: not a regular file"});
}

} // namespace
} // namespace Agent
