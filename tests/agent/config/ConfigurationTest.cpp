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

Lines diagnosticsOf(std::string_view text) {
    return diagnosticLines(configurationParse(text, "f"));
}

/// Text of a file with one interface; the body begins on line 2.
std::string interfaceText(std::string const& body) { return "[interface.up0]\n" + body; }

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
    EXPECT_EQ(configurationParse(interfaceText(""), "f").configuration.interfaces.at("up0"),
              InterfaceConfiguration());
    EXPECT_EQ(reading.configuration.vrfs,
              (std::map<std::string, std::string>{{"red", "red"}, {"blue", "/proc/1/ns/net"}}));
}

TEST(ConfigurationTest, EveryErrorNamesItsPlaceAndWhatWasExpected) {
    std::string const name = " found, expected an interface name: 1 to 15 bytes without '/', ':', "
                             "white space or control characters";
    std::string const interval = ", expected a number above 0 and up to 3600";
    std::string const group =
        " found, expected a multicast address in quotes such as \"239.1.1.1\"";
    std::string const unicast = " found, expected the unicast address of a source";
    auto const sources = [](std::string const& lists) {
        return groupText("'239.1.1.1' = { " + lists + " }");
    };
    struct {
        std::string text, place, expected;
    } const cases[] = {
        {"interface = 3", "1:13", "\"interface\" is an integer, expected a table"},
        {"[interface.'a/b']", "1:12", "\"a/b\"" + name},
        {"[interface.'']", "1:12", "\"\"" + name},
        {"[interface.'..']", "1:12", "\"..\"" + name},
        {"[interface.\"a\\u0000b\"]", "1:12", "\"a\\x00b\"" + name},
        {"[interface.abcdefghijklmnop]", "1:12", "\"abcdefghijklmnop\"" + name},
        {interfaceText("igmp-version = 4"), "2:16",
         "igmp-version is 4, expected an integer from 1 to 3"},
        {interfaceText("igmp-version = 3.0"), "2:16",
         "\"igmp-version\" is a floating-point number, expected an integer from 1 to 3"},
        {interfaceText("unsolicited-report-interval = 0"), "2:31",
         "unsolicited-report-interval is 0" + interval},
        {interfaceText("unsolicited-report-interval = nan"), "2:31",
         "unsolicited-report-interval is nan" + interval},
        {interfaceText("unsolicited-report-interval = 1e300"), "2:31",
         "unsolicited-report-interval is 1e+300" + interval},
        {interfaceText("robustness = 1"), "2:14",
         "robustness is 1, expected an integer from 2 to 7"},
        {interfaceText("robustness = 8"), "2:14",
         "robustness is 8, expected an integer from 2 to 7"},
        {interfaceText("packets-per-100-ms = 0"), "2:22",
         "packets-per-100-ms is 0, expected an integer from 1 to 10000"},
        {interfaceText("ssm-only = 'yes'"), "2:12",
         "\"ssm-only\" is a string, expected true or false"},
        {groupText("'239.001.1.1' = {}"), "2:1", "\"239.001.1.1\"" + group},
        {groupText("239.1.1.1 = {}"), "2:1", "\"239\"" + group},
        {"[interface.eth0.7]", "1:17",
         "unknown key \"7\", expected one of igmp-version, unsolicited-report-interval, "
         "robustness, packets-per-100-ms, require-router-alert, ssm-only, group, access-lists, "
         "large-ranges, vrf; a name with a dot stands in quotes: \"eth0.7\""},
        {"a = 0 # 'b'\n[interface.\"1212\"]\n[interface.\"1212\"]", "3:1",
         "Error while parsing table header: cannot redefine existing table "
         "'interface.\"1212\"'"},
        {sources("include = [10.0.0.1]"), "2:32",
         "Error while parsing floating-point: expected decimal digit or exponent, saw '.' "
         "(addresses and names stand in quotes)"},
        {groupText("'224.0.0.1' = {}"), "2:1",
         "\"224.0.0.1\" found, expected a group that hosts announce; 224.0.0.1 is joined always, "
         "and silently"},
        {sources("include = '10.0.0.1'"), "2:27",
         "\"include\" is a string, expected an array of strings"},
        {sources("include = ['10.0.0.1', [7]]"), "2:40",
         "\"include\" is an array, expected only strings in the array"},
        {sources("include = []"), "2:27",
         "include holds no source, expected at least one (a group from any source is written {})"},
        {sources("include = ['0.0.0.0']"), "2:28", "\"0.0.0.0\"" + unicast},
        {sources("include = ['239.1.1.1']"), "2:28", "\"239.1.1.1\"" + unicast},
        {sources("include = ['255.255.255.255']"), "2:28", "\"255.255.255.255\"" + unicast},
        {sources("include = ['10.0.0.1', '10.0.0.1']"), "2:40",
         "\"10.0.0.1\" found, expected each source once"},
        {sources("exclude = ['10.0.0.1'], include = ['10.0.0.1']"), "2:28",
         "\"10.0.0.1\" found, expected a source that is not in the include list of the group too"},
        {interfaceText("vrf = 'red'"), "2:7",
         "\"red\" found, expected \"default\" or a VRF of this file"},
        {"[vrf.default]", "1:6",
         "\"default\" found, expected a VRF name other than default: 1 to 147 bytes without '/' or "
         "control characters"},
        {"[vrf." + repeated("a", 148) + "]", "1:6",
         "\"" + repeated("a", 64) +
             "...\" found, expected a VRF name other than default: 1 to 147 "
             "bytes without '/' or control characters"},
        {"[vrf.red]\nnamespace = '" + repeated("a", 256) + "'", "2:13",
         "\"" + repeated("a", 64) +
             "...\" found, expected the name of a namespace as in ip netns, "
             "or a path"},
        {"[vrf.red]\nnamespace = \"a\\u0000\"", "2:13",
         "\"a\\x00\" found, expected the name of a namespace as in ip netns, or a path"},
        {"[forwarding-table]\nincoming = 'all'", "2:12",
         "\"all\" found, expected \"proxy-interface\" or \"any\""},
    };
    for (auto const& [text, place, expected] : cases) {
        Lines const lines = diagnosticsOf(text);
        std::string const line = "f:" + place + ": error: " + expected;
        EXPECT_NE(std::find(lines.begin(), lines.end(), line), lines.end())
            << text << "\nexpected " << line << "\ngot " << testing::PrintToString(lines);
        EXPECT_FALSE(configurationParse(text, "f").valid()) << text;
    }
}

TEST(ConfigurationTest, OneReadingFindsAllErrorsInTheirOrder) {
    EXPECT_EQ(diagnosticsOf("[interface.z.group]\n\"1\" = {}\n[interface.a]\nigmp-version = 0\n"
                            "[y]\n"),
              (Lines{"f:2:1: error: \"1\" found, expected a multicast address in quotes such as "
                     "\"239.1.1.1\"",
                     "f:4:16: error: igmp-version is 0, expected an integer from 1 to 3",
                     "f:5:2: error: unknown key \"y\", expected one of access-list, "
                     "forwarding-table, interface, vrf"}));
}

TEST(ConfigurationTest, OfOneKindTheFirstAreShownAndTheRestCounted) {
    std::string text = "[interface.up0.group]\n";
    for (int i = 0; i < 30; ++i)
        text += "'239.1.1." + std::to_string(i) + "' = { exclude = ['10.0.0." +
                std::to_string(i + 1) + "'] }\n";
    Lines const lines = diagnosticsOf(text + "'232.1.1.1' = {}\nlater = {}\n");
    ASSERT_EQ(lines.size(), 23u);
    std::string const words = " excludes sources: some routers ignore exclude lists (RFC 5790)";
    EXPECT_EQ(lines[19], "f:21:1: warning: \"239.1.1.19\"" + words);
    EXPECT_EQ(lines[20], "f:22:1: warning: and 10 more like this: \"239.1.1.20\"" + words);
    EXPECT_NE(lines[21].find("RFC 4604"), std::string::npos) << "the only one of its kind";
    EXPECT_NE(lines[22].find("error: \"later\""), std::string::npos);
}

TEST(ConfigurationTest, WhatMayNotWorkIsAWarningOnly) {
    struct {
        std::string text, expected;
    } const cases[] = {
        {groupText("'239.1.1.1' = { exclude = ['10.0.0.1'] }"), "RFC 5790"},
        {groupText("'232.1.1.1' = {}"), "RFC 4604"},
        {groupText("'224.0.0.251' = {}"), "link-local"},
        {interfaceText("igmp-version = 2\ngroup.'239.1.1.1' = { include = ['10.0.0.1'] }"),
         "which IGMP version 2 cannot announce"},
        {interfaceText("igmp-version = 2\nssm-only = true"), "ssm-only has no effect"},
    };
    for (auto const& [text, expected] : cases) {
        ConfigurationReading const reading = configurationParse(text, "f");
        EXPECT_TRUE(reading.valid()) << text;
        ASSERT_EQ(reading.diagnostics.size(), 1u) << text;
        EXPECT_NE(reading.diagnostics[0].stringValue().find(": warning: "), std::string::npos);
        EXPECT_NE(reading.diagnostics[0].text.find(expected), std::string::npos)
            << reading.diagnostics[0].text;
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
