#include "Ip/SourceIntf.h"

namespace Ip::SourceIntf {

SourceIntf::~SourceIntf() {
    if (service_) service_->known_.take(intfId());
}

SourceIntfSm::~SourceIntfSm() {
    for (auto const& item : known_.walk()) item.value->service_ = nullptr;
}

Nex::Ptr<SourceIntf> SourceIntfSm::registerSourceIntf(Lox::IntfId intfId) {
    Nex::Ptr<SourceIntf> source = sourceIntf(intfId);
    if (!source) {
        source = SourceIntf::SourceIntfIs(intfId);
        source->service_ = this;
        *known_.findOrInsert(intfId).first = source.get();
    }
    auto const [slot, fresh] = registered_.findOrInsert(intfId);
    if (!fresh) return source;
    *slot = source;
    nexNotify<NotifieeConst, &NotifieeConst::onSourceIntf>(intfId);
    return source;
}

void SourceIntfSm::unregisterSourceIntf(Nex::Ptr<SourceIntf> const& sourceIntf) {
    registered_.take(sourceIntf->intfId());
}

SourceIntf* SourceIntfSm::sourceIntf(Lox::IntfId const& intfId) const {
    auto const* const found = known_.find(intfId);
    return found ? *found : nullptr;
}

} // namespace Ip::SourceIntf
