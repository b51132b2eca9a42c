// The calls that exist once, whatever the size of a file's offset. Each asks first whether the device is meant, at the cost
// of a look into a table, and goes on to the next function of its name if not.
#include "preload/hooks.hpp"
#include "preload/mappings.hpp"
#include "preload/user_memory.hpp"

#include <cstdarg>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/xattr.h>
#include <unistd.h>

using namespace velmora::preload;

// Declared by the C library only for programs that it protects, or not at all any more.
extern "C" {
ssize_t __read_chk(int, void*, size_t, size_t);
int eaccess(const char*, int) noexcept;
}

namespace {

Next<ssize_t(int, void*, size_t)> nextRead("read");
Next<ssize_t(int, void*, size_t, size_t)> nextReadChecked("__read_chk");
Next<ssize_t(int, const void*, size_t)> nextWrite("write");
Next<ssize_t(int, const iovec*, int)> nextReadv("readv");
Next<ssize_t(int, const iovec*, int)> nextWritev("writev");
Next<int(int)> nextClose("close");
Next<int(int)> nextDup("dup");
Next<int(int, int)> nextDup2("dup2");
Next<int(int, int, int)> nextDup3("dup3");
Next<int(int, unsigned long, void*)> nextIoctl("ioctl");
Next<std::FILE*(int, const char*)> nextFdopen("fdopen");
Next<int(const char*, int)> nextAccess("access");
Next<int(const char*, int)> nextEuidaccess("euidaccess");
Next<int(int, const char*, int, int)> nextFaccessat("faccessat");
Next<int(int, const char*, int, unsigned, struct statx*)> nextStatx("statx");
Next<void*(void*, size_t, size_t, int, void*)> nextMremap("mremap");
Next<int(void*, size_t, int)> nextMsync("msync");
Next<ssize_t(const char*, const char*, void*, size_t)> nextGetxattr("getxattr");
Next<ssize_t(const char*, const char*, void*, size_t)> nextLgetxattr("lgetxattr");

// Newer kernels take no path for an empty one.
bool isEmpty(const char* path)
{
    std::size_t length;
    return path == nullptr || (textLength(path, length) && length == 0);
}

// A call that asks about a path, and follows links.
template <class Ask> auto askThrough(int folder, const char* path, Ask ask)
{
    if (isNode(folder, path))
        return ask(controllerSocket());
    const auto result = ask(path);
    return missedLink(static_cast<int>(result), folder, path) ? ask(controllerSocket()) : result;
}

__attribute__((constructor)) void start()
{
    rememberInherited();
    nextRead.resolve();
    nextWrite.resolve();
    nextClose.resolve();
    nextDup.resolve();
    nextDup2.resolve();
    nextIoctl.resolve();
}

} // namespace

VELMORA_HOOK ssize_t read(int descriptor, void* to, size_t bytes)
{
    Device device;
    return isKnownDevice(descriptor, device) ? transferCall(device.readable) : nextRead(descriptor, to, bytes);
}

VELMORA_HOOK ssize_t __read_chk(int descriptor, void* to, size_t bytes, size_t room)
{
    Device device;
    return isKnownDevice(descriptor, device) ? transferCall(device.readable)
                                             : nextReadChecked(descriptor, to, bytes, room);
}

VELMORA_HOOK ssize_t write(int descriptor, const void* from, size_t bytes)
{
    Device device;
    return isKnownDevice(descriptor, device) ? transferCall(device.writable) : nextWrite(descriptor, from, bytes);
}

VELMORA_HOOK ssize_t readv(int descriptor, const iovec* parts, int count)
{
    Device device;
    return isKnownDevice(descriptor, device) ? transferCall(device.readable) : nextReadv(descriptor, parts, count);
}

VELMORA_HOOK ssize_t writev(int descriptor, const iovec* parts, int count)
{
    Device device;
    return isKnownDevice(descriptor, device) ? transferCall(device.writable) : nextWritev(descriptor, parts, count);
}

VELMORA_HOOK int close(int descriptor)
{
    forgetDescriptor(descriptor);
    return nextClose(descriptor);
}

VELMORA_HOOK int dup(int from) noexcept
{
    const int to = nextDup(from);
    copyDescriptor(from, to);
    return to;
}

VELMORA_HOOK int dup2(int from, int to) noexcept
{
    const int made = nextDup2(from, to);
    copyDescriptor(from, made);
    return made;
}

VELMORA_HOOK int dup3(int from, int to, int flags) noexcept
{
    const int made = nextDup3(from, to, flags);
    copyDescriptor(from, made);
    return made;
}

VELMORA_HOOK int ioctl(int descriptor, unsigned long request, ...) noexcept
{
    std::va_list rest;
    va_start(rest, request);
    void* const argument = va_arg(rest, void*);
    va_end(rest);
    return ioctlThrough(nextIoctl, descriptor, request, argument);
}

// The kernel neither lets a mapping of a device grow, nor writes it anywhere. The place of the fifth argument counts with
// MREMAP_FIXED only.
VELMORA_HOOK void* mremap(void* start, size_t bytes, size_t wanted, int flags, ...) noexcept
{
    std::va_list rest;
    va_start(rest, flags);
    void* const place = va_arg(rest, void*);
    va_end(rest);
    if (wanted > bytes && isMapping(start, bytes, false)) {
        errno = EFAULT;
        return MAP_FAILED;
    }
    return nextMremap(start, bytes, wanted, flags, place);
}

VELMORA_HOOK int msync(void* start, size_t bytes, int flags)
{
    const int result = nextMsync(start, bytes, flags);
    if (result != 0 || (flags & MS_SYNC) == 0 || bytes == 0 || !isMapping(start, bytes, true))
        return result;
    errno = EINVAL;
    return -1;
}

VELMORA_HOOK std::FILE* fdopen(int descriptor, const char* mode) noexcept
{
    Device device;
    return isKnownDevice(descriptor, device) ? streamOn(descriptor, mode) : nextFdopen(descriptor, mode);
}

VELMORA_HOOK int access(const char* path, int mode) noexcept
{
    return askThrough(AT_FDCWD, path, [=](const char* file) { return nextAccess(file, mode); });
}

VELMORA_HOOK int euidaccess(const char* path, int mode) noexcept
{
    return askThrough(AT_FDCWD, path, [=](const char* file) { return nextEuidaccess(file, mode); });
}

VELMORA_HOOK int eaccess(const char* path, int mode) noexcept
{
    return askThrough(AT_FDCWD, path, [=](const char* file) { return nextEuidaccess(file, mode); });
}

VELMORA_HOOK int faccessat(int folder, const char* path, int mode, int flags) noexcept
{
    if ((flags & AT_SYMLINK_NOFOLLOW) != 0 && !isNode(folder, path))
        return nextFaccessat(folder, path, mode, flags);
    return askThrough(folder, path, [=](const char* file) { return nextFaccessat(folder, file, mode, flags); });
}

VELMORA_HOOK int statx(int folder, const char* path, int flags, unsigned mask, struct statx* status) noexcept
{
    Device device;
    const bool meant =
        (flags & AT_EMPTY_PATH) != 0 && isEmpty(path) ? isKnownDevice(folder, device) : isNode(folder, path);
    int result = meant ? 0 : nextStatx(folder, path, flags, mask, status);
    if (!meant && ((flags & AT_SYMLINK_NOFOLLOW) != 0 || !missedLink(result, folder, path)))
        return result;
    result = nodeStatus(*status);
    if (result == 0)
        return 0;
    errno = -result;
    return -1;
}

// ls asks for access control lists.
VELMORA_HOOK ssize_t getxattr(const char* path, const char* name, void* value, size_t room) noexcept
{
    return askThrough(AT_FDCWD, path, [=](const char* file) { return nextGetxattr(file, name, value, room); });
}

VELMORA_HOOK ssize_t lgetxattr(const char* path, const char* name, void* value, size_t room) noexcept
{
    return nextLgetxattr(isNode(AT_FDCWD, path) ? controllerSocket() : path, name, value, room);
}
