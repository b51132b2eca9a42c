#include "preload/node.hpp"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <velmora_mm/velmora_mm.h>

#include "preload/next.hpp"
#include "preload/user_memory.hpp"

namespace velmora::preload {

namespace {

constexpr char kFolder[] = "/dev";
constexpr std::size_t kMostPath = 512; // of a roundabout way to the node; signal handlers' stacks are small

char socketPath[sizeof(sockaddr_un::sun_path)];

enum class State { Unknown, None, Known };
std::atomic<State> state = State::Unknown;

State readEnvironment()
{
    constexpr char prefix[] = "unix:";
    constexpr std::size_t prefixLength = sizeof prefix - 1;
    const char* const device = secure_getenv("VELMORA_MM_DEVICE");
    if (device == nullptr || std::strncmp(device, prefix, prefixLength) != 0)
        return State::None;
    const std::size_t length = std::strlen(device + prefixLength);
    if (length == 0 || length >= sizeof socketPath)
        return State::None;
    std::memcpy(socketPath, device + prefixLength, length + 1);
    return State::Known;
}

// The kernel's own call: those of the C library may be this library's.
int look(int folder, const char* path, struct statx& status)
{
    return syscall(SYS_statx, folder, path, 0, STATX_BASIC_STATS, &status) == 0 ? 0 : -errno;
}

bool sameFile(const struct statx& one, const struct statx& other)
{
    return one.stx_ino == other.stx_ino && one.stx_dev_major == other.stx_dev_major &&
           one.stx_dev_minor == other.stx_dev_minor;
}

} // namespace

const char* controllerSocket()
{
    State known = state.load(std::memory_order_acquire);
    if (known == State::Unknown) { // the first call comes before the program's first thread
        known = readEnvironment();
        state.store(known, std::memory_order_release);
    }
    return known == State::Known ? socketPath : nullptr;
}

bool isNode(int folder, const char* path)
{
    constexpr char name[] = VELMORA_MM_DEVICE_NAME;
    constexpr std::size_t nameLength = sizeof name - 1;
    std::size_t length;
    if (controllerSocket() == nullptr || !textLength(path, length) || length < nameLength ||
        std::memcmp(path + length - nameLength, name, nameLength) != 0)
        return false;
    if (std::strcmp(path, VELMORA_MM_DEVICE_NODE) == 0)
        return true;

    const KeepErrno keep;
    char parent[kMostPath] = ".";
    const std::size_t parentLength = length - nameLength;
    if (parentLength != 0) {
        if (path[parentLength - 1] != '/' || parentLength >= sizeof parent)
            return false;
        std::memcpy(parent, path, parentLength);
        parent[parentLength] = 0;
    }
    struct statx there, devices;
    return look(folder, parent, there) == 0 && look(AT_FDCWD, kFolder, devices) == 0 && sameFile(there, devices);
}

bool isLinkToNode(int folder, const char* path)
{
    constexpr int mostLinks = 40; // as the kernel has it
    char now[kMostPath], target[kMostPath];
    std::size_t length;
    if (controllerSocket() == nullptr || !textLength(path, length) || length >= sizeof now)
        return false;
    const KeepErrno keep;
    std::memcpy(now, path, length + 1);
    for (int link = 0; link < mostLinks; ++link) {
        const long bytes = syscall(SYS_readlinkat, folder, now, target, sizeof target);
        if (bytes <= 0)
            return link != 0 && isNode(folder, now);
        // A relative one begins where the link lies.
        const char* const slash = target[0] == '/' ? nullptr : std::strrchr(now, '/');
        const std::size_t before = slash == nullptr ? 0 : static_cast<std::size_t>(slash - now) + 1;
        if (before + static_cast<std::size_t>(bytes) >= sizeof now)
            return false;
        std::memcpy(now + before, target, static_cast<std::size_t>(bytes));
        now[before + static_cast<std::size_t>(bytes)] = 0;
    }
    return false;
}

int nodeStatus(struct statx& status)
{
    const KeepErrno keep;
    const int result = look(AT_FDCWD, controllerSocket(), status);
    if (result != 0)
        return result;
    status.stx_mode = static_cast<std::uint16_t>((status.stx_mode & ~S_IFMT) | S_IFCHR);
    status.stx_rdev_major = kMajor;
    status.stx_rdev_minor = kMinor;
    status.stx_size = 0;
    status.stx_blocks = 0;
    status.stx_nlink = 1;
    return 0;
}

} // namespace velmora::preload
