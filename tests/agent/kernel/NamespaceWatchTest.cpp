#include "agent/kernel/NamespaceWatch.h"

#include "agent/loop/LoopFixture.h"
#include "netns/Netns.h"
#include "support/Folder.h"

#include <net/if.h>
#include <optional>
#include <sys/stat.h>

namespace Agent {
namespace {

/// A namespace that comes and goes, under a name that nobody else has.
class NamespaceWatchTest : public LoopFixture {
  protected:
    void SetUp() override {
        IHP_SKIP_WITHOUT_NETNS();
        name = "ihp-" + std::to_string(getpid()) + "-watched";
    }
    void TearDown() override {
        if (!name.empty() && std::filesystem::exists("/run/netns/" + name)) ip("netns del ");
    }

    void ip(std::string const& command) const {
        ASSERT_EQ(std::system(("ip " + command + name).c_str()), 0);
    }
    /// Watches; notes whether the namespace is there each time it is told.
    void doWatch(std::string const& watched) {
        watch.emplace(loop, watched, [this] { told += watch->namespaceFd() < 0 ? '-' : '+'; });
    }
    bool becomes(std::string const& calls) {
        return serveUntil([&] { return told == calls; });
    }

    Support::Folder const folder;
    std::string name;
    std::string told;
    std::optional<NamespaceWatch> watch;
};

TEST_F(NamespaceWatchTest, NamespaceThatIsDeletedAndMadeAgainIsAnotherOne) {
    doWatch(name);
    EXPECT_LT(watch->namespaceFd(), 0);
    ip("netns add ");
    EXPECT_TRUE(becomes("+"));
    Testing::Netns::addPair(name, "mark0", "mark1");
    ip("netns del ");
    EXPECT_TRUE(becomes("+-"));
    // Both before the agent looks.
    ip("netns add ");
    EXPECT_TRUE(becomes("+-+"));
    ip("netns del ");
    ip("netns add ");
    EXPECT_TRUE(becomes("+-+-+"));
    NamespaceScope const inside(watch->namespaceFd());
    EXPECT_EQ(if_nametoindex("mark0"), 0u);
}

TEST_F(NamespaceWatchTest, FilesThatAreNoNetworkNamespaceAreNoneAndSaidToBe) {
    std::string const path = folder.file(name);
    auto const said = [&](std::string const& watched) {
        doWatch(watched);
        EXPECT_LT(watch->namespaceFd(), 0);
        return watch->obstacle();
    };
    std::ofstream(path).close(); // as `ip netns` makes it before it mounts
    EXPECT_EQ(said(path), "namespace " + path + " does not exist");
    std::ofstream(path) << "text";
    EXPECT_NE(said(path).find(name + ": not a network namespace"), std::string::npos);
    EXPECT_NE(said("/proc/self/ns/uts").find("uts: not a network namespace"), std::string::npos);
    std::filesystem::remove(path);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0); // nobody writes, and nobody waits for it
    EXPECT_NE(said(path).find(name + ": not a network namespace"), std::string::npos);
}

TEST_F(NamespaceWatchTest, LinkToANamespaceIsFoundWithoutAMount) {
    ip("netns add ");
    std::string const path = folder.file("link");
    doWatch(path);
    std::filesystem::create_symlink("/run/netns/" + name, path);
    EXPECT_TRUE(becomes("+"));
    std::filesystem::remove(path);
    EXPECT_TRUE(becomes("+-"));
}

} // namespace
} // namespace Agent
