#include "Nex/Trace.h"

#include <utility>

namespace Nex {

TraceHandle::TraceHandle(char const* fileName)
    : fileName_(fileName), next_(std::exchange(first_, this)) {}

TraceHandle* TraceHandle::handle(std::string_view fileName) {
    TraceHandle* handle = first_;
    while (handle && handle->fileName_ != fileName) handle = handle->next_;
    return handle;
}

TraceHelper::~TraceHelper() {
    if (!TraceHandle::sink_) return;
    text_ << format_;
    TraceHandle::sink_->onTrace(handle_, point_.level, text_.str());
}

} // namespace Nex
