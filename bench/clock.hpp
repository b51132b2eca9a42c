// Time in ticks of the processor's counter, which runs at a constant rate. A reading waits for what came before it, and
// what comes after waits for the reading. The counter may advance in steps of several nanoseconds.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <vector>

namespace bench {

inline std::uint64_t ticks()
{
    std::uint64_t now;
    asm volatile("lfence\n\trdtsc\n\tlfence" : "=A"(now) : : "memory");
    return now;
}

// What two readings cost, and how long a tick is.
struct Clock {
    double overheadTicks = 0;
    double nsPerTick = 1;

    static Clock calibrate()
    {
        Clock clock;
        std::vector<std::uint64_t> empty(100000);
        for (auto& sample : empty) {
            const std::uint64_t start = ticks();
            sample = ticks() - start;
        }
        // The mean of what is no interruption: the counter's steps make the median too coarse.
        std::sort(empty.begin(), empty.end());
        const std::size_t kept = empty.size() * 99 / 100;
        for (std::size_t i = 0; i < kept; ++i)
            clock.overheadTicks += static_cast<double>(empty[i]) / static_cast<double>(kept);

        const auto wall = std::chrono::steady_clock::now();
        const std::uint64_t start = ticks();
        while (std::chrono::steady_clock::now() - wall < std::chrono::milliseconds(100)) {
        }
        const std::uint64_t end = ticks();
        const std::chrono::duration<double, std::nano> passed = std::chrono::steady_clock::now() - wall;
        clock.nsPerTick = passed.count() / static_cast<double>(end - start);
        return clock;
    }

    // Nanoseconds between two readings, their own cost taken off.
    double ns(double between) const { return std::max(0.0, between - overheadTicks) * nsPerTick; }
};

} // namespace bench
