// The way of the configuration file into force while the agent runs: it is read beside the loop,
// judged, put in force, and whoever asked is answered once everything that follows from it has been
// worked off. The configuration before it can be returned to, and is where nobody confirms the new
// one in time.
//
// One alarm: it returns to the configuration before.
#pragma once

#include "agent/control/RpcMethod.h"
#include "agent/loop/Alarm.h"
#include "agent/reload/ConfigurationLoader.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

/// Writes what reading a file has found to the log.
void logDiagnostics(std::vector<Diagnostic> const& diagnostics);

class Reloader {
  public:
    /// What a configuration is put in force in.
    class Target {
      public:
        virtual ~Target() = default;
        /// In force before the one that is.
        virtual Configuration const& before() const = 0;
        virtual void putInForce(Configuration configuration) = 0;
        /// The end of a turn: takes in the interfaces that have come to match its patterns, and out
        /// those that have gone.
        virtual void followPatterns() = 0;
        /// Whether all that follows from it has come to the groups.
        virtual bool settled() const = 0;
        /// Whether groups are announced, and none of them would be kept.
        virtual bool leavesAll(Configuration const& configuration) const = 0;
        /// Until the end of that, what changes is known.
        virtual void beginChanges() = 0;
        virtual nlohmann::json changesJson() const = 0;
        virtual void endChanges() = 0;
    };

    struct Request {
        RpcReply reply;
        /// Return to what is in force if nobody confirms within these seconds; 0 for never.
        double undoAfter = 0;
        /// Whether a configuration may have every group left.
        bool allowEmpty = false;
    };

    /// `loop` and `target` outlive this. The first configuration is in force.
    Reloader(EventLoop& loop, Target& target, std::string file);

    /// Has the file read once more, as it is now or later. `told`: the service manager hears of it.
    void reload(Request request, bool told);
    /// The same at the end of the turn. Nobody would hear that it could not be, so that is tried
    /// until the reading has begun.
    void handleSignal(bool told);
    /// Returns to the configuration before, and the next time back again. Throws an RpcError.
    void undo(Request request);
    /// Keeps a configuration that was to be undone. Throws an RpcError.
    void confirm();
    /// The end of a turn.
    void handleTurn();

    bool reading() const { return loader_.reading(); }
    /// Why a reload would not put in force what a file holds; empty if it would. `allowEmpty`:
    /// whether it may have every group left.
    std::string objection(ConfigurationReading const& found, bool allowEmpty) const;
    nlohmann::json statusJson() const;
    unsigned number() const { return number_; }
    struct Counts {
        std::uint64_t done = 0, refused = 0, undone = 0;
    };
    Counts const& counts() const { return counts_; }

  private:
    void doTell();
    void doBegin();
    void doFinish(ConfigurationReading found, std::exception_ptr const& failure);
    void doPutInForce(Configuration configuration, unsigned number);
    void doRefuse(std::string_view text, std::vector<Diagnostic> const& found = {});
    nlohmann::json answerJson() const;
    void doSettle();
    void doEnd();
    void handleUnconfirmed();
    void doUndo(char const* why);

    Target& target_;
    std::string file_;
    unsigned number_ = 1; ///< of the configuration in force
    unsigned before_ = 0; ///< of the one before; 0 for none
    unsigned last_ = 1;   ///< the highest so far
    Counts counts_;
    double since_;                 ///< when it was put in force, in seconds since 1970
    bool signalled_ = false;       ///< and no reading has begun since
    std::vector<Request> waiting_; ///< for a reading that has not begun
    std::vector<Request> served_;  ///< by what is being read or worked off
    bool told_ = false;            ///< the service manager, that a reload has begun
    ConfigurationLoader loader_;
    bool settling_ = false;
    double settleBy_ = 0;
    std::vector<Diagnostic> diagnostics_; ///< of what is in force
    double undoAt_ = 0;                   ///< if nobody confirms; 0: nobody has to
    Alarm unconfirmed_;
};

} // namespace Agent
