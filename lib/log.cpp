#include <cerrno>
#include <cstddef>
#include <system_error>

#include "lib/log_connections.hpp"
#include "lib/socket_channel.hpp"

namespace velmora::sim {

using namespace protocol;
using socket_client::Connection;

Log::Connections::Connections(const std::string& socket)
{
    for (Connection* const connection : {&control, &log})
        if (const int result = socket_client::connectTo(*connection, socket.c_str()); result != 0) {
            const std::string why = connection->report;
            disconnect();
            throw std::system_error(-result, std::generic_category(), why);
        }
    FollowLog request{};
    request.header.kind = Kind::FollowLog;
    request.flags = kFromStart;
    Plain answer;
    const int result = socket_client::transact(log, &request, sizeof request, &answer, sizeof answer);
    if (result < 0) {
        const std::string why = log.report;
        disconnect();
        throw std::system_error(-result, std::generic_category(), why);
    }
}

Log::Connections::~Connections()
{
    disconnect();
}

void Log::Connections::disconnect()
{
    socket_client::disconnect(control);
    socket_client::disconnect(log);
}

Log::Log(const std::string& device)
{
    const std::string name = deviceName(device);
    const auto socket = socketIn(name);
    if (!socket)
        throw std::system_error(ENOTSUP, std::generic_category(), "the log of " + name + " is its kernel's");
    connections_ = std::make_unique<Connections>(socketOrDefault(*socket));
}

Log::~Log() = default;

std::vector<std::string> Log::take()
{
    Status request{};
    request.header.kind = Kind::Status;
    StatusAnswer status{};
    connections_->ask(request, status);

    std::vector<std::string> messages;
    struct {
        LogMessage head;
        char text[kMostText];
    } message;
    while (connections_->nextMessage < status.logMessages) {
        const int bytes = socket_client::receive(connections_->log, &message, sizeof message, true);
        Connections::require(bytes, connections_->log);
        if (static_cast<std::size_t>(bytes) < sizeof message.head)
            throw std::runtime_error("the controller's log cannot be understood");
        const std::uint64_t lost =
            connections_->nextMessage == 0 ? 0 : message.head.lost; // not what was before it came
        connections_->nextMessage = message.head.number + 1;
        if (lost != 0)
            throw std::runtime_error("the controller's log has lost " + std::to_string(lost) + " messages");
        messages.emplace_back(message.text, static_cast<std::size_t>(bytes) - sizeof message.head);
    }
    return messages;
}

} // namespace velmora::sim
