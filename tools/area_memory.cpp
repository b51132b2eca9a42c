#include "area_memory.hpp"

#include <bit>
#include <cstring>

namespace velmora::tools {

std::vector<std::uint8_t> copyOf(Device& device, MM_TAddr address, std::uint32_t bytes)
{
    std::vector<std::uint8_t> copy(bytes);
    if (bytes != 0) {
        const Mapping view = device.map(address, bytes);
        std::memcpy(copy.data(), view.bytes().data(), bytes);
    }
    return copy;
}

// Where blocks are smaller than a header, the last one's reaches past them.
BlockMemory::BlockMemory(Device& device, const std::vector<BlockStretch>& stretches, std::uint32_t stride)
    : shift_(static_cast<unsigned>(std::countr_zero(stride)))
{
    for (const BlockStretch& stretch : stretches) {
        const std::uint32_t bytes = stretch.blocks * stride + (stride < kHeaderBytes ? kHeaderBytes : 0);
        parts_.push_back({stretch, blocks_, device.map(stretch.start, bytes)});
        blocks_ += stretch.blocks;
    }
}

const BlockMemory::Part& BlockMemory::partOf(std::uint32_t block) const
{
    const Part* part = parts_.data();
    while (block - part->first >= part->stretch.blocks)
        ++part;
    return *part;
}

std::uint32_t BlockMemory::blockAt(MM_TAddr address) const
{
    for (const Part& part : parts_) {
        const std::uint32_t offset = address - part.stretch.start;
        if (address >= part.stretch.start && offset >> shift_ < part.stretch.blocks)
            return (offset & (stride() - 1)) == 0 ? part.first + (offset >> shift_) : blocks_;
    }
    return blocks_;
}

MM_TAddr BlockMemory::address(std::uint32_t block) const
{
    const Part& part = partOf(block);
    return part.stretch.start + ((block - part.first) << shift_);
}

std::uint32_t BlockMemory::room(std::uint32_t block) const
{
    const Part& part = partOf(block);
    return part.stretch.blocks - (block - part.first);
}

Header BlockMemory::header(std::uint32_t block) const
{
    const Part& part = partOf(block);
    Header header;
    std::memcpy(&header, part.view.bytes().data() + (std::size_t(block - part.first) << shift_), sizeof header);
    return header;
}

} // namespace velmora::tools
