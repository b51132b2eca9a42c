// Processes that send anything and write anywhere into what they have mapped, between commands and, from a second thread,
// during them. Whatever they do: every command comes back, no block is given twice, nothing is lost, and memory outside
// the area stays as it is.
#include <atomic>
#include <map>
#include <random>
#include <thread>

#include "guard_fixture.h"

namespace velmora::guard {
namespace {

constexpr U32 kMargin = 0x100000; // looked at on both sides of the area

class Hostile
{
public:
    explicit Hostile(U32 seed) : random_(seed)
    {
        sim::bootController();
        std::memset(MM_At(kAreaStart - kMargin), 0x5A, kMargin);
        std::memset(MM_At(kAreaEnd), 0x5A, kMargin);
        EXPECT_EQ(enter(), ENOERR);
    }

    void run(unsigned steps)
    {
        for (unsigned i = 0; i < steps; ++i) {
            step();
            if (i % 16 == 0)
                machine().takeLog();
        }
    }

    // Everything that is held is given back: then all blocks are free again.
    void settle()
    {
        while (!held_.empty()) {
            const auto [address, block] = *held_.begin();
            EXPECT_EQ(release(block.handle, address, block.bytes), ENOERR);
            held_.erase(held_.begin());
        }
        for (U32 handle = 0; handle < MAX_SEGTABLE_SIZE; ++handle) {
            const TMMSegInfo& seg = stSegTable[handle];
            if (seg.pfnFree != MM_FreeBlk)
                continue;
            EXPECT_EQ(seg.ulTotalFreeBlkNum, seg.ulTotalBlkNum) << handle;
            EXPECT_TRUE(MM_GuardAgrees(handle));
        }
        for (U32 i = 0; i < kMargin; ++i) {
            ASSERT_EQ(*MM_At(kAreaStart - kMargin + i), 0x5A);
            ASSERT_EQ(*MM_At(kAreaEnd + i), 0x5A);
        }
    }

    // A word somewhere in the area that a process may have mapped: often where headers and maps lie.
    template <class Random> static void scribble(Random& random)
    {
        U32 address = kFloatStart + (random() % 0x60000);
        switch (random() % 4) {
        case 0: address = kFloatStart + random() % 0x6000 / 64 * 64 + random() % 12; break;
        case 1: address = kAreaStart + random() % (kAreaEnd - kAreaStart - 4); break;
        default: break;
        }
        constexpr U32 values[] = {0, 1, 0xFFFFFFFF, 0x80000000, kFloatStart, kAreaEnd, 0x94000000, 12};
        const U32 value = random() % 2 == 0 ? values[random() % std::size(values)] : random();
        std::memcpy(MM_At(address), &value, 4);
    }

private:
    struct Block {
        U32 handle, bytes;
    };

    U32 below(U32 limit) { return static_cast<U32>(random_() % limit); }
    U32 odd() // a number that breaks something
    {
        constexpr U32 values[] = {0,          1,          3,          63,      64, 65, 4096, 0x7FFFFFFF,
                                  0x80000000, 0xFFFFFFC0, 0xFFFFFFFF, 0x10031, 49, 50, 48};
        return below(2) == 0 ? values[below(std::size(values))] : random_();
    }
    U32 anyHandle() { return below(8) == 0 ? odd() : below(4) == 0 ? U32(HEAPHANDLE) : below(10); }
    U32 anyAddress()
    {
        if (!held_.empty() && below(2) == 0)
            return std::next(held_.begin(), static_cast<int>(below(std::min<U32>(held_.size(), 8))))->first +
                   (below(2) == 0 ? 0 : odd());
        return below(4) == 0 ? odd() : kFloatStart + below(0x60000) / 64 * 64;
    }

    void step()
    {
        switch (below(24)) {
        case 0: createAny(); break;
        case 1: startLibrary(below(6)); break;
        case 2: enter(below(4) == 0 ? 1 : 0); break;
        case 3: collectAny(); break;
        case 4: fill(anyAddress(), static_cast<int>(below(256)), below(2) == 0 ? below(10000) : odd()); break;
        case 5: askAny(); break;
        case 6: rows(); break;
        case 7:
        case 8: releaseWildly(); break;
        case 9:
        case 10:
        case 11: releaseHeld(); break;
        case 12: mapAny(); break;
        case 13: claimAny(); break;
        case 14:
        case 15:
        case 16: scribble(random_); break;
        default: allocateAny(); break;
        }
    }

    void createAny()
    {
        Shape shape{"XXXX", below(4) == 0 ? odd() : 64 + below(0x8000), below(4) == 0 ? odd() : 16U << below(9)};
        const char name[] = {'S', static_cast<char>('A' + below(20)), 0};
        const char* const fixed[] = {"$MCT", "$RJL", "$JCB", "$UEV", "$FIL"};
        shape.type = static_cast<U8>(below(3));
        shape.name = shape.type == FIXED ? fixed[below(5)] : name;
        constexpr U8 maps[] = {0, 1, 2, 4, 8, 3};
        shape.map = maps[below(6)];
        shape.discipline = below(4) == 0 ? STACK : LINKEDLIST;
        shape.overflow = below(3) == 0;
        if (below(12) == 0) {
            shape.bytes = 0; // the heap
            shape.discipline = below(8) == 0 ? STACK : LINKEDLIST;
        }
        create(shape);
    }

    void allocateAny()
    {
        const U32 handle = anyHandle();
        const U32 bytes = below(8) == 0 ? odd() : 1 + below(3000);
        const U32 address = allocate(handle, bytes, static_cast<U8>(below(3) == 0 ? below(256) : below(3)));
        if (address == 0 || address == kRefused)
            return;
        const U32 real = MM_CheckHeapArea(MM_At(address)) ? U32(HEAPHANDLE) : handle == HEAPHANDLE_ALIAS ? 49 : handle;
        if (stSegTable[real].pfnFree == MM_Pop)
            return; // stacks have their own arithmetic
        const U32 unit = 1U << stSegTable[real].ubBlkBit;
        const U32 asked = 1U << stSegTable[handle == HEAPHANDLE_ALIAS ? 49 : handle].ubBlkBit;
        const U32 blocks = (bytes + asked - 1) / asked;
        keep(real, address, blocks * unit, bytes);
    }

    void keep(U32 handle, U32 address, U32 bytes, U32 asked)
    {
        ASSERT_GE(bytes, asked);
        ASSERT_GE(address, kAreaStart);
        ASSERT_LE(address + bytes, kAreaEnd);
        const auto above = held_.lower_bound(address);
        ASSERT_TRUE(above == held_.end() || above->first >= address + bytes) << "given twice: " << std::hex << address;
        ASSERT_TRUE(above == held_.begin() || std::prev(above)->first + std::prev(above)->second.bytes <= address)
            << "given twice: " << std::hex << address;
        held_[address] = {handle, bytes};
    }

    void releaseHeld()
    {
        if (held_.empty())
            return;
        const auto block = std::next(held_.begin(), static_cast<int>(below(held_.size())));
        ASSERT_EQ(release(block->second.handle, block->first, block->second.bytes), ENOERR);
        held_.erase(block);
    }

    // Anything that is released goes by the bits alone: the books here follow what the segment's counts say.
    void releaseWildly()
    {
        const U32 handle = anyHandle(), address = anyAddress(), bytes = below(2) == 0 ? odd() : 1 + below(300);
        const bool released = release(handle, address, bytes) == ENOERR;
        const U32 real = MM_RealHandle(handle);
        if (!released || stSegTable[MM_CheckHeapArea(MM_At(address)) ? 49 : real].pfnFree == MM_Pop)
            return;
        const U32 asked = 1U << stSegTable[real].ubBlkBit;
        const U32 blocks = (bytes + asked - 1) / asked;
        forget(address, blocks << stSegTable[MM_CheckHeapArea(MM_At(address)) ? 49 : real].ubBlkBit);
    }

    // [address, address + bytes) is free again: it was held, all of it.
    void forget(U32 address, U32 bytes)
    {
        auto at = held_.upper_bound(address);
        ASSERT_NE(at, held_.begin()) << "what nobody held was released";
        --at;
        for (U32 past = address; past < address + bytes;) {
            ASSERT_TRUE(at != held_.end() && at->first <= past) << "what nobody held was released";
            const auto [start, block] = *at;
            at = held_.erase(at);
            ASSERT_GT(start + block.bytes, past);
            if (start < address)
                held_[start] = {block.handle, address - start};
            if (start + block.bytes > address + bytes)
                held_[address + bytes] = {block.handle, start + block.bytes - address - bytes};
            past = start + block.bytes;
        }
    }

    // Collecting goes by marks that anybody may have written. What is gone is seen by the bits.
    void collectAny()
    {
        const U32 handle = anyHandle();
        collect(handle, static_cast<U8>(below(256)));
        forgetReleased();
    }

    void forgetReleased()
    {
        std::map<U32, Block> left;
        for (const auto& [address, block] : held_) {
            const U32 unit = 1U << stSegTable[block.handle].ubBlkBit;
            if (MM_GuardHeld(address, block.bytes)) {
                left[address] = block;
                continue;
            }
            for (U32 at = address; at < address + block.bytes; at += unit)
                if (MM_GuardHeld(at, unit))
                    left[at] = {block.handle, unit};
        }
        held_ = std::move(left);
    }

    void claimAny()
    {
        const U32 handle = below(8), address = anyAddress(), blocks = below(4) == 0 ? odd() : 1 + below(8);
        if (entry([=] { return MM_ReallocBlock(handle, MM_At(address), blocks); }) == ENOERR)
            keep(handle, address, blocks << stSegTable[handle].ubBlkBit, 1);
    }

    void askAny()
    {
        TCheckSegmentInfo check{anyHandle(), anyAddress(), 0, {}};
        command(MM_CMD_CHECK_SEGMENT, check);
        TDisplayMSTInfo display{below(256), 0, {}};
        command(MM_CMD_DISPLAY_MST, display);
        TGetMSTInfo mst{};
        mst.hubHandle = static_cast<U8>(below(256));
        command(MM_CMD_GET_MST, mst);
        TQueryPhysAddrInfo phys{};
        phys.ulStart = odd();
        command(MM_CMD_QUERY_PHYS_ADDR, phys);
        entry([this] { return Velmora_MM_ioctl(MM_CMD_FIRST + below(17), odd()); });
    }

    void rows()
    {
        const char* const names[] = {"$RJL", "$JCB", "$UEV", "$ALL", "NONE"};
        TClearSegmentInfo clear{};
        std::memcpy(clear.aubCFGID, names[below(5)], 4);
        command(MM_CMD_CLEAR_SEGMENT, clear);
        if (below(40) == 0) {
            TDeleteSegmentInfo row{};
            std::memcpy(row.aubCFGID, names[below(5)], 4);
            command(MM_CMD_DELETE_SEGMENT, row);
        }
    }

    void mapAny()
    {
        sim::MapTarget target;
        TMMMapRequest request{below(2) == 0 ? odd() : anyAddress() >> 12, 0x20000000, 0x20000000 + below(0x10000000), 0,
                              &target};
        const U32 page = request.ulPgOff;
        if (entry([&] { return Velmora_MM_mmap(&request); }) == 0) {
            ASSERT_GE(page << 12, kAreaStart);
            ASSERT_LE((page << 12) + (request.ulEnd - request.ulStart), kAreaEnd);
        }
    }

    std::mt19937 random_;
    std::map<U32, Block> held_;
};

TEST(GuardHostile, ThousandsOfCommandsAndWritesNeitherOverlapNorLoseABlock)
{
    for (U32 seed = 1; seed <= 40; ++seed) {
        SCOPED_TRACE(seed);
        Hostile hostile(seed);
        hostile.run(4000);
        hostile.settle();
        if (testing::Test::HasFatalFailure() || testing::Test::HasNonfatalFailure())
            return;
    }
}

TEST(GuardHostile, WritesFromASecondThreadDuringCommandsNeitherOverlapNorLoseABlock)
{
    for (U32 seed = 1; seed <= 10; ++seed) {
        SCOPED_TRACE(seed);
        Hostile hostile(seed);
        std::atomic<bool> stop = false;
        std::thread writer([&stop, seed] {
            std::mt19937 random(seed + 1000);
            while (!stop)
                Hostile::scribble(random);
        });
        hostile.run(4000);
        stop = true;
        writer.join();
        hostile.settle();
        if (testing::Test::HasFatalFailure() || testing::Test::HasNonfatalFailure())
            return;
    }
}

} // namespace
} // namespace velmora::guard
