// The same program in C++, and the client library's header in it.
#include "prefixed_names.c" // NOLINT(bugprone-suspicious-include): the same program, in C++

#include <velmora/device.hpp>

MM_TAddr UsesTheLibrary(velmora::Device& device);
MM_TAddr UsesTheLibrary(velmora::Device& device)
{
    const MM_TSegInfoFromApp segment = device.createSegment({.name = "BLK0", .bytes = 65536, .type = MM_FLOATALIGN});
    return device.allocate(segment.hulHandle, 4096).value_or(0);
}
