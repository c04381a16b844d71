#include "agent/kernel/InterfaceTable.h"

#include "Nex/Error.h"
#include "agent/kernel/NetlinkMessage.h"

#include <gtest/gtest.h>

namespace Agent {
namespace {

using Lox::IpAddr;
using Message = NetlinkMessage;

class InterfaceTableTest : public testing::Test {
  protected:
    InterfaceTableTest() { table.readMessage(linkMessage(RTM_NEWLINK, 7, "up0").get()); }
    InterfaceTable table;
};

TEST_F(InterfaceTableTest, LinkIsUsableByItsStateOrFailingThatByItsCarrier) {
    std::tuple<unsigned, std::uint8_t, bool> const cases[] = {
        {IFF_UP, IF_OPER_UP, true},
        {0, IF_OPER_UP, false},
        {IFF_UP | IFF_LOWER_UP, IF_OPER_UNKNOWN, true},
        {IFF_UP, IF_OPER_UNKNOWN, false},
        {IFF_LOWER_UP, IF_OPER_UNKNOWN, false},
        {IFF_UP | IFF_LOWER_UP, IF_OPER_DORMANT, false},
        {IFF_UP | IFF_LOWER_UP, IF_OPER_DOWN, false},
    };
    for (auto const& [flags, state, up] : cases) {
        table.readMessage(
            linkMessage(RTM_NEWLINK, 7, "up0", flags).with(IFLA_OPERSTATE, 1, &state).get());
        EXPECT_EQ(table.interfaces().at(7).up, up) << flags << ' ' << int(state);
    }
}

TEST_F(InterfaceTableTest, LinkMessagesOfBridgesAndDriversTellNothing) {
    ifinfomsg header{};
    header.ifi_index = 7;
    EXPECT_EQ(table.readMessage(Message(RTM_NEWLINK, header).get()), std::nullopt) << "a scan";
    header.ifi_family = AF_BRIDGE;
    EXPECT_EQ(table.readMessage(Message(RTM_DELLINK, header).get()), std::nullopt) << "a port";
    EXPECT_EQ(table.interfaces().at(7).name, "up0");
}

TEST_F(InterfaceTableTest, VrfDeviceTellsItsTable) {
    // {IFLA_INFO_KIND "vrf", IFLA_INFO_DATA {IFLA_VRF_TABLE 1000}} as a kernel sends it
    std::uint8_t info[] = {8, 0, 1, 0, 'v', 'r', 'f', 0, 12, 0, 2, 0, 8, 0, 1, 0, 0xE8, 3, 0, 0};
    auto const read = [&] {
        return table.readMessage(
            linkMessage(RTM_NEWLINK, 9, "vrf").with(IFLA_LINKINFO, sizeof info, info).get());
    };
    EXPECT_EQ(read(), 9);
    EXPECT_EQ(table.interfaces().at(9).vrfTable, 1000u);
    info[4] = 'x'; // a link of another kind
    EXPECT_EQ(read(), 9);
    EXPECT_EQ(table.interfaces().at(9).vrfTable, 0u);
    info[4] = 'v';
    info[12] = 80; // beyond the end
    EXPECT_THROW(read(), Nex::ParseException);
}

TEST_F(InterfaceTableTest, PrimaryAddressIsTheFirstGlobalOne) {
    auto const primary = [this] { return table.interfaces().at(7).primaryAddress().stringValue(); };
    struct {
        std::uint16_t type;
        char const *address, *primary;
        std::uint32_t flags = 0;
        std::uint8_t scope = RT_SCOPE_UNIVERSE;
    } const steps[] = {
        {RTM_NEWADDR, "169.254.0.1", "169.254.0.1", 0, RT_SCOPE_LINK},
        {RTM_NEWADDR, "10.0.0.1", "169.254.0.1", IFA_F_SECONDARY},
        {RTM_NEWADDR, "10.0.0.2", "10.0.0.2"},
        {RTM_NEWADDR, "10.0.0.3", "10.0.0.2"},
        {RTM_NEWADDR, "10.0.0.1", "10.0.0.2"}, // promoted, and last of the primary ones
        {RTM_DELADDR, "10.0.0.2", "10.0.0.3"},
        {RTM_DELADDR, "10.0.0.3", "10.0.0.1"},
        {RTM_DELADDR, "10.0.0.1", "169.254.0.1"},
        {RTM_DELADDR, "169.254.0.1", "0.0.0.0"},
    };
    for (auto const& [type, address, expected, flags, scope] : steps) {
        table.readMessage(addressMessage(type, address, flags, scope).get());
        EXPECT_EQ(primary(), expected) << address;
    }
    // The far end of a tunnel, and the near one.
    table.readMessage(
        addressMessage(RTM_NEWADDR, "10.0.0.2").with(IFA_LOCAL, IpAddr("10.0.0.1")).get());
    EXPECT_EQ(primary(), "10.0.0.1");
}

} // namespace
} // namespace Agent
