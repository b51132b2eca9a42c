#include "preload/device_calls.hpp"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "preload/commands.hpp"
#include "preload/mappings.hpp"
#include "preload/next.hpp"

namespace velmora::preload {

namespace {

constexpr std::int64_t kPageBytes = 4096;

Next<decltype(mmap64)> nextMmap("mmap64");

int failed(int code)
{
    errno = code;
    return -1;
}

void* notMapped(int code)
{
    errno = code;
    return MAP_FAILED;
}

int descriptorOf(void* cookie)
{
    return static_cast<int>(reinterpret_cast<std::intptr_t>(cookie));
}

// A mapping of a descriptor that was opened for reading stays without write permission, so its memory is opened so.
int readOnly(int descriptor)
{
    char path[32];
    std::snprintf(path, sizeof path, "/proc/self/fd/%d", descriptor);
    const auto opened = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, O_RDONLY | O_CLOEXEC));
    if (opened < 0)
        return descriptor;
    syscall(SYS_close, descriptor);
    return opened;
}

// Why the kernel would not ask the driver; 0: it would.
int mapRefusal(const Device& device, std::uint64_t bytes, int protection, int flags, std::int64_t offset)
{
    const int kind = flags & MAP_TYPE;
    const bool shared = kind == MAP_SHARED || kind == MAP_SHARED_VALIDATE;
    if (bytes == 0 || offset % kPageBytes != 0 || (!shared && kind != MAP_PRIVATE))
        return EINVAL;
    if (offset >> 44 != 0 && offset >> 44 != -1) // page numbers have 32 bits
        return EINVAL;
    if (bytes > UINT32_MAX - static_cast<std::uint64_t>(kPageBytes))
        return ENOMEM;
    if (!device.readable || (shared && (protection & PROT_WRITE) != 0 && !device.writable))
        return EACCES;
    return 0;
}

} // namespace

int openNodeCall(int flags)
{
    const int result = openDevice(flags);
    return result < 0 ? failed(-result) : result;
}

int ioctlCall(int descriptor, std::uint32_t request, void* argument)
{
    if (!isAlive(descriptor))
        return failed(ENODEV);
    constexpr int lastError = -4095;
    const int result = command(request, argument);
    return result < 0 && result >= lastError ? failed(-result) : result;
}

ssize_t transferCall(bool open)
{
    return failed(open ? ENOSYS : EBADF);
}

void* mapCall(const Device& device, void* address, std::size_t bytes, int protection, int flags, int descriptor,
              std::int64_t offset)
{
    if (const int refusal = mapRefusal(device, bytes, protection, flags, offset))
        return notMapped(refusal);
    if (!isAlive(descriptor))
        return notMapped(ENODEV);
    const auto pages = (static_cast<std::uint64_t>(bytes) + kPageBytes - 1) / kPageBytes;
    Granted granted;
    const int result = map(static_cast<std::uint32_t>(offset / kPageBytes),
                           static_cast<std::uint32_t>(pages * kPageBytes), device.sync, granted);
    if (result != 0)
        return notMapped(result < 0 ? -result : EIO);
    if (!device.writable)
        granted.descriptor = readOnly(granted.descriptor);
    void* const mapped =
        nextMmap(address, bytes, protection, flags, granted.descriptor, static_cast<off64_t>(granted.offset));
    const KeepErrno keep;
    syscall(SYS_close, granted.descriptor);
    noteMapping();
    return mapped;
}

int statusFlags(const Device& device, int flags)
{
    const int access = !device.writable ? O_RDONLY : device.readable ? O_RDWR : O_WRONLY;
    return (flags & ~O_ACCMODE) | access | (device.sync ? O_SYNC : 0);
}

// Streams ---------------------------------------------------------------------------------------------

int streamFlags(const char* mode)
{
    const bool both = std::strchr(mode, '+') != nullptr;
    int flags = 0;
    switch (mode[0]) {
    case 'r': flags = both ? O_RDWR : O_RDONLY; break;
    case 'w': flags = (both ? O_RDWR : O_WRONLY) | O_CREAT | O_TRUNC; break;
    case 'a': flags = (both ? O_RDWR : O_WRONLY) | O_CREAT | O_APPEND; break;
    default: return -1;
    }
    for (const char* letter = mode + 1; *letter != 0 && *letter != ','; ++letter)
        flags |= *letter == 'e' ? O_CLOEXEC : *letter == 'x' ? O_EXCL : 0;
    return flags;
}

namespace {

ssize_t readStream(void*, char*, std::size_t)
{
    return transferCall(true);
}

// Zero is the failure of such a stream's write.
ssize_t writeStream(void*, const char*, std::size_t)
{
    errno = ENOSYS;
    return 0;
}

int seekStream(void*, off64_t*, int)
{
    return failed(ESPIPE);
}

int closeStream(void* cookie)
{
    return close(descriptorOf(cookie));
}

} // namespace

// The C library's own streams read and write without asking this library, so the device's have functions of their own. The
// stream knows its descriptor, for fileno().
std::FILE* streamOn(int descriptor, const char* mode)
{
    if (streamFlags(mode) < 0) {
        errno = EINVAL;
        return nullptr;
    }
    const cookie_io_functions_t functions = {readStream, writeStream, seekStream, closeStream};
    std::FILE* const stream =
        fopencookie(reinterpret_cast<void*>(static_cast<std::intptr_t>(descriptor)), mode, functions);
    if (stream == nullptr)
        return nullptr;
    stream->_fileno = descriptor;
    stream->_wide_data = nullptr; // no wide letters: freopen() looks there otherwise
    return stream;
}

std::FILE* openNodeStream(const char* mode)
{
    const int flags = streamFlags(mode);
    if (flags < 0) {
        errno = EINVAL;
        return nullptr;
    }
    const int descriptor = openNodeCall(flags);
    if (descriptor < 0)
        return nullptr;
    std::FILE* const stream = streamOn(descriptor, mode);
    if (stream == nullptr) {
        const KeepErrno keep;
        close(descriptor);
    }
    return stream;
}

// The stream stays the program's, so it cannot have functions of its own: its descriptor becomes the device's, and the C
// library is told that it can neither be read nor written.
std::FILE* reopenOnNode(std::FILE* stream, const char* mode,
                        std::FILE* (*reopen)(const char* path, const char* mode, std::FILE* stream))
{
    constexpr int noReads = 4, noWrites = 8; // of the C library's _flags
    const int flags = streamFlags(mode);
    const int device = flags < 0 ? failed(EINVAL) : openNodeCall(flags);
    if (device < 0) {
        const KeepErrno keep;
        reopen("/dev/null/", "r", stream); // no folder: closes the stream, as every failure does
        return nullptr;
    }
    std::FILE* const reopened = reopen("/dev/null", "r+", stream);
    const KeepErrno keep;
    if (reopened != nullptr) {
        dup3(device, fileno(reopened), flags & O_CLOEXEC);
        reopened->_flags |= noReads | noWrites;
    }
    close(device);
    return reopened;
}

} // namespace velmora::preload
