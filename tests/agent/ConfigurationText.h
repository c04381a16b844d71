// Parts of configuration files.
#pragma once

#include <string>

namespace Testing {

/// The configuration of one interface, with these lines for its groups. Changes are repeated fast,
/// so that a test need not wait long for the repeats.
inline std::string groupsOn(std::string const& interface, std::string const& groups,
                            std::string const& version = "3") {
    return "[interface." + interface + "]\nigmp-version = " + version +
           "\nunsolicited-report-interval = 0.1\n[interface." + interface + ".group]\n" + groups;
}

/// The same of up0 with these access lists: "'iptv', 'news'".
inline std::string listsOnUp0(std::string const& lists, std::string const& groups = "") {
    return "[interface.up0]\naccess-lists = [" + lists +
           "]\nunsolicited-report-interval = 0.1\n[interface.up0.group]\n" + groups;
}

/// A VRF in a network namespace.
inline std::string vrfIn(std::string const& space, std::string const& name = "red") {
    return "[vrf." + name + "]\nnamespace = '" + space + "'\n";
}

/// The configuration of one interface, moved to a VRF.
inline std::string inVrf(std::string const& name, std::string interface) {
    return interface.insert(interface.find('\n') + 1, "vrf = '" + name + "'\n");
}

inline std::string rule(std::string const& list, unsigned sequence, std::string const& destination,
                        std::string const& source = "10.1.1.1",
                        std::string const& action = "permit") {
    return "[[access-list." + list + "]]\nsequence = " + std::to_string(sequence) + "\naction = '" +
           action + "'\nsource = '" + source + "'\ndestination = '" + destination + "'\n";
}

} // namespace Testing
