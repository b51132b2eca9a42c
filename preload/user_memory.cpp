#include "preload/user_memory.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <climits>
#include <cstring>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include "preload/next.hpp"

namespace velmora::preload {

namespace {

constexpr std::uintptr_t kPageBytes = 4096;

using Copy = decltype(process_vm_readv);

// The kernel copies a part as a whole or not at all, so the memory is named page by page. No record is larger than one.
std::size_t copy(Copy* call, void* user, void* own, std::size_t bytes)
{
    const KeepErrno keep;
    const std::size_t first =
        std::min<std::size_t>(bytes, kPageBytes - reinterpret_cast<std::uintptr_t>(user) % kPageBytes);
    const iovec local = {own, bytes};
    const iovec remote[] = {{user, first}, {static_cast<char*>(user) + first, bytes - first}};
    const ssize_t copied = call(getpid(), &local, 1, remote, first == bytes ? 1 : 2, 0);
    if (copied >= 0)
        return static_cast<std::size_t>(copied);
    if (errno != ENOSYS && errno != EPERM)
        return 0;
    if (call == process_vm_readv)
        std::memcpy(own, user, bytes);
    else
        std::memcpy(user, own, bytes);
    return bytes;
}

// The kernel reads a set of signals before it looks at what to do with it, which here is nothing it knows. A set at 0 is none.
bool canBeRead(const char* address)
{
    constexpr std::size_t setBytes = 8;
    const auto aligned = reinterpret_cast<std::uintptr_t>(address) & ~(setBytes - 1);
    return aligned != 0 && (syscall(SYS_rt_sigprocmask, ~0, aligned, nullptr, setBytes) == 0 || errno != EFAULT);
}

} // namespace

bool textLength(const char* text, std::size_t& length)
{
    const KeepErrno keep;
    for (length = 0; length < PATH_MAX;) {
        const char* const from = text + length;
        if (!canBeRead(from))
            return false;
        const std::size_t there = kPageBytes - reinterpret_cast<std::uintptr_t>(from) % kPageBytes;
        const std::size_t letters = strnlen(from, there);
        length += letters;
        if (letters < there)
            return true;
    }
    return false;
}

std::size_t copyFromUser(void* to, const void* user, std::size_t bytes)
{
    return bytes == 0 ? 0 : copy(process_vm_readv, const_cast<void*>(user), to, bytes);
}

std::size_t copyToUser(void* user, const void* from, std::size_t bytes)
{
    return bytes == 0 ? 0 : copy(process_vm_writev, user, const_cast<void*>(from), bytes);
}

} // namespace velmora::preload
