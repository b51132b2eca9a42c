#pragma once

#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>

namespace velmora::tools {

// Throws std::runtime_error where the name is too long for one.
inline sockaddr_un addressOf(const std::string& path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw std::runtime_error("the socket's name '" + path + "' must have at most " +
                                 std::to_string(sizeof address.sun_path - 1) + " characters");
    path.copy(address.sun_path, path.size());
    return address;
}

} // namespace velmora::tools
