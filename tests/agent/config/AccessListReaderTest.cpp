#include "agent/config/Configuration.h"

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
