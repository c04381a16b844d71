#include "agent/ConfigurationText.h"
#include "agent/config/Configuration.h"

#include <gtest/gtest.h>

namespace Agent {
namespace {

using Lox::IpAddr;
using Testing::rule;

TEST(AccessListReaderTest, RulesAboutAGroupAreFoundInTheirOrder) {
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

TEST(AccessListReaderTest, ManyGroupsOnOneInterfaceMustBeAskedFor) {
    auto const valid = [](std::string const& destination, std::string const& interface) {
        return configurationParse(rule("iptv", 1, destination) + rule("other", 1, "239.2.0.0/17") +
                                      "[interface.up0]\n" + interface,
                                  "f")
            .valid();
    };
    std::string const attached = "access-lists = ['iptv', 'other']\n";
    EXPECT_TRUE(valid("239.1.0.0/17", attached));
    EXPECT_FALSE(valid("239.1.0.0/16", attached));
    EXPECT_TRUE(valid("239.1.0.0/16", attached + "large-ranges = true"));
    EXPECT_TRUE(valid("239.1.0.0/16", "")) << "lists that are not attached ask for nothing";
}

} // namespace
} // namespace Agent
