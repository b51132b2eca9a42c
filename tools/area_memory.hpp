// Bytes of the managed area, read through a mapping.
#pragma once

#include <cstdint>
#include <vector>

#include <velmora/device.hpp>

namespace velmora::tools {

// As they are now; they may change while they are copied. Throws Error when the device refuses the mapping. None for 0 bytes.
std::vector<std::uint8_t> copyOf(Device& device, MM_TAddr address, std::uint32_t bytes);

// What a free stretch says of itself in its first bytes: of a run, or of memory that no segment has.
struct Header {
    MM_TAddr next = 0;      // of the next higher one, or 0
    MM_TAddr back = 0;      // of the next lower one, or 0
    std::uint32_t size = 0; // blocks in a segment's list of free runs, bytes in the list of free memory
    bool operator==(const Header&) const = default;
};
constexpr std::uint32_t kHeaderBytes = 12;
static_assert(sizeof(Header) == kHeaderBytes);

// Blocks that follow each other: those of a segment, or of a piece of the heap.
class BlockMemory
{
public:
    // stride is a power of two. Throws Error when the device refuses the mapping.
    BlockMemory(Device& device, MM_TAddr start, std::uint32_t blocks, std::uint32_t stride);

    MM_TAddr start() const { return start_; }
    std::uint32_t blocks() const { return blocks_; }
    std::uint32_t stride() const { return std::uint32_t(1) << shift_; }

    // True for the address of a block.
    bool hasBlockAt(MM_TAddr address) const
    {
        const std::uint32_t offset = address - start_;
        return address >= start_ && offset >> shift_ < blocks_ && (offset & (stride() - 1)) == 0;
    }
    std::uint32_t blockAt(MM_TAddr address) const { return (address - start_) >> shift_; }
    MM_TAddr address(std::uint32_t block) const { return start_ + (block << shift_); }
    // What stands in the first bytes of a block, header or not.
    Header header(std::uint32_t block) const;

private:
    MM_TAddr start_;
    std::uint32_t blocks_;
    unsigned shift_;
    Mapping view_;
};

} // namespace velmora::tools
