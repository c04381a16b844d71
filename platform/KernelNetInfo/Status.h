// The kernel interface table of one network namespace.
#pragma once

#include "Lox/EthAddr.h"
#include "Nex/Error.h"
#include "Nex/Record.h"

namespace KernelNetInfo {

/// The kernel's number of an interface, unique in its namespace.
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

/// One kernel interface. The default value stands for none.
struct Interface {
    std::uint32_t ifIndex = 0;
    Nex::String deviceName;
    Lox::EthAddr ethAddr;
    friend bool operator==(Interface const&, Interface const&) = default;
};

/// A table that its writer left inconsistent.
class TableCorruption : public Nex::Exception {
    using Nex::Exception::Exception;
};

#define KERNEL_NET_INFO_STATUS(ATTR, SET, MAP, RECORDS)                                            \
    MAP(InterfaceKey, Interface, interface, Interface)                                             \
    ATTR(std::uint32_t, corruptions, Corruptions) /* how often readers found the table corrupt */

/// Written by whoever reads the kernel of that namespace; mounted by path through the entity
/// manager (Vardo/EntityManager.h). Readers are told of each interface that comes, changes or goes.
class Status : public Nex::RecordBase {
    NEX_RECORD(Status, Nex::Name, name, KERNEL_NET_INFO_STATUS)

  public:
    /// The interface of `key`, or a default value. Throws TableCorruption when the entry names
    /// another interface.
    Interface lookup(InterfaceKey key) const {
        Interface found = interface(key);
        if (found != Interface() && found.ifIndex != key.ifIndex())
            throw TableCorruption("kernel interface table: entry " + Nex::textOf(key) +
                                  " names interface " + Nex::textOf(found.ifIndex));
        return found;
    }
    /// For readers that caught a TableCorruption.
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
