#include "preload/descriptor.hpp"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include "lib/socket_client.hpp"
#include "preload/commands.hpp"
#include "preload/next.hpp"
#include "preload/node.hpp"
#include "preload/undisturbed.hpp"

namespace velmora::preload {

namespace {

// The name after its first zero byte: this, then 'r', 'w' and 's' or '-' in their place, then a random number.
constexpr char kDeviceName[] = "velmora-mm/device/";
constexpr std::size_t kDeviceNameLength = sizeof kDeviceName - 1;
constexpr std::size_t kKindLength = 3;

constexpr int kMostMarks = 4096;
std::atomic<bool> marks[kMostMarks]; // descriptors that may be devices
std::atomic<bool> markedBeyond;

void mark(int descriptor)
{
    if (descriptor >= 0 && descriptor < kMostMarks)
        marks[descriptor].store(true, std::memory_order_relaxed);
    else if (descriptor >= 0)
        markedBeyond.store(true, std::memory_order_relaxed);
}

bool isMarked(int descriptor)
{
    if (descriptor >= 0 && descriptor < kMostMarks)
        return marks[descriptor].load(std::memory_order_relaxed);
    return descriptor >= 0 && markedBeyond.load(std::memory_order_relaxed);
}

// An abstract name of the socket, without its zero byte; empty when it has none, or is no socket.
std::size_t abstractName(int socket, char* name, std::size_t room)
{
    const KeepErrno keep;
    sockaddr_un address = {};
    socklen_t length = sizeof address;
    if (getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) != 0 || address.sun_family != AF_UNIX ||
        length <= offsetof(sockaddr_un, sun_path) + 1 || address.sun_path[0] != 0)
        return 0;
    const std::size_t bytes = length - offsetof(sockaddr_un, sun_path) - 1;
    if (bytes >= room)
        return 0;
    std::memcpy(name, address.sun_path + 1, bytes);
    name[bytes] = 0;
    return bytes;
}

std::uint64_t randomNumber()
{
    std::uint64_t number;
    if (getrandom(&number, sizeof number, GRND_NONBLOCK) == sizeof number)
        return number;
    static std::atomic<std::uint32_t> count;
    return static_cast<std::uint64_t>(getpid()) << 32 | count++;
}

// A code of a connection as one of open(2).
int openCode(int code)
{
    switch (-code) {
    case EACCES:
    case EPERM:
    case EMFILE:
    case ENFILE:
    case ENOMEM:
    case ENOBUFS: return code;
    default: return -ENXIO; // a node whose driver is not there
    }
}

// What the flags ask of the descriptor beside access; a socket has close-on-exec at first, for forks in between.
void applyFlags(int descriptor, int flags)
{
    shutdown(descriptor, SHUT_RD); // nothing waits in a read() that this library does not see
    if ((flags & O_NONBLOCK) != 0)
        fcntl(descriptor, F_SETFL, O_NONBLOCK);
    if ((flags & O_CLOEXEC) == 0)
        fcntl(descriptor, F_SETFD, 0);
}

} // namespace

bool nameSocket(int socket, const char* beginning, char* name, unsigned room)
{
    for (int attempt = 0; attempt < 3; ++attempt) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        const int length = std::snprintf(address.sun_path + 1, sizeof address.sun_path - 1, "%s%016llx", beginning,
                                         static_cast<unsigned long long>(randomNumber()));
        const auto bytes = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + static_cast<unsigned>(length));
        if (bind(socket, reinterpret_cast<const sockaddr*>(&address), bytes) == 0) {
            std::snprintf(name, room, "%s", address.sun_path + 1);
            return true;
        }
        if (errno != EADDRINUSE)
            break;
    }
    return false;
}

bool hasName(int socket, const char* name)
{
    char own[sizeof(sockaddr_un::sun_path)];
    return abstractName(socket, own, sizeof own) != 0 && std::strcmp(own, name) == 0;
}

int openDevice(int flags)
{
    constexpr int exclusive = O_CREAT | O_EXCL;
    if ((flags & exclusive) == exclusive)
        return -EEXIST;
    if ((flags & O_DIRECTORY) != 0)
        return -ENOTDIR;
    const Undisturbed undisturbed;
    int result = prepareCommands();
    if (result != 0)
        return openCode(result);

    const bool sync = (flags & O_SYNC) == O_SYNC;
    socket_client::Connection connection;
    result = socket_client::connectTo(connection, controllerSocket());
    if (result != 0)
        return openCode(result);
    result = socket_client::openDevice(connection, sync);
    if (result != 0) {
        const bool answered = connection.descriptor >= 0 && result < 0;
        socket_client::disconnect(connection);
        return answered ? result : -ENXIO;
    }
    const int access = flags & O_ACCMODE;
    char beginning[kDeviceNameLength + kKindLength + 2], name[sizeof(sockaddr_un::sun_path)];
    std::snprintf(beginning, sizeof beginning, "%s%c%c%c/", kDeviceName, access == O_WRONLY ? '-' : 'r',
                  access == O_RDONLY ? '-' : 'w', sync ? 's' : '-');
    if (!nameSocket(connection.descriptor, beginning, name, sizeof name)) {
        socket_client::disconnect(connection);
        return -ENXIO;
    }
    applyFlags(connection.descriptor, flags);
    mark(connection.descriptor);
    return connection.descriptor;
}

bool isDevice(int descriptor, Device& device)
{
    char name[sizeof(sockaddr_un::sun_path)];
    if (controllerSocket() == nullptr ||
        abstractName(descriptor, name, sizeof name) < kDeviceNameLength + kKindLength ||
        std::strncmp(name, kDeviceName, kDeviceNameLength) != 0)
        return false;
    const char* const kind = name + kDeviceNameLength;
    device = {kind[0] == 'r', kind[1] == 'w', kind[2] == 's'};
    mark(descriptor);
    return true;
}

bool isKnownDevice(int descriptor, Device& device)
{
    return isMarked(descriptor) && isDevice(descriptor, device);
}

bool isAlive(int descriptor)
{
    const KeepErrno keep;
    pollfd state = {descriptor, 0, 0};
    return poll(&state, 1, 0) <= 0; // a signal says nothing about it
}

void forgetDescriptor(int descriptor)
{
    if (descriptor >= 0 && descriptor < kMostMarks && marks[descriptor].load(std::memory_order_relaxed))
        marks[descriptor].store(false, std::memory_order_relaxed);
}

void copyDescriptor(int from, int to)
{
    if (to < 0 || from == to)
        return;
    if (isMarked(from))
        mark(to);
    else
        forgetDescriptor(to);
}

void rememberInherited()
{
    if (controllerSocket() == nullptr)
        return;
    const KeepErrno keep;
    const int folder =
        static_cast<int>(syscall(SYS_openat, AT_FDCWD, "/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder < 0)
        return;
    alignas(dirent64) char entries[2048];
    long bytes;
    while ((bytes = syscall(SYS_getdents64, folder, entries, sizeof entries)) > 0)
        for (long at = 0; at < bytes;) {
            const auto* const entry = reinterpret_cast<const dirent64*>(entries + at);
            at += entry->d_reclen;
            int number = 0;
            const char* digit = entry->d_name;
            for (; *digit >= '0' && *digit <= '9'; ++digit)
                number = number * 10 + (*digit - '0');
            Device device;
            if (*digit == 0)
                isDevice(number, device);
        }
    syscall(SYS_close, folder);
}

} // namespace velmora::preload
