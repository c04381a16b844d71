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
    EXPECT_TRUE(wire->hearsOnly(told("ALLOW", all)));

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
        reload(attached + edit.rules);
        EXPECT_TRUE(wire->hearsOnly(expected)) << edit.what;
    }
    EXPECT_TRUE(learned({"down0 239.1.1.1 include 10.1.1.1", "down0 239.2.0.0 include 10.1.1.1",
                         "down0 239.4.0.2 include 10.1.1.1", "down0 239.4.0.3 include 10.1.1.1"}));
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
