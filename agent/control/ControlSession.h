// One client of the control socket: its requests, one after the other, and their answers. What it
// does not read is not made: a slow client holds up nobody but itself, and costs one line of a
// request, one piece of an answer, and the place where the answer goes on.
//
// Two alarms: one goes on with an answer in the next turn, the other ends a session whose client
// takes none of its answer for half a minute.
#pragma once

#include "agent/control/JsonRpc.h"
#include "agent/control/RpcMethod.h"
#include "agent/loop/Alarm.h"
#include "agent/loop/FileDescriptor.h"
#include "agent/records/JsonStream.h"

#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>

namespace Agent {

class ControlSession : public std::enable_shared_from_this<ControlSession> {
  public:
    /// `onEnd` is called once, in the last turn of the session, and may destroy it. `loop` and
    /// `methods` outlive this.
    ControlSession(EventLoop& loop, FileDescriptor socket, uid_t user, RpcMethods const& methods,
                   std::function<void(ControlSession&)> onEnd);
    ~ControlSession();
    ControlSession(ControlSession const&) = delete;
    ControlSession& operator=(ControlSession const&) = delete;

    /// To be called once somebody holds it.
    void doBegin();
    /// Makes and sends answers for as long as the client takes them.
    void doFlush();
    /// Nothing is asked for, or being answered.
    bool idle() const;
    double lastUse() const { return lastUse_; }

    /// Longer lines are not read.
    static constexpr std::size_t mostLineOctets = 64 << 10;

  private:
    friend class RpcReply;
    class AnswerPart;

    void handleEvents(std::uint32_t events);
    void doWork();
    bool doStep();
    bool doSend();
    bool doReceive();
    bool doTakeLine();
    void doServe();
    void doAnswer(char const* name, std::unique_ptr<JsonPart> content);
    void doEndAnswer();
    void doWait();
    void doEnd();

    EventLoop& loop_;
    FileDescriptor socket_;
    uid_t user_;
    RpcMethods const& methods_;
    std::function<void(ControlSession&)> onEnd_;
    double lastUse_;
    std::string input_;
    bool inputEnded_ = false;
    std::deque<RpcRequest> requests_; ///< of the line at hand; the first is being served
    bool batch_ = false;
    bool batchBegun_ = false;          ///< something of its answer has been written
    bool serving_ = false;             ///< the first request waits for its answer
    std::exception_ptr failure_;       ///< of one that has been answered, for the log
    std::optional<JsonStream> answer_; ///< to the first request
    std::string output_;
    std::size_t sent_ = 0; ///< octets of that
    bool blocked_ = false; ///< until the socket takes more
    Alarm slice_;
    Alarm patience_;
};

} // namespace Agent
