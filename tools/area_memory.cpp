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
BlockMemory::BlockMemory(Device& device, MM_TAddr start, std::uint32_t blocks, std::uint32_t stride)
    : start_(start), blocks_(blocks), shift_(static_cast<unsigned>(std::countr_zero(stride))),
      view_(device.map(start, blocks * stride + (stride < kHeaderBytes ? kHeaderBytes : 0)))
{
}

Header BlockMemory::header(std::uint32_t block) const
{
    Header header;
    std::memcpy(&header, view_.bytes().data() + (std::size_t(block) << shift_), sizeof header);
    return header;
}

} // namespace velmora::tools
