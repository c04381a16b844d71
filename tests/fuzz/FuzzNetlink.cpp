// Messages of the kernel, cut and damaged in any way, to the tables of interfaces and routes. Each
// begins with an octet for its type and one for its length.
#include "Nex/Error.h"
#include "agent/kernel/InterfaceTable.h"
#include "agent/kernel/RouteTable.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <linux/rtnetlink.h>
#include <memory>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    using namespace Agent;
    InterfaceTable interfaces;
    RouteTable routes([](Lox::IpAddr, Lox::IpAddr, bool) {});
    routes.setFilter({true, false, {1, 2}});
    std::span<std::uint8_t const> rest(data, size);
    while (rest.size() >= 2) {
        constexpr std::array types{RTM_NEWLINK, RTM_DELLINK,  RTM_NEWADDR,
                                   RTM_DELADDR, RTM_NEWROUTE, RTM_DELROUTE};
        std::uint8_t const choice = rest[0];
        std::size_t const length = std::min<std::size_t>(rest[1], rest.size() - 2);
        // In a block of just that size, so that whatever is read beyond it shows.
        auto const block = std::make_unique<std::uint8_t[]>(NLMSG_HDRLEN + length);
        auto* const message = reinterpret_cast<nlmsghdr*>(block.get());
        message->nlmsg_len = std::uint32_t(NLMSG_HDRLEN + length);
        message->nlmsg_type = std::uint16_t(types[choice % types.size()]);
        std::memcpy(block.get() + NLMSG_HDRLEN, rest.data() + 2, length);
        rest = rest.subspan(2 + length);
        try {
            interfaces.readMessage(*message);
            routes.readMessage(*message, choice >= 128);
        } catch (Nex::ParseException const&) {
        }
        if (choice == 127) {
            if (routes.reading()) routes.endReading(true);
            routes.beginReading();
            routes.questionTake(RouteTable::defaultNumber);
        }
        routes.doReview(2);
    }
    return 0;
}
