// A recording as a plan reads it: what was asked of the memory, with allocations in place of addresses, so that it can be asked
// of another layout.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <velmora_mm/velmora_mm.h>

namespace velmora::tools {

struct PlanOperation {
    enum class Kind { Table, Start, Create, Malloc, Free, Collect, Delete, Clear };
    Kind kind{};
    unsigned line = 0;            // of the recording, from 1
    std::uint32_t asker = 0;      // index in askers
    std::uint32_t segment = 0;    // index in segments
    std::uint32_t allocation = 0; // Malloc gives it its number, Free names it
    std::uint32_t offset = 0;     // Free: from the allocation's start
    std::uint32_t bytes = 0;      // Malloc, Free
    std::uint32_t owner = 0;      // Malloc, Collect; the option of Table and Start
    MM_U8 name[4] = {};           // Delete, Clear
};

struct PlanRecording {
    struct Segment {
        std::string name;           // "heap" for the heap
        MM_TSegInfoFromApp request; // as the first creation asked
        bool isHeap() const { return request.ubType == MM_FLOAT && request.ulSegSize == 0; }
    };
    std::uint32_t area = 0; // managed bytes
    std::vector<Segment> segments;
    std::vector<PlanOperation> operations;
    std::vector<bool> freed; // of each allocation: does the recording release it by itself?
    std::vector<std::string> askers;
    unsigned lines = 0;
    unsigned refusedThen = 0; // requests that were refused when it was recorded: they are not asked again
    unsigned passedOver = 0;  // lines in bytes, and releases of memory that no line allocated
    unsigned probes = 0;      // allocations left out because nobody used them
};

// Reads a recording. withoutProbes: leaves out allocations that were released and before that neither mapped nor filled, nor
// their physical address asked for: programs ask so for memory to learn how much there is. Throws std::runtime_error with a
// sentence for a file that is none, or that ends in the middle.
PlanRecording readRecording(const std::string& content, const std::string& name, bool withoutProbes);

} // namespace velmora::tools
