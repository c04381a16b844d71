// The control socket without an agent behind it: what a client may send and how it may behave.
#include "Nex/Trace.h"
#include "agent/answers/Trace.h"
#include "agent/control/ControlServer.h"
#include "agent/control/ControlSession.h"
#include "agent/control/UnixSocket.h"
#include "agent/loop/LoopFixture.h"
#include "support/Folder.h"

#include <fmt/format.h>
#include <sys/stat.h>

namespace Agent {
namespace {

using nlohmann::json;

/// Members without end, and how many of them were asked for.
struct Endless : JsonPart {
    explicit Endless(std::size_t& made) : made(made) {}
    bool next(JsonStream& stream) override {
        stream.add(std::to_string(made++), std::string(100, 'x'));
        return true;
    }
    std::size_t& made;
};

struct Broken : JsonPart {
    bool next(JsonStream&) override { throw std::bad_alloc(); }
};

class ControlTest : public LoopFixture {
  protected:
    ControlTest() {
        methods["echo"].call = [](json const& params, RpcReply const& reply) {
            reply.result(params);
        };
        methods["echo"].parameters = {{"a", RpcParameter::Kind::count},
                                      {"b", RpcParameter::Kind::text}};
        methods["needy"] = methods["echo"];
        methods["needy"].parameters.front().required = true;
        methods["later"].call = [this](json const&, RpcReply const& reply) { later = reply; };
        methods["endless"].call = [this](json const&, RpcReply const& reply) {
            reply.result(std::make_unique<Endless>(made));
        };
        methods["broken"].call = [](json const&, RpcReply const& reply) {
            reply.result(std::make_unique<Broken>());
        };
        methods["forgotten"].call = [](json const&, RpcReply const&) {};
        methods["refuse"].call = [](json const&, RpcReply const&) {
            throw RpcError(RpcError::refused, "not now", {{"key", 1}});
        };
        methods["change"] = {true, [](json const&, RpcReply const& reply) {
                                 reply.result({{"changed", true}});
                             }};
    }

    FileDescriptor connected() const {
        FileDescriptor socket = unixSocket(SOCK_NONBLOCK);
        EXPECT_TRUE(unixConnect(socket, path));
        return socket;
    }
    static void send(FileDescriptor const& socket, std::string const& text) {
        EXPECT_EQ(write(socket.get(), text.data(), text.size()), ssize_t(text.size()));
    }
    static void sendLine(FileDescriptor const& socket, std::string const& line) {
        send(socket, line + '\n');
    }
    /// What comes by `socket`, once that is no less than `octets`.
    std::string brought(FileDescriptor const& socket, std::size_t octets) {
        std::string read;
        serveUntil([&] {
            char piece[4096];
            ssize_t const count = ::read(socket.get(), piece, sizeof piece);
            if (count > 0) read.append(piece, std::size_t(count));
            return read.size() >= octets;
        });
        return read;
    }
    void expect(FileDescriptor const& socket, std::string const& answer) {
        EXPECT_EQ(brought(socket, answer.size()), answer);
    }
    bool ends(FileDescriptor const& socket) {
        char octet = 0;
        return serveUntil([&] { return ::read(socket.get(), &octet, 1) == 0; });
    }

    Support::Folder folder;
    std::string const path = folder.file("control");
    RpcMethods methods;
    std::optional<RpcReply> later;
    std::size_t made = 0;
};

std::string asked(std::string const& method) {
    return R"({"jsonrpc":"2.0","id":1,"method":")" + method + R"(","params":{}})";
}
std::string answered(std::string const& result) {
    return R"({"jsonrpc": "2.0","id": 1,"result": )" + result + "}\n";
}
std::string failed(std::string const& id, int code, std::string const& text) {
    return R"({"jsonrpc": "2.0","id": )" + id + R"(,"error": {"code": )" + std::to_string(code) +
           R"(,"message": ")" + text + "\"}}\n";
}

/// The file has lines of a client behind ">", each with its answer below it, if there is one.
TEST_F(ControlTest, EachLineHasItsAnswerInTurn) {
    ControlServer const server(loop, path, methods);
    FileDescriptor const one = connected();
    FileDescriptor const all = connected();
    std::ifstream exchanges(IHP_EXCHANGES);
    std::string answers;
    for (std::string line; std::getline(exchanges, line);) {
        SCOPED_TRACE(line);
        std::string const text = line.substr(1) + '\n';
        if (line[0] == '>') {
            send(one, text);
            send(all, text);
        } else {
            expect(one, text);
            answers += text;
        }
    }
    EXPECT_FALSE(answers.empty());
    expect(all, answers);
    sendLine(one, "{");
    std::string const unreadable = R"({"jsonrpc": "2.0","id": null,"error": {"code": -32700)";
    EXPECT_TRUE(brought(one, unreadable.size()).starts_with(unreadable));
    // A last line without its end counts, and an answer that comes late.
    send(one, asked("later"));
    shutdown(one.get(), SHUT_WR);
    ASSERT_TRUE(serveUntil([&] { return later.has_value(); }));
    later->result({{"late", true}});
    expect(one, answered(R"({"late": true})"));
    EXPECT_TRUE(ends(one));
    later->result({{"late", true}}); // nobody is there
    later.reset();
    sendLine(connected(), asked("later")); // and goes
    EXPECT_TRUE(serveUntil([&] { return later.has_value(); }));
    sendLine(connected(), asked("echo")); // and does not wait for its answer
    FileDescriptor const next = connected();
    sendLine(next, asked("echo"));
    expect(next, answered("{}"));
}

TEST_F(ControlTest, NobodyWaitsForAnAnswerThatDoesNotCome) {
    ControlServer const server(loop, path, methods);
    for (char const* const method : {"broken", "forgotten", "later"}) {
        FileDescriptor const client = connected();
        sendLine(client, asked(method));
        if (method == std::string("later")) {
            ASSERT_TRUE(serveUntil([&] { return later.has_value(); }));
            later.reset();
        }
        EXPECT_TRUE(ends(client)) << method;
    }
}

TEST_F(ControlTest, NobodyCostsMoreThanABoundedAmount) {
    ControlServer const server(loop, path, methods);
    FileDescriptor const slow = connected();
    sendLine(slow, asked("endless"));
    std::size_t before = 1;
    serveUntil([&] { return made > 0 && std::exchange(before, made) == made; });
    EXPECT_LT(made, 10000u); // what sockets hold, and a piece
    EXPECT_GT(made, 100u);
    FileDescriptor const endless = connected();
    std::string const much(ControlSession::mostLineOctets + 1, ' ');
    send(endless, much);
    expect(endless, failed("null", -32600, "the line is too long"));
    EXPECT_TRUE(ends(endless));
    // Silent ones make room, the first to fall silent first.
    std::string const echoed = answered("{}");
    std::vector<FileDescriptor> silent;
    for (std::size_t i = 0; i < ControlServer::mostSessions + 10; ++i) {
        silent.push_back(connected());
        sendLine(silent.back(), asked("echo"));
        ASSERT_EQ(brought(silent.back(), echoed.size()), echoed) << i;
    }
    EXPECT_TRUE(ends(silent.front()));
    sendLine(silent.back(), asked("echo"));
    expect(silent.back(), echoed);
}

TEST_F(ControlTest, AnotherUserIsKnownByTheConnectionAndMayChangeNothing) {
    ControlServer const server(loop, path, methods);
    FileDescriptor const user = connected();
    sendLine(user, asked("change"));
    expect(user, answered(R"({"changed": true})"));
    ASSERT_EQ(chmod(folder.file("").c_str(), 0755), 0);
    ASSERT_EQ(chmod(path.c_str(), 0666), 0);
    uid_t const own = geteuid();
    if (seteuid(65534) != 0 || own == 65534) GTEST_SKIP() << "may not be another user";
    FileDescriptor const nobody = connected();
    ASSERT_EQ(seteuid(own), 0);
    sendLine(nobody, asked("echo"));
    sendLine(nobody, asked("change"));
    expect(nobody, answered("{}") +
                       failed("1", -32001, "only root and the user of the agent may ask for that"));
}

TEST_F(ControlTest, ADeadSocketIsReplacedAndALiveOneIsNot) {
    {
        FileDescriptor const dead = unixSocket();
        sockaddr_un const address = unixAddress(path);
        ASSERT_EQ(bind(dead.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address), 0);
    }
    {
        ControlServer const server(loop, path, methods);
        struct stat status {};
        ASSERT_EQ(stat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0660u);
        EXPECT_THROW(ControlServer(loop, path, methods), std::system_error);
        EXPECT_TRUE(std::filesystem::exists(path));
    }
    EXPECT_FALSE(std::filesystem::exists(path));
    std::ofstream(path) << "kept";
    EXPECT_THROW(ControlServer(loop, path, methods), std::system_error);
    EXPECT_EQ(std::filesystem::file_size(path), 4u) << "of no socket";
    EXPECT_THROW(ControlServer(loop, std::string(200, 'x'), methods), std::system_error);
    EXPECT_THROW(ControlServer(loop, "/no/such/folder", methods), std::system_error);
}

Nex::TraceHandle traced("ControlTest");

TEST(TraceAnswerTest, WhatIsSaidSeveralTimesInARowIsOneEntry) {
    for (int const value : {1, 2, 2, 2, 1, 1}) NEX_TRACE(traced, 3, "value %", value);
    auto const told = [](std::uint64_t most, bool all) {
        JsonStream stream(std::make_unique<ListPart>("entries", traceAnswer(most, all)));
        while (stream.next()) {
        }
        std::string text;
        json const answer = json::parse(stream.take());
        for (json const& each : answer.at("entries"))
            text += fmt::format("{}*{} ", each.at("text").get<std::string>(),
                                each.at("times").get<int>());
        return text;
    };
    EXPECT_EQ(told(2, false), "value 2*3 value 1*2 ");
    EXPECT_EQ(told(3, false), "value 1*1 value 2*3 value 1*2 ");
    EXPECT_EQ(told(3, true), "value 2*1 value 1*1 value 1*1 ");
    EXPECT_EQ(told(0, false), "");
    EXPECT_TRUE(told(UINT64_MAX, false).ends_with(told(3, false)));
}

} // namespace
} // namespace Agent
