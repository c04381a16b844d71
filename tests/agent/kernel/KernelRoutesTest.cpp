#include "agent/kernel/KernelRoutes.h"

#include "agent/kernel/MulticastRouter.h"
#include "agent/loop/LoopFixture.h"

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
                if (observerThrows) throw std::runtime_error("observer");
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
    bool observerThrows = false;
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
    for (unsigned i = 0; i < 1000; ++i) router->addRoute(source, group(i));
    doFollow();
    ASSERT_TRUE(serveUntil([&] { return announced.size() == 1000; }));
    told = 0;
    followed->setReceiveBuffer(1); // the kernel takes its minimum
    Names expected;
    for (unsigned i = 0; i < 1000; ++i) {
        router->addRoute(source, group(i), 0, {});
        if (i % 20 == 0) router->removeRoute(source, group(i));
        if (i % 10 == 0) continue;
        router->addRoute(source, group(i));
        expected.insert(nameOf(i));
    }
    EXPECT_TRUE(becomes(expected));
    EXPECT_TRUE(serveUntil([&] { return followed->routeCount() == 950; }));
    // The few notifications that did fit were told as they came.
    EXPECT_LT(told, 150);
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

TEST_F(KernelRoutesTest, ObserverThatThrowsMissesNothing) {
    for (unsigned i = 0; i < 3; ++i) router->addRoute(source, group(i));
    observerThrows = true;
    testing::internal::CaptureStderr();
    doStartFollowing();
    EXPECT_TRUE(serveUntil([&] { return told == 3; }));
    EXPECT_NE(testing::internal::GetCapturedStderr().find("(10.0.0.1, 239.1.1.2): observer"),
              std::string::npos);
}

} // namespace
} // namespace Agent
