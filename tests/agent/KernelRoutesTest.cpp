#include "agent/KernelRoutes.h"

#include "DeafSocket.h"
#include "LoopFixture.h"
#include "MulticastRouter.h"
#include "StaticRouter.h"
#include "agent/NetworkNamespace.h"
#include "agent/Vrfs.h"
#include "netns/Netns.h"

#include <net/if.h>
#include <optional>
#include <set>

namespace Agent {
namespace {

using Lox::IpAddr;
using Names = std::set<std::string>;

IpAddr const source("10.0.0.1");

IpAddr group(unsigned number) { return IpAddr::fromHost(0xEF010100 + number); }

std::string nameOf(unsigned number) {
    return source.stringValue() + " " + group(number).stringValue();
}

/// Traffic comes in by up0, the proxy interface, and goes out by aux0.
class KernelRoutesTest : public LoopFixture {
  protected:
    void SetUp() override {
        IHP_SKIP_WITHOUT_NETNS();
        net.emplace();
        space = namespaceOpen(net->nearName());
        doMakeOutput();
        doStartRouter();
    }

    void doMakeOutput() const {
        net->nearIp("link add name aux0 type veth peer name aux1");
        net->nearIp("addr add 10.98.0.1/24 dev aux0");
        net->nearIp("link set aux0 up");
        net->nearIp("link set aux1 up");
    }
    int indexOf(char const* name) const {
        NamespaceScope const inside(space.get());
        return int(if_nametoindex(name));
    }
    void doStartRouter() {
        NamespaceScope const inside(space.get());
        router.emplace();
        router->interfaceIs(0, indexOf("up0"));
        router->interfaceIs(1, indexOf("aux0"));
    }
    void doStartFollowing() {
        followed.emplace(
            loop,
            [this](IpAddr from, IpAddr to, bool is) {
                ++told;
                std::string const name = from.stringValue() + " " + to.stringValue();
                EXPECT_TRUE(is ? announced.insert(name).second : announced.erase(name) != 0)
                    << name << " is told twice";
            },
            space.get());
        followed->filterIs({true, false, {indexOf("up0")}});
    }
    void doFollow() {
        doStartFollowing();
        ASSERT_TRUE(serveUntil([&] { return followed->synchronized(); }));
    }
    bool becomes(Names const& names) {
        return serveUntil([&] { return announced == names; });
    }
    /// Waits until everything before has been told: a route that comes and goes is told last.
    void fence() {
        router->routeIs(source, IpAddr("239.255.255.255"), 0, {1});
        ASSERT_TRUE(serveUntil([&] { return announced.count("10.0.0.1 239.255.255.255") != 0; }));
        router->routeDel(source, IpAddr("239.255.255.255"));
        ASSERT_TRUE(serveUntil([&] { return announced.count("10.0.0.1 239.255.255.255") == 0; }));
    }

    std::optional<Testing::Netns> net;
    FileDescriptor space;
    std::optional<MulticastRouter> router;
    Names announced;
    int told = 0;
    std::optional<KernelRoutes> followed;
};

TEST_F(KernelRoutesTest, RoutesComeChangeAndGoWithTheKernels) {
    router->routeIs(source, group(1), 0, {1});
    router->routeIs(IpAddr(), group(2), 0, {1});
    router->routeIs(source, group(3), 0, {});
    router->routeIs(source, group(4), 1, {0});
    doFollow();
    EXPECT_TRUE(becomes({"10.0.0.1 239.1.1.1", "0.0.0.0 239.1.1.2"}));
    EXPECT_EQ(followed->routeCount(), 4u);
    router->routeIs(source, group(1), 0, {});
    router->routeIs(source, group(3), 0, {1});
    router->routeDel(IpAddr(), group(2));
    EXPECT_TRUE(becomes({"10.0.0.1 239.1.1.3"}));
    followed->filterIs({false, true, {}});
    EXPECT_TRUE(becomes({"10.0.0.1 239.1.1.1", "10.0.0.1 239.1.1.3", "10.0.0.1 239.1.1.4"}));
    router.reset(); // the daemon ends, and all its routes with it
    EXPECT_TRUE(becomes({}));
    EXPECT_EQ(followed->routeCount(), 0u);
    doStartRouter();
    router->routeIs(source, group(1), 0, {1});
    EXPECT_TRUE(becomes({"10.0.0.1 239.1.1.1"}));
}

TEST_F(KernelRoutesTest, UnresolvedRoutesAreNotAnnounced) {
    auto const send = [&] {
        NamespaceScope const inside(space.get());
        trafficSend(IpAddr("10.99.0.2"), group(1));
    };
    send();
    ASSERT_NE(net->nearIp("mroute show").find("unresolved"), std::string::npos);
    doFollow();
    followed->filterIs({false, true, {}});
    fence();
    EXPECT_EQ(followed->routeCount(), 0u);
    router->routeIs(IpAddr("10.99.0.2"), group(1), 0, {1});
    EXPECT_TRUE(becomes({"10.99.0.2 239.1.1.1"}));
    router->routeDel(IpAddr("10.99.0.2"), group(1));
    send();
    EXPECT_TRUE(becomes({}));
}

TEST_F(KernelRoutesTest, InterfacesThatComeAndGoChangeRoutesWithoutAWord) {
    doFollow();
    router->routeIs(source, group(1), 0, {1});
    EXPECT_TRUE(becomes({"10.0.0.1 239.1.1.1"}));
    net->nearIp("link del aux0");
    EXPECT_TRUE(becomes({})) << "no output is left";
    doMakeOutput();
    router->interfaceIs(1, indexOf("aux0"));
    EXPECT_TRUE(becomes({"10.0.0.1 239.1.1.1"}));
    router->interfaceDel(0);
    EXPECT_TRUE(becomes({}));
    router->interfaceIs(0, indexOf("up0"));
    EXPECT_TRUE(becomes({"10.0.0.1 239.1.1.1"}));
    // Another interface with the number of the old one.
    router->interfaceDel(0);
    router->interfaceIs(0, indexOf("aux1"));
    EXPECT_TRUE(becomes({}));
}

TEST_F(KernelRoutesTest, LongTableIsReadWhileItChanges) {
    Names expected;
    for (unsigned i = 0; i < 3000; ++i) router->routeIs(source, group(i), 0, {1});
    doStartFollowing();
    EXPECT_TRUE(serveUntil([&] { return !announced.empty(); }));
    EXPECT_FALSE(followed->synchronized()) << "a piece in each turn";
    for (unsigned i = 0; i < 3000; i += 3) router->routeDel(source, group(i));
    for (unsigned i = 1; i < 3000; i += 3) router->routeIs(source, group(i), 0, {});
    for (unsigned i = 3000; i < 3300; ++i) router->routeIs(source, group(i), 0, {1});
    for (unsigned i = 2; i < 3000; i += 3) expected.insert(nameOf(i));
    for (unsigned i = 3000; i < 3300; ++i) expected.insert(nameOf(i));
    EXPECT_TRUE(serveUntil([&] { return followed->synchronized(); }));
    EXPECT_TRUE(becomes(expected));
    EXPECT_EQ(followed->routeCount(), 2300u);
    followed->filterIs({true, false, {}}); // judges them in several turns
    EXPECT_TRUE(becomes({}));
}

TEST_F(KernelRoutesTest, AfterAnOverrunOnlyDifferencesAreTold) {
    Names expected;
    for (unsigned i = 0; i < 1000; ++i) router->routeIs(source, group(i), 0, {1});
    doFollow();
    ASSERT_TRUE(serveUntil([&] { return announced.size() == 1000; }));
    told = 0;
    followed->receiveBufferIs(1); // the kernel takes its minimum
    for (unsigned i = 0; i < 1000; ++i) {
        router->routeIs(source, group(i), 0, {});
        if (i % 10 != 0)
            router->routeIs(source, group(i), 0, {1});
        else if (i % 20 == 0)
            router->routeDel(source, group(i));
        if (i % 10 != 0) expected.insert(nameOf(i));
    }
    router->routeIs(source, group(1000), 0, {1});
    expected.insert(nameOf(1000));
    testing::internal::CaptureStderr();
    EXPECT_TRUE(becomes(expected));
    EXPECT_NE(testing::internal::GetCapturedStderr().find("lost"), std::string::npos);
    EXPECT_TRUE(serveUntil([&] { return followed->routeCount() == 951; }));
    // The few notifications that did fit were told as they came.
    EXPECT_LT(told, 150);
}

/// This process's netlink sockets, those that follow notifications or those that do not.
std::vector<int> netlinkSockets(bool following) {
    std::vector<int> sockets;
    for (int fd = 3; fd < 256; ++fd) {
        int domain = 0;
        socklen_t size = sizeof domain;
        if (getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) != 0 || domain != AF_NETLINK)
            continue;
        std::uint32_t groups[8] = {};
        size = sizeof groups;
        getsockopt(fd, SOL_NETLINK, NETLINK_LIST_MEMBERSHIPS, groups, &size);
        if (std::any_of(groups, groups + 8, [](auto each) { return each != 0; }) == following)
            sockets.push_back(fd);
    }
    return sockets;
}

TEST_F(KernelRoutesTest, ReadingThatTheKernelGivesUpIsBegunAgain) {
    router->routeIs(source, group(1), 0, {1});
    doFollow();
    EXPECT_TRUE(becomes({nameOf(1)}));
    std::vector<int> const sockets = netlinkSockets(false);
    ASSERT_EQ(sockets.size(), 1u);
    deafen(sockets[0]);
    // Both ask for a reading.
    router->interfaceDel(0);
    EXPECT_TRUE(becomes({}));
    router->interfaceIs(0, indexOf("up0"));
    EXPECT_TRUE(becomes({nameOf(1)}));
}

TEST_F(KernelRoutesTest, ReadinessDoesNotWaitForALongTable) {
    for (unsigned i = 0; i < 3000; ++i) router->routeIs(source, group(i), 0, {1});
    NamespaceScope const inside(space.get());
    IgmpHostProxy::PlatformState state;
    Vrfs vrfs(state, loop, [](std::string const&) {});
    Configuration configuration;
    configuration.forwardingTable.incoming = ForwardingTableConfiguration::Incoming::any;
    vrfs.configurationIs(configuration);
    auto const written = [&] {
        std::size_t count = 0;
        for (auto const& table : state.mfibDir->keshColl(L3::VrfName("default"))->keshPtr())
            count += table.value->routeCount();
        return count;
    };
    EXPECT_TRUE(serveUntil([&] { return vrfs.synchronized(); }));
    EXPECT_LT(written(), 3000u);
    EXPECT_TRUE(serveUntil([&] { return written() == 3000; }));
}

TEST_F(KernelRoutesTest, InterfacesThatTheKernelGivesUpAreReadAgain) {
    NamespaceScope const inside(space.get());
    IgmpHostProxy::PlatformState state;
    Vrfs vrfs(state, loop, [](std::string const&) {});
    for (int const each : netlinkSockets(true)) deafen(each); // links have come, addresses not yet
    vrfs.configurationIs({});
    EXPECT_FALSE(serveUntil([&] { return vrfs.synchronized(); }, 1));
    EXPECT_TRUE(serveUntil([&] { return vrfs.synchronized(); }));
}

TEST_F(KernelRoutesTest, OnlyConfiguredInterfacesAreWrittenDown) {
    NamespaceScope const inside(space.get());
    IgmpHostProxy::PlatformState state;
    Vrfs vrfs(state, loop, [](std::string const&) {});
    auto const written = [&](Configuration const& configuration) {
        vrfs.configurationIs(configuration);
        Names names;
        for (auto const& item : state.allIntfStatusDir->intfStatus())
            names.insert(item.key.stringValue() + (item.value->operUp() ? " up" : " down"));
        EXPECT_EQ(state.ipStatus->ipIntfStatusCount(), names.size());
        EXPECT_EQ(state.allIntfStatusLocalDir->intfStatusLocalCount(), names.size());
        return names;
    };
    Configuration configuration;
    configuration.interfaces["up0"];
    vrfs.configurationIs(configuration);
    ASSERT_TRUE(serveUntil([&] { return vrfs.synchronized(); }));
    EXPECT_EQ(written(configuration), (Names{"up0 up"}));
    configuration.interfaces["aux0"];
    EXPECT_EQ(written(configuration), (Names{"aux0 up", "up0 up"})) << "it has been there before";
    configuration.interfaces.erase("up0");
    EXPECT_EQ(written(configuration), (Names{"aux0 up"}));
    EXPECT_EQ(written({}), Names{});
    EXPECT_EQ(written(configuration), (Names{"aux0 up"}));
}

TEST_F(KernelRoutesTest, ObserverThatThrowsMissesNothing) {
    for (unsigned i = 0; i < 3; ++i) router->routeIs(source, group(i), 0, {1});
    int calls = 0;
    followed.emplace(
        loop,
        [&](IpAddr, IpAddr, bool) {
            ++calls;
            throw std::runtime_error("observer");
        },
        space.get());
    testing::internal::CaptureStderr();
    followed->filterIs({true, false, {indexOf("up0")}});
    EXPECT_TRUE(serveUntil([&] { return calls == 3; }));
    EXPECT_NE(testing::internal::GetCapturedStderr().find("(10.0.0.1, 239.1.1.2): observer"),
              std::string::npos);
}

TEST_F(KernelRoutesTest, RoutesOfADaemonFollowItsCommandsAndItsEnd) {
    if (!StaticRouter::installed()) GTEST_SKIP() << "no smcrouted";
    router.reset();
    doFollow();
    {
        StaticRouter const daemon(net->nearName(), "phyint up0 enable\nphyint aux0 enable\n"
                                                   "mroute from up0 group 239.1.1.1 source "
                                                   "10.0.0.1 to aux0\n");
        EXPECT_TRUE(becomes({"10.0.0.1 239.1.1.1"}));
        ASSERT_TRUE(serveUntil([&] { return daemon.control("add up0 10.0.0.2 239.1.1.2 aux0"); }));
        EXPECT_TRUE(daemon.control("add aux0 10.0.0.2 239.1.1.3 up0")); // from the wrong side
        EXPECT_TRUE(daemon.control("add up0 10.0.0.2 239.1.1.4 aux0"));
        EXPECT_TRUE(becomes({"10.0.0.1 239.1.1.1", "10.0.0.2 239.1.1.2", "10.0.0.2 239.1.1.4"}));
        EXPECT_TRUE(daemon.control("remove up0 10.0.0.2 239.1.1.4"));
        EXPECT_TRUE(becomes({"10.0.0.1 239.1.1.1", "10.0.0.2 239.1.1.2"}));
    }
    EXPECT_TRUE(becomes({}));
}

} // namespace
} // namespace Agent
