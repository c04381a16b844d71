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
    try {
        TraceHandle::sink_->onTrace(handle_, entry_.point->level, entry_.text());
    } catch (...) { // see TraceSink
    }
}

} // namespace Nex
