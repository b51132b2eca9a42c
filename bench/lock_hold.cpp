// The manager's locks as this program has them, in place of the simulated machine's (--wrap in CMakeLists.txt).
#include "lock_hold.hpp"

#include <cstdio>
#include <cstdlib>

#include "kernel/mm/MM_Platform.h"
#include "clock.hpp"

namespace bench {

LockHold lockHold;

namespace {

bool held[MM_LOCK_NUM];
std::uint64_t since;

} // namespace
} // namespace bench

extern "C" {
void __wrap_MMP_LockIrq(TMMLock enLock);
void __wrap_MMP_UnlockIrq(TMMLock enLock);
}

void __wrap_MMP_LockIrq(TMMLock enLock)
{
    if (bench::held[enLock]) {
        std::fputs("velmora-bench: a release was refused and left its lock held\n", stderr);
        std::abort();
    }
    bench::held[enLock] = true;
    if (bench::lockHold.timed)
        bench::since = bench::ticks();
}

void __wrap_MMP_UnlockIrq(TMMLock enLock)
{
    if (bench::lockHold.timed)
        bench::lockHold.longest = std::max(bench::lockHold.longest, bench::ticks() - bench::since);
    bench::held[enLock] = false;
}
