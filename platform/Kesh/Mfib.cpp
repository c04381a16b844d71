#include "Kesh/Mfib.h"

#include <ostream>

namespace Routing::Multicast::Fib {

std::ostream& operator<<(std::ostream& out, IpGenRouteKey const& key) {
    return out << "( " << key.source << ", " << key.group << " )";
}

IpGenRouteKey invalidRouteKey() {
    return {Lox::IpPrefix(), Lox::IpPrefix(Lox::IpAddr::fromHost(0xE0000000), 32)};
}

} // namespace Routing::Multicast::Fib
