#include "agent/Configuration.h"

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

constexpr char const* example = R"([interface.up0]
igmp-version = 3
unsolicited-report-interval = 0.5
[interface.up0.group]
"239.1.1.1" = {}
"239.1.1.2" = { include = ["10.0.0.1", "10.0.0.2"] }
[interface."eth0.7"]
igmp-version = 2
robustness = 7
packets-per-100-ms = 10000
require-router-alert = true
[interface."eth0.7".group."239.1.1.1"]
[interface.ssm]
ssm-only = true
)";

TEST(ConfigurationTest, FileBecomesAPlainValue) {
    ConfigurationReading const reading = configurationParse(example, "f");
    EXPECT_EQ(diagnosticLines(reading), Lines());
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
              (GroupConfiguration{{IpAddr("10.0.0.1"), IpAddr("10.0.0.2")}, {}}));

    InterfaceConfiguration eth;
    eth.igmpVersion = 2;
    eth.robustness = 7;
    eth.packetsPer100ms = 10000;
    eth.requireRouterAlert = true;
    eth.groups[IpAddr("239.1.1.1")] = anySource;
    EXPECT_EQ(interfaces.at("eth0.7"), eth);
    InterfaceConfiguration ssm;
    ssm.ssmOnly = true;
    EXPECT_EQ(interfaces.at("ssm"), ssm);
    EXPECT_EQ(configurationParse(interfaceText(""), "f").configuration.interfaces.at("up0"),
              InterfaceConfiguration());
}

TEST(ConfigurationTest, IncludedAndExcludedSourcesMayMeetInOneGroup) {
    ConfigurationReading const reading = configurationParse(
        groupText("\"239.1.1.1\" = { include = [\"10.0.0.1\"], exclude = [\"10.0.0.2\"] }"), "f");
    EXPECT_TRUE(reading.valid());
    EXPECT_EQ(reading.configuration.interfaces.at("up0").groups.at(IpAddr("239.1.1.1")),
              (GroupConfiguration{{IpAddr("10.0.0.1")}, {IpAddr("10.0.0.2")}}));
}

TEST(ConfigurationTest, VrfsAndForwardingTableHaveDefaults) {
    Configuration const given =
        configurationParse("[vrf.red]\n[vrf.blue]\nnamespace = \"/proc/1/ns/net\"\n"
                           "[interface.a]\n[interface.b]\nvrf = \"red\"\n[interface.c]\n"
                           "vrf = \"default\"\n[forwarding-table]\nrequire-output = false\n"
                           "incoming = \"any\"\n",
                           "f")
            .configuration;
    EXPECT_EQ(given.vrfs,
              (std::map<std::string, std::string>{{"red", "red"}, {"blue", "/proc/1/ns/net"}}));
    EXPECT_EQ(given.interfaces.at("a").vrf, "default");
    EXPECT_EQ(given.interfaces.at("b").vrf, "red");
    EXPECT_EQ(given.interfaces.at("c").vrf, "default");
    using Incoming = ForwardingTableConfiguration::Incoming;
    EXPECT_EQ(given.forwardingTable, (ForwardingTableConfiguration{false, Incoming::any}));
    EXPECT_EQ(configurationParse("", "f").configuration.forwardingTable,
              (ForwardingTableConfiguration{true, Incoming::proxyInterface}));
}

TEST(ConfigurationTest, EveryErrorNamesItsPlaceAndWhatWasExpected) {
    std::string const version = ": error: igmp-version is ";
    std::string const interval = ": error: unsolicited-report-interval is ";
    std::string const name = ", expected an interface name: 1 to 15 bytes without '/', ':', "
                             "white space or control characters";
    std::string const vrf =
        " found, expected a VRF name other than default, without '/' or control characters";
    struct {
        std::string text;
        std::string expected;
    } const cases[] = {
        {"igmp-version = 3", "f:1:1: error: unknown key \"igmp-version\", expected one of "
                             "access-list, forwarding-table, interface, vrf"},
        {"interface = 3", "f:1:13: error: \"interface\" is an integer, expected a table"},
        {"[interface]\nup0 = 1", "f:2:7: error: \"up0\" is an integer, expected a table"},
        {"[interface.\"a/b\"]", "f:1:12: error: \"a/b\" found" + name},
        {"[interface.\"\"]", "f:1:12: error: \"\" found" + name},
        {"[interface.\"..\"]", "f:1:12: error: \"..\" found" + name},
        {"[interface.\"a\\u0000b\"]", "f:1:12: error: \"a\\x00b\" found" + name},
        {"[interface.abcdefghijklmnop]", "f:1:12: error: \"abcdefghijklmnop\" found" + name},
        {interfaceText("igmp_version = 3"),
         "f:2:1: error: unknown key \"igmp_version\", expected one of igmp-version, "
         "unsolicited-report-interval, robustness, packets-per-100-ms, require-router-alert, "
         "ssm-only, group, access-lists, large-ranges, vrf"},
        {interfaceText("igmp-version = 4"),
         "f:2:16" + version + "4, expected an integer from 1 to 3"},
        {interfaceText("igmp-version = -9223372036854775808"),
         "f:2:16" + version + "-9223372036854775808, expected an integer from 1 to 3"},
        {interfaceText("igmp-version = 3.0"),
         "f:2:16: error: \"igmp-version\" is a floating-point number, expected an integer from 1 "
         "to 3"},
        {interfaceText("unsolicited-report-interval = 0"),
         "f:2:31" + interval + "0, expected a number above 0 and up to 3600"},
        {interfaceText("unsolicited-report-interval = nan"),
         "f:2:31" + interval + "nan, expected a number above 0 and up to 3600"},
        {interfaceText("unsolicited-report-interval = 1e300"),
         "f:2:31" + interval + "1e+300, expected a number above 0 and up to 3600"},
        {interfaceText("unsolicited-report-interval = 07:32:00"),
         "f:2:31: error: \"unsolicited-report-interval\" is a date or time, expected a number "
         "above 0 and up to 3600"},
        {interfaceText("robustness = 1"),
         "f:2:14: error: robustness is 1, expected an integer from 2 to 7"},
        {interfaceText("robustness = 8"),
         "f:2:14: error: robustness is 8, expected an integer from 2 to 7"},
        {interfaceText("packets-per-100-ms = 0"),
         "f:2:22: error: packets-per-100-ms is 0, expected an integer from 1 to 10000"},
        {interfaceText("packets-per-100-ms = 10001"),
         "f:2:22: error: packets-per-100-ms is 10001, expected an integer from 1 to 10000"},
        {interfaceText("require-router-alert = 1"),
         "f:2:24: error: \"require-router-alert\" is an integer, expected true or false"},
        {interfaceText("ssm-only = \"yes\""),
         "f:2:12: error: \"ssm-only\" is a string, expected true or false"},
        {groupText("\"10.0.0.1\" = {}"),
         "f:2:1: error: \"10.0.0.1\" found, expected a multicast address such as \"239.1.1.1\""},
        {groupText("\"239.001.1.1\" = {}"),
         "f:2:1: error: \"239.001.1.1\" found, expected a multicast address such as "
         "\"239.1.1.1\""},
        {groupText("239.1.1.1 = {}"),
         "f:2:1: error: \"239\" found, expected a multicast address such as \"239.1.1.1\""},
        {groupText("\"224.0.0.1\" = {}"),
         "f:2:1: error: \"224.0.0.1\" found, expected a group that hosts announce; 224.0.0.1 is "
         "joined always, and silently"},
        {groupText("\"239.1.1.1\" = true"),
         "f:2:15: error: \"239.1.1.1\" is a boolean, expected a table"},
        {groupText("\"239.1.1.1\" = { include = \"10.0.0.1\" }"),
         "f:2:27: error: \"include\" is a string, expected an array of strings"},
        {groupText("\"239.1.1.1\" = { include = [\"10.0.0.1\", [7]] }"),
         "f:2:40: error: \"include\" is an array, expected only strings in the array"},
        {groupText("\"239.1.1.1\" = { include = [] }"),
         "f:2:27: error: include holds no source, expected at least one (a group from any source "
         "is written {})"},
        {groupText("\"239.1.1.1\" = { include = [\"0.0.0.0\"] }"),
         "f:2:28: error: \"0.0.0.0\" found, expected the unicast address of a source"},
        {groupText("\"239.1.1.1\" = { include = [\"239.1.1.1\"] }"),
         "f:2:28: error: \"239.1.1.1\" found, expected the unicast address of a source"},
        {groupText("\"239.1.1.1\" = { include = [\"255.255.255.255\"] }"),
         "f:2:28: error: \"255.255.255.255\" found, expected the unicast address of a source"},
        {groupText("\"239.1.1.1\" = { include = [\"10.0.0.1\", \"10.0.0.1\"] }"),
         "f:2:40: error: \"10.0.0.1\" found, expected each source once"},
        {groupText("\"239.1.1.1\" = { exclude = [\"10.0.0.1\"], include = [\"10.0.0.1\"] }"),
         "f:2:28: error: \"10.0.0.1\" found, expected a source that is not in the include list of "
         "the group too"},
        {interfaceText("vrf = \"red\""),
         "f:2:7: error: \"red\" found, expected \"default\" or a VRF of this file"},
        {"[vrf.default]", "f:1:6: error: \"default\"" + vrf},
        {"[vrf.\"a/b\"]", "f:1:6: error: \"a/b\"" + vrf},
        {"[vrf.red]\nnamespace = \"\"",
         "f:2:13: error: \"\" found, expected the name of a namespace as in ip netns, or a path"},
        {"[vrf.red]\nnamespace = \"a\\u0000\"",
         "f:2:13: error: \"a\\x00\" found, expected the name of a namespace as in ip netns, or a "
         "path"},
        {"[forwarding-table]\nincoming = \"all\"",
         "f:2:12: error: \"all\" found, expected \"proxy-interface\" or \"any\""},
        {"[forwarding-table]\nrequire-output = 1",
         "f:2:18: error: \"require-output\" is an integer, expected true or false"},
    };
    for (auto const& [text, expected] : cases) {
        Lines const lines = diagnosticsOf(text);
        EXPECT_NE(std::find(lines.begin(), lines.end(), expected), lines.end())
            << text << "\nexpected " << expected << "\ngot " << testing::PrintToString(lines);
        EXPECT_FALSE(configurationParse(text, "f").valid()) << text;
    }
}

TEST(ConfigurationTest, OneReadingFindsAllErrorsInTheirOrder) {
    EXPECT_EQ(diagnosticsOf("[interface.z.group]\n\"1\" = {}\n[interface.a]\nigmp-version = 0\n"
                            "x = 1\n[y]\n"),
              (Lines{"f:2:1: error: \"1\" found, expected a multicast address such as "
                     "\"239.1.1.1\"",
                     "f:4:16: error: igmp-version is 0, expected an integer from 1 to 3",
                     "f:5:1: error: unknown key \"x\", expected one of igmp-version, "
                     "unsolicited-report-interval, robustness, packets-per-100-ms, "
                     "require-router-alert, ssm-only, group, access-lists, large-ranges, vrf",
                     "f:6:2: error: unknown key \"y\", expected one of access-list, "
                     "forwarding-table, interface, vrf"}));
}

TEST(ConfigurationTest, WhatMayNotWorkIsAWarningOnly) {
    struct {
        std::string text;
        std::string expected;
    } const cases[] = {
        {groupText("\"239.1.1.1\" = { exclude = [\"10.0.0.1\"] }"), "RFC 5790"},
        {groupText("\"232.1.1.1\" = { exclude = [\"10.0.0.1\"] }"), "RFC 4604"},
        {groupText("\"232.1.1.1\" = {}"), "RFC 4604"},
        {groupText("\"224.0.0.251\" = {}"), "link-local"},
        {interfaceText("igmp-version = 2\n[interface.up0.group]\n"
                       "\"239.1.1.1\" = { include = [\"10.0.0.1\"] }"),
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

std::string repeated(std::string const& part, int times, std::string before = "") {
    for (int i = 0; i < times; ++i) before += part;
    return before;
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
        groupText("\"239.1.1.1\" = {}\n\"239.1.1.1\" = {}\n"),
    };
    for (std::string const& text : texts) {
        ConfigurationReading const reading = configurationParse(text, "f");
        ASSERT_EQ(reading.diagnostics.size(), 1u) << text.substr(0, 60);
        EXPECT_FALSE(reading.valid());
        EXPECT_GE(reading.diagnostics[0].position.line, 1u);
    }
}

// The parser asserts its way through this header, and would end the process, in a build of its
// library that keeps assertions.
TEST(ConfigurationTest, MalformedHeaderIsPlacedOnItsLine) {
    ConfigurationReading const reading = configurationParse("[interface.a]\n\n[?]\n", "f");
    ASSERT_EQ(reading.diagnostics.size(), 1u);
    EXPECT_EQ(reading.diagnostics[0].position.line, 3u);
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
    EXPECT_EQ(diagnosticLines(configurationRead(directory)),
              Lines{directory + ": error: cannot be read: Is a directory"});
    std::string const file = directory + "/file";
    EXPECT_EQ(diagnosticLines(configurationRead(file)),
              Lines{file + ": error: cannot be read: No such file or directory"});
    std::ofstream(file) << example;
    EXPECT_EQ(configurationRead(file).configuration,
              configurationParse(example, file).configuration);
    EXPECT_EQ(diagnosticLines(configurationRead("/dev/zero")),
              Lines{"/dev/zero: error: cannot be read: File too large"});
    unlink(file.c_str());
    rmdir(directory.c_str());
}

} // namespace
} // namespace Agent
