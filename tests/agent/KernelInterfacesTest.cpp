#include "agent/KernelInterfaces.h"

#include "DeafSocket.h"
#include "agent/NetworkNamespace.h"
#include "netns/Netns.h"

#include <fstream>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <set>
#include <sys/socket.h>
#include <unistd.h>

namespace Agent {
namespace {

using Lines = std::vector<std::string>;

/// One line for an interface; addresses sorted, for the kernel moves some about
/// without a word; the primary one comes first.
Lines linesOf(KernelInterfaces const& kernel) {
    Lines lines;
    for (auto const& [ifindex, interface] : kernel.interfaces()) {
        std::set<std::string> addresses;
        for (KernelAddress const& each : interface.addresses)
            addresses.insert(each.local.stringValue() + "/" + std::to_string(each.prefixLength) +
                             (each.secondary ? " secondary" : ""));
        std::string line = std::to_string(ifindex) + " " + interface.name + " mtu " +
                           std::to_string(interface.mtu) + (interface.up ? " up " : " down ") +
                           interface.mac.stringValue() + " " +
                           interface.primaryAddress().stringValue() + ":";
        for (std::string const& each : addresses) line += " " + each;
        lines.push_back(line);
    }
    return lines;
}

class KernelInterfacesTest : public testing::Test {
  protected:
    void SetUp() override {
        IHP_SKIP_WITHOUT_NETNS();
        net = std::make_unique<Testing::Netns>();
        space = namespaceOpen(net->nearName());
        followed = std::make_unique<KernelInterfaces>(
            [this](int ifindex) { reported.insert(ifindex); }, space.get());
        ASSERT_TRUE(follows([&] { return followed->synchronized() && up0() && up0()->up; }));
        reported.clear();
    }

    /// Receives until `condition` holds.
    bool follows(std::function<bool()> const& condition) {
        return Testing::waitUntil([&] {
            followed->receive();
            return condition();
        });
    }
    int index() const { return followed->interfaceIndex("up0"); }
    KernelInterface const* up0() const { return followed->interface(index()); }
    std::string address() const { return up0() ? up0()->primaryAddress().stringValue() : "none"; }

    /// Waits until the table shows what a newcomer reads of the kernel.
    void expectFresh() {
        Lines kernel;
        follows([&] {
            KernelInterfaces newcomer([](int) {}, space.get());
            Testing::waitUntil([&] {
                newcomer.receive();
                return newcomer.synchronized();
            });
            kernel = linesOf(newcomer);
            return linesOf(*followed) == kernel;
        });
        EXPECT_EQ(linesOf(*followed), kernel);
    }

    /// Runs `ip` once for many command lines.
    void ipBatch(std::string const& lines) const {
        std::string file = testing::TempDir() + "batchXXXXXX";
        FileDescriptor const descriptor(mkstemp(file.data()));
        ASSERT_EQ(write(descriptor.get(), lines.data(), lines.size()), ssize_t(lines.size()));
        net->nearIp("-batch " + file);
        unlink(file.c_str());
    }

    std::unique_ptr<Testing::Netns> net;
    FileDescriptor space;
    std::unique_ptr<KernelInterfaces> followed;
    std::multiset<int> reported;
};

TEST_F(KernelInterfacesTest, FirstReadingShowsLinksWithTheirAddresses) {
    EXPECT_EQ(up0()->name, "up0");
    EXPECT_EQ(up0()->mtu, 1500u);
    EXPECT_NE(up0()->mac, Lox::EthAddr());
    EXPECT_EQ(address(), "10.99.0.2");
    EXPECT_EQ(followed->interfaceIndex("absent"), 0);
    EXPECT_EQ(followed->interface(12345), nullptr);
    ASSERT_NE(followed->interfaceIndex("lo"), 0);
    EXPECT_EQ(followed->interface(followed->interfaceIndex("lo"))->mac, Lox::EthAddr());
}

TEST_F(KernelInterfacesTest, FlapsOfCarrierAndAdministratorAreTold) {
    net->carrierIs(false);
    EXPECT_TRUE(follows([&] { return !up0()->up; }));
    net->carrierIs(true);
    EXPECT_TRUE(follows([&] { return up0()->up; }));
    EXPECT_EQ(address(), "10.99.0.2");

    // Also where both happen before anyone looks.
    reported.clear();
    net->nearIp("link set up0 down");
    net->nearIp("link set up0 up");
    EXPECT_TRUE(follows([&] { return up0()->up && reported.count(index()) >= 2; }));
}

TEST_F(KernelInterfacesTest, LostAddressMakesRoomForTheNext) {
    ipBatch("addr add 10.99.0.3/24 dev up0\naddr add 10.98.0.1/24 dev up0\n");
    EXPECT_TRUE(follows([&] { return up0()->addresses.size() == 3; }));
    EXPECT_EQ(address(), "10.99.0.2");
    net->nearIp("addr del 10.99.0.2/24 dev up0"); // and with it its secondary 10.99.0.3
    EXPECT_TRUE(follows([&] { return address() == "10.98.0.1"; }));
    net->nearIp("addr flush dev up0");
    EXPECT_TRUE(follows([&] { return address() == "0.0.0.0"; }));
    net->nearIp("addr add 10.99.0.2/24 dev up0");
    EXPECT_TRUE(follows([&] { return address() == "10.99.0.2"; }));
    expectFresh();
}

TEST_F(KernelInterfacesTest, RenamedInterfaceKeepsItsIndex) {
    int const before = index();
    net->nearIp("link set up0 down name up1");
    EXPECT_TRUE(follows([&] { return followed->interfaceIndex("up1") == before; }));
    EXPECT_EQ(index(), 0);
    EXPECT_GE(reported.count(before), 1u);
}

TEST_F(KernelInterfacesTest, InterfaceThatComesBackHasANewIndex) {
    int const before = index();
    net->upstreamDel();
    EXPECT_TRUE(follows([&] { return index() == 0; }));
    EXPECT_EQ(followed->interface(before), nullptr);
    net->upstreamIs();
    EXPECT_TRUE(follows([&] { return index() != 0 && up0()->up && address() == "10.99.0.2"; }));
    EXPECT_NE(index(), before);
    EXPECT_GE(reported.count(before), 1u);
    EXPECT_GE(reported.count(index()), 1u);
    expectFresh();
}

TEST_F(KernelInterfacesTest, InterfaceThatLeavesItsBridgeIsStillThere) {
    ipBatch("link add br7 type bridge\nlink set up0 master br7\nlink set up0 nomaster\n"
            "link set up0 mtu 1400\n");
    EXPECT_TRUE(follows([&] { return up0() == nullptr || up0()->mtu == 1400; }));
    EXPECT_EQ(address(), "10.99.0.2");
}

TEST_F(KernelInterfacesTest, AnyOrderOfChangesLeadsToWhatTheKernelShows) {
    {
        Testing::Netns::Inside const inside(net->nearName());
        std::ofstream("/proc/sys/net/ipv4/conf/all/promote_secondaries") << 1;
    }
    net->nearIp("link add name aux0 type veth peer name aux1");
    unsigned random = 20240601;
    auto const pick = [&](unsigned count) {
        random = random * 1664525 + 1013904223;
        return (random >> 16) % count;
    };
    for (int round = 0; round < 10; ++round) {
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
        ipBatch(lines);
        expectFresh();
    }
}

TEST_F(KernelInterfacesTest, AfterAnOverrunOnlyDifferencesAreTold) {
    int const size = 1; // the kernel takes its minimum
    ASSERT_EQ(setsockopt(followed->fd(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size), 0);
    std::string lines = "link add name aux0 type veth peer name aux1\n";
    for (int i = 0; i < 200; ++i)
        lines += "link set lo mtu " + std::to_string(60000 + i % 2) + "\n";
    ipBatch(lines + "addr add 10.98.0.1/24 dev aux0\nlink set lo mtu 65536\n");
    testing::internal::CaptureStderr();
    expectFresh();
    EXPECT_NE(testing::internal::GetCapturedStderr().find("lost"), std::string::npos);
    EXPECT_GE(reported.count(followed->interfaceIndex("aux0")), 1u);
    EXPECT_LT(reported.count(followed->interfaceIndex("lo")), 200u);
    EXPECT_EQ(reported.count(index()), 0u);
}

TEST_F(KernelInterfacesTest, ReadingThatTheKernelGivesUpIsBegunOnAnotherSocket) {
    EXPECT_FALSE(followed->stalled());
    int const size = 1; // the kernel takes its minimum
    ASSERT_EQ(setsockopt(followed->fd(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size), 0);
    std::string lines;
    for (int i = 0; i < 200; ++i)
        lines += "link set lo mtu " + std::to_string(60000 + i % 2) + "\n";
    ipBatch(lines);
    deafen(followed->fd());
    net->nearIp("addr add 10.98.0.1/24 dev up0");
    testing::internal::CaptureStderr();
    followed->receive(); // what is lost, and so asks for a reading
    testing::internal::GetCapturedStderr();
    EXPECT_TRUE(followed->stalled());
    EXPECT_EQ(address(), "10.99.0.2") << "what is known stays";
    followed->doReopen();
    EXPECT_FALSE(followed->stalled());
    expectFresh();
    net->nearIp("addr del 10.98.0.1/24 dev up0");
    EXPECT_TRUE(follows([&] { return up0()->addresses.size() == 1; })) << "subscribed again";
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
        netlink.dumpIs(0x1002, rtmsg{}); // a type that there is not
        netlink.dumpIs(RTM_GETLINK, ifinfomsg{});
        EXPECT_FALSE(netlink.stalled()) << "there is an answer to take";
        netlink.receive();
        EXPECT_TRUE(netlink.stalled());
        EXPECT_TRUE(netlink.doReopen());
        EXPECT_FALSE(netlink.dumping());
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "error: netlink: dump 4098 refused: Operation not supported (0 more not shown)\n");
    netlink.dumpIs(RTM_GETLINK, ifinfomsg{});
    netlink.receive();
    EXPECT_TRUE(reader.done);
}

TEST_F(KernelInterfacesTest, ObserverThatThrowsMissesNothing) {
    int calls = 0;
    KernelInterfaces thrower(
        [&](int) {
            ++calls;
            throw std::runtime_error("observer");
        },
        space.get());
    testing::internal::CaptureStderr();
    EXPECT_TRUE(Testing::waitUntil([&] {
        thrower.receive();
        return thrower.synchronized();
    }));
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(calls, int(thrower.interfaces().size()));
}

} // namespace
} // namespace Agent
