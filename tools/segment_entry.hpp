// A segment's entry in the table, and what follows from it.
#pragma once

#include <cstdint>
#include <optional>

#include <velmora/device.hpp>

namespace velmora::tools {

// nullopt where no segment has the handle, and for the heap.
std::optional<MM_TMMSegInfoWire> usedEntry(Device& device, std::uint32_t handle);

bool isSame(const MM_TMMSegInfoWire& left, const MM_TMMSegInfoWire& right);

// Bytes from one block to the next.
std::uint32_t strideOf(const MM_TMMSegInfoWire& entry);

// True when the blocks lie between the segment's bounds and the owner map, if there is one, has room for them: only then can
// its memory be read by it. The last block may reach past the end where the block size is no power of two.
bool isSound(const MM_TMMSegInfoWire& entry);

} // namespace velmora::tools
