// What a recorder stands in front of: a device with the protocol of a controller's socket, which a real one gets here.
#pragma once

#include <memory>
#include <string>

namespace velmora::tools {

class Recorded
{
public:
    Recorded() = default;
    Recorded(const Recorded&) = delete;
    Recorded& operator=(const Recorded&) = delete;
    virtual ~Recorded() = default;

    // As --device has it.
    virtual std::string name() const = 0;
    // The lines of a recording before the first that says what was asked: a controller with this area.
    virtual std::string beginning() const = 0;
    // A connection of a new program's, the caller's to close; -1 when the device cannot be reached.
    virtual int connect() = 0;
};

// The controller at a socket.
std::unique_ptr<Recorded> recordedController(const std::string& socket);

// A real kernel's device, by its node. area: "START-END" as the module's parameter has it; empty: the kernel log says it. Throws
// std::runtime_error with a sentence when the device cannot be opened, or nothing says where its area lies; UsageError where area is no area.
std::unique_ptr<Recorded> recordedNode(const std::string& path, const std::string& area);

} // namespace velmora::tools
