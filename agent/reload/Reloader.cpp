#include "agent/reload/Reloader.h"

#include "Nex/Error.h"
#include "agent/control/JsonRpc.h"
#include "agent/loop/Log.h"
#include "agent/loop/ServiceManager.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace Agent {

namespace {

using nlohmann::json;

/// How long an answer waits at most for what follows from a configuration, in seconds: routes of a
/// large table come slowly.
constexpr double longestSettling = 10;
constexpr double anotherTrySeconds = 0.1;

} // namespace

void logDiagnostics(std::vector<Diagnostic> const& diagnostics) {
    for (Diagnostic const& diagnostic : diagnostics) {
        LogLevel const level = diagnostic.level == Diagnostic::Level::error     ? LogLevel::error
                               : diagnostic.level == Diagnostic::Level::warning ? LogLevel::warning
                                                                                : LogLevel::info;
        log(level, "{}", diagnostic.textInFile());
    }
}

Reloader::Reloader(EventLoop& loop, Target& target, std::string file)
    : target_(target),
      file_(std::move(file)),
      since_(secondsSince1970()),
      loader_(loop),
      unconfirmed_(loop, [this] { handleUnconfirmed(); }) {}

void Reloader::reload(Request request, bool told) {
    waiting_.push_back(std::move(request));
    if (told) doTell();
    if (reading()) return;
    if (settling_)
        doSettle(); // whoever asked before hears what has come of it so far
    else
        doBegin();
}

void Reloader::handleSignal(bool told) {
    signalled_ = true;
    if (told) doTell();
}

void Reloader::doTell() {
    if (!std::exchange(told_, true)) serviceReloading();
}

void Reloader::doBegin() {
    served_ = std::exchange(waiting_, {});
    try {
        loader_.begin(file_, [this](ConfigurationReading found, std::exception_ptr const& failure) {
            doFinish(std::move(found), failure);
        });
        signalled_ = false;
    } catch (std::exception const& error) {
        if (!served_.empty()) doRefuse(error.what());
        throw;
    }
}

std::string Reloader::objection(ConfigurationReading const& found, bool allowEmpty) const {
    if (!found.valid()) return fmt::format("{} was not taken over; nothing is changed", file_);
    if (undoAt_ > 0)
        return fmt::format("configuration #{} waits to be confirmed or undone", number_);
    if (!allowEmpty && !found.configuration.allowEmpty && target_.leavesAll(found.configuration))
        return fmt::format("{} would have every group left; --allow-empty or allow-empty = true "
                           "has it taken over all the same",
                           file_);
    return {};
}

void Reloader::doFinish(ConfigurationReading found, std::exception_ptr const& failure) {
    try {
        if (failure) std::rethrow_exception(failure);
        logDiagnostics(found.diagnostics);
        bool const allowEmpty = std::any_of(served_.begin(), served_.end(),
                                            [](Request const& each) { return each.allowEmpty; });
        if (std::string const no = objection(found, allowEmpty); !no.empty())
            return doRefuse(no, found.diagnostics);
        diagnostics_ = std::move(found.diagnostics);
        doPutInForce(std::move(found.configuration), last_ + 1);
        ++counts_.done;
        log(LogLevel::info, "{} is in force (#{})", file_, number_);
        for (Request const& each : served_)
            if (each.undoAfter > 0) undoAt_ = EventLoop::now() + each.undoAfter;
        if (undoAt_ > 0) unconfirmed_.arm(undoAt_ - EventLoop::now());
    } catch (std::exception const& error) {
        doRefuse(error.what());
        throw;
    }
}

void Reloader::doPutInForce(Configuration configuration, unsigned number) {
    target_.beginChanges();
    before_ = std::exchange(number_, number);
    last_ = std::max(last_, number);
    since_ = secondsSince1970();
    settling_ = true;
    settleBy_ = EventLoop::now() + longestSettling;
    target_.putInForce(std::move(configuration));
}

/// Makes JSON for those who asked for it alone: it cannot be made without memory.
void Reloader::doRefuse(std::string_view text, std::vector<Diagnostic> const& found) {
    log(LogLevel::error, "{}", text);
    ++counts_.refused;
    Nex::FirstError error;
    for (Request const& each : served_)
        error.attempt([&] {
            each.reply.error(
                RpcError(RpcError::refused, std::string(text), {{"diagnostics", toJson(found)}}));
        });
    doEnd();
    error.rethrow();
}

void Reloader::undo(Request request) {
    if (before_ == 0) throw RpcError(RpcError::refused, "there was no other configuration before");
    if (reading() || settling_) throw RpcError(RpcError::refused, "a reload is under way");
    served_.push_back(std::move(request));
    doUndo("undone");
}

void Reloader::confirm() {
    if (undoAt_ == 0) throw RpcError(RpcError::refused, "nothing waits to be confirmed");
    undoAt_ = 0;
    unconfirmed_.disarm();
    log(LogLevel::info, "configuration #{} is confirmed", number_);
}

void Reloader::handleUnconfirmed() {
    // What is being read now is refused, and then it is undone.
    if (reading() || settling_) return unconfirmed_.arm(anotherTrySeconds);
    doUndo("not confirmed");
}

void Reloader::doUndo(char const* why) {
    diagnostics_.clear();
    undoAt_ = 0;
    unconfirmed_.disarm();
    unsigned const undone = number_;
    ++counts_.undone;
    doPutInForce(Configuration(target_.before()), before_);
    log(LogLevel::warning, "configuration #{} is in force again: #{} was {}", number_, undone, why);
}

void Reloader::handleTurn() {
    if (settling_ && (signalled_ || target_.settled() || EventLoop::now() >= settleBy_)) doSettle();
    if (signalled_ && !reading()) doBegin();
}

void Reloader::doSettle() {
    settling_ = false;
    Nex::FirstError error;
    for (Request const& each : served_) error.attempt([&] { each.reply.result(answerJson()); });
    target_.endChanges();
    doEnd();
    error.rethrow();
}

json Reloader::answerJson() const {
    json answer{{"number", number_},
                {"diagnostics", toJson(diagnostics_)},
                {"changes", target_.changesJson()}};
    if (undoAt_ > 0) {
        answer["confirmWithin"] = std::max(0.0, undoAt_ - EventLoop::now());
        answer["otherwise"] = before_;
    }
    return answer;
}

void Reloader::doEnd() {
    served_.clear();
    if (!waiting_.empty()) return doBegin();
    if (!signalled_ && std::exchange(told_, false)) serviceNotify("READY=1");
}

json Reloader::statusJson() const {
    json status{{"file", file_}, {"number", number_}, {"since", since_}};
    if (undoAt_ > 0) status["confirmWithin"] = std::max(0.0, undoAt_ - EventLoop::now());
    return status;
}

} // namespace Agent
