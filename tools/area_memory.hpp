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

// Blocks that follow each other.
struct BlockStretch {
    MM_TAddr start = 0; // of the first
    std::uint32_t blocks = 0;
};

// The blocks of a segment, or of the pieces of the heap, counted through in the order of their addresses.
class BlockMemory
{
public:
    // stride is a power of two. Throws Error when the device refuses the mapping.
    BlockMemory(Device& device, const std::vector<BlockStretch>& stretches, std::uint32_t stride);

    std::uint32_t blocks() const { return blocks_; }
    std::uint32_t stride() const { return std::uint32_t(1) << shift_; }

    // The block that begins at an address; blocks() where none does.
    std::uint32_t blockAt(MM_TAddr address) const;
    MM_TAddr address(std::uint32_t block) const;
    MM_TAddr endOf(std::uint32_t block, std::uint32_t blocks) const { return address(block) + (blocks << shift_); }
    // Blocks from this one to the end of its stretch.
    std::uint32_t room(std::uint32_t block) const;
    // What stands in the first bytes of a block, header or not.
    Header header(std::uint32_t block) const;

private:
    struct Part {
        BlockStretch stretch;
        std::uint32_t first; // block
        Mapping view;
    };
    const Part& partOf(std::uint32_t block) const;

    std::uint32_t blocks_ = 0;
    unsigned shift_;
    std::vector<Part> parts_;
};

} // namespace velmora::tools
