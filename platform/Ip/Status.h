// IP status: which VRF an interface is in, and which namespace a VRF is. Written by whoever knows
// the device; the proxy only reads it.
#pragma once

#include "Lox/Names.h"
#include "Nex/Record.h"

namespace Ip {

#define IP_INTF_CONFIG(ATTR, SET, MAP, RECORDS) ATTR(L3::VrfName, vrf, Vrf)

/// An interface's IP configuration. An empty VRF name reads as "not known yet". Nobody watches it:
/// an interface that is up stays in the VRF that it came up in until it goes down, so take it down
/// before it moves.
class IpIntfConfig : public Nex::RecordBase {
    NEX_RECORD(IpIntfConfig, Lox::IntfId, intfId, IP_INTF_CONFIG)
};
#undef IP_INTF_CONFIG

#define IP_INTF_STATUS(ATTR, SET, MAP, RECORDS)                                                    \
    ATTR(Nex::Ptr<IpIntfConfig>, ipIntfConfig, IpIntfConfig) /* null while there is none */

/// The proxy does not watch this: it looks here whenever it decides an interface, and each second
/// for the interfaces whose record is still missing. One whose record is there without a VRF is
/// looked at once more, then waits for something else to happen to it: write the VRF in the turn
/// that makes the record, and both before the interface comes up.
class IpIntfStatus : public Nex::RecordBase {
    NEX_RECORD(IpIntfStatus, Lox::IntfId, intfId, IP_INTF_STATUS)
};
#undef IP_INTF_STATUS

#define IP_STATUS(ATTR, SET, MAP, RECORDS)                                                         \
    RECORDS(Lox::IntfId, IpIntfStatus, ipIntfStatus, IpIntfStatus)

class Status : public Nex::RecordBase {
    NEX_RECORD(Status, Nex::Name, name, IP_STATUS)
};
#undef IP_STATUS

#define VRF_STATUS_LOCAL(ATTR, SET, MAP, RECORDS)                                                  \
    ATTR(Lox::NamespaceName, networkNamespace, NetworkNamespace) /* empty until it exists */

/// One VRF on this device. The namespace of the default VRF is not looked at: it is the process's.
/// Fixed once it is known: the proxy keeps reading the kernel table that it began with. A VRF that
/// moves to another namespace is deleted and made anew.
class VrfStatusLocal : public Nex::RecordBase {
    NEX_RECORD(VrfStatusLocal, L3::VrfName, vrfName, VRF_STATUS_LOCAL)
};
#undef VRF_STATUS_LOCAL

#define ALL_VRF_STATUS_LOCAL(ATTR, SET, MAP, RECORDS) RECORDS(L3::VrfName, VrfStatusLocal, vrf, Vrf)

/// The proxy follows this one: a VRF's kernel interfaces are read as its namespace is known, until
/// the VRF is deleted. As its namespace becomes known its kernel table is mounted; as it is deleted
/// that is given back. Interfaces that are up in it are not taken down by this: take them down, or
/// their kernel devices away, before the VRF.
class AllVrfStatusLocal : public Nex::RecordBase {
    NEX_RECORD(AllVrfStatusLocal, Nex::Name, name, ALL_VRF_STATUS_LOCAL)
};
#undef ALL_VRF_STATUS_LOCAL

} // namespace Ip
