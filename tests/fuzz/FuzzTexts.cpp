// The text forms of values: what is taken comes out as it went in, and everything else is refused.
#include "IgmpHostProxy/SourceGroup.h"
#include "Lox/IpAddr.h"
#include "Nex/Error.h"
#include "agent/config/AddressText.h"
#include "agent/loop/Printable.h"

#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string const text(reinterpret_cast<char const*>(data), size);
    try {
        Lox::IpAddr const value(text);
        if (Lox::IpAddr(value.stringValue()) != value) std::abort();
    } catch (Nex::ParseException const&) {
    }
    try {
        IgmpHostProxy::SourceGroup const value(text);
        if (IgmpHostProxy::SourceGroup(valueToStrep(value)) != value) std::abort();
    } catch (Nex::ParseException const&) {
    }
    auto const address = Agent::parseAddress(text);
    if (address && address->stringValue() != text) std::abort();
    auto const range = Agent::parseRange(text);
    if (range && !range->has(range->address())) std::abort();
    Agent::parseSocketAddress(text);
    for (char const c : Agent::printable(text))
        if (c < ' ' || c > '~') std::abort();
    return 0;
}
