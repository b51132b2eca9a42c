// The device of a simulated controller, reached through its socket.
#pragma once

#include <memory>
#include <string>

#include <velmora/device.hpp>

#pragma GCC visibility push(hidden) // no part of the shared library's ABI
namespace velmora {

// Connects and opens; an empty path is the default socket. Throws as openNode() does.
std::unique_ptr<Channel> openSocket(const std::string& path);

} // namespace velmora
#pragma GCC visibility pop
