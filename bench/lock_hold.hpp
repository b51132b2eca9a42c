// How long the manager's locks are held, interrupts off.
#pragma once

#include <cstdint>

namespace bench {

struct LockHold {
    bool timed = false;        // off: a lock is a flag and costs next to nothing
    std::uint64_t longest = 0; // ticks, since it was last set to 0
};

extern LockHold lockHold;

} // namespace bench
