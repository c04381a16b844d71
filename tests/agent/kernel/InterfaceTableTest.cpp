#include "agent/kernel/InterfaceTable.h"

#include "Nex/Error.h"
#include "agent/kernel/NetlinkMessage.h"

#include <gtest/gtest.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

namespace Agent {
namespace {

using Lox::IpAddr;
using Message = NetlinkMessage;

Message linkMessage(std::uint16_t type, int ifindex, unsigned flags, std::uint8_t state) {
    ifinfomsg header{};
    header.ifi_index = ifindex;
    header.ifi_flags = flags;
    std::uint8_t const mac[] = {2, 0, 0, 0, 0, 7};
    Message message(type, header);
    message.with(IFLA_IFNAME, "up0").with(IFLA_MTU, 1500u).with(IFLA_ADDRESS, sizeof mac, mac);
    return message.with(IFLA_OPERSTATE, 1, &state);
}

Message addressMessage(std::uint16_t type, char const* address, std::uint32_t flags = 0,
                       std::uint8_t scope = RT_SCOPE_UNIVERSE) {
    ifaddrmsg header{};
    header.ifa_family = AF_INET;
    header.ifa_prefixlen = 24;
    header.ifa_scope = scope;
    header.ifa_index = 7;
    Message message(type, header);
    return message.with(IFA_ADDRESS, IpAddr(address)).with(IFA_FLAGS, flags);
}

class InterfaceTableTest : public testing::Test {
  protected:
    InterfaceTableTest() {
        table.readMessage(linkMessage(RTM_NEWLINK, 7, IFF_UP, IF_OPER_UP).get());
    }
    std::string primary() const { return table.interfaces().at(7).primaryAddress().stringValue(); }

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
        table.readMessage(linkMessage(RTM_NEWLINK, 7, flags, state).get());
        EXPECT_EQ(table.interfaces().at(7).up, up) << flags << ' ' << int(state);
    }
}

TEST_F(InterfaceTableTest, LinkMessagesOfBridgesAndDriversTellNothing) {
    ifinfomsg port{};
    port.ifi_family = AF_BRIDGE;
    port.ifi_index = 7;
    EXPECT_EQ(table.readMessage(Message(RTM_DELLINK, port).get()), std::nullopt);
    ifinfomsg scan{};
    scan.ifi_index = 7;
    EXPECT_EQ(table.readMessage(Message(RTM_NEWLINK, scan).get()), std::nullopt);
    EXPECT_EQ(table.interfaces().at(7).name, "up0");
}

TEST_F(InterfaceTableTest, VrfDeviceTellsItsTableAndPortsTheirMaster) {
    ifinfomsg header{};
    header.ifi_index = 9;
    // {IFLA_INFO_KIND "vrf", IFLA_INFO_DATA {IFLA_VRF_TABLE 1000}} as a kernel sends it
    std::uint8_t info[] = {8, 0, 1, 0, 'v', 'r', 'f', 0, 12, 0, 2, 0, 8, 0, 1, 0, 0xE8, 3, 0, 0};
    auto const read = [&] {
        return table.readMessage(Message(RTM_NEWLINK, header)
                                     .with(IFLA_IFNAME, "vrf-red")
                                     .with(IFLA_LINKINFO, sizeof info, info)
                                     .get());
    };
    EXPECT_EQ(read(), 9);
    EXPECT_EQ(table.interfaces().at(9).vrfTable, 1000u);
    info[4] = 'x'; // a link of another kind
    EXPECT_EQ(read(), 9);
    EXPECT_EQ(table.interfaces().at(9).vrfTable, 0u);
    info[4] = 'v';
    info[12] = 80; // beyond the end
    EXPECT_THROW(read(), Nex::ParseException);
    Message port = linkMessage(RTM_NEWLINK, 7, IFF_UP, IF_OPER_UP);
    EXPECT_EQ(table.readMessage(port.with(IFLA_MASTER, 9u).get()), 7);
    EXPECT_EQ(table.interfaces().at(7).master, 9);
}

TEST_F(InterfaceTableTest, PrimaryAddressIsTheFirstGlobalOne) {
    EXPECT_EQ(primary(), "0.0.0.0");
    auto const add = [&](auto... arguments) {
        table.readMessage(addressMessage(RTM_NEWADDR, arguments...).get());
    };
    add("169.254.0.1", 0u, RT_SCOPE_LINK);
    EXPECT_EQ(primary(), "169.254.0.1");
    add("10.0.0.1", unsigned(IFA_F_SECONDARY));
    EXPECT_EQ(primary(), "169.254.0.1");
    add("10.0.0.2");
    add("10.0.0.3");
    EXPECT_EQ(primary(), "10.0.0.2");
    add("10.0.0.1"); // promoted, and last of the primary ones
    EXPECT_EQ(primary(), "10.0.0.2");
    table.readMessage(addressMessage(RTM_DELADDR, "10.0.0.2").get());
    table.readMessage(addressMessage(RTM_DELADDR, "10.0.0.3").get());
    EXPECT_EQ(primary(), "10.0.0.1");
    table.readMessage(addressMessage(RTM_DELADDR, "10.0.0.1").get());
    table.readMessage(addressMessage(RTM_DELADDR, "169.254.0.1").get());
    // The far end of a tunnel, and the near one.
    table.readMessage(
        addressMessage(RTM_NEWADDR, "10.0.0.2").with(IFA_LOCAL, IpAddr("10.0.0.1")).get());
    EXPECT_EQ(primary(), "10.0.0.1");
}

} // namespace
} // namespace Agent
