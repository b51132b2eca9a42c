#include "preload/mappings.hpp"

#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "lib/socket_protocol.hpp"
#include "preload/next.hpp"

namespace velmora::preload {

namespace {

std::atomic<bool> mappedOnce;

struct Range {
    std::uint64_t start, end;
};

// A line of the list: "START-END rwxs OFFSET DEVICE INODE   PATH".
bool isDeviceLine(const char* line, const Range& wanted, bool shared)
{
    std::uint64_t start = 0, end = 0;
    char permissions[5] = "";
    int path = 0;
    if (std::sscanf(line, "%" SCNx64 "-%" SCNx64 " %4s %*s %*s %*s %n", &start, &end, permissions, &path) != 3 ||
        path == 0)
        return false;
    constexpr char name[] = "/memfd:";
    constexpr std::size_t length = sizeof name - 1;
    const char* const ram = protocol::kRamName;
    return start < wanted.end && wanted.start < end && (!shared || permissions[3] == 's') &&
           std::strncmp(line + path, name, length) == 0 &&
           std::strncmp(line + path + length, ram, std::strlen(ram)) == 0;
}

// Calls see() with each line of the file, cut to its beginning, until that returns true.
template <class See> bool anyLine(int file, See see)
{
    char buffer[512], line[160];
    std::size_t length = 0;
    for (long got; (got = syscall(SYS_read, file, buffer, sizeof buffer)) > 0;)
        for (long i = 0; i < got; ++i) {
            if (buffer[i] != '\n') {
                if (length + 1 < sizeof line)
                    line[length++] = buffer[i];
                continue;
            }
            line[length] = 0;
            length = 0;
            if (see(line))
                return true;
        }
    return false;
}

} // namespace

void noteMapping()
{
    mappedOnce.store(true, std::memory_order_relaxed);
}

bool isMapping(const void* start, std::size_t bytes, bool shared)
{
    if (!mappedOnce.load(std::memory_order_relaxed))
        return false;
    const KeepErrno keep;
    const auto first = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(start));
    const Range wanted = {first, first + (bytes != 0 ? bytes : 1)};
    const auto file = static_cast<int>(syscall(SYS_openat, AT_FDCWD, "/proc/self/maps", O_RDONLY | O_CLOEXEC));
    if (file < 0)
        return false;
    const bool found = anyLine(file, [&](const char* line) { return isDeviceLine(line, wanted, shared); });
    syscall(SYS_close, file);
    return found;
}

} // namespace velmora::preload
