// What all contenders do: sequences of allocations and releases, made once and the same for each.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace bench {

inline constexpr std::uint32_t kUnit = 64; // bytes of a block; sizes are multiples of it

// An allocation into a slot (units above 0), or the release of what the slot holds.
struct Op {
    std::uint32_t slot;
    std::uint32_t units;
};

struct Sequence {
    std::uint32_t slots = 0;
    std::uint32_t areaUnits = 0; // of those who share out a fixed area
    std::vector<Op> build;       // to the state at the start, not measured
    std::vector<Op> ops;         // measured; ends with the same sizes in the slots, so that it can be repeated

    // Units in the slots after build and ops.
    std::uint64_t liveUnits() const;
};

// Random churn: live allocations of mixed sizes (1 to 64 units, most of them small) that fill a part of the area. Each
// step releases two slots and allocates them again with their sizes exchanged, so that the occupancy stays.
Sequence churn(std::uint32_t live, unsigned occupancyPercent, std::size_t operations);

// A comb: blocks of one unit, every other one released, and one longer run at the far end: as many free runs as named
// in all. Each operation allocates 2 to 8 units, which only the run at the far end can hold, or releases them.
Sequence comb(std::uint32_t freeRuns, std::size_t operations);

// The print job's segments and what it does with them, as record_print_job.cpp writes them down.
struct PrintJob {
    struct Segment {
        std::string name;
        std::uint32_t bytes, blockBytes;
        unsigned mapBits, type;
        bool overflows;
    };
    struct Step {
        bool allocates;
        std::uint32_t slot, segment, bytes;
        std::uint8_t owner;
    };
    std::vector<Segment> segments; // in the order of their creation; handles are found again by name
    std::vector<Step> steps;
    std::uint32_t slots = 0;

    static PrintJob read(const std::filesystem::path& file);
};

} // namespace bench
