#include "agent/control/ControlSession.h"

#include "Nex/Error.h"
#include "agent/loop/Log.h"
#include "agent/loop/MemoryReserve.h"
#include "agent/loop/Printable.h"

#include <algorithm>
#include <cerrno>
#include <fmt/format.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Agent {

namespace {

/// Of an answer that lie ready to be sent.
constexpr std::size_t mostOutputOctets = 32 << 10;
/// How long a client may take nothing of its answer.
constexpr double patienceSeconds = 30;

/// Members that are known as a whole.
class ValuePart : public JsonPart {
  public:
    explicit ValuePart(nlohmann::json value) : value_(std::move(value)) {}
    bool next(JsonStream& stream) override {
        if (value_.empty()) return false;
        stream.add(value_.begin().key(), value_.begin().value());
        value_.erase(value_.begin());
        return true;
    }

  private:
    nlohmann::json value_;
};

bool fits(nlohmann::json const& value, RpcParameter::Kind kind) {
    switch (kind) {
    case RpcParameter::Kind::text:
        return value.is_string();
    case RpcParameter::Kind::number:
        return value.is_number();
    case RpcParameter::Kind::count:
        return value.is_number_unsigned();
    case RpcParameter::Kind::truth:
        return value.is_boolean();
    }
    return false;
}

/// Throws an RpcError for a parameter that the method does not have, or not of that kind, and for
/// one that is missing.
void doCheck(nlohmann::json const& params, std::vector<RpcParameter> const& known) {
    static constexpr char const* words[] = {"a text", "a number", "a whole number",
                                            "true or false"};
    auto const refuse = [](std::string const& text) {
        throw RpcError(RpcError::invalidParams, text);
    };
    std::string names;
    for (RpcParameter const& parameter : known) {
        auto const found = params.find(parameter.name);
        names += fmt::format("{}{}", names.empty() ? ", expected " : ", ", parameter.name);
        if (found == params.end() && parameter.required)
            refuse(fmt::format("the parameter {} is missing", parameter.name));
        if (found != params.end() && !fits(*found, parameter.kind))
            refuse(fmt::format("{} is to be {}", parameter.name, words[int(parameter.kind)]));
    }
    for (auto const& item : params.items())
        if (std::none_of(known.begin(), known.end(),
                         [&](auto const& each) { return item.key() == each.name; }))
            refuse(fmt::format("unknown parameter {}{}", printable(item.key()), names));
}

} // namespace

/// A whole message around a result or an error.
class ControlSession::AnswerPart : public JsonPart {
  public:
    AnswerPart(nlohmann::json id, char const* name, std::unique_ptr<JsonPart> content)
        : id_(std::move(id)), name_(name), content_(std::move(content)) {}
    bool next(JsonStream& stream) override {
        if (!content_) return false;
        stream.add("jsonrpc", "2.0");
        stream.add("id", id_);
        stream.open(name_, std::move(content_));
        return true;
    }

  private:
    nlohmann::json id_;
    char const* name_;
    std::unique_ptr<JsonPart> content_;
};

struct RpcReply::Owed {
    explicit Owed(std::weak_ptr<ControlSession> whose) : session(std::move(whose)) {}
    Owed(Owed const&) = delete;
    Owed& operator=(Owed const&) = delete;
    ~Owed() {
        auto const waiting = session.lock();
        if (waiting && !answered) Nex::FirstError().attempt([&] { waiting->doEnd(); });
    }

    std::weak_ptr<ControlSession> session;
    bool answered = false;
};

RpcReply::RpcReply(std::weak_ptr<ControlSession> session)
    : owed_(std::make_shared<Owed>(std::move(session))) {}

void RpcReply::result(nlohmann::json const& result) const {
    this->result(std::make_unique<ValuePart>(result));
}

void RpcReply::result(std::unique_ptr<JsonPart> result) const {
    doAnswer("result", std::move(result));
}

void RpcReply::error(RpcError const& error) const {
    doAnswer("error", std::make_unique<ValuePart>(error.toJson()));
}

void RpcReply::doAnswer(char const* name, std::unique_ptr<JsonPart> content) const {
    if (auto const session = owed_->session.lock()) session->doAnswer(name, std::move(content));
    owed_->answered = true;
}

void RpcReply::flush() const {
    if (auto const session = owed_->session.lock()) session->doFlush();
}

ControlSession::ControlSession(EventLoop& loop, FileDescriptor socket, uid_t user,
                               RpcMethods const& methods,
                               std::function<void(ControlSession&)> onEnd)
    : loop_(loop),
      socket_(std::move(socket)),
      user_(user),
      methods_(methods),
      onEnd_(std::move(onEnd)),
      lastUse_(EventLoop::now()),
      slice_(loop, [this] { doWork(); }),
      patience_(loop, [this] { doEnd(); }) {}

ControlSession::~ControlSession() { loop_.unwatch(socket_.get()); }

void ControlSession::doBegin() { doWait(); }

void ControlSession::doFlush() {
    while (!blocked_ && (answer_ || !output_.empty()) && doStep()) {
    }
}

bool ControlSession::idle() const { return requests_.empty() && output_.empty(); }

void ControlSession::handleEvents(std::uint32_t events) {
    // Both directions are closed: nobody reads an answer. What was asked before counts.
    if ((events & (EPOLLHUP | EPOLLERR)) && !(events & EPOLLIN)) return doEnd();
    blocked_ = false;
    doWork();
}

/// Goes on with whatever can go on, for one slice. Where that fails half way, it cannot go on, and
/// the client sees the end instead of waiting for more.
void ControlSession::doWork() {
    auto const held = shared_from_this(); // an answer may end the session
    double const end = EventLoop::now() + sliceSeconds;
    try {
        bool more = true;
        while (more && EventLoop::now() < end) more = doStep();
        if (onEnd_ && inputEnded_ && !more && !blocked_ && idle()) doEnd();
        if (onEnd_ && more) slice_.arm(0);
        if (onEnd_) doWait();
    } catch (...) {
        doEnd();
        throw;
    }
    if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
}

/// Returns whether more can be done now.
bool ControlSession::doStep() {
    if (!onEnd_) return false;
    if (answer_ && output_.size() - sent_ < mostOutputOctets) {
        bool const more = answer_->next();
        output_ += answer_->take();
        if (!more) doEndAnswer();
        return true;
    }
    if (!output_.empty()) return doSend();
    if (serving_) return false;
    if (!requests_.empty()) {
        doServe();
        return true;
    }
    return doTakeLine() || doReceive();
}

bool ControlSession::doSend() {
    ssize_t const sent = send(socket_.get(), output_.data() + sent_, output_.size() - sent_,
                              MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0) {
        if (errno == EINTR) return true;
        blocked_ = errno == EAGAIN;
        if (!blocked_) doEnd();
        return false;
    }
    lastUse_ = EventLoop::now();
    patience_.disarm();
    sent_ += std::size_t(sent);
    if (sent_ == output_.size()) {
        output_.clear();
        sent_ = 0;
    }
    return true;
}

bool ControlSession::doReceive() {
    if (inputEnded_) return false;
    char octets[4096];
    ssize_t const received = recv(socket_.get(), octets, sizeof octets, MSG_DONTWAIT);
    if (received < 0) {
        if (errno == EINTR) return true;
        if (errno != EAGAIN) doEnd();
        return false;
    }
    lastUse_ = EventLoop::now();
    inputEnded_ = received == 0;
    // The last line may lack its end.
    if (inputEnded_ && !input_.empty()) input_ += '\n';
    input_.append(octets, std::size_t(received));
    return true;
}

/// Reads the next line into requests. Returns whether there was one.
bool ControlSession::doTakeLine() {
    std::size_t const end = input_.find('\n');
    if (end == std::string::npos && input_.size() <= mostLineOctets) return false;
    if (MemoryReserve::isSpent()) { // what an answer takes may be refused where nobody can stop
        doEnd();
        return false;
    }
    RpcMessage message;
    if (std::min(end, input_.size()) > mostLineOctets) {
        // Where the line ends is not worth finding out.
        inputEnded_ = true;
        input_.clear();
        message = rpcFault(RpcError::invalidRequest, "the line is too long");
    } else {
        std::string const line = input_.substr(0, end);
        input_.erase(0, end + 1);
        if (input_.empty()) input_.shrink_to_fit();
        if (line.find_first_not_of(" \t\r") == std::string::npos) return true;
        message = rpcParse(line);
    }
    batch_ = message.batch;
    batchBegun_ = false;
    requests_.assign(std::make_move_iterator(message.requests.begin()),
                     std::make_move_iterator(message.requests.end()));
    return true;
}

void ControlSession::doServe() {
    RpcReply const reply(weak_from_this());
    // The answer takes the request away, and may come at once.
    RpcRequest const request = requests_.front();
    serving_ = true;
    try {
        if (request.error) throw RpcError(*request.error);
        auto const method = methods_.find(request.method);
        if (method == methods_.end())
            throw RpcError(RpcError::methodNotFound, "no method " + request.method);
        if (method->second.changes && user_ != 0 && user_ != geteuid())
            throw RpcError(RpcError::forbidden,
                           "only root and the user of the agent may ask for that");
        doCheck(request.params, method->second.parameters);
        method->second.call(request.params, reply);
    } catch (RpcError const& error) {
        reply.error(error);
    } catch (std::exception const& error) {
        reply.error(RpcError(RpcError::internalError, error.what()));
        failure_ = std::current_exception();
    }
}

void ControlSession::doAnswer(char const* name, std::unique_ptr<JsonPart> content) {
    if (!std::exchange(serving_, false)) return;
    if (requests_.front().answered) {
        if (batch_) output_ += std::exchange(batchBegun_, true) ? "," : "[";
        answer_.emplace(
            std::make_unique<AnswerPart>(std::move(requests_.front().id), name, std::move(content)),
            JsonStream::Layout::line);
    } else {
        doEndAnswer();
    }
    slice_.arm(0);
}

void ControlSession::doEndAnswer() {
    answer_.reset();
    requests_.pop_front();
    if (!output_.empty() && output_.back() == '\n' && batch_) output_.pop_back();
    if (batch_ && batchBegun_ && requests_.empty()) output_ += "]\n";
}

/// For what comes next.
void ControlSession::doWait() {
    bool const sending = !output_.empty();
    std::uint32_t awaited = 0;
    if (blocked_)
        awaited = EPOLLOUT;
    else if (!sending && requests_.empty() && !inputEnded_)
        awaited = EPOLLIN;
    loop_.watch(socket_.get(), awaited, [this](std::uint32_t events) { handleEvents(events); });
    if (sending && blocked_)
        patience_.arm(patienceSeconds);
    else
        patience_.disarm();
}

void ControlSession::doEnd() {
    if (!onEnd_) return;
    auto const held = shared_from_this();
    loop_.unwatch(socket_.get());
    slice_.disarm();
    patience_.disarm();
    answer_.reset();
    std::exchange(onEnd_, nullptr)(*this);
}

} // namespace Agent
