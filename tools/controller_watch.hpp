// Watches a controller on a connection of its own: the end of it comes with a report.
#pragma once

#include <stdexcept>
#include <string>

#include "lib/socket_client.hpp"
#include "lib/socket_protocol.hpp"

namespace velmora::tools {

class [[gnu::visibility("hidden")]] ControllerWatch // as the connection is
{
public:
    // Throws std::runtime_error with a sentence when there is no controller.
    explicit ControllerWatch(const std::string& socket)
    {
        if (socket_client::connectTo(connection_, socket.c_str()) != 0)
            throw std::runtime_error(connection_.report);
    }
    ControllerWatch(const ControllerWatch&) = delete;
    ControllerWatch& operator=(const ControllerWatch&) = delete;
    ~ControllerWatch()
    {
        socket_client::disconnect(connection_);
    }

    int descriptor() const
    {
        return connection_.descriptor;
    } // -1 once the controller is gone
    // After the descriptor can be read: why the controller is gone; empty while it is not.
    std::string report()
    {
        char message[protocol::kMostMessageBytes];
        return socket_client::receive(connection_, message, sizeof message, false) < 0 ? connection_.report : "";
    }

private:
    socket_client::Connection connection_;
};

} // namespace velmora::tools
