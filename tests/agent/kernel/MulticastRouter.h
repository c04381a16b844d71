// The kernel's multicast forwarding as a routing daemon owns it: virtual interfaces and routes,
// written through the multicast routing socket.
#pragma once

#include "Lox/IpAddr.h"
#include "netns/Netns.h"

#include <cerrno>
#include <initializer_list>
#include <netinet/in.h>
#include <sys/socket.h>
#include <system_error>
// Last: it brings the kernel's own definitions of what netinet/in.h defines, unless that is known.
#include <linux/mroute.h>
#include <linux/rtnetlink.h>

namespace Agent {

/// Takes the routing of a near namespace; letting go of it flushes everything. What the kernel
/// refuses throws std::system_error.
class MulticastRouter {
  public:
    /// Of the table of that number, with these interfaces, numbered from zero.
    MulticastRouter(Testing::Netns const& net, std::initializer_list<char const*> interfaces,
                    std::uint32_t table = RT_TABLE_DEFAULT)
        : net_(&net) {
        Testing::Netns::Inside const inside(net.nearName());
        socket_ = FileDescriptor(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_IGMP));
        option(MRT_TABLE, table);
        option(MRT_INIT, 1);
        vifi_t number = 0;
        for (char const* const each : interfaces) addInterface(number++, each);
    }

    void addInterface(vifi_t number, char const* name) {
        vifctl interface {};
        interface.vifc_vifi = number;
        interface.vifc_flags = VIFF_USE_IFINDEX;
        interface.vifc_threshold = 1;
        interface.vifc_lcl_ifindex = net_->nearIndex(name);
        option(MRT_ADD_VIF, interface);
    }
    void removeInterface(vifi_t number) {
        vifctl interface {};
        interface.vifc_vifi = number;
        option(MRT_DEL_VIF, interface);
    }
    void addRoute(Lox::IpAddr source, Lox::IpAddr group, vifi_t incoming = 0,
                  std::initializer_list<vifi_t> outputs = {1}) {
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

    Testing::Netns const* net_;
    FileDescriptor socket_;
};

} // namespace Agent
