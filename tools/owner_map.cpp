#include "owner_map.hpp"

#include <cstring>

#include "area_memory.hpp"

namespace velmora::tools {

OwnerMap::OwnerMap(Device& device, const MM_TMMSegInfoWire& entry)
    : OwnerMap(entry.stInfoFromApp.ubMap, entry.ulTotalBlkNum,
               copyOf(device, entry.pubMapStartAddr, entry.pubMapEndAddr - entry.pubMapStartAddr))
{
}

OwnerMap::OwnerMap(unsigned bits, std::uint32_t blocks, std::vector<std::uint8_t> bytes)
    : bits_(bits), perByte_(8 / bits), blocks_(blocks), bytes_(std::move(bytes))
{
}

std::uint32_t OwnerMap::byteOf(std::uint32_t block) const
{
    return static_cast<std::uint32_t>(bytes_.size()) - 1 - (blocks_ - 1 - block) / perByte_;
}

Owner OwnerMap::owner(std::uint32_t block) const
{
    const unsigned shift = (blocks_ - 1 - block) % perByte_ * bits_;
    return static_cast<Owner>(bytes_[byteOf(block)] >> shift & ((1U << bits_) - 1));
}

std::uint32_t OwnerMap::endOfSame(std::uint32_t block) const
{
    const Owner same = owner(block);
    std::uint32_t end = block + 1;
    const auto byEntry = [&](std::uint32_t stop) {
        while (end < stop && owner(end) == same)
            ++end;
        return end == stop && end < blocks_;
    };
    // The entries that are left in the first block's byte; then as many whole bytes as are all this owner's.
    const std::uint32_t left = (blocks_ - end) % perByte_;
    if (!byEntry(end + left))
        return end;
    std::uint8_t pattern = static_cast<std::uint8_t>(same);
    for (unsigned filled = bits_; filled < 8; filled *= 2)
        pattern = static_cast<std::uint8_t>(pattern | pattern << filled);
    const std::uint32_t word = pattern * 0x01010101U;
    std::size_t byte = byteOf(end);
    const std::size_t first = byte;
    for (std::uint32_t here; byte + sizeof here <= bytes_.size(); byte += sizeof here) {
        std::memcpy(&here, &bytes_[byte], sizeof here);
        if (here != word)
            break;
    }
    while (byte < bytes_.size() && bytes_[byte] == pattern)
        ++byte;
    end += static_cast<std::uint32_t>(byte - first) * perByte_;
    byEntry(blocks_);
    return end;
}

std::uint8_t OwnerMap::unusedBits(std::uint32_t byte) const
{
    const std::uint32_t fromEnd = static_cast<std::uint32_t>(bytes_.size()) - 1 - byte;
    const std::uint64_t entries = std::uint64_t(fromEnd) * perByte_; // in the bytes above it
    if (entries >= blocks_)
        return 0xFF;
    const std::uint64_t used = blocks_ - entries;
    return used >= perByte_ ? 0 : static_cast<std::uint8_t>(0xFF << used * bits_);
}

} // namespace velmora::tools
