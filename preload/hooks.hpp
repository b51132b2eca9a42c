// How a function of the C library is replaced: declared there, defined here under the same name, visible to the program.
#pragma once

#include <cerrno>
#include <sys/ioctl.h>

#include "preload/descriptor.hpp"
#include "preload/device_calls.hpp"
#include "preload/next.hpp"
#include "preload/node.hpp"

#define VELMORA_HOOK extern "C" __attribute__((visibility("default")))

namespace velmora::preload {

// What the kernel does for every file stays with it; everything else is the driver's. A descriptor that arrived in a message
// shows itself when a socket does not know the request.
template <class Following> int ioctlThrough(Following& next, int descriptor, unsigned long request, void* argument)
{
    const auto number = static_cast<std::uint32_t>(request); // as the kernel has it
    const bool kernels = number == FIOCLEX || number == FIONCLEX || number == FIONBIO || number == FIOASYNC;
    Device device;
    if (!kernels && isKnownDevice(descriptor, device))
        return ioctlCall(descriptor, number, argument);
    const int result = next(descriptor, request, argument);
    return result < 0 && errno == ENOTTY && isDevice(descriptor, device) ? ioctlCall(descriptor, number, argument)
                                                                         : result;
}

} // namespace velmora::preload
