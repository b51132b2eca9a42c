#include "step_counter.h"

#include <algorithm>
#include <csignal>

#include "kernel/mm/MM_Platform.h"

namespace velmora::interrupts {

namespace {

bool counting;
volatile std::uint64_t steps;
std::uint64_t longestHold, holds;

void countStep(int)
{
    steps = steps + 1;
}

// The processor's trap flag: a signal after every instruction.
void stepOn()
{
    asm volatile("pushfl\n\torl $0x100, (%%esp)\n\tpopfl" ::: "memory", "cc");
}

void stepOff()
{
    asm volatile("pushfl\n\tandl $~0x100, (%%esp)\n\tpopfl" ::: "memory", "cc");
}

} // namespace

StepCounter::StepCounter()
{
    struct sigaction action = {};
    action.sa_handler = countStep;
    sigaction(SIGTRAP, &action, nullptr);
    longestHold = holds = 0;
    counting = true;
}

StepCounter::~StepCounter()
{
    counting = false;
}

std::uint64_t StepCounter::longest() const
{
    return longestHold;
}

std::uint64_t StepCounter::times() const
{
    return holds;
}

} // namespace velmora::interrupts

using namespace velmora::interrupts;

// In place of the simulated machine's (--wrap in CMakeLists.txt).
extern "C" {
void __real_MMP_LockIrq(TMMLock enLock);
void __real_MMP_UnlockIrq(TMMLock enLock);
void __wrap_MMP_LockIrq(TMMLock enLock);
void __wrap_MMP_UnlockIrq(TMMLock enLock);
void __wrap_MMP_Touch(const void*, U32);
}

void __wrap_MMP_LockIrq(TMMLock enLock)
{
    __real_MMP_LockIrq(enLock);
    steps = 0;
    if (counting)
        stepOn();
}

void __wrap_MMP_UnlockIrq(TMMLock enLock)
{
    if (counting) {
        stepOff();
        const std::uint64_t taken = steps;
        longestHold = std::max(longestHold, taken);
        ++holds;
    }
    __real_MMP_UnlockIrq(enLock);
}

// A kernel leaves this to its MMU.
void __wrap_MMP_Touch(const void*, U32)
{
}
