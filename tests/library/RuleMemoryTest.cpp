// Access lists for whose rules memory runs out, at each of the allocations in turn.
#include "Producers.h"
#include "support/RefusedMemory.h"

namespace IgmpHostProxy {
namespace {

/// An interface, a list of two rules, and another version of the list.
struct Lists : Producers {
    Lists() {
        for (std::uint32_t const id : {1u, 2u}) ruleIs("iptv", id, rule(id));
        other->ipRuleByIdIs(Acl::UniqueId(4), rule(4));
        other->ruleBySequenceIs(4, Acl::UniqueId(4));
    }
    void TestBody() override {}
    static Lox::IpAddr group(std::uint32_t n) { return Lox::IpAddr::fromHost(0xEF010100 + n); }
    static Acl::IpRuleConfig rule(std::uint32_t n) {
        return permit(Lox::IpAddr::fromHost(0x0A000000 + n), group(4 * n), ~std::uint32_t(7));
    }
    void attach() { config->aclListIs("iptv"); }
    void edit() { ruleIs("iptv", 3, rule(3)); }
    void change() { world.aclConfig->acl("iptv")->currCfgIs(other); }
    void detach() { config->aclListDel("iptv"); }
    /// What follows the next time that anybody looks.
    void again() {
        if (!config->aclListHas("iptv")) return;
        if (!helper()) machine().handleAclConfig("iptv");
        machine().acl("iptv")->handleRule();
    }
    std::string counts() {
        std::string text;
        for (std::uint32_t id = 1; id <= 4; ++id)
            for (std::uint32_t g = 0; g < 24; ++g)
                text += char('0' + count(Lox::IpAddr::fromHost(0x0A000000 + id), group(g)));
        return text;
    }
    std::size_t cached() { return helper() ? cachedRules() : 0; }
    /// What is announced once a route to each of the groups was reviewed.
    Lines reviewed() {
        for (std::uint32_t g = 0; g < 24; ++g) routeIs(*table, ip("10.0.0.9"), group(g));
        settle();
        return Dump::of(*status);
    }
    Nex::Ptr<Table> table = newTable();
    Nex::Ptr<Acl::AclSubConfig> other = Acl::AclSubConfig::AclSubConfigIs("iptv");
};

TEST(RuleMemory, CountsAreRightTheNextTime) {
    using Step = void (Lists::*)();
    Step const steps[] = {&Lists::attach, &Lists::edit, &Lists::change, &Lists::detach};
    for (std::size_t failing = 0; failing < std::size(steps); ++failing)
        for (long refused = 1;; ++refused) {
            SCOPED_TRACE("step " + std::to_string(failing) + ", " + std::to_string(refused));
            Lists calm, lists;
            for (std::size_t at = 0; at <= failing; ++at) (calm.*steps[at])();
            for (std::size_t at = 0; at < failing; ++at) (lists.*steps[at])();
            memory.refuse(refused, refused);
            try {
                (lists.*steps[failing])();
            } catch (std::bad_alloc const&) {
            }
            bool const over = memory.stop() < refused;
            (lists.*steps[failing])();
            lists.again();
            ASSERT_EQ(lists.counts(), calm.counts());
            ASSERT_EQ(lists.cached(), calm.cached());
            ASSERT_EQ(lists.reviewed(), calm.reviewed());
            lists.detach();
            ASSERT_EQ(lists.counts(), std::string(96, '0'));
            if (over) break;
        }
}

} // namespace
} // namespace IgmpHostProxy
