// Takes an input apart. Behind its end everything is 0.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>

#include "kernel/mm/MM_Platform.h"

namespace velmora::fuzz {

class Bytes
{
public:
    Bytes(const std::uint8_t* data, std::size_t size) : next_(data), end_(data + size) {}

    bool more() const { return next_ < end_; }
    U32 byte() { return more() ? *next_++ : 0; }
    U32 half()
    {
        const U32 low = byte();
        return low | byte() << 8;
    }
    U32 word()
    {
        const U32 low = half();
        return low | half() << 16;
    }
    U32 below(U32 limit) { return (limit <= 256 ? byte() : half()) % limit; }

    // A number beside some border, or any.
    U32 odd()
    {
        static constexpr U32 borders[] = {0,
                                          1,
                                          2,
                                          3,
                                          4,
                                          12,
                                          15,
                                          16,
                                          63,
                                          64,
                                          65,
                                          4095,
                                          4096,
                                          0x10000,
                                          0x7FFFFFFF,
                                          0x80000000,
                                          0xFFFFF000,
                                          0xFFFFFFC0,
                                          0xFFFFFFF4,
                                          0xFFFFFFFF,
                                          HEAPHANDLE_ALIAS,
                                          HEAPHANDLE,
                                          MAX_SEGTABLE_SIZE,
                                          255};
        const U32 which = byte();
        return which < std::size(borders) * 8 ? borders[which / 8] : word();
    }

private:
    const std::uint8_t* next_;
    const std::uint8_t* end_;
};

} // namespace velmora::fuzz
