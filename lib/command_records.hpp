// What the device copies for each command: how much of the caller's record, and whether it goes back. A command that the
// device does not know copies nothing.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include <velmora_mm/velmora_mm.h>

namespace velmora {

struct CommandRecord {
    std::size_t bytes = 0;
    bool comesBack = false;
};

constexpr CommandRecord recordOf(std::uint32_t command)
{
    constexpr std::array<CommandRecord, MM_CMD_COUNT> records = {{
        {sizeof(MM_TLibEntryInfo), true},        // MM_CMD_LIB_ENTRY
        {sizeof(MM_TSegInfoFromApp), true},      // MM_CMD_CREATE_SEGMENT
        {sizeof(MM_TMallocInfo), true},          // MM_CMD_MALLOC
        {sizeof(MM_TFreeInfo), false},           // MM_CMD_FREE
        {sizeof(MM_TMemsetInfo), false},         // MM_CMD_MEMSET
        {sizeof(MM_TDeleteSegmentInfo), true},   // MM_CMD_DELETE_SEGMENT
        {sizeof(MM_TAddSegmentInfo), false},     // MM_CMD_ADD_SEGMENT
        {sizeof(MM_TClearSegmentInfo), false},   // MM_CMD_CLEAR_SEGMENT
        {sizeof(MM_TMMInitOption), false},       // MM_CMD_ENTRY
        {sizeof(MM_TCollectGarbageInfo), false}, // MM_CMD_COLLECT_GARBAGE
        {sizeof(MM_TCheckSegmentInfo), true},    // MM_CMD_CHECK_SEGMENT
        {sizeof(MM_TDisplayMSTInfo), true},      // MM_CMD_DISPLAY_MST
        {sizeof(MM_TQueryPhysAddrInfo), true},   // MM_CMD_QUERY_PHYS_ADDR
        {sizeof(MM_TGetMSTInfo), true},          // MM_CMD_GET_MST
        {sizeof(MM_TGetMCTInfo), true},          // MM_CMD_GET_MCT
    }};
    const std::uint32_t index = command - MM_CMD_FIRST;
    return index < records.size() ? records[index] : CommandRecord{};
}

} // namespace velmora
