// Lines to the control socket, down to the parameters of a method that picks groups.
#include "agent/answers/Groups.h"
#include "agent/control/ControlSession.h"
#include "agent/loop/Json.h"

#include <cstdlib>
#include <sys/socket.h>
#include <unistd.h>

using namespace Agent;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    using enum RpcParameter::Kind;
    RpcMethods methods;
    methods["groups"].parameters = {{"interface", text, true}, {"origin", text}, {"groups", text},
                                    {"last", count},           {"all", truth},   {"for", number}};
    methods["groups"].call = [](nlohmann::json const& params, RpcReply const& reply) {
        reply.result({{"of", GroupFilter::fromJson(params).interface}});
    };
    EventLoop loop;
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) < 0) std::abort();
    FileDescriptor const client(ends[0]);
    auto const session = std::make_shared<ControlSession>(
        loop, FileDescriptor(ends[1]), geteuid(), methods, [&](ControlSession&) { loop.stop(0); });
    if (write(client.get(), data, size) != ssize_t(size)) std::abort();
    shutdown(client.get(), SHUT_WR);
    session->doBegin();
    loop.run();
    std::string answers(1 << 20, '\0');
    ssize_t const length = recv(client.get(), answers.data(), answers.size(), MSG_DONTWAIT);
    answers.resize(length > 0 ? std::size_t(length) : 0);
    // None tells of an error of our own.
    if (answers.find("\"code\": -32603") != std::string::npos) std::abort();
    return 0;
}
