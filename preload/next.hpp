// The function that this library stands in front of: the next of its name, be it the C library's or another preloaded one's.
#pragma once

#include <atomic>
#include <cerrno>
#include <dlfcn.h>

namespace velmora::preload {

// Restores errno: what this library does for itself is nobody's business.
class KeepErrno
{
public:
    KeepErrno() : before_(errno) {}
    KeepErrno(const KeepErrno&) = delete;
    KeepErrno& operator=(const KeepErrno&) = delete;
    ~KeepErrno() { errno = before_; }

private:
    int before_;
};

// Constant-initialised, so that constructors of other libraries may come first. A C library that has no such function
// answers -1 with ENOSYS in its place.
template <class Function> class Next
{
public:
    constexpr explicit Next(const char* name) : name_(name) {}

    Function* resolve()
    {
        const KeepErrno keep;
        auto* const found = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name_));
        function_.store(found, std::memory_order_relaxed);
        return found;
    }

    template <class... Arguments> auto operator()(Arguments... arguments)
    {
        Function* function = function_.load(std::memory_order_relaxed);
        if (function == nullptr)
            function = resolve();
        using Result = decltype(function(arguments...));
        if (function == nullptr) {
            errno = ENOSYS;
            return (Result)-1;
        }
        return function(arguments...);
    }

private:
    const char* name_;
    std::atomic<Function*> function_ = nullptr;
};

} // namespace velmora::preload
