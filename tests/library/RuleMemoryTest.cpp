// Access lists for whose rules memory runs out, at each of the allocations in turn.
#include "Play.h"
#include "support/RefusedMemory.h"

namespace IgmpHostProxy {
namespace {

char const* const steps[] = {"attach iptv", "rule iptv 3 permit 3 g8/29", "force iptv other",
                             "detach iptv"};

/// An interface, a list of two rules, and another version of the list.
struct Lists final : Play {
    Lists() {
        doEvents("start; tables; intf up0 2; configure up0; table t; new-rules other; rule iptv 1 "
                 "permit 1 g0/29; rule iptv 2 permit 2 g8/29; rule other 4 permit 4 g16/29");
    }
    /// What follows the next time that anybody looks.
    void again() {
        if (!configOf("")->aclListHas("iptv")) return;
        if (!helper("iptv")) machine().handleAclConfig("iptv");
        machine().acl("iptv")->handleRule();
    }
    std::string state() {
        return fact("g0..23") + "; " + std::to_string(words(rules("iptv")).size()) + " rules";
    }
};

TEST(RuleMemory, CountsAreRightTheNextTime) {
    for (std::size_t failing = 0; failing < std::size(steps); ++failing)
        for (long refused = 1;; ++refused) {
            SCOPED_TRACE(steps[failing] + (" " + std::to_string(refused)));
            Lists calm, lists;
            for (std::size_t at = 0; at <= failing; ++at) calm.doEvents(steps[at]);
            for (std::size_t at = 0; at < failing; ++at) lists.doEvents(steps[at]);
            memory.refuse(refused, refused);
            try {
                lists.doEvents(steps[failing]);
            } catch (std::bad_alloc const&) {
            }
            bool const over = memory.stop() < refused;
            lists.doEvents(steps[failing]);
            lists.again();
            ASSERT_EQ(lists.state(), calm.state());
            for (Lists* const each : {&calm, &lists}) each->doEvents("route t 9 g0..23; +1");
            ASSERT_EQ(lists.state(), calm.state());
            lists.doEvents("detach iptv");
            ASSERT_EQ(lists.fact("g0..23").find(':'), std::string::npos) << lists.fact("g0..23");
            if (over) break;
        }
}

TEST(RuleMemory, MachinesEndWithoutAny) {
    auto lists = std::make_unique<Lists>();
    memory.refuse(1, 1000000);
    lists.reset();
    EXPECT_GT(memory.stop(), 0) << "what is asked for all the same is refused";
}

} // namespace
} // namespace IgmpHostProxy
