#include "preload/user_memory.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
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

} // namespace

std::size_t copyFromUser(void* to, const void* user, std::size_t bytes)
{
    return bytes == 0 ? 0 : copy(process_vm_readv, const_cast<void*>(user), to, bytes);
}

std::size_t copyToUser(void* user, const void* from, std::size_t bytes)
{
    return bytes == 0 ? 0 : copy(process_vm_writev, user, const_cast<void*>(from), bytes);
}

} // namespace velmora::preload
