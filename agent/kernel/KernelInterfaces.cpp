#include "agent/kernel/KernelInterfaces.h"

#include "agent/loop/Log.h"

#include <linux/rtnetlink.h>
#include <set>
#include <utility>

namespace Agent {

namespace {

/// The indexes whose entries differ.
std::set<int> differences(std::map<int, KernelInterface> const& before,
                          std::map<int, KernelInterface> const& after) {
    std::set<int> changed;
    for (auto const& [ifindex, interface] : before) {
        auto const found = after.find(ifindex);
        if (found == after.end() || found->second != interface) changed.insert(ifindex);
    }
    for (auto const& [ifindex, interface] : after)
        if (before.count(ifindex) == 0) changed.insert(ifindex);
    return changed;
}

} // namespace

KernelInterfaces::KernelInterfaces(InterfaceObserver onInterface, int namespaceFd)
    : onInterface_(std::move(onInterface)), netlink_(NETLINK_ROUTE, *this, namespaceFd) {
    // Subscribed first, so that no change falls between the dump and the notifications.
    netlink_.subscribe(RTNLGRP_LINK);
    netlink_.subscribe(RTNLGRP_IPV4_IFADDR);
    onReadAgain();
}

void KernelInterfaces::doReopen() {
    if (netlink_.doReopen()) onReadAgain();
}

void KernelInterfaces::onMessage(nlmsghdr const& message, bool ofDump) {
    if (netlink_.dumping()) apply(message, reading_);
    if (ofDump) return;
    overtaken_ |= netlink_.dumping();
    // The first reading is told as a whole: links then come with their addresses.
    if (!synchronized_) return;
    if (auto const changed = apply(message, table_)) doNotify(*changed);
}

void KernelInterfaces::onDumpsDone() {
    synchronized_ = true;
    auto const changed = differences(table_.interfaces(), reading_.interfaces());
    table_ = std::move(reading_);
    for (int const ifindex : changed) doNotify(ifindex);
    if (overtaken_) onReadAgain();
}

void KernelInterfaces::onReadAgain() {
    overtaken_ = false;
    reading_ = InterfaceTable();
    netlink_.requestDump(RTM_GETLINK, ifinfomsg{});
    ifaddrmsg addresses{};
    addresses.ifa_family = AF_INET;
    netlink_.requestDump(RTM_GETADDR, addresses);
}

std::optional<int> KernelInterfaces::apply(nlmsghdr const& message, InterfaceTable& table) {
    try {
        return table.readMessage(message);
    } catch (Nex::ParseException const& exception) {
        log(LogLevel::warning, "kernel message dropped: {}", exception.what());
        return std::nullopt;
    }
}

void KernelInterfaces::doNotify(int ifindex) {
    // Let out, it would cost the messages behind this one.
    try {
        onInterface_(ifindex);
    } catch (std::exception const& exception) {
        log(LogLevel::error, "interface {}: {}", ifindex, exception.what());
    }
}

} // namespace Agent
