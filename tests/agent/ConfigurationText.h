// Parts of configuration files.
#pragma once

#include <string>

namespace Testing {

/// The configuration of one interface, with these lines for its groups. Changes are repeated fast,
/// so that a test need not wait long for the repeats.
inline std::string groupsOn(std::string const& interface, std::string const& groups) {
    return "[interface." + interface + "]\nunsolicited-report-interval = 0.1\n[interface." +
           interface + ".group]\n" + groups;
}

/// The configuration of one interface, with this line as well.
inline std::string having(std::string const& line, std::string interface) {
    return interface.insert(interface.find('\n') + 1, line + "\n");
}

/// A VRF in a network namespace.
inline std::string vrfIn(std::string const& space, std::string const& name = "red") {
    return "[vrf." + name + "]\nnamespace = '" + space + "'\n";
}

inline std::string rule(std::string const& list, unsigned sequence, std::string const& destination,
                        std::string const& source = "10.1.1.1",
                        std::string const& action = "permit") {
    return "[[access-list." + list + "]]\nsequence = " + std::to_string(sequence) + "\naction = '" +
           action + "'\nsource = '" + source + "'\ndestination = '" + destination + "'\n";
}

} // namespace Testing
