#include "Acl/IpRule.h"

#include <ostream>

namespace Acl {

std::ostream& operator<<(std::ostream& out, UniqueId id) { return out << id.number(); }

std::ostream& operator<<(std::ostream& out, Action action) {
    switch (action) {
    case Action::permit:
        return out << "permit";
    case Action::deny:
        return out << "deny";
    }
    return out << std::uint32_t(action);
}

} // namespace Acl
