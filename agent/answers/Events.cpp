#include "agent/answers/Events.h"

#include "agent/loop/Json.h"
#include "agent/loop/Log.h"

#include <algorithm>

namespace Agent {

namespace {

/// The last lines of the log with a number above `after`.
class EventRows : public JsonElements {
  public:
    explicit EventRows(std::uint64_t after) : after_(after) {}
    bool next(JsonStream& stream) override {
        auto const at = std::upper_bound(
            events().begin(), events().end(), after_,
            [](std::uint64_t number, Event const& each) { return number < each.number; });
        if (at == events().end()) return false;
        after_ = at->number;
        stream.addElement({{"number", at->number},
                           {"time", at->time},
                           {"level", nameOf(at->level)},
                           {"subject", at->subject},
                           {"text", at->text}});
        return true;
    }

  private:
    std::uint64_t after_;
};

} // namespace

std::unique_ptr<JsonElements> eventsAnswer(std::uint64_t after, std::uint64_t most) {
    if (!events().empty() && events().back().number > most)
        after = std::max(after, events().back().number - most);
    return std::make_unique<EventRows>(after);
}

} // namespace Agent
