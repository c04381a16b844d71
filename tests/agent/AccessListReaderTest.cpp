#include "agent/AccessListWriter.h"
#include "agent/Configuration.h"

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

TEST(AccessListReaderTest, EachRuleTellsHowManyGroupsItSelects) {
    struct {
        std::string destination;
        std::string expected;
    } const cases[] = {
        {"239.1.1.1", "selects 1 group"},
        {"239.1.1.1/32", "selects 1 group"},
        {"239.1.1.2/30", "selects 4 groups"},
        {"239.0.0.0/255.0.0.255", "selects 65536 groups"},
        {"224.0.0.0/4", "selects 268435456 groups"},
        {"239.0.0.1/255.255.255.127", "selects 2 groups"},
    };
    for (auto const& [destination, expected] : cases)
        EXPECT_EQ(diagnosticsOf(permitText(destination)),
                  std::vector<std::string>{"f:5:15: info: " + expected});
    EXPECT_EQ(
        diagnosticsOf(ruleText("1", "deny", "any", "any")),
        std::vector<std::string>{"f:5:15: info: shuts out the groups of the forwarding table"});
}

TEST(AccessListReaderTest, FaultyRulesAreReportedAtTheirPlaces) {
    std::string const multicast =
        " found, expected multicast addresses only (and \"any\" only to deny it to source \"any\")";
    std::string const range =
        " found, expected a group, a prefix, an address with a mask, or \"any\"";
    std::string const source = " found, expected one unicast address, or \"any\"";
    struct {
        std::string text;
        std::string expected;
    } const cases[] = {
        {permitText("any"), "f:5:15: error: \"any\"" + multicast},
        {ruleText("1", "permit", "any", "any"), "f:5:15: error: \"any\"" + multicast},
        {ruleText("1", "deny", "10.0.0.1", "any"), "f:5:15: error: \"any\"" + multicast},
        {permitText("224.0.0.0/3"), "f:5:15: error: \"224.0.0.0/3\"" + multicast},
        {permitText("10.0.0.0/8"), "f:5:15: error: \"10.0.0.0/8\"" + multicast},
        {permitText("239.0.0.0/127.0.0.0"), "f:5:15: error: \"239.0.0.0/127.0.0.0\"" + multicast},
        {permitText("239.0.0.0/33"), "f:5:15: error: \"239.0.0.0/33\"" + range},
        {permitText("239.0.0.0/"), "f:5:15: error: \"239.0.0.0/\"" + range},
        {permitText("239.0.0.0/-1"), "f:5:15: error: \"239.0.0.0/-1\"" + range},
        {permitText("239.0.0.0/8/8"), "f:5:15: error: \"239.0.0.0/8/8\"" + range},
        {permitText("/8"), "f:5:15: error: \"/8\"" + range},
        {ruleText("1", "permit", "10.0.0.0/8", "239.1.1.1"),
         "f:4:10: error: \"10.0.0.0/8\"" + source},
        {ruleText("1", "permit", "239.1.1.1", "239.1.1.1"),
         "f:4:10: error: \"239.1.1.1\"" + source},
        {ruleText("1", "permit", "0.0.0.0/0", "239.1.1.1"),
         "f:4:10: error: \"0.0.0.0/0\"" + source},
        {ruleText("1", "allow", "any", "239.1.1.1"),
         "f:3:10: error: \"allow\" found, expected \"permit\" or \"deny\""},
        {ruleText("-1", "permit", "any", "239.1.1.1"),
         "f:2:12: error: sequence is -1, expected an integer from 0 to 4294967295"},
        {ruleText("4294967296", "permit", "any", "239.1.1.1"),
         "f:2:12: error: sequence is 4294967296, expected an integer from 0 to 4294967295"},
        {permitText("239.1.1.1") + permitText("239.1.1.2"),
         "f:7:12: error: 10 is the sequence number of two rules, expected each once"},
        {"[[access-list.iptv]]\naction = \"permit\"\nsource = \"any\"\nseq = 1\n",
         "f:1:1: error: no key destination found, expected one"},
        {"access-list.iptv = 5", "f:1:20: error: \"iptv\" is an integer, expected an array of "
                                 "tables"},
        {"[access-list.iptv]", "f:1:1: error: \"iptv\" is a table, expected an array of tables"},
    };
    for (auto const& [text, expected] : cases) {
        auto const lines = diagnosticsOf(text);
        EXPECT_NE(std::find(lines.begin(), lines.end(), expected), lines.end())
            << text << "\nexpected " << expected << "\ngot " << testing::PrintToString(lines);
        EXPECT_FALSE(configurationParse(text, "f").valid()) << text;
    }
}

TEST(AccessListReaderTest, ListsThatDoNotExistAreAWarningAndTwiceTheSameAnError) {
    EXPECT_EQ(diagnosticsOf("[interface.up0]\naccess-lists = [\"a\", \"a\"]\n"),
              (std::vector<std::string>{
                  "f:2:17: warning: \"a\" is not an access list of this file, expected one of them",
                  "f:2:22: error: \"a\" found, expected each access list once"}));
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
    EXPECT_FALSE(valid("239.1.0.0/16", attached + "large-ranges = false"));
    EXPECT_TRUE(valid("239.1.0.0/16", attached + "large-ranges = true"));
    EXPECT_TRUE(valid("239.1.0.0/16", "")) << "lists that are not attached ask for nothing";
}

TEST(AccessListWriterTest, RulesThatMoveKeepTheirIds) {
    IgmpHostProxy::PlatformState state;
    AccessListWriter writer(*state.aclConfig, [](std::string const&) {});
    auto const rule = [](char const* group) {
        return Acl::IpRuleConfig{Acl::Action::permit,
                                 {{}, IpAddrWithFullMask(IpAddr(group), 0xFFFFFFFF)}};
    };
    auto const a = rule("239.1.1.1"), b = rule("239.1.1.2"), c = rule("239.1.1.3");
    auto const ids = [&](AccessListConfiguration const& list) {
        writer.listsIs({{"iptv", list}});
        std::vector<std::uint64_t> ids;
        for (auto const& [sequence, expected] : list) {
            Nex::Ptr const written = state.aclConfig->acl("iptv")->currCfg();
            ids.push_back(written->ruleBySequence(sequence).number());
            EXPECT_EQ(written->ipRuleById(Acl::UniqueId(ids.back())), expected);
        }
        return ids;
    };
    using Ids = std::vector<std::uint64_t>;
    EXPECT_EQ(ids({{10, a}, {20, b}, {30, a}, {40, a}}), (Ids{1, 2, 3, 4}));
    EXPECT_EQ(ids({{5, a}, {10, b}, {20, c}, {40, a}, {50, a}, {60, a}}), (Ids{1, 2, 5, 4, 3, 6}));
}

} // namespace
} // namespace Agent
