#include "IgmpHostProxy/PlatformState.h"

namespace IgmpHostProxy {

PlatformState::PlatformState() {
    entityManager->factoryIs("KernelNetInfo::Status", [](Nex::String const& path) {
        return KernelNetInfo::Status::StatusIs(path);
    });
}

PlatformState::PlatformState(PlatformState const& other) = default;

PlatformState::~PlatformState() = default;

Nex::Ptr<IgmpHostProxySm> PlatformState::makeRoot() const {
    return IgmpHostProxySmIs(config, status, mfibDir, aclConfig, hostDir, hostStatusDir, clock,
                             sourceIntfSm, ipStatus, allIntfStatusDir, allIntfStatusLocalDir,
                             allVrfStatusLocal, timerWheel, entityManager);
}

KernelNetInfo::Status* PlatformState::kni(Lox::NamespaceName const& networkNamespace) const {
    auto const* const mounted =
        entityManager->mounted("kni/ns/" + networkNamespace.stringValue() + "/status");
    return mounted ? dynamic_cast<KernelNetInfo::Status*>(mounted->entity().get()) : nullptr;
}

} // namespace IgmpHostProxy
