// The device of a simulated controller, reached through its socket.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include <velmora/device.hpp>

#pragma GCC visibility push(hidden) // no part of the shared library's ABI
namespace velmora {

// Which device openNode(path) means; the socket that a device's name has, if it is a controller's.
std::string deviceName(const std::string& path);
std::optional<std::string> socketIn(const std::string& device);

// The socket that an empty path means, another one as it is. Throws std::system_error when the name is too long.
std::string socketOrDefault(const std::string& path);

// Connects and opens; an empty path is the default socket. Throws as openNode() does.
std::unique_ptr<Channel> openSocket(const std::string& path);

} // namespace velmora
#pragma GCC visibility pop
