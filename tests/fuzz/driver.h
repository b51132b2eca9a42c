// Plays a sequence twice, once with every segment walking its list and once with indexes, and compares what each
// operation answers and writes on the kernel log, and from time to time everything: tables, lists, all of the memory.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace velmora::fuzz {

struct Verdict {
    unsigned long operations = 0;
    unsigned long awake = 0;                                // operations on a segment whose index was awake
    unsigned long longestList = 0;                          // free runs of a segment when the state was looked at
    unsigned long long walkAccesses = 0, indexAccesses = 0; // to managed memory
    std::string difference;                                 // empty when there is none

    bool same() const { return difference.empty(); }
};

// The walk makes about this many accesses to memory, and no more operations are played then.
inline constexpr unsigned long kAccesses = 20'000'000;

Verdict run(const std::uint8_t* data, std::size_t size, unsigned long accesses = kAccesses);

// Each operation with its answer and its messages, played with indexes or by the walk.
std::vector<std::string> linesOf(const std::uint8_t* data, std::size_t size, bool useIndex,
                                 unsigned long accesses = kAccesses);

} // namespace velmora::fuzz
