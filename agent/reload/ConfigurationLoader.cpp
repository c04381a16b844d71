#include "agent/reload/ConfigurationLoader.h"

#include <utility>

namespace Agent {

void ConfigurationLoader::begin(std::string file, Handler handler) {
    auto const result = std::make_shared<Result>();
    auto const done =
        std::make_shared<EventLoop::Handler const>([this, result, handler = std::move(handler)] {
            auto const held = std::exchange(done_, nullptr); // the handler may begin another
            handler(std::move(result->found), result->failure);
        });
    loop_.offload(
        [file = std::move(file), result] {
            try {
                result->found = configurationRead(file);
            } catch (...) {
                result->failure = std::current_exception();
            }
        },
        done);
    done_ = done;
}

} // namespace Agent
