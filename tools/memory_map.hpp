// The managed area at one moment, as map draws it: which stretch is whose, and the runs of each segment.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/device_command.hpp"
#include "tools/heap.hpp"
#include "tools/picture.hpp"

namespace velmora::tools {

// Managed memory, from start up to end.
struct Area {
    MM_TAddr start = 0, end = 0;
};

// A part of the area.
struct Stretch {
    enum class Kind {
        Segment, // with its owner map
        Row,     // placed by the table of fixed segments, and no segment was created there
        Heap,    // a piece of it
        Unknown, // what no table shows
    };
    Kind kind = Kind::Unknown;
    MM_TAddr start = 0, end = 0;
    std::string name = {};    // of the segment or the row
    std::uint32_t handle = 0; // of the segment
    std::uint64_t free = 0;   // bytes, of the heap's piece
};

// What an owner has in all segments of which it is known.
struct Holding {
    Owner owner{};           // Nobody: allocated, and recorded for nobody
    std::uint64_t bytes = 0; // in whole blocks
};

struct MemoryMap {
    std::string device;             // as it was named
    Area area;                      // where its end is not known: up to the end of what the tables show
    bool areaIsKnown = false;       // else it is what the tables show
    std::vector<Stretch> stretches; // the whole area in the order of addresses
    std::vector<Picture> segments;  // in the order of the handles
    std::vector<Holding> holdings;  // in the order of the IDs
    std::string heapUnknown;        // why nothing is known of the heap; empty where it is, or there is none
};

// The managed area that a module parameter START-END leaves: one mebibyte at each end stays unused. UsageError when text is
// no such parameter.
Area areaOfParameter(const std::string& text);

// What a simulated controller says of its area; nullopt for a node, which does not tell. device: as openNode() takes it.
std::optional<Area> areaOf(const std::string& device);

// area: of the managed memory, where it is known; heap: what is known of it. Throws as the device's calls do.
MemoryMap readMap(Device& device, const std::string& name, std::optional<Area> area, const Heap& heap);

// The same for programs: described in docs/json.md.
Json mapListing(const MemoryMap& map);

} // namespace velmora::tools
