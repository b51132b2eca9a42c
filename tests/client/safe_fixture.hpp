// A private controller with its library started, for the tests of the safe layer.
#pragma once

#include <gtest/gtest.h>

#include <velmora/controller.hpp>
#include <velmora/device.hpp>

namespace velmora::test {

// Fixed segments end at 0x95312000: the area begins at 0x95100000, and they have 0x212000 bytes.
class Safe : public ::testing::Test
{
protected:
    Safe() { startUp(device); }

    // What a call is refused with; none when it is not.
    template <class Call> static std::error_code refusal(Call call)
    {
        try {
            call();
        } catch (const Error& error) {
            return error.code();
        }
        return {};
    }

    std::uint32_t allocated(Handle handle)
    {
        return device.segment(static_cast<std::uint8_t>(handle)).value().ulTotalAllocBlkNum;
    }

    // Of the whole heap, as the kernel log has it.
    std::uint32_t allocatedInHeap()
    {
        controller.takeLog();
        device.display(MM_HEAPHANDLE);
        std::uint32_t blocks = 0;
        for (const HeapPiece& piece : heapPieces(controller.takeLog()))
            blocks += piece.blocks - piece.freeBlocks;
        return blocks;
    }

    sim::Controller controller;
    Device device{controller.open()};
};

} // namespace velmora::test
