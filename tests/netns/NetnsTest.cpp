// Pins what every other test in a namespace rests on: how the kernel's own joins look in the
// bridge's table, and that nothing is left behind.
#include "netns/Netns.h"

#include <arpa/inet.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <initializer_list>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Testing {
namespace {

using Table = std::vector<std::string>;

/// A kernel socket that has joined one group on up0.
class Member {
  public:
    Member(char const* group, int option, std::initializer_list<char const*> sources)
        : descriptor_(socket(AF_INET, SOCK_DGRAM, 0)) {
        ip_mreq_source request{};
        request.imr_multiaddr.s_addr = inet_addr(group);
        request.imr_interface.s_addr = inet_addr("10.99.0.2");
        if (option == IP_BLOCK_SOURCE) {
            ip_mreq const any{request.imr_multiaddr, request.imr_interface};
            setsockopt(descriptor_, IPPROTO_IP, IP_ADD_MEMBERSHIP, &any, sizeof any);
        }
        for (auto const* source : sources) {
            request.imr_sourceaddr.s_addr = inet_addr(source);
            setsockopt(descriptor_, IPPROTO_IP, option, &request, sizeof request);
        }
    }
    ~Member() { close(descriptor_); }
    Member(Member const&) = delete;
    Member& operator=(Member const&) = delete;

  private:
    int descriptor_;
};

bool tableBecomes(Netns const& network, Table const& expected) {
    return waitUntil([&] { return network.bridgeTable() == expected; });
}

bool carrierBecomes(Netns const& network, bool expected) {
    return waitUntil([&] {
        auto const up = network.nearIp("link show up0").find("LOWER_UP") != std::string::npos;
        return up == expected;
    });
}

} // namespace

TEST(Netns, BridgeTableShowsGroupsSourcesAndFilterModes) {
    IHP_SKIP_WITHOUT_NETNS();
    Netns const network;
    Netns::Inside const inside(network.nearName());
    Member const any("239.1.1.1", IP_BLOCK_SOURCE, {});
    Member const include("239.1.1.2", IP_ADD_SOURCE_MEMBERSHIP, {"10.0.0.2", "10.0.0.1"});
    Member const exclude("239.1.1.3", IP_BLOCK_SOURCE, {"10.0.0.9"});

    EXPECT_TRUE(tableBecomes(network, {"down0 239.1.1.1 exclude",
                                       "down0 239.1.1.2 include 10.0.0.1,10.0.0.2",
                                       "down0 239.1.1.3 exclude 10.0.0.9"}))
        << ::testing::PrintToString(network.bridgeTable());
}

TEST(Netns, CarrierAndInterfaceGoAndComeBack) {
    IHP_SKIP_WITHOUT_NETNS();
    Netns const network;
    network.setCarrier(false);
    EXPECT_TRUE(carrierBecomes(network, false));
    network.setCarrier(true);
    EXPECT_TRUE(carrierBecomes(network, true));

    network.unplugUpstream();
    EXPECT_THROW(network.nearIp("link show up0"), std::runtime_error);
    network.plugInUpstream();
    EXPECT_TRUE(carrierBecomes(network, true));
    Netns::Inside const inside(network.nearName());
    Member const any("239.1.1.1", IP_BLOCK_SOURCE, {});
    EXPECT_TRUE(tableBecomes(network, {"down0 239.1.1.1 exclude"}));
}

TEST(Netns, LeavesNothingBehind) {
    IHP_SKIP_WITHOUT_NETNS();
    auto const outside = std::filesystem::read_symlink("/proc/thread-self/ns/net");
    std::string name;
    {
        Netns const network;
        name = network.nearName();
        Netns::Inside const inside(name);
        EXPECT_NE(std::filesystem::read_symlink("/proc/thread-self/ns/net"), outside);
    }
    EXPECT_EQ(std::filesystem::read_symlink("/proc/thread-self/ns/net"), outside);
    EXPECT_FALSE(std::filesystem::exists("/run/netns/" + name));
}

} // namespace Testing
