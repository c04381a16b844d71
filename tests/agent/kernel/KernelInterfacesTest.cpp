#include "agent/kernel/KernelInterfaces.h"

#include "netns/Netns.h"
#include "support/Folder.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <map>
#include <random>
#include <set>
#include <sys/socket.h>
#include <tuple>

namespace Agent {
namespace {

/// What is known, with the addresses sorted behind the primary one: the kernel moves some about
/// without a word.
auto sortedOf(KernelInterfaces const& kernel) {
    std::map<int, std::pair<Lox::IpAddr, KernelInterface>> all;
    for (auto const& [ifindex, interface] : kernel.table().interfaces()) {
        auto& [primary, sorted] = all[ifindex];
        primary = interface.primaryAddress();
        sorted = interface;
        std::ranges::sort(sorted.addresses, {}, [](KernelAddress const& each) {
            return std::tuple(each.local, each.prefixLength);
        });
    }
    return all;
}

class KernelInterfacesTest : public testing::Test {
  protected:
    void SetUp() override {
        IHP_SKIP_WITHOUT_NETNS();
        net = std::make_unique<Testing::Netns>();
        space = namespaceOpen(net->nearName());
        followed = std::make_unique<KernelInterfaces>(
            [this](int ifindex) { reported.insert(ifindex); }, space.get());
        ASSERT_TRUE(Testing::waitUntil([&] {
            followed->receive();
            Device const up0 = followed->table().device("up0");
            return followed->synchronized() && up0.kernel && up0.kernel->up;
        }));
        reported.clear();
    }

    /// Waits until the table shows what a newcomer reads of the kernel.
    void expectFresh() {
        EXPECT_TRUE(Testing::waitUntil([&] {
            followed->receive();
            KernelInterfaces newcomer([](int) {}, space.get());
            Testing::waitUntil([&] {
                newcomer.receive();
                return newcomer.synchronized();
            });
            return sortedOf(*followed) == sortedOf(newcomer);
        }));
    }

    std::unique_ptr<Testing::Netns> net;
    FileDescriptor space;
    std::unique_ptr<KernelInterfaces> followed;
    std::multiset<int> reported;
};

TEST_F(KernelInterfacesTest, AnyOrderOfChangesLeadsToWhatTheKernelShowsAlsoAfterOverruns) {
    Testing::Netns::Inside const inside(net->nearName());
    std::ofstream("/proc/sys/net/ipv4/conf/all/promote_secondaries") << 1;
    net->nearIp("link add name aux0 type veth peer name aux1");
    Support::Folder const folder;
    testing::internal::CaptureStderr();
    std::mt19937 random(20240601);
    auto const pick = [&](unsigned count) { return unsigned(random()) % count; };
    for (int round = 0; round < 10 && !HasFailure(); ++round) {
        std::string lines;
        for (int i = 0; i < 60; ++i) {
            std::string const device = " dev aux" + std::to_string(pick(2));
            bool const global = pick(2) == 0;
            std::string const address =
                (global ? "10.0.0." : "10.1.0.") + std::to_string(1 + pick(6));
            switch (pick(8)) {
            case 0:
                lines += "link set" + device + (global ? " up\n" : " down\n");
                break;
            case 1:
            case 2:
                lines += "addr flush" + device + " to " + address + "\n";
                break;
            default:
                lines += "addr replace " + address + "/2" + std::to_string(4 + pick(2)) + device +
                         (global ? "\n" : " scope link\n");
            }
        }
        folder.write("batch", lines);
        net->nearIp("-batch " + folder.file("batch"));
        expectFresh();
        // From now on the kernel takes its minimum, and drops what does not fit.
        int const least = 1;
        setsockopt(followed->fd(), SOL_SOCKET, SO_RCVBUF, &least, sizeof least);
    }
    EXPECT_NE(testing::internal::GetCapturedStderr().find("lost"), std::string::npos);
    EXPECT_EQ(reported.count(followed->table().device("up0").ifindex), 0u) << "it is as it was";
}

TEST_F(KernelInterfacesTest, RefusedDumpIsToldByTheSocketAndLoggedOnce) {
    struct Reader : Netlink::Observer {
        void onMessage(nlmsghdr const&, bool) override {}
        void onDumpsDone() override { done = true; }
        void onReadAgain() override {}
        bool done = false;
    } reader;
    Netlink netlink(NETLINK_ROUTE, reader, space.get());
    testing::internal::CaptureStderr();
    for (int i = 0; i < 3; ++i) {
        netlink.requestDump(0x1002, rtmsg{}); // a type that there is not
        netlink.requestDump(RTM_GETLINK, ifinfomsg{});
        EXPECT_FALSE(netlink.stalled()) << "there is an answer to take";
        netlink.receive();
        EXPECT_TRUE(netlink.stalled());
        EXPECT_TRUE(netlink.doReopen());
        EXPECT_FALSE(netlink.dumping());
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "error: netlink: dump 4098 refused: Operation not supported (0 more not shown)\n");
    netlink.requestDump(RTM_GETLINK, ifinfomsg{});
    netlink.receive();
    EXPECT_TRUE(reader.done);
}

} // namespace
} // namespace Agent
