// Access lists as an operator edits them: which groups change on the wire, and which do not.
#include "agent/AgentFixture.h"

namespace Testing {
namespace {

std::string iptv(unsigned sequence, std::string const& destination) {
    return rule("iptv", sequence, destination);
}

/// "ALLOW 239.1.1.0 10.1.1.1" for each of these groups.
Lines told(std::string const& change, Lines const& groups) {
    Lines lines;
    for (std::string const& group : groups) lines.push_back(change + " " + group + " 10.1.1.1");
    return lines;
}

TEST_F(AgentTest, EditsOfAListTellWhatTheyChangeAndNothingElse) {
    std::string const attached = listsOnUp0("'iptv'");
    EXPECT_TRUE(startTells(attached + iptv(10, "239.1.1.0/31") + iptv(20, "239.2.0.0"),
                           told("ALLOW", {"239.1.1.0", "239.1.1.1", "239.2.0.0"})));
    struct {
        char const* what;
        std::string rules;
        Lines added, removed;
    } const edits[] = {
        {"other numbers, and a narrower rule inside another",
         iptv(20, "239.1.1.0/31") + iptv(30, "239.2.0.0") + iptv(40, "239.1.1.1"),
         {},
         {}},
        {"the narrower one is left, and a mask with holes",
         iptv(30, "239.2.0.0") + iptv(40, "239.1.1.1") + iptv(50, "239.4.0.1/255.255.253.253"),
         {"239.4.0.1", "239.4.0.3", "239.4.2.1", "239.4.2.3"},
         {"239.1.1.0"}},
        {"no hole any more",
         iptv(30, "239.2.0.0") + iptv(40, "239.1.1.1") + iptv(50, "239.4.0.2/31"),
         {"239.4.0.2"},
         {"239.4.0.1", "239.4.2.1", "239.4.2.3"}},
    };
    for (auto const& edit : edits) {
        Lines expected = told("ALLOW", edit.added);
        for (std::string const& line : told("BLOCK", edit.removed)) expected.push_back(line);
        EXPECT_TRUE(reloadTells(attached + edit.rules, expected)) << edit.what;
    }
    EXPECT_TRUE(learned({"down0 239.1.1.1 include 10.1.1.1", "down0 239.2.0.0 include 10.1.1.1",
                         "down0 239.4.0.2 include 10.1.1.1", "down0 239.4.0.3 include 10.1.1.1"}));
}

TEST_F(AgentTest, TenThousandGroupsOfARuleLeaveAtOncePacked) {
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
