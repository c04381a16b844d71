// The kernel interface view of one VRF: the interface table of its network namespace and the
// directory of its device names.
#pragma once

#include "Interface/Status.h"
#include "KernelNetInfo/Status.h"
#include "Nex/Machine.h"

namespace IgmpHostProxy {

#define KERNEL_VRF_INTF_STATUS(ATTR, SET, MAP, RECORDS)                                            \
    ATTR(Nex::Ptr<Interface::DeviceIntfStatusDir>, deviceIntfStatusDir, DeviceIntfStatusDir)

/// The root replaces `deviceIntfStatusDir` when the VRF moves to another namespace; who follows it
/// follows the attribute. It is null until the root has made one, just after the view.
class KernelVrfIntfStatus : public Nex::RecordBase {
    NEX_RECORD(KernelVrfIntfStatus, L3::VrfName, vrfName, KERNEL_VRF_INTF_STATUS)

  public:
    /// Fixed at construction, also when the VRF moves. Lent.
    KernelNetInfo::Status const* kniStatus() const { return kniStatus_.get(); }
    auto nexArguments() const { return std::make_tuple(kniStatus_); }
    static constexpr char const* nexArgumentNames[] = {"kniStatus"};
    /// A view is rebuilt, never backed up.
    bool hasBackupSupport() const { return false; }

  private:
    friend Nex::Ptr<KernelVrfIntfStatus>
    kernelVrfIntfStatusFactory(L3::VrfName vrfName,
                               Nex::Ptr<KernelNetInfo::Status const> kniStatus);
    Nex::Ptr<KernelNetInfo::Status const> kniStatus_;
};
#undef KERNEL_VRF_INTF_STATUS

inline Nex::Ptr<KernelVrfIntfStatus>
kernelVrfIntfStatusFactory(L3::VrfName vrfName, Nex::Ptr<KernelNetInfo::Status const> kniStatus) {
    auto view = KernelVrfIntfStatus::KernelVrfIntfStatusIs(std::move(vrfName));
    view->kniStatus_ = std::move(kniStatus);
    return view;
}

} // namespace IgmpHostProxy
