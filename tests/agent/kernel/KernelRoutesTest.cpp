#include "agent/kernel/KernelRoutes.h"

#include "agent/kernel/MulticastRouter.h"
#include "agent/loop/LoopFixture.h"
#include "agent/ports/VrfRegistry.h"

#include <linux/filter.h>
#include <sys/socket.h>

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
        router = MulticastRouter(*net, {"up0", "aux0"});
    }

    void doMakeOutput() const {
        Testing::Netns::addPair(net->nearName(), "aux0", "aux1", "10.98.0.1/24");
    }
    void doStartFollowing(std::uint32_t table = RouteTable::defaultNumber) {
        followed.emplace(
            loop,
            [this](IpAddr from, IpAddr to, bool is) {
                ++told;
                std::string const name = from.stringValue() + " " + to.stringValue();
                EXPECT_TRUE(is ? announced.insert(name).second : announced.erase(name) != 0)
                    << name << " is told twice";
            },
            space.get(), table);
        followed->setFilter({true, false, {net->nearIndex("up0")}});
    }
    void doFollow() {
        doStartFollowing();
        ASSERT_TRUE(serveUntil([&] { return followed->synchronized(); }));
    }
    bool becomes(Names const& names) {
        return serveUntil([&] { return announced == names; });
    }
    std::optional<Testing::Netns> net;
    FileDescriptor space;
    std::optional<MulticastRouter> router;
    Names announced;
    int told = 0;
    std::optional<KernelRoutes> followed;
};

TEST_F(KernelRoutesTest, InterfacesThatComeAndGoChangeRoutesWithoutAWord) {
    doFollow();
    router->addRoute(source, group(1));
    EXPECT_TRUE(becomes({"10.0.0.1 239.1.1.1"}));
    net->nearIp("link del aux0");
    EXPECT_TRUE(becomes({})) << "no output is left";
    doMakeOutput();
    router->addInterface(1, "aux0");
    EXPECT_TRUE(becomes({"10.0.0.1 239.1.1.1"}));
    router->removeInterface(0);
    EXPECT_TRUE(becomes({}));
    router->addInterface(0, "up0");
    EXPECT_TRUE(becomes({"10.0.0.1 239.1.1.1"}));
    // Another interface with the number of the old one.
    router->removeInterface(0);
    router->addInterface(0, "aux1");
    EXPECT_TRUE(becomes({}));
}

TEST_F(KernelRoutesTest, LongTableOfItsNumberIsReadWhileItChanges) {
    MulticastRouter other(*net, {"up0", "aux0"}, 1000);
    router->addRoute(source, group(9999));
    for (unsigned i = 0; i < 3000; ++i) other.addRoute(source, group(i));
    doStartFollowing(1000);
    EXPECT_TRUE(serveUntil([&] { return !announced.empty(); }));
    EXPECT_FALSE(followed->synchronized()) << "some pieces in each turn";
    // Routes that the dump now skips are asked for by their names.
    for (unsigned i = 0; i < 3000; i += 3) other.removeRoute(source, group(i));
    for (unsigned i = 1; i < 3000; i += 3) other.addRoute(source, group(i), 0, {});
    for (unsigned i = 3000; i < 3300; ++i) other.addRoute(source, group(i));
    Names expected;
    for (unsigned i = 2; i < 3000; i += 3) expected.insert(nameOf(i));
    for (unsigned i = 3000; i < 3300; ++i) expected.insert(nameOf(i));
    EXPECT_TRUE(serveUntil([&] { return followed->synchronized(); }));
    EXPECT_TRUE(becomes(expected));
    EXPECT_EQ(followed->routeCount(), 2300u);
    other.removeInterface(1);
    EXPECT_TRUE(becomes({}));
}

TEST_F(KernelRoutesTest, AfterAnOverrunOnlyDifferencesAreTold) {
    Names expected;
    for (unsigned i = 0; i < 1000; ++i) router->addRoute(source, group(i));
    doFollow();
    ASSERT_TRUE(serveUntil([&] { return announced.size() == 1000; }));
    told = 0;
    followed->setReceiveBuffer(1); // the kernel takes its minimum
    for (unsigned i = 0; i < 1000; ++i) {
        router->addRoute(source, group(i), 0, {});
        if (i % 10 != 0)
            router->addRoute(source, group(i));
        else if (i % 20 == 0)
            router->removeRoute(source, group(i));
        if (i % 10 != 0) expected.insert(nameOf(i));
    }
    router->addRoute(source, group(1000));
    expected.insert(nameOf(1000));
    testing::internal::CaptureStderr();
    EXPECT_TRUE(becomes(expected));
    EXPECT_NE(testing::internal::GetCapturedStderr().find("lost"), std::string::npos);
    EXPECT_TRUE(serveUntil([&] { return followed->routeCount() == 951; }));
    // The few notifications that did fit were told as they came.
    EXPECT_LT(told, 150);
}

/// From now on the kernel drops all that it has for the socket, as where it has no memory for it;
/// without a first piece to take, a dump never goes on.
void deafen(int fd) {
    sock_filter drop = BPF_STMT(BPF_RET | BPF_K, 0);
    sock_fprog const program{1, &drop};
    ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program), 0);
}

/// This process's netlink sockets, those that follow notifications or those that do not.
std::vector<int> netlinkSockets(bool following) {
    std::vector<int> sockets;
    for (int fd = 3; fd < 256; ++fd) {
        sockaddr_nl name{};
        socklen_t size = sizeof name;
        bool const named = getsockname(fd, reinterpret_cast<sockaddr*>(&name), &size) == 0;
        if (named && name.nl_family == AF_NETLINK && (name.nl_groups != 0) == following)
            sockets.push_back(fd);
    }
    return sockets;
}

TEST_F(KernelRoutesTest, ReadingThatTheKernelGivesUpIsBegunAgain) {
    router->addRoute(source, group(1));
    doFollow();
    EXPECT_TRUE(becomes({nameOf(1)}));
    std::vector<int> const sockets = netlinkSockets(false);
    ASSERT_EQ(sockets.size(), 1u);
    deafen(sockets[0]);
    testing::internal::CaptureStderr();
    // Both ask for a reading.
    router->removeInterface(0);
    EXPECT_TRUE(becomes({}));
    router->addInterface(0, "up0");
    EXPECT_TRUE(becomes({nameOf(1)}));
    EXPECT_NE(testing::internal::GetCapturedStderr().find("temporarily unavailable"),
              std::string::npos);
}

TEST_F(KernelRoutesTest, ReadingMayBeCutOff) {
    for (unsigned i = 0; i < 3000; ++i) router->addRoute(source, group(i));
    for (int i = 0; i < 20; ++i) {
        doStartFollowing();
        EXPECT_TRUE(serveUntil([&] { return !announced.empty(); }));
        followed.reset(); // a thread still has the query
        announced.clear();
    }
    doFollow();
    EXPECT_TRUE(serveUntil([&] { return announced.size() == 3000; }));
}

TEST_F(KernelRoutesTest, InterfacesThatTheKernelGivesUpAreReadAgain) {
    Testing::Netns::Inside const inside(net->nearName());
    IgmpHostProxy::PlatformState state;
    Obstacles obstacles;
    VrfRegistry vrfs(state, loop, obstacles, [](std::string const&) {});
    for (int const each : netlinkSockets(true)) deafen(each); // links have come, addresses not yet
    vrfs.applyConfiguration({});
    EXPECT_FALSE(serveUntil([&] { return vrfs.synchronized(); }, 5));
    EXPECT_TRUE(serveUntil([&] { return vrfs.synchronized(); }));
}

TEST_F(KernelRoutesTest, ObserverThatThrowsMissesNothing) {
    for (unsigned i = 0; i < 3; ++i) router->addRoute(source, group(i));
    int calls = 0;
    followed.emplace(
        loop,
        [&](IpAddr, IpAddr, bool) {
            ++calls;
            throw std::runtime_error("observer");
        },
        space.get());
    testing::internal::CaptureStderr();
    followed->setFilter({true, false, {net->nearIndex("up0")}});
    EXPECT_TRUE(serveUntil([&] { return calls == 3; }));
    EXPECT_NE(testing::internal::GetCapturedStderr().find("(10.0.0.1, 239.1.1.2): observer"),
              std::string::npos);
}

} // namespace
} // namespace Agent
