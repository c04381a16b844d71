// The kernel interface table of one network namespace: which devices there are, by what names, with
// which MAC addresses. Addresses and links are not here.
#pragma once

#include "Lox/EthAddr.h"
#include "Nex/Error.h"
#include "Nex/Record.h"

namespace KernelNetInfo {

/// The kernel's number of an interface, unique in its namespace. 0 is none's.
class InterfaceKey {
  public:
    constexpr InterfaceKey() = default;
    explicit constexpr InterfaceKey(std::uint32_t ifIndex) : ifIndex_(ifIndex) {}

    constexpr std::uint32_t ifIndex() const { return ifIndex_; }
    friend constexpr auto operator<=>(InterfaceKey, InterfaceKey) = default;

  private:
    std::uint32_t ifIndex_ = 0;
};
inline std::ostream& operator<<(std::ostream& out, InterfaceKey key) {
    return out << key.ifIndex();
}

/// One kernel interface. The default value stands for none, and so does an index of 0.
struct Interface {
    std::uint32_t ifIndex = 0;
    Nex::String deviceName;
    Lox::EthAddr ethAddr;
    friend bool operator==(Interface const&, Interface const&) = default;
};

/// A table that its writer left inconsistent. Who looks for a MAC address counts it and goes
/// without; the next change of the entry has them look again.
class TableCorruption : public Nex::Exception {
    using Nex::Exception::Exception;
};

#define KERNEL_NET_INFO_STATUS(ATTR, SET, MAP, RECORDS)                                            \
    MAP(InterfaceKey, Interface, interface, Interface)                                             \
    ATTR(std::uint32_t, corruptions, Corruptions) /* how often readers found the table corrupt */

/// Written by whoever reads the kernel of that namespace; mounted by path through the entity
/// manager (Vardo/EntityManager.h). Readers are told of each interface that comes, changes or goes.
///
/// An entry stands under its own index, as the kernel has it now: a device that is renamed is the
/// same entry with another name, one that is made anew another entry. Two entries may bear one name
/// for a while; the one that was written last counts.
class Status : public Nex::RecordBase {
    NEX_RECORD(Status, Nex::Name, name, KERNEL_NET_INFO_STATUS)

  public:
    /// The interface of `key`, or a default value. Throws TableCorruption when the entry names
    /// another interface. `interface(key)` returns the entry as it stands, unchecked.
    Interface lookup(InterfaceKey key) const {
        Interface found = interface(key);
        if (found != Interface() && found.ifIndex != key.ifIndex())
            throw TableCorruption("kernel interface table: entry " + Nex::textOf(key) +
                                  " names interface " + Nex::textOf(found.ifIndex));
        return found;
    }
    /// For readers that caught a TableCorruption. This count is the one thing that readers write,
    /// also those to whom the table is const; whoever watches the table hears of it at once.
    void handleCorruption() const {
        auto* const self = const_cast<Status*>(this);
        self->corruptionsIs(corruptions() + 1);
    }
};
#undef KERNEL_NET_INFO_STATUS

} // namespace KernelNetInfo

template <>
struct std::hash<KernelNetInfo::InterfaceKey> {
    std::size_t operator()(KernelNetInfo::InterfaceKey key) const noexcept { return key.ifIndex(); }
};
