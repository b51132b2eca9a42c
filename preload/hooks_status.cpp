// stat and its kin, once for each size of a file's offset and of time: stat, stat64, __stat64_time64. This file is compiled
// once for each, with the macros by which a program chooses; the C library's headers then give the functions below the other
// names.
#include "preload/hooks.hpp"

#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#if defined(_TIME_BITS) && _TIME_BITS == 64
#define VELMORA_TIME64
#define VELMORA_TEXT(name) "__" #name "64_time64"
#define VELMORA_FCNTL "__fcntl_time64"
#elif defined(_FILE_OFFSET_BITS) && _FILE_OFFSET_BITS == 64
#define VELMORA_TEXT(name) #name "64"
#define VELMORA_FCNTL "fcntl64"
#define VELMORA_SIZED(name) name##64
#else
#define VELMORA_TEXT(name) #name
#define VELMORA_FCNTL "fcntl"
#define VELMORA_SIZED(name) name
#endif

using namespace velmora::preload;

namespace {

using Status = struct stat;

Next<int(const char*, Status*)> nextStat(VELMORA_TEXT(stat));
Next<int(const char*, Status*)> nextLstat(VELMORA_TEXT(lstat));
Next<int(int, Status*)> nextFstat(VELMORA_TEXT(fstat));
Next<int(int, const char*, Status*, int)> nextFstatat(VELMORA_TEXT(fstatat));
Next<int(int, int, void*)> nextFcntl(VELMORA_FCNTL);

void setTime(timespec& to, const statx_timestamp& from)
{
    to.tv_sec = static_cast<decltype(to.tv_sec)>(from.tv_sec);
    to.tv_nsec = static_cast<decltype(to.tv_nsec)>(from.tv_nsec);
}

int fill(Status* status)
{
    struct statx node;
    if (const int result = nodeStatus(node)) {
        errno = -result;
        return -1;
    }
    std::memset(status, 0, sizeof *status);
    status->st_dev = makedev(node.stx_dev_major, node.stx_dev_minor);
    status->st_ino = static_cast<decltype(status->st_ino)>(node.stx_ino);
    status->st_mode = node.stx_mode;
    status->st_nlink = node.stx_nlink;
    status->st_uid = node.stx_uid;
    status->st_gid = node.stx_gid;
    status->st_rdev = makedev(node.stx_rdev_major, node.stx_rdev_minor);
    status->st_blksize = static_cast<decltype(status->st_blksize)>(node.stx_blksize);
    setTime(status->st_atim, node.stx_atime);
    setTime(status->st_mtim, node.stx_mtime);
    setTime(status->st_ctim, node.stx_ctime);
    return 0;
}

// A descriptor that the kernel takes for a socket may be one of the device that nobody has told about.
int fillIfDevice(int descriptor, Status* status, int result)
{
    Device device;
    return result == 0 && S_ISSOCK(status->st_mode) && isDevice(descriptor, device) ? fill(status) : result;
}

} // namespace

VELMORA_HOOK int stat(const char* path, Status* status) noexcept
{
    if (isNode(AT_FDCWD, path))
        return fill(status);
    const int result = nextStat(path, status);
    return missedLink(result, AT_FDCWD, path) ? fill(status) : result;
}

VELMORA_HOOK int lstat(const char* path, Status* status) noexcept
{
    return isNode(AT_FDCWD, path) ? fill(status) : nextLstat(path, status);
}

VELMORA_HOOK int fstat(int descriptor, Status* status) noexcept
{
    return fillIfDevice(descriptor, status, nextFstat(descriptor, status));
}

VELMORA_HOOK int fstatat(int folder, const char* path, Status* status, int flags) noexcept
{
    if (isNode(folder, path))
        return fill(status);
    const int result = nextFstatat(folder, path, status, flags);
    if ((flags & AT_SYMLINK_NOFOLLOW) == 0 && missedLink(result, folder, path))
        return fill(status);
    return (flags & AT_EMPTY_PATH) != 0 ? fillIfDevice(folder, status, result) : result;
}

// A copy of a descriptor is one of the same device, whose flags are those that it was opened with.
VELMORA_HOOK int fcntl(int descriptor, int command, ...)
#ifdef VELMORA_TIME64
    noexcept
#endif
{
    std::va_list rest;
    va_start(rest, command);
    void* const argument = va_arg(rest, void*);
    va_end(rest);
    const int result = nextFcntl(descriptor, command, argument);
    Device device;
    if (command == F_DUPFD || command == F_DUPFD_CLOEXEC)
        copyDescriptor(descriptor, result);
    else if (command == F_GETFL && result >= 0 && isKnownDevice(descriptor, device))
        return statusFlags(device, result);
    return result;
}

#ifdef VELMORA_TIME64

namespace {

Next<int(int, unsigned long, void*)> nextIoctl("__ioctl_time64");

}

VELMORA_HOOK int ioctl(int descriptor, unsigned long request, ...) noexcept
{
    std::va_list rest;
    va_start(rest, request);
    void* const argument = va_arg(rest, void*);
    va_end(rest);
    return ioctlThrough(nextIoctl, descriptor, request, argument);
}

#else

// What programs call that were built with a C library before 2.33: the first argument tells the layout of the record, of
// which there is one.
namespace {

Next<int(int, const char*, Status*)> nextOldStat("__x" VELMORA_TEXT(stat));
Next<int(int, const char*, Status*)> nextOldLstat("__lx" VELMORA_TEXT(stat));
Next<int(int, int, Status*)> nextOldFstat("__fx" VELMORA_TEXT(stat));
Next<int(int, int, const char*, Status*, int)> nextOldFstatat("__fx" VELMORA_TEXT(statat));

} // namespace

VELMORA_HOOK int VELMORA_SIZED(__xstat)(int layout, const char* path, Status* status)
{
    if (isNode(AT_FDCWD, path))
        return fill(status);
    const int result = nextOldStat(layout, path, status);
    return missedLink(result, AT_FDCWD, path) ? fill(status) : result;
}

VELMORA_HOOK int VELMORA_SIZED(__lxstat)(int layout, const char* path, Status* status)
{
    return isNode(AT_FDCWD, path) ? fill(status) : nextOldLstat(layout, path, status);
}

VELMORA_HOOK int VELMORA_SIZED(__fxstat)(int layout, int descriptor, Status* status)
{
    return fillIfDevice(descriptor, status, nextOldFstat(layout, descriptor, status));
}

VELMORA_HOOK int VELMORA_SIZED(__fxstatat)(int layout, int folder, const char* path, Status* status, int flags)
{
    if (isNode(folder, path))
        return fill(status);
    const int result = nextOldFstatat(layout, folder, path, status, flags);
    return (flags & AT_SYMLINK_NOFOLLOW) == 0 && missedLink(result, folder, path) ? fill(status) : result;
}

#endif
