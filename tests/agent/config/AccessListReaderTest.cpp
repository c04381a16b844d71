#include "agent/config/Configuration.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace Agent {
namespace {

using Lox::IpAddr;
using Lox::IpAddrWithFullMask;

std::string ruleText(std::string const& sequence, std::string const& action,
                     std::string const& source, std::string const& destination) {
    return "[[access-list.iptv]]\nsequence = " + sequence + "\naction = \"" + action +
           "\"\nsource = \"" + source + "\"\ndestination = \"" + destination + "\"\n";
}

/// A permit rule for the groups of `destination`.
std::string permitText(std::string const& destination) {
    return ruleText("10", "permit", "10.1.1.1", destination);
}

std::vector<std::string> diagnosticsOf(std::string const& text) {
    std::vector<std::string> lines;
    for (Diagnostic const& found : configurationParse(text, "f").diagnostics)
        lines.push_back(found.stringValue());
    return lines;
}

TEST(AccessListReaderTest, RulesAreKeptBySequenceNumber) {
    ConfigurationReading const reading = configurationParse(
        ruleText("4294967295", "deny", "any", "any") + permitText("239.1.1.0/30") +
            ruleText("0", "permit", "any", "239.1.1.1") +
            "[interface.up0]\naccess-lists = [\"iptv\"]\n",
        "f");
    ASSERT_TRUE(reading.valid());
    Acl::IpRuleConfig const denyAll{Acl::Action::deny, {}};
    Acl::IpRuleConfig const prefix{Acl::Action::permit,
                                   {IpAddrWithFullMask(IpAddr("10.1.1.1"), 0xFFFFFFFF),
                                    IpAddrWithFullMask(IpAddr("239.1.1.0"), 0xFFFFFFFC)}};
    Acl::IpRuleConfig const group{Acl::Action::permit,
                                  {{}, IpAddrWithFullMask(IpAddr("239.1.1.1"), 0xFFFFFFFF)}};
    EXPECT_EQ(reading.configuration.accessLists.at("iptv"),
              (AccessListConfiguration{{0, group}, {10, prefix}, {4294967295, denyAll}}));
    EXPECT_EQ(reading.configuration.interfaces.at("up0").accessLists,
              std::vector<std::string>{"iptv"});
    EXPECT_FALSE(reading.configuration.interfaces.at("up0").largeRanges);
}

TEST(AccessListReaderTest, EachRuleTellsHowManyGroupsItSelectsWhereItDoes) {
    std::pair<char const*, char const*> const cases[] = {
        {"239.1.1.1/32", "selects 1 group"},
        {"239.1.1.2/30", "selects 4 groups"},
        {"239.0.0.0/255.0.0.255", "selects 65536 groups"},
        {"224.0.0.0/4", "selects 268435456 groups"},
    };
    std::string const warning =
        "f:1:15: warning: \"iptv\" is attached to no interface: its rules select nothing";
    std::string const interface = "[interface.up0]\nlarge-ranges = true\naccess-lists = ['iptv']\n";
    for (auto const& [destination, expected] : cases) {
        EXPECT_EQ(diagnosticsOf(permitText(destination)), std::vector<std::string>{warning});
        EXPECT_EQ(diagnosticsOf(permitText(destination) + interface + "group.'224.0.0.5' = {}\n"),
                  (std::vector<std::string>{
                      "f:9:7: warning: \"224.0.0.5\" is link-local: routers never forward it, "
                      "expected no need to announce it",
                      std::string("f:5:15: info: ") + expected}))
            << "infos behind faults";
    }
}

TEST(AccessListReaderTest, FaultyRulesAreReportedAtTheirPlaces) {
    std::string const multicast =
        " found, expected multicast addresses only (and \"any\" only to deny it to source \"any\")";
    std::string const range =
        " found, expected a group, a prefix, an address with a mask, or \"any\"";
    std::string const source = " found, expected one unicast address, or \"any\"";
    auto const from = [](char const* address) {
        return ruleText("1", "permit", address, "239.1.1.1");
    };
    struct {
        std::string text, place, expected;
    } const cases[] = {
        {ruleText("1", "permit", "any", "any"), "5:15", "\"any\"" + multicast},
        {ruleText("1", "deny", "10.0.0.1", "any"), "5:15", "\"any\"" + multicast},
        {permitText("224.0.0.0/3"), "5:15", "\"224.0.0.0/3\"" + multicast},
        {permitText("239.0.0.0/127.0.0.0"), "5:15", "\"239.0.0.0/127.0.0.0\"" + multicast},
        {permitText("239.0.0.0/33"), "5:15", "\"239.0.0.0/33\"" + range},
        {permitText("239.0.0.0/"), "5:15", "\"239.0.0.0/\"" + range},
        {permitText("239.0.0.0/-1"), "5:15", "\"239.0.0.0/-1\"" + range},
        {permitText("239.0.0.0/8/8"), "5:15", "\"239.0.0.0/8/8\"" + range},
        {permitText("/8"), "5:15", "\"/8\"" + range},
        {from("10.0.0.0/8"), "4:10", "\"10.0.0.0/8\"" + source},
        {from("239.1.1.1"), "4:10", "\"239.1.1.1\"" + source},
        {from("0.0.0.0/0"), "4:10", "\"0.0.0.0/0\"" + source},
        {ruleText("1", "allow", "any", "239.1.1.1"), "3:10",
         "\"allow\" found, expected \"permit\" or \"deny\""},
        {ruleText("4294967296", "permit", "any", "239.1.1.1"), "2:12",
         "sequence is 4294967296, expected an integer from 0 to 4294967295"},
        {permitText("239.1.1.1") + permitText("239.1.1.2"), "7:12",
         "10 is the sequence number of two rules, expected each once"},
        {"[[access-list.iptv]]\naction = \"permit\"\nsource = \"any\"\nseq = 1\n", "1:1",
         "no key destination found, expected one"},
        {"[access-list.iptv]", "1:1", "\"iptv\" is a table, expected an array of tables"},
        {"[interface.up0]\naccess-lists = ['a', 'a']\n", "2:22",
         "\"a\" found, expected each access list once"},
    };
    for (auto const& [text, place, expected] : cases) {
        auto const lines = diagnosticsOf(text);
        std::string const line = "f:" + place + ": error: " + expected;
        EXPECT_NE(std::find(lines.begin(), lines.end(), line), lines.end())
            << text << "\nexpected " << line << "\ngot " << testing::PrintToString(lines);
        EXPECT_FALSE(configurationParse(text, "f").valid()) << text;
    }
}

TEST(AccessListReaderTest, ListThatDoesNotExistIsAWarning) {
    EXPECT_EQ(diagnosticsOf("[interface.up0]\naccess-lists = ['a']\n"),
              std::vector<std::string>{"f:2:17: warning: \"a\" is not an access list of this file, "
                                       "expected one of them"});
}

TEST(AccessListReaderTest, ManyGroupsOnOneInterfaceMustBeAskedFor) {
    auto const valid = [](std::string const& destination, std::string const& interface) {
        std::string other = permitText("239.2.0.0/17");
        other.replace(other.find("iptv"), 4, "other");
        return configurationParse(permitText(destination) + other + "[interface.up0]\n" + interface,
                                  "f")
            .valid();
    };
    std::string const attached = "access-lists = [\"iptv\", \"other\"]\n";
    EXPECT_TRUE(valid("239.1.0.0/17", attached));
    EXPECT_FALSE(valid("239.1.0.0/16", attached));
    EXPECT_TRUE(valid("239.1.0.0/16", attached + "large-ranges = true"));
    EXPECT_TRUE(valid("239.1.0.0/16", "")) << "lists that are not attached ask for nothing";
}

} // namespace
} // namespace Agent
