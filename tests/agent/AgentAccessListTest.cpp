// Access lists as an operator edits them: which groups change on the wire, and which do not.
#include "agent/AgentFixture.h"

namespace Testing {
namespace {

std::string rule(std::string const& list, int sequence, std::string const& destination,
                 std::string const& source = "10.1.1.1", std::string const& action = "permit") {
    return "[[access-list." + list + "]]\nsequence = " + std::to_string(sequence) + "\naction = '" +
           action + "'\nsource = '" + source + "'\ndestination = '" + destination + "'\n";
}

/// An interface with these lists and groups.
std::string listsOn(std::string const& interface, std::string const& lists,
                    std::string const& groups = "") {
    return "[interface." + interface + "]\naccess-lists = [" + lists +
           "]\nunsolicited-report-interval = 0.1\n[interface." + interface + ".group]\n" + groups;
}

std::string iptv(int sequence, std::string const& destination,
                 std::string const& source = "10.1.1.1") {
    return rule("iptv", sequence, destination, source);
}

/// "ALLOW 239.1.1.0 10.1.1.1" for each of these groups, each line twice.
Lines told(std::string const& change, Lines const& groups) {
    Lines lines;
    for (std::string const& group : groups) lines.push_back(change + " " + group + " 10.1.1.1");
    return twice(lines);
}

class AgentAccessListTest : public AgentTest {};

TEST_F(AgentAccessListTest, EditsTellWhatTheyChangeAndNothingElse) {
    std::string const attached = listsOn("up0", "'iptv'");
    Lines const all{"239.1.1.0", "239.1.1.1", "239.1.1.2", "239.1.1.3", "239.2.0.0"};
    start(attached + iptv(10, "239.1.1.0/30") + iptv(20, "239.2.0.0"));
    EXPECT_EQ(wire->heardAfter(told("ALLOW", all)), told("ALLOW", all));

    struct {
        char const* what;
        std::string rules;
        Lines added, removed;
    } const edits[] = {
        {"moved in the file", iptv(20, "239.2.0.0") + iptv(10, "239.1.1.0/30"), {}, {}},
        {"another number, the same content",
         iptv(30, "239.1.1.0/30") + iptv(20, "239.2.0.0"),
         {},
         {}},
        {"the number of a rule for another content",
         iptv(10, "239.2.0.0") + iptv(20, "239.3.0.0/31") + iptv(30, "239.1.1.0/30"),
         {"239.3.0.0", "239.3.0.1"},
         {}},
        {"a narrower rule inside another",
         iptv(10, "239.2.0.0") + iptv(20, "239.3.0.0/31") + iptv(30, "239.1.1.0/30") +
             iptv(40, "239.1.1.1"),
         {},
         {}},
        {"the narrower rule is left",
         iptv(10, "239.2.0.0") + iptv(40, "239.1.1.1"),
         {},
         {"239.1.1.0", "239.1.1.2", "239.1.1.3", "239.3.0.0", "239.3.0.1"}},
        {"a mask with holes",
         iptv(10, "239.2.0.0") + iptv(40, "239.1.1.1") + iptv(50, "239.4.0.1/255.255.253.253"),
         {"239.4.0.1", "239.4.0.3", "239.4.2.1", "239.4.2.3"},
         {}},
        {"no hole any more",
         iptv(10, "239.2.0.0") + iptv(40, "239.1.1.1") + iptv(50, "239.4.0.2/31"),
         {"239.4.0.2"},
         {"239.4.0.1", "239.4.2.1", "239.4.2.3"}},
    };
    for (auto const& edit : edits) {
        Lines expected = told("ALLOW", edit.added);
        for (std::string const& line : told("BLOCK", edit.removed)) expected.push_back(line);
        wire->forget();
        reload(attached + edit.rules);
        EXPECT_EQ(wire->heardAfter(expected), expected) << edit.what;
    }
    EXPECT_TRUE(learned({"down0 239.1.1.1 include 10.1.1.1", "down0 239.2.0.0 include 10.1.1.1",
                         "down0 239.4.0.2 include 10.1.1.1", "down0 239.4.0.3 include 10.1.1.1"}));
}

TEST_F(AgentAccessListTest, ListIsSharedDetachedAndAttachedAgain) {
    net->farIp("link add down1 type veth peer name up1 netns " + net->nearName());
    net->farIp("link set down1 up");
    net->nearIp("addr add 10.98.0.2/24 dev up1");
    net->nearIp("link set up1 up");
    Wire other(net->farName(), "down1");
    Lines const groups{"239.1.1.0", "239.1.1.1"};
    Lines const joined = told("ALLOW", groups), left = told("BLOCK", groups);
    std::string const rules = iptv(10, "239.1.1.0/31");
    std::string const both = listsOn("up0", "'iptv'") + listsOn("up1", "'iptv'");
    std::string const first = listsOn("up0", "'iptv'") + listsOn("up1", "");

    start(both + rules);
    EXPECT_EQ(wire->heardAfter(joined), joined);
    EXPECT_EQ(other.heardAfter(joined), joined);
    struct {
        char const* what;
        std::string file;
        Lines here, there;
    } const steps[] = {
        {"detached from the other", first + rules, {}, left},
        {"and attached there again", both + rules, {}, joined},
        {"a name that no list has",
         listsOn("up0", "'iptv', 'tv'") + listsOn("up1", "'tv'") + rules,
         {},
         left},
        {"the list of that name comes",
         listsOn("up0", "'iptv', 'tv'") + listsOn("up1", "'tv'") + rules +
             rule("tv", 10, "239.1.1.0/31"),
         {},
         joined},
        {"another list takes over",
         listsOn("up0", "'tv'") + listsOn("up1", "'tv'") + rule("tv", 10, "239.1.1.0/31"),
         {},
         {}},
        {"the list goes while it is attached", listsOn("up0", "'tv'") + listsOn("up1", "'tv'"),
         left, left},
        {"and comes back", both + rules, joined, joined},
    };
    for (auto const& step : steps) {
        wire->forget();
        other.forget();
        reload(step.file);
        EXPECT_EQ(wire->heardAfter(step.here), step.here) << step.what;
        EXPECT_EQ(other.heardAfter(step.there), step.there) << step.what;
    }
    // The rules of a list count once each, however the interface came to it.
    net->carrierIs(false);
    EXPECT_TRUE(learned({}));
    net->carrierIs(true);
    EXPECT_TRUE(learned({"down0 239.1.1.0 include 10.1.1.1", "down0 239.1.1.1 include 10.1.1.1"}));
    reload(first);
    EXPECT_TRUE(learned({}));
}

TEST_F(AgentAccessListTest, GroupGoesFromEachMixOfWishesToEachOther) {
    // Both waits of the bridge for a last member are short, and the other group's rule stays.
    net->farIp("link set br0 type bridge mcast_last_member_interval 2 mcast_last_member_count 1");
    std::string const here = "239.1.1.1", include = "'239.1.1.1' = { include = ['10.0.0.1'] }\n",
                      any = "'239.1.1.1' = {}\n", other = rule("other", 10, "239.1.1.9");
    struct {
        char const* what;
        std::string groups, rules;
        char const* learned;
    } const mixes[] = {
        {"nothing", "", "", nullptr},
        {"any by rule", "", iptv(10, here, "any"), " exclude"},
        {"a source by rule", "", iptv(10, here), " include 10.1.1.1"},
        {"any by the file", any, "", " exclude"},
        {"a source by the file, any by rule", include, iptv(10, here, "any"), " include 10.0.0.1"},
        {"any by the file, a source by rule", any, iptv(10, here), " include 10.1.1.1"},
        {"both sources", include, iptv(10, here), " include 10.0.0.1,10.1.1.1"},
        {"the file's source denied by rule", include, rule("iptv", 10, here, "10.0.0.1", "deny"),
         " exclude 10.0.0.1"},
        {"two rules", "",
         iptv(10, here) + iptv(20, "239.1.1.0/30", "any") +
             rule("iptv", 30, "239.1.1.0", "10.0.0.1", "deny"),
         " include 10.1.1.1"},
    };
    auto const text = [&](auto const& mix) {
        return listsOn("up0", "'iptv', 'other'", mix.groups) + mix.rules + other;
    };
    auto const table = [&](auto const& mix) {
        Lines lines{"down0 239.1.1.9 include 10.1.1.1"};
        if (mix.learned) lines.push_back("down0 239.1.1.1" + std::string(mix.learned));
        if (mix.rules.find("/30") != mix.rules.npos)
            for (char const* more : {"0 exclude 10.0.0.1", "2 exclude", "3 exclude"})
                lines.push_back("down0 239.1.1." + std::string(more));
        std::sort(lines.begin(), lines.end());
        return lines;
    };
    auto const becomes = [&](auto const& from, auto const& to) {
        reload(text(to));
        EXPECT_TRUE(waitUntil([&] { return net->bridgeTable() == table(to); }))
            << from.what << " -> " << to.what << ": " << testing::PrintToString(net->bridgeTable());
    };
    start(text(mixes[0]));
    for (auto const* one = mixes; one != std::end(mixes); ++one) {
        becomes(mixes[0], *one);
        for (auto const* another = one + 1; another != std::end(mixes); ++another) {
            becomes(*one, *another);
            becomes(*another, *one);
        }
        becomes(*one, mixes[0]);
    }
    // A group that is denied comes back for the rule that stays of two that select it.
    std::string const one = iptv(10, here), denied = rule("iptv", 1, here, "any", "deny");
    std::string const otherLearned = "down0 239.1.1.9 include 10.1.1.1";
    std::pair<std::string, Lines> const steps[] = {
        {denied + one + iptv(20, "239.1.1.0/31"),
         {"down0 239.1.1.0 include 10.1.1.1", otherLearned}},
        {denied + one, {otherLearned}},
        {one, {"down0 239.1.1.1 include 10.1.1.1", otherLearned}}};
    for (auto const& [rules, known] : steps) {
        reload(listsOn("up0", "'iptv', 'other'") + rules + other);
        EXPECT_TRUE(learned(known));
    }
    Lines const lines = wire->heard();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "ALLOW 239.1.1.9 10.1.1.1"), 2);
}

TEST_F(AgentAccessListTest, TenThousandGroupsLeaveAtOncePacked) {
    // An entry for each group and one for each of its sources.
    net->farIp("link set br0 type bridge mcast_hash_max 65536");
    // What waited for a random delay within an hour would not be heard in time.
    std::string const attached =
        "[interface.up0]\naccess-lists = ['iptv']\nunsolicited-report-interval = 3600\n";
    start(attached);
    constexpr std::size_t count = 16384, inPacket = (1500 - 24 - 8) / 12;
    std::set<std::string> groups;
    reload(attached + iptv(10, "239.1.0.0/18"));
    EXPECT_TRUE(waitUntil([&] {
        Lines const heard = wire->heard();
        groups = {heard.begin(), heard.end()};
        return groups.size() >= count;
    }));
    EXPECT_EQ(groups.size(), count);
    EXPECT_EQ(*groups.begin(), "ALLOW 239.1.0.0 10.1.1.1");
    // Few of the repeats happen to be early.
    EXPECT_LE(wire->sources().size(), (count / inPacket + 1) * 11 / 10) << "packets";
    EXPECT_TRUE(waitUntil([&] { return net->bridgeTable().size() == count; }));

    // While they wait to be repeated, one more group leaves at once, too.
    wire->forget();
    reload(attached + iptv(10, "239.1.0.0/18") + iptv(20, "239.2.0.0"));
    EXPECT_TRUE(wire->hears({"ALLOW 239.2.0.0 10.1.1.1"}));
}

} // namespace
} // namespace Testing
