// The engine at each of its allocations that may be refused: what has changed is told all the same,
// and nothing else.
#include "agent/igmp/HostEngineFixture.h"
#include "support/RefusedMemory.h"

#include <regex>
#include <set>
#include <sstream>

namespace Agent {
namespace {

class HostEngineMemoryTest : public HostEngineFixture {
  protected:
    void send(std::span<std::uint8_t const> packet) override {
        bool const counted = memory.counting;
        memory.counting = false;
        HostEngineFixture::send(packet);
        memory.counting = counted;
    }
    /// Until it succeeds, as its user would.
    template <class Action>
    void attempt(Action const& action) {
        for (bool done = false; !done; memory.counting = false) {
            memory.counting = true;
            try {
                action();
                done = true;
            } catch (std::bad_alloc const&) {
            }
        }
    }
    /// The records and older messages by which changes are told.
    std::multiset<std::string> played() {
        engine.emplace(*this, std::mt19937(7));
        sent.clear();
        settingsApply();
        memory.count = 0;
        attempt([&] { engine->linkUp(now); });
        auto const turn = [&](auto const& wishes) {
            attempt([&] {
                wishes();
                engine->flush(now);
            });
            attempt([&] { serve(30); });
        };
        turn([&] {
            include(range("239.1.1.1", 3), {ip("10.0.0.1")});
            exclude({ip("239.1.1.4")});
        });
        turn([&] {
            engine->removeGroup(ip("239.1.1.1"));
            include({ip("239.1.1.2"), ip("239.1.1.4")}, range("10.0.0.2", 2));
        });
        HostEngine::Settings const before = settings;
        settings.version = 5 - settings.version;
        turn([&] { settingsApply(); });
        settings.address = ip("10.0.0.3");
        turn([&] { settingsApply(); });
        turn([&] { engine->removeAllGroups(); });
        settings = before;
        std::multiset<std::string> told;
        std::istringstream texts(std::regex_replace(taken(), std::regex("; "), ", "));
        for (std::string record; std::getline(texts >> std::ws, record, ',');) told.insert(record);
        return told;
    }
};

TEST_F(HostEngineMemoryTest, TellsWhatItTellsWithoutRefusals) {
    for (unsigned const version : {3u, 2u}) {
        settings.version = version;
        memory.first = memory.last = 0;
        auto const usual = played();
        ASSERT_GE(usual.size(), 8u);
        for (long const length : {1, 7})
            for (memory.first = 1; memory.first == 1 || memory.count >= memory.first;
                 ++memory.first) {
                memory.last = memory.first + length - 1;
                ASSERT_EQ(played(), usual) << "version " << version << ": " << memory.first;
            }
    }
}

} // namespace
} // namespace Agent
