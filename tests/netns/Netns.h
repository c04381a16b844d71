// A throw-away network for one test: two network namespaces joined by a veth pair. The near one
// holds up0, the interface under test (10.99.0.2/24); the far one a multicast-snooping, querying
// IGMPv3 bridge br0 (10.99.0.1/24) with the port down0. Names are unique to the process and the
// object, and everything goes away with the object, also when a test throws.
#pragma once

#include "agent/kernel/NetworkNamespace.h"

#include <functional>
#include <string>
#include <vector>

namespace Testing {

/// What a shell command writes to its standard output, and its exit status.
struct Ended {
    int status;
    std::string text;
};
Ended shell(std::string const& command);

class Netns {
  public:
    /// Empty where tests may make namespaces and bridges, else the reason to skip with.
    static std::string const& unavailableReason();

    /// Makes and starts the network. Throws std::runtime_error with the command that failed.
    Netns();

    /// Names of the namespaces, as in `ip netns exec NAME`.
    std::string const& nearName() const { return near_.name; }
    std::string const& farName() const { return far_.name; }

    /// Runs `ip ARGUMENTS` in a namespace, such as "addr flush dev up0", and returns its output.
    /// Throws std::runtime_error with command and output if it fails.
    std::string nearIp(std::string const& arguments) const;
    std::string farIp(std::string const& arguments) const;

    /// Makes a veth pair within a namespace, both ends up, the first with an address if one is
    /// given.
    static void addPair(std::string const& namespaceName, std::string const& first,
                        std::string const& second, std::string const& address = "");

    /// Shapes what leaves an interface of the near namespace: whether the kernel does as
    /// `tc qdisc ARGUMENTS` says.
    bool nearQdisc(std::string const& arguments) const;
    /// The number of an interface of the near namespace.
    int nearIndex(char const* interface) const;

    /// Makes up0 and its far end again where they have gone, with the same address and a new
    /// interface index. They carry packets when it returns.
    void plugInUpstream() const;
    /// Waits until an interface of the near namespace has been found to have a carrier: the kernel
    /// notices some time after the command that brings it up.
    void nearAwaitUp(std::string const& interface) const;

    /// What the bridge has learned of IPv4 groups, sorted, one line for a group on a port:
    /// "PORT GROUP include|exclude [SOURCE,...]". The sources of an exclude line are the blocked
    /// ones: "down0 239.1.1.1 exclude" is a group wanted from any source.
    std::vector<std::string> bridgeTable() const;

    /// While it lives, the calling thread is in the named namespace. Throws std::system_error where
    /// there is no such namespace.
    struct Inside : Agent::NamespaceScope {
        explicit Inside(std::string const& name)
            : NamespaceScope(Agent::namespaceOpen(name).get()) {}
    };

  private:
    struct Namespace {
        explicit Namespace(std::string const& end);
        ~Namespace();
        Namespace(Namespace const&) = delete;
        Namespace& operator=(Namespace const&) = delete;

        std::string name;
    };

    Namespace near_{"near"};
    Namespace far_{"far"};
};

/// Asks every 20 ms until `condition` holds; returns its last answer. It gives up after 1500
/// answers, half a minute: counted, for that leaves a machine that is busy or stands still the
/// longer.
bool waitUntil(std::function<bool()> const& condition);

} // namespace Testing

/// Ends the current test as skipped where the kernel forbids namespaces.
#define IHP_SKIP_WITHOUT_NETNS()                                                                   \
    if (!Testing::Netns::unavailableReason().empty())                                              \
    GTEST_SKIP() << Testing::Netns::unavailableReason()
