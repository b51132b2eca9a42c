// What lies where in a segment: free runs, and allocated ones by owner, read through a mapping while others go on working. The
// free runs come from the owner map where every allocated block has an owner, else from the list of free runs itself, which
// has to be found in the segment first: see free_list.hpp for what can stay unknown.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <velmora/device.hpp>

namespace velmora::tools {

// Blocks that follow each other and are in the same state.
struct Run {
    MM_TAddr start = 0;          // of the first
    std::uint32_t blocks = 0;    // above 0
    bool free = false;           // else allocated
    Owner owner = Owner::Nobody; // of allocated ones; Nobody: recorded for nobody
    bool operator==(const Run&) const = default;
};

struct Picture {
    std::uint32_t handle = 0;     // 0 to 48
    MM_TMMSegInfoWire entry = {}; // the manager's
    std::vector<Run> runs; // the whole segment in the order of addresses, without gaps; empty where it is not known
    std::string unknown;   // why it is not known: a sentence without a full stop; empty where it is

    std::string name() const;
    std::uint32_t stride() const; // bytes from one block to the next
};

// One moment; where the segment changes each time that it is read, runs are unknown. nullopt for a handle that no segment has,
// and for the heap.
std::optional<Picture> pictureOf(Device& device, std::uint32_t handle);
// Every segment but the heap, in the order of the handles.
std::vector<Picture> pictures(Device& device);

} // namespace velmora::tools
