// IP status: which VRF an interface is in, and which namespace a VRF is.
#pragma once

#include "Lox/Names.h"
#include "Nex/Record.h"

namespace Ip {

#define IP_INTF_CONFIG(ATTR, SET, MAP, RECORDS) ATTR(L3::VrfName, vrf, Vrf)

/// An interface's IP configuration.
class IpIntfConfig : public Nex::RecordBase {
    NEX_RECORD(IpIntfConfig, Lox::IntfId, intfId, IP_INTF_CONFIG)
};
#undef IP_INTF_CONFIG

#define IP_INTF_STATUS(ATTR, SET, MAP, RECORDS)                                                    \
    ATTR(Nex::Ptr<IpIntfConfig>, ipIntfConfig, IpIntfConfig) /* null while there is none */

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

class VrfStatusLocal : public Nex::RecordBase {
    NEX_RECORD(VrfStatusLocal, L3::VrfName, vrfName, VRF_STATUS_LOCAL)
};
#undef VRF_STATUS_LOCAL

#define ALL_VRF_STATUS_LOCAL(ATTR, SET, MAP, RECORDS) RECORDS(L3::VrfName, VrfStatusLocal, vrf, Vrf)

class AllVrfStatusLocal : public Nex::RecordBase {
    NEX_RECORD(AllVrfStatusLocal, Nex::Name, name, ALL_VRF_STATUS_LOCAL)
};
#undef ALL_VRF_STATUS_LOCAL

} // namespace Ip
