// What the calls of a program do on a descriptor of the device, results and errno as the kernel gives them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <sys/types.h>

#include "preload/descriptor.hpp"

namespace velmora::preload {

int openNodeCall(int flags);                           // open(2) of the node
std::FILE* openNodeStream(const char* mode);           // fopen(3) of the node
std::FILE* streamOn(int descriptor, const char* mode); // fdopen(3)
// freopen(3) of the node. reopen: the C library's own, on this stream.
std::FILE* reopenOnNode(std::FILE* stream, const char* mode,
                        std::FILE* (*reopen)(const char* path, const char* mode, std::FILE* stream));
int streamFlags(const char* mode); // of open(2) for a mode of fopen(3); -1: it is none
int ioctlCall(int descriptor, std::uint32_t request, void* argument);
ssize_t transferCall(bool open); // read(2), write(2); open: the descriptor is open for it
void* mapCall(const Device& device, void* address, std::size_t bytes, int protection, int flags, int descriptor,
              std::int64_t offset);
int statusFlags(const Device& device, int flags); // fcntl(2) F_GETFL, after what the kernel says of the socket

} // namespace velmora::preload
