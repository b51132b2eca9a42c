// open, mmap and their kin, once for each size of a file's offset: open and open64. This file is compiled once for each, with
// the macro by which a program chooses; the C library's headers then give the functions below the other names.
#include "preload/hooks.hpp"

#include <cstdarg>
#include <cstdint>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#if defined(_FILE_OFFSET_BITS) && _FILE_OFFSET_BITS == 64
#define VELMORA_TEXT(name) #name "64"
#define VELMORA_CHECKED(name) __##name##64_2
#define VELMORA_CHECKED_TEXT(name) "__" #name "64_2"
#define VELMORA_READ_CHECKED __pread64_chk
#define VELMORA_READ_CHECKED_TEXT "__pread64_chk"
#else
#define VELMORA_TEXT(name) #name
#define VELMORA_CHECKED(name) __##name##_2
#define VELMORA_CHECKED_TEXT(name) "__" #name "_2"
#define VELMORA_READ_CHECKED __pread_chk
#define VELMORA_READ_CHECKED_TEXT "__pread_chk"
#endif

using namespace velmora::preload;

namespace {

Next<int(const char*, int, mode_t)> nextOpen(VELMORA_TEXT(open));
Next<int(const char*, int)> nextCheckedOpen(VELMORA_CHECKED_TEXT(open));
Next<int(int, const char*, int, mode_t)> nextOpenat(VELMORA_TEXT(openat));
Next<int(int, const char*, int)> nextCheckedOpenat(VELMORA_CHECKED_TEXT(openat));
Next<int(const char*, mode_t)> nextCreat(VELMORA_TEXT(creat));
Next<std::FILE*(const char*, const char*)> nextFopen(VELMORA_TEXT(fopen));
Next<std::FILE*(const char*, const char*, std::FILE*)> nextFreopen(VELMORA_TEXT(freopen));
Next<void*(void*, size_t, int, int, int, off_t)> nextMmap(VELMORA_TEXT(mmap));
Next<ssize_t(int, void*, size_t, off_t)> nextPread(VELMORA_TEXT(pread));
Next<ssize_t(int, void*, size_t, off_t, size_t)> nextCheckedPread(VELMORA_READ_CHECKED_TEXT);
Next<ssize_t(int, const void*, size_t, off_t)> nextPwrite(VELMORA_TEXT(pwrite));

// A 32-bit offset is an address above 2 GiB where it is negative.
std::int64_t wide(off_t offset)
{
    if constexpr (sizeof offset == 4)
        return static_cast<std::uint32_t>(offset);
    else
        return offset;
}

bool makesFileBehindLink(const char* path, const char* mode)
{
    const int flags = streamFlags(mode);
    return flags >= 0 && (flags & O_CREAT) != 0 && isLinkToNode(AT_FDCWD, path);
}

__attribute__((constructor)) void start()
{
    nextOpen.resolve();
    nextOpenat.resolve();
    nextMmap.resolve();
}

} // namespace

// The mode is there, or is whatever a register holds, and counts with O_CREAT only.
VELMORA_HOOK int open(const char* path, int flags, ...)
{
    std::va_list rest;
    va_start(rest, flags);
    const auto mode = static_cast<mode_t>(va_arg(rest, unsigned));
    va_end(rest);
    return openThrough(AT_FDCWD, path, flags, [=] { return nextOpen(path, flags, mode); });
}

VELMORA_HOOK int openat(int folder, const char* path, int flags, ...)
{
    std::va_list rest;
    va_start(rest, flags);
    const auto mode = static_cast<mode_t>(va_arg(rest, unsigned));
    va_end(rest);
    return openThrough(folder, path, flags, [=] { return nextOpenat(folder, path, flags, mode); });
}

// What a call of open() without a mode becomes in a program that the C library protects.
VELMORA_HOOK int VELMORA_CHECKED(open)(const char* path, int flags)
{
    return openThrough(AT_FDCWD, path, flags, [=] { return nextCheckedOpen(path, flags); });
}

VELMORA_HOOK int VELMORA_CHECKED(openat)(int folder, const char* path, int flags)
{
    return openThrough(folder, path, flags, [=] { return nextCheckedOpenat(folder, path, flags); });
}

VELMORA_HOOK int creat(const char* path, mode_t mode)
{
    return openThrough(AT_FDCWD, path, O_CREAT | O_WRONLY | O_TRUNC, [=] { return nextCreat(path, mode); });
}

VELMORA_HOOK std::FILE* fopen(const char* path, const char* mode)
{
    if (isNode(AT_FDCWD, path) || makesFileBehindLink(path, mode))
        return openNodeStream(mode);
    std::FILE* const stream = nextFopen(path, mode);
    return missedLink(stream != nullptr ? 0 : -1, AT_FDCWD, path) ? openNodeStream(mode) : stream;
}

// Without a path the stream's own file is opened again.
VELMORA_HOOK std::FILE* freopen(const char* path, const char* mode, std::FILE* stream)
{
    Device device;
    const bool meant = path == nullptr ? isKnownDevice(fileno(stream), device)
                                       : isNode(AT_FDCWD, path) || isLinkToNode(AT_FDCWD, path);
    if (meant)
        return reopenOnNode(stream, mode, [](const char* other, const char* how, std::FILE* file) {
            return nextFreopen(other, how, file);
        });
    return nextFreopen(path, mode, stream);
}

// A descriptor that arrived in a message shows itself when the kernel does not map a socket.
VELMORA_HOOK void* mmap(void* address, size_t bytes, int protection, int flags, int descriptor, off_t offset) noexcept
{
    const bool anonymous = descriptor < 0 || (flags & MAP_ANONYMOUS) != 0;
    Device device;
    if (!anonymous && isKnownDevice(descriptor, device))
        return mapCall(device, address, bytes, protection, flags, descriptor, wide(offset));
    void* const mapped = nextMmap(address, bytes, protection, flags, descriptor, offset);
    if (mapped == MAP_FAILED && !anonymous && errno == ENODEV && isDevice(descriptor, device))
        return mapCall(device, address, bytes, protection, flags, descriptor, wide(offset));
    return mapped;
}

VELMORA_HOOK ssize_t pread(int descriptor, void* to, size_t bytes, off_t offset)
{
    Device device;
    return isKnownDevice(descriptor, device) ? transferCall(device.readable) : nextPread(descriptor, to, bytes, offset);
}

VELMORA_HOOK ssize_t VELMORA_READ_CHECKED(int descriptor, void* to, size_t bytes, off_t offset, size_t room)
{
    Device device;
    return isKnownDevice(descriptor, device) ? transferCall(device.readable)
                                             : nextCheckedPread(descriptor, to, bytes, offset, room);
}

VELMORA_HOOK ssize_t pwrite(int descriptor, const void* from, size_t bytes, off_t offset)
{
    Device device;
    return isKnownDevice(descriptor, device) ? transferCall(device.writable)
                                             : nextPwrite(descriptor, from, bytes, offset);
}
