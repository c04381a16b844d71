// The kernel's multicast forwarding as a routing daemon owns it: virtual interfaces and routes,
// written through the multicast routing socket.
#pragma once

#include "Lox/IpAddr.h"
#include "agent/loop/FileDescriptor.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <system_error>
// Last: it brings the kernel's own definitions of what netinet/in.h defines, unless that is known.
#include <linux/mroute.h>
#include <linux/rtnetlink.h>

namespace Agent {

/// Takes the routing of the calling thread's namespace; letting go of it flushes everything. What
/// the kernel refuses throws std::system_error.
class MulticastRouter {
  public:
    /// Of the table of that number.
    explicit MulticastRouter(std::uint32_t table = RT_TABLE_DEFAULT) {
        option(MRT_TABLE, table);
        option(MRT_INIT, 1);
    }

    void addInterface(vifi_t number, int ifindex) {
        vifctl interface {};
        interface.vifc_vifi = number;
        interface.vifc_flags = VIFF_USE_IFINDEX;
        interface.vifc_threshold = 1;
        interface.vifc_lcl_ifindex = ifindex;
        option(MRT_ADD_VIF, interface);
    }
    void removeInterface(vifi_t number) {
        vifctl interface {};
        interface.vifc_vifi = number;
        option(MRT_DEL_VIF, interface);
    }
    void addRoute(Lox::IpAddr source, Lox::IpAddr group, vifi_t incoming,
                  std::initializer_list<vifi_t> outputs) {
        mfcctl route = named(source, group);
        route.mfcc_parent = incoming;
        for (vifi_t const output : outputs) route.mfcc_ttls[output] = 1;
        option(MRT_ADD_MFC, route);
    }
    void removeRoute(Lox::IpAddr source, Lox::IpAddr group) {
        option(MRT_DEL_MFC, named(source, group));
    }

  private:
    static mfcctl named(Lox::IpAddr source, Lox::IpAddr group) {
        mfcctl route{};
        route.mfcc_origin.s_addr = htonl(source.host());
        route.mfcc_mcastgrp.s_addr = htonl(group.host());
        return route;
    }
    template <typename Value>
    void option(int name, Value const& value) {
        if (setsockopt(socket_.get(), IPPROTO_IP, name, &value, sizeof value) < 0)
            throw std::system_error(errno, std::generic_category(),
                                    "multicast routing option " + std::to_string(name));
    }

    FileDescriptor socket_{socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_IGMP)};
};

/// Traffic of a group for which the calling thread's namespace may have no route: a packet from,
/// and out by, the interface of that address.
inline void trafficSend(Lox::IpAddr source, Lox::IpAddr group) {
    FileDescriptor const sender(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    in_addr interface { htonl(source.host()) };
    setsockopt(sender.get(), IPPROTO_IP, IP_MULTICAST_IF, &interface, sizeof interface);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(group.host());
    to.sin_port = htons(9);
    if (sendto(sender.get(), "x", 1, 0, reinterpret_cast<sockaddr const*>(&to), sizeof to) != 1)
        throw std::system_error(errno, std::generic_category(), "sending to a group");
}

} // namespace Agent
