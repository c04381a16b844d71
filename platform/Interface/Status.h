// Interface status, and the directory of a namespace's kernel device names. Whoever knows the
// device writes the first two directories; `NetNsIntfStatusManagerRoot` makes the third from them
// and the kernel tables, and the proxy takes interfaces up and down by it.
//
// An interface comes up as the last of the three is there: it is up here, it has a place, and the
// kernel table of that namespace has the device. It goes down as the first of them goes. Both
// happen inside the call that writes it, in whichever order they are written.
#pragma once

#include "Lox/Names.h"
#include "Nex/Record.h"

namespace Interface {

#define INTERFACE_STATUS(ATTR, SET, MAP, RECORDS)                                                  \
    ATTR(bool, operUp, OperUp) /* has its link and can be used */

/// An interface, whatever device it has. A new one is down.
class IntfStatus : public Nex::RecordBase {
    NEX_RECORD(IntfStatus, Lox::IntfId, intfId, INTERFACE_STATUS)
};
#undef INTERFACE_STATUS

#define ALL_INTF_STATUS_DIR(ATTR, SET, MAP, RECORDS)                                               \
    RECORDS(Lox::IntfId, IntfStatus, intfStatus, IntfStatus)

/// All interfaces that there are, wherever they are.
class AllIntfStatusDir : public Nex::RecordBase {
    NEX_RECORD(AllIntfStatusDir, Nex::Name, name, ALL_INTF_STATUS_DIR)
};
#undef ALL_INTF_STATUS_DIR

#define INTF_STATUS_LOCAL(ATTR, SET, MAP, RECORDS)                                                 \
    ATTR(Lox::NamespaceName, networkNamespace, NetworkNamespace)                                   \
    ATTR(Nex::String, deviceName, DeviceName) /* in that namespace */

/// Where an interface is found on this device. Each attribute is acted upon as it is written: who
/// moves an interface takes it down before, or has it looked for at places where it never was. Two
/// interfaces may name one device: both are listed, and its index names the one listed last.
class IntfStatusLocal : public Nex::RecordBase {
    NEX_RECORD(IntfStatusLocal, Lox::IntfId, intfId, INTF_STATUS_LOCAL)
};
#undef INTF_STATUS_LOCAL

#define ALL_INTF_STATUS_LOCAL_DIR(ATTR, SET, MAP, RECORDS)                                         \
    RECORDS(Lox::IntfId, IntfStatusLocal, intfStatusLocal, IntfStatusLocal)

/// The interfaces that have a device here.
class AllIntfStatusLocalDir : public Nex::RecordBase {
    NEX_RECORD(AllIntfStatusLocalDir, Nex::Name, name, ALL_INTF_STATUS_LOCAL_DIR)
};
#undef ALL_INTF_STATUS_LOCAL_DIR

/// An interface's kernel device. The default value stands for none. Holds the status record, which
/// may be out of its directory by now.
struct IntfStatusAndDeviceName {
    Nex::Ptr<IntfStatus> intfStatus;
    Nex::String deviceName;
    std::uint32_t ifIndex = 0;
    friend bool operator==(IntfStatusAndDeviceName const&,
                           IntfStatusAndDeviceName const&) = default;
};

/// The interface that a kernel index belongs to. The default value stands for none.
struct IntfToDeviceName {
    Lox::IntfId intfId;
    Nex::String deviceName;
    friend bool operator==(IntfToDeviceName const&, IntfToDeviceName const&) = default;
};

#define DEVICE_INTF_STATUS_DIR(ATTR, SET, MAP, RECORDS)                                            \
    MAP(Lox::IntfId, IntfStatusAndDeviceName, intfStatusAndDeviceName, IntfStatusAndDeviceName)    \
    MAP(std::uint32_t, IntfToDeviceName, intfToDeviceName, IntfToDeviceName) /* by kernel index */

/// The interfaces of one namespace that can be used now. Writers fill `intfToDeviceName` before
/// `intfStatusAndDeviceName` and empty them in the reverse order: who is told of an interface finds
/// its index. A device that came back under another index is told of as gone, then as come.
class DeviceIntfStatusDir : public Nex::RecordBase {
    NEX_RECORD(DeviceIntfStatusDir, Nex::Name, name, DEVICE_INTF_STATUS_DIR)
};
#undef DEVICE_INTF_STATUS_DIR

} // namespace Interface
