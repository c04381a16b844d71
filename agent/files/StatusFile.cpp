#include "agent/files/StatusFile.h"

#include "agent/loop/Log.h"

#include <exception>
#include <new>
#include <utility>

namespace Agent {

StatusFile::StatusFile(EventLoop& loop, std::string path,
                       std::function<std::unique_ptr<JsonPart>()> makeStatus)
    : path_(std::move(path)),
      makeStatus_(std::move(makeStatus)),
      slice_(loop, [this] { doSlice(); }) {}

void StatusFile::doWrite() {
    if (stream_)
        again_ = true;
    else
        slice_.arm(0);
}

void StatusFile::doSlice() {
    bool more = true;
    try {
        double const end = EventLoop::now() + sliceSeconds;
        if (!stream_) {
            file_.emplace(path_);
            stream_.emplace(makeStatus_());
        }
        while (more && EventLoop::now() < end) more = stream_->next();
        file_->add(stream_->take());
        if (!more) file_->finish();
    } catch (std::bad_alloc const&) {
        doEnd();
        throw;
    } catch (std::exception const& error) {
        log(LogLevel::error, "the status is not written: {}", error.what());
        more = false;
    }
    if (more)
        slice_.arm(0);
    else
        doEnd();
}

void StatusFile::doEnd() {
    stream_.reset();
    file_.reset();
    if (std::exchange(again_, false)) slice_.arm(0);
}

} // namespace Agent
