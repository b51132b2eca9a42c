// The owner map of a segment, copied out of the area in one go.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include <velmora/device.hpp>

namespace velmora::tools {

// Entries of 1, 2, 4 or 8 bits. The last block has the lowest bits of the last byte, the block before it the next higher ones,
// and so on down through the bytes; what is left at the low end belongs to no block.
class OwnerMap
{
public:
    // Copies the map of a segment that has one. Throws Error when the device refuses the mapping.
    OwnerMap(Device& device, const MM_TMMSegInfoWire& entry);
    // A map of so many bits with these bytes, for so many blocks. It has an entry for each.
    OwnerMap(unsigned bits, std::uint32_t blocks, std::vector<std::uint8_t> bytes);

    unsigned bits() const { return bits_; }
    std::uint32_t blocks() const { return blocks_; }
    std::span<const std::uint8_t> bytes() const { return bytes_; }

    // Of a block, counted from the segment's first.
    Owner owner(std::uint32_t block) const;
    // The first block above this one whose entry is another; blocks() when there is none.
    std::uint32_t endOfSame(std::uint32_t block) const;
    // The byte that holds the entry of a block.
    std::uint32_t byteOf(std::uint32_t block) const;
    // Bits of a byte of the map that belong to no block.
    std::uint8_t unusedBits(std::uint32_t byte) const;

private:
    unsigned bits_;
    std::uint32_t perByte_; // entries
    std::uint32_t blocks_;
    std::vector<std::uint8_t> bytes_;
};

} // namespace velmora::tools
