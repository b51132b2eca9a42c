// Instructions that the manager runs while it holds a lock, interrupts off. The processor stops after each one of them.
#pragma once

#include <cstdint>

namespace velmora::interrupts {

// Counts while it lives.
class StepCounter
{
public:
    StepCounter();
    StepCounter(const StepCounter&) = delete;
    StepCounter& operator=(const StepCounter&) = delete;
    ~StepCounter();

    // The longest time that a lock was held since the counter was made, in instructions.
    std::uint64_t longest() const;
    // How often one was taken.
    std::uint64_t times() const;
};

} // namespace velmora::interrupts
