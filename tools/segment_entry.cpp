#include "segment_entry.hpp"

#include <bit>
#include <cstring>

namespace velmora::tools {

std::optional<MM_TMMSegInfoWire> usedEntry(Device& device, std::uint32_t handle)
{
    if (handle >= MM_HEAPHANDLE)
        return std::nullopt;
    auto entry = device.segment(static_cast<std::uint8_t>(handle));
    return entry && entry->pfnAlloc != 0 ? entry : std::nullopt;
}

bool isSame(const MM_TMMSegInfoWire& left, const MM_TMMSegInfoWire& right)
{
    return std::memcmp(&left, &right, sizeof left) == 0;
}

std::uint32_t strideOf(const MM_TMMSegInfoWire& entry)
{
    return std::bit_floor(entry.stInfoFromApp.ulBlkSize);
}

bool isSound(const MM_TMMSegInfoWire& entry)
{
    const std::uint32_t bits = entry.stInfoFromApp.ubMap;
    const std::uint64_t blocks = entry.ulTotalBlkNum, stride = strideOf(entry);
    if (stride == 0 || entry.pubStartAddr == 0 || entry.pubEndAddr < entry.pubStartAddr || bits > 8 ||
        (bits != 0 && !std::has_single_bit(bits)))
        return false;
    if (blocks * stride >= entry.pubEndAddr - entry.pubStartAddr + stride)
        return false;
    if (bits == 0)
        return entry.pubMapStartAddr == 0;
    return entry.pubMapStartAddr < entry.pubMapEndAddr && entry.pubMapEndAddr <= entry.pubStartAddr &&
           blocks * bits <= std::uint64_t(entry.pubMapEndAddr - entry.pubMapStartAddr) * 8;
}

} // namespace velmora::tools
