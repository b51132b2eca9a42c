// Numbers of a seeded process: ordinary ones, and those that break something.
#pragma once

#include <cstdint>
#include <iterator>
#include <random>

namespace target::hostile {

class Random
{
public:
    explicit Random(std::uint32_t seed) : numbers_(seed) {}

    std::uint32_t any() { return static_cast<std::uint32_t>(numbers_()); }
    std::uint32_t below(std::uint32_t limit) { return any() % limit; }
    bool oneIn(std::uint32_t count) { return below(count) == 0; }
    template <class T, std::size_t count> T oneOf(const T (&values)[count])
    {
        return values[below(static_cast<std::uint32_t>(count))];
    }

    std::uint32_t odd()
    {
        constexpr std::uint32_t values[] = {0,          1,          3,          12,         63,      64, 65, 4096,
                                            0x7FFFFFFF, 0x80000000, 0xFFFFFFC0, 0xFFFFFFFF, 0x10031, 48, 49, 50};
        return oneIn(2) ? oneOf(values) : any();
    }

private:
    std::mt19937 numbers_;
};

} // namespace target::hostile
