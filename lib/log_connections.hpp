// What a follower of a controller's log holds: a connection for questions, and one that carries the messages.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include <velmora/controller.hpp>

#include "lib/socket_client.hpp"
#include "lib/socket_protocol.hpp"

namespace velmora::sim {

struct [[gnu::visibility("hidden")]] Log::Connections
{
    socket_client::Connection control, log;
    std::uint64_t nextMessage = 0;

    // Throws std::system_error with what connecting gave.
    explicit Connections(const std::string& socket);
    Connections(const Connections&) = delete;
    Connections& operator=(const Connections&) = delete;
    ~Connections();

    // One request and its answer; throws std::runtime_error when the controller is gone.
    template <class Request, class Answer> void ask(Request & request, Answer & answer)
    {
        require(socket_client::transact(control, &request, sizeof request, &answer, sizeof answer), control);
    }
    static void require(int result, const socket_client::Connection& connection)
    {
        if (result < 0)
            throw std::runtime_error(connection.report);
    }

private:
    void disconnect();
};

} // namespace velmora::sim
