#include "agent/ports/PatternInterfaces.h"

#include <iterator>
#include <new>
#include <optional>

namespace Agent {

void PatternInterfaces::doResolve(Configuration& configuration, VrfRegistry const& vrfs) {
    std::erase_if(configuration.interfaces,
                  [](auto const& item) { return !item.second.pattern.empty(); });
    try {
        if (!configuration.patterns.empty()) doMatch(configuration, vrfs);
    } catch (std::bad_alloc const&) {
        allChanged_ = true;
    }
}

void PatternInterfaces::doMatch(Configuration& configuration, VrfRegistry const& vrfs) {
    vrfs.forInterfaces([&](std::string const& vrf, std::string const& name) {
        InterfaceConfiguration const* const entry = configuration.entryFor(name);
        if (!entry || entry->pattern.empty() || entry->vrf != vrf) return;
        // Another namespace tells of its interfaces as it is read.
        if (vrfs.namespaceName(vrf) != configuration.namespaceOf(vrf)) return;
        configuration.interfaces.emplace(name, *entry);
    });
}

void PatternInterfaces::handleTurn(VrfRegistry& vrfs) {
    if (writer_.configuration().patterns.empty()) return changed_.clear();
    if (allChanged_)
        vrfs.forInterfaces([this](auto const&, std::string const& name) { changed_.insert(name); });
    allChanged_ = false;
    // What is applied may have more interfaces change.
    for (auto at = changed_.begin(); at != changed_.end();)
        at = doApply(*at, vrfs) ? changed_.erase(at) : std::next(at);
}

/// Whether it is known what to do.
bool PatternInterfaces::doApply(std::string const& name, VrfRegistry& vrfs) {
    Configuration const& configuration = writer_.configuration();
    InterfaceConfiguration const* const entry = configuration.entryFor(name);
    if (!entry || entry->pattern.empty()) return true;
    std::optional<bool> const exists = vrfs.exists(entry->vrf, name);
    if (!exists) return false;
    if (*exists == configuration.interfaces.contains(name)) return true;
    if (*exists) {
        writer_.doAddInterface(name, *entry);
        vrfs.doAddInterface(name, entry->vrf);
    } else {
        writer_.doRemoveInterface(name);
        vrfs.doRemoveInterface(name);
    }
    return true;
}

} // namespace Agent
