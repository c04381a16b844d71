#include "agent/reload/Differ.h"

#include "Nex/Error.h"
#include "agent/control/JsonRpc.h"
#include "agent/ports/ChangesAnswer.h"

#include <fmt/format.h>
#include <memory>
#include <utility>

namespace Agent {

namespace {

using nlohmann::json;

// To count the packets, the copy goes through the time until everything has been told.
constexpr double stepSeconds = 0.05;
constexpr unsigned mostSteps = 20000;

} // namespace

void Differ::ask(std::string file, RpcReply reply) {
    if (reply_) throw RpcError(RpcError::refused, "another comparison is under way");
    loader_.begin(file, [this](ConfigurationReading found, std::exception_ptr const& failure) {
        try {
            if (failure) std::rethrow_exception(failure);
            doRehearse(std::move(found));
        } catch (std::exception const& error) {
            doRefuse(error.what());
        }
    });
    file_ = std::move(file);
    reply_ = std::move(reply);
}

void Differ::doRehearse(ConfigurationReading found) {
    if (!found.valid())
        return doRefuse(fmt::format("{} cannot be put in force", file_), found.diagnostics);
    std::string const objection = reloader_.objection(found, false);
    json const answer{{"file", file_},
                      {"diagnostics", toJson(found.diagnostics)},
                      {"refused", objection.empty() ? json() : json(objection)}};
    bool const copy = rehearsal_.begin([=, this](std::string const& summary, FileDescriptor rows) {
        handleEnd(answer, summary, std::move(rows));
    });
    if (!copy) { // a long one takes a while to free; without memory, here
        Nex::FirstError().attempt([&] {
            auto held = std::make_shared<Configuration>(std::move(found.configuration));
            loop_.offload([held = std::move(held)]() mutable { held.reset(); });
        });
        return;
    }
    loop_.atEndOfTurn([this] { target_.followPatterns(); });
    loop_.atEndOfTurn([this] { ports_.handleTurn(EventLoop::now()); });
    loop_.atEndOfTurn([this] { handleCopyTurn(); });
    ports_.beginChanges();
    target_.putInForce(std::move(found.configuration));
}

void Differ::handleCopyTurn() {
    if (target_.settled()) doTell();
}

void Differ::doTell() {
    double now = EventLoop::now();
    for (unsigned step = 0; step < mostSteps && ports_.telling(); ++step) {
        ports_.advance(now += stepSeconds);
        ports_.handleTurn(now);
    }
    forChanges(ports_, [this](auto const& interface, Lox::IpAddr group, auto const& before,
                              auto const& after) {
        rehearsal_.add(changeText(interface, group, before, after));
    });
    ChangeCounts const counts = changeCounts(ports_);
    // Others are answers that are due anyway.
    bool const changed = counts.joined + counts.left + counts.changed > 0;
    rehearsal_.end(json{{"joined", counts.joined},
                        {"left", counts.left},
                        {"changed", counts.changed},
                        {"kept", ports_.memberCount() - counts.joined - counts.changed},
                        {"packets", changed ? PacketSocket::mutedCount() : 0}}
                       .dump());
}

void Differ::handleEnd(json const& answer, std::string const& summary, FileDescriptor rows) {
    if (summary.empty()) return doRefuse("the attempt did not come to its end");
    auto const reply = std::exchange(reply_, std::nullopt);
    json whole = answer;
    whole.update(json::parse(summary));
    reply->result(changesPart(std::move(whole), std::move(rows)));
}

void Differ::doRefuse(std::string_view text, std::vector<Diagnostic> const& found) {
    auto const reply = std::exchange(reply_, std::nullopt);
    reply->error(RpcError(RpcError::refused, std::string(text), {{"diagnostics", toJson(found)}}));
}

} // namespace Agent
