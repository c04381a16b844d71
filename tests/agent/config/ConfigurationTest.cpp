#include "agent/config/Configuration.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Agent {
namespace {

using Lox::IpAddr;
using Lines = std::vector<std::string>;

Lines diagnosticLines(ConfigurationReading const& reading) {
    Lines lines;
    for (Diagnostic const& found : reading.diagnostics) lines.push_back(found.stringValue());
    return lines;
}

std::string groupText(std::string const& body) { return "[interface.up0.group]\n" + body; }

std::string repeated(std::string const& part, int times, std::string before = "") {
    for (int i = 0; i < times; ++i) before += part;
    return before;
}

constexpr char const* example = R"([interface.up0]
igmp-version = 3
unsolicited-report-interval = 0.5
[interface.up0.group]
"239.1.1.1" = {}
"239.1.1.2" = { include = ["10.0.0.1", "10.0.0.2"], exclude = ["10.0.0.3"] }
[interface."eth0.7"]
igmp-version = 2
robustness = 7
packets-per-100-ms = 10000
require-router-alert = true
[interface."eth0.7".group."239.1.1.1"]
[interface.ssm]
ssm-only = true
vrf = "red"
[vrf.red]
[vrf.blue]
namespace = "/proc/1/ns/net"
)";

TEST(ConfigurationTest, FileBecomesAPlainValue) {
    ConfigurationReading const reading = configurationParse(example, "f");
    EXPECT_TRUE(reading.valid());
    auto const& interfaces = reading.configuration.interfaces;
    ASSERT_EQ(interfaces.size(), 3u);

    GroupConfiguration const anySource{{}, {IpAddr()}};
    InterfaceConfiguration const& up0 = interfaces.at("up0");
    EXPECT_EQ(up0.igmpVersion, 3);
    EXPECT_EQ(up0.unsolicitedReportInterval, 0.5);
    EXPECT_EQ(up0.groups.size(), 2u);
    EXPECT_EQ(up0.groups.at(IpAddr("239.1.1.1")), anySource);
    EXPECT_EQ(up0.groups.at(IpAddr("239.1.1.2")),
              (GroupConfiguration{{IpAddr("10.0.0.1"), IpAddr("10.0.0.2")}, {IpAddr("10.0.0.3")}}));

    InterfaceConfiguration eth;
    eth.igmpVersion = 2;
    eth.robustness = 7;
    eth.packetsPer100ms = 10000;
    eth.requireRouterAlert = true;
    eth.groups[IpAddr("239.1.1.1")] = anySource;
    EXPECT_EQ(interfaces.at("eth0.7"), eth);
    InterfaceConfiguration ssm;
    ssm.ssmOnly = true;
    ssm.vrf = "red";
    EXPECT_EQ(interfaces.at("ssm"), ssm);
    EXPECT_EQ(configurationParse("[interface.up0]", "f").configuration.interfaces.at("up0"),
              InterfaceConfiguration());
    EXPECT_EQ(reading.configuration.vrfs,
              (std::map<std::string, std::string>{{"red", "red"}, {"blue", "/proc/1/ns/net"}}));
}

TEST(ConfigurationTest, TheLongestPrefixDecidesOverAGroup) {
    ConfigurationReading const reading =
        configurationParse(groupText("\"239.255.255.0/24\" = {}\n"
                                     "\"239.255.255.128/25\" = { include = [\"10.0.0.1\"] }\n"
                                     "\"239.255.255.255\" = { include = [\"10.0.0.2\"] }\n"),
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
        "[interface.up0]\n[interface.up0]\n",
        "[interface.a]\n\n[?]\n", // ends a process whose parser keeps its assertions
        groupText("\"239.1.1.1\" = {}\n\"239.1.1.1\" = {}\n"),
    };
    for (std::string const& text : texts) {
        ConfigurationReading const reading = configurationParse(text, "f");
        ASSERT_EQ(reading.diagnostics.size(), 1u) << text.substr(0, 60);
        EXPECT_FALSE(reading.valid());
        EXPECT_GE(reading.diagnostics[0].position.line, 1u);
    }
}

TEST(ConfigurationTest, LongSourceListsAreNotTakenForDeepNesting) {
    std::string list;
    for (int i = 0; i < 1000; ++i)
        list += "\"10.0." + std::to_string(i / 250) + "." + std::to_string(i % 250) + "\",";
    ConfigurationReading const reading = configurationParse(
        groupText("\"239.1.1.1\" = { include = [" + list + "] } # " + repeated(".", 100)), "f");
    EXPECT_EQ(diagnosticLines(reading), Lines());
    EXPECT_EQ(reading.configuration.interfaces.at("up0").groups.begin()->second.include.size(),
              1000u);
}

RC_GTEST_PROP(ConfigurationTest, DamagedTextIsReadOrReportedAndNeverCrashes, ()) {
    std::string text = example;
    auto const edits = *rc::gen::nonEmpty<std::vector<std::pair<unsigned, char>>>();
    for (auto const& [at, byte] : edits) {
        if (at % 3 == 0)
            text.insert(text.begin() + long(at % text.size()), byte);
        else
            text[at % text.size()] = byte;
    }
    for (Diagnostic const& found : configurationParse(text, "f").diagnostics) {
        RC_ASSERT(found.position.line >= 1u);
        RC_ASSERT(std::all_of(found.text.begin(), found.text.end(),
                              [](char c) { return c >= ' ' && c <= '~'; }));
    }
}

TEST(ConfigurationTest, FilesThatCannotBeReadAreReportedByName) {
    std::string directory = testing::TempDir() + "configurationXXXXXX";
    ASSERT_NE(mkdtemp(directory.data()), nullptr);
    std::string const file = directory + "/file";
    EXPECT_EQ(diagnosticLines(configurationRead(file)),
              Lines{file + ": error: cannot be read: No such file or directory"});
    std::ofstream(file) << example;
    EXPECT_EQ(configurationRead(file).configuration,
              configurationParse(example, file).configuration);
    ASSERT_EQ(truncate(file.c_str(), (64 << 20) + 1), 0);
    EXPECT_EQ(diagnosticLines(configurationRead(file)),
              Lines{file + ": error: cannot be read: File too large"});
    unlink(file.c_str());
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0); // nobody writes, and nobody waits for it
    for (std::string const& other : {file, directory, std::string("/dev/zero")})
        EXPECT_EQ(diagnosticLines(configurationRead(other)),
                  Lines{other + ": error: cannot be read: not a regular file"});
    unlink(file.c_str());
    rmdir(directory.c_str());
}

} // namespace
} // namespace Agent
