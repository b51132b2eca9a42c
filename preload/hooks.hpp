// How a function of the C library is replaced: declared there, defined here under the same name, visible to the program.
#pragma once

#include <cerrno>
#include <fcntl.h>
#include <sys/ioctl.h>

#include "preload/descriptor.hpp"
#include "preload/device_calls.hpp"
#include "preload/next.hpp"
#include "preload/node.hpp"

#define VELMORA_HOOK extern "C" __attribute__((visibility("default")))

namespace velmora::preload {

// After a call that follows links: did it fail because the kernel knows no node behind one?
inline bool missedLink(int result, int folder, const char* path)
{
    return result < 0 && errno == ENOENT && isLinkToNode(folder, path);
}

// Opens the node, or what else the path leads to. A link to the node leads to nowhere for the kernel, which would make a file
// there for those that ask for one.
template <class Otherwise> int openThrough(int folder, const char* path, int flags, Otherwise otherwise)
{
    const bool makes = (flags & (O_CREAT | O_NOFOLLOW)) == O_CREAT;
    if (isNode(folder, path) || (makes && isLinkToNode(folder, path)))
        return openNodeCall(flags);
    const int result = otherwise();
    return missedLink(result, folder, path) ? openNodeCall(flags) : result;
}

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
