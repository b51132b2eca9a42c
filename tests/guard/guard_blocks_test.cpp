// Allocation and release in the guarded build: what is refused, and what stray writes do not change.
#include "guard_fixture.h"

namespace velmora::guard {
namespace {

const std::string kNotAllocated = "the blocks are not allocated";
const std::string kRebuilt = "the free list or the owner map was overwritten";

class GuardBlocks : public GuardTest
{
protected:
    // 64 blocks of 64 bytes without a map, from kFloatStart; and 63 behind a map.
    const U32 handle = segment({"BLKS", 4096, 64});
    const U32 mapped = segment({"MAPD", 4096, 64, 8});
    const U32 start = kFloatStart;
};

TEST_F(GuardBlocks, ASecondReleaseIsRefused)
{
    const U32 first = allocate(handle, 256, 0);
    EXPECT_EQ(release(handle, first, 256), ENOERR);
    expectRefused(kNotAllocated, EASSERT, [&] { return release(handle, first, 256); });
    const U32 owned = allocate(mapped, 64, 5);
    EXPECT_EQ(release(mapped, owned, 64), ENOERR);
    expectRefused(kNotAllocated, EASSERT, [&] { return release(mapped, owned, 64); });
    EXPECT_EQ(allocate(handle, 4096, 0), start);
}

TEST_F(GuardBlocks, AReleaseThatReachesIntoFreeBlocksIsRefusedWhole)
{
    const U32 first = allocate(handle, 256, 0);
    expectRefused(kNotAllocated, EASSERT, [&] { return release(handle, first - 64, 128); });
    expectRefused(kNotAllocated, EASSERT, [&] { return release(handle, first, 320); }); // past the segment's end
    EXPECT_EQ(release(handle, first, 256), ENOERR);
}

TEST_F(GuardBlocks, AReleaseInsideABlockIsRefused)
{
    const U32 first = allocate(handle, 256, 0);
    for (const U32 off : {1U, 4U, 32U, 63U})
        expectRefused(kNotAllocated, EASSERT, [&] { return release(handle, first + off, 64); });
}

TEST_F(GuardBlocks, AReleaseOfAnotherSegmentsBlocksIsRefused)
{
    const U32 other = allocate(mapped, 128, 3);
    expectRefused(kNotAllocated, EASSERT, [&] { return release(handle, other, 128); });
    expectRefused(kNotAllocated, EASSERT, [&] { return release(handle, 0x94000000, 64); });
    expectRefused(kNotAllocated, EASSERT, [&] { return release(handle, 0xFFFFFFC0, 64); });
    EXPECT_EQ(release(mapped, other, 128), ENOERR);
}

TEST_F(GuardBlocks, PartsOfAnAllocationMayBeReleased)
{
    const U32 first = allocate(handle, 256, 0);
    EXPECT_EQ(release(handle, first + 64, 128), ENOERR);
    expectRefused(kNotAllocated, EASSERT, [&] { return release(handle, first, 256); });
    EXPECT_EQ(release(handle, first, 64), ENOERR);
    EXPECT_EQ(release(handle, first + 192, 64), ENOERR);
    expectWhole(handle);
}

// Every word of a run's header, with values that a walk would follow anywhere.
TEST_F(GuardBlocks, OverwrittenHeadersChangeNoAnswerAndAreMadeAgain)
{
    for (const U32 value : {0U, 0xFFFFFFFFU, start + 64 * 10, 0x94000001U, 0xDEADBEEFU, 0x80000000U})
        for (unsigned word = 0; word < 3; ++word) {
            // Free runs of one block at 0, of two at 2, of 59 from 5 on, less the last one.
            ASSERT_EQ(allocate(handle, 4096, 0), start);
            ASSERT_EQ(release(handle, start, 64), ENOERR);
            ASSERT_EQ(release(handle, start + 2 * 64, 128), ENOERR);
            ASSERT_EQ(release(handle, start + 5 * 64, 58 * 64), ENOERR);
            machine().takeLog();
            for (const U32 run : {start, start + 2 * 64, start + 5 * 64})
                std::memcpy(MM_At(run + 4 * word), &value, 4);

            EXPECT_EQ(allocate(handle, 3 * 64, 0), start + 60 * 64);
            EXPECT_EQ(allocate(handle, 55 * 64, 0), start + 5 * 64); // the whole run
            EXPECT_EQ(lines(kRebuilt), 1U) << word << " " << value;
            expectWhole(handle);
            EXPECT_EQ(allocate(handle, 3 * 64, 0), 0U);
            EXPECT_EQ(allocate(handle, 2 * 64, 0), start + 2 * 64);
            EXPECT_EQ(allocate(handle, 64, 0), start);
            EXPECT_EQ(release(handle, start, 4096), ENOERR); // every block was allocated again
            expectWhole(handle);
        }
}

TEST_F(GuardBlocks, AMapFullOfAnythingHandsOutNothingTwice)
{
    const TMMSegInfo& seg = stSegTable[mapped];
    const U32 held = allocate(mapped, 10 * 64, 7);
    std::memset(seg.pubMapStartAddr, 0xFF, static_cast<std::size_t>(seg.pubMapEndAddr - seg.pubMapStartAddr));
    machine().takeLog();
    const U32 next = allocate(mapped, 64, 9);
    EXPECT_EQ(next, held - 64);
    EXPECT_EQ(lines(kRebuilt), 1U);
    // The free blocks' entries are nobody's again; what is allocated keeps its mark, whoever wrote it.
    for (U32 entry = 1; entry <= 63; ++entry)
        EXPECT_EQ(*(seg.pubMapEndAddr - entry), entry <= 10 ? 0xFF : entry == 11 ? 9 : 0) << entry;
    expectWhole(mapped);
}

TEST_F(GuardBlocks, CollectingReleasesAllocatedBlocksOnly)
{
    const TMMSegInfo& seg = stSegTable[mapped];
    const U32 held = allocate(mapped, 4 * 64, 7);
    ASSERT_NE(held, 0U);
    std::memset(seg.pubMapEndAddr - 60, 5, 60); // blocks that are free are said to be owner 5's
    machine().takeLog();
    EXPECT_EQ(collect(mapped, 5), ENOERR);
    EXPECT_EQ(seg.ulTotalAllocBlkNum, 0U); // the four were marked so as well
    EXPECT_EQ(lines(kRebuilt), 1U);
    expectWhole(mapped);
}

TEST_F(GuardBlocks, AnOwnerThatTheMapCannotHoldIsRefused)
{
    const U32 narrow = segment({"NARR", 4096, 64, 2});
    EXPECT_EQ(allocate(narrow, 64, 4), kRefused); // as in the default build
    ASSERT_NE(allocate(narrow, 64, 3), 0U);
    machine().takeLog();
    EXPECT_EQ(collect(narrow, 0x0F), ENOERR);
    EXPECT_EQ(lines("the owner does not fit"), 1U);
    EXPECT_EQ(stSegTable[narrow].ulTotalAllocBlkNum, 1U);
}

TEST_F(GuardBlocks, AllocationsOfNothingAndOfTooMuchGetNothing)
{
    EXPECT_EQ(allocate(handle, 0, 0), kRefused);
    EXPECT_EQ(MM_AllocBlock(handle, 0, 0), 0U);
    for (const U32 bytes : {4097U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFC0U})
        EXPECT_EQ(allocate(handle, bytes, 0), 0U) << bytes;
    for (const U32 blocks : {65U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU})
        EXPECT_EQ(MM_AllocBlock(handle, blocks, 0), 0U) << blocks;
    expectWhole(handle);
}

TEST_F(GuardBlocks, BlocksThatAreNoPowerOfTwoGiveAsManyBytesAsAreAskedFor)
{
    const U32 odd = segment({"ODD ", 6400, 100}); // acts as 64
    const U32 first = allocate(odd, 200, 0);
    const U32 second = allocate(odd, 200, 0);
    EXPECT_EQ(first - second, 256U);
    EXPECT_EQ(release(odd, first, 200), ENOERR);
    EXPECT_EQ(release(odd, second, 200), ENOERR);
    EXPECT_EQ(stSegTable[odd].ulTotalAllocBlkNum, 0U);
}

TEST_F(GuardBlocks, AnOverflowThatWouldGiveFewerBytesIsRefused)
{
    Shape full{"FULL", 8192, 4096};
    full.overflow = 1;
    const U32 large = segment(full);
    segment({"HEAP", 0, 64});
    ASSERT_NE(allocate(large, 8192, 0), 0U);
    machine().takeLog();
    EXPECT_EQ(allocate(large, 4096, 0), 0U);
    EXPECT_EQ(lines("the heap's blocks are smaller"), 1U);
}

TEST_F(GuardBlocks, AClaimLiesInsideOneFreeRunAndItsRestWhereItBelongs)
{
    const auto claim = [&](U32 block, U32 blocks) {
        return MM_ReallocBlock(handle, MM_At(start + block * 64), blocks);
    };
    const auto refuse = [&](U32 block, U32 blocks) {
        expectRefused("the claim does not lie", EASSERT, [&] { return claim(block, blocks); });
    };
    EXPECT_EQ(claim(10, 5), U32(ENOERR));
    expectWhole(handle);
    EXPECT_EQ(claim(15, 2), U32(ENOERR)); // the first blocks of a run: the rest follows them
    expectWhole(handle);
    EXPECT_EQ(claim(60, 4), U32(ENOERR));
    expectWhole(handle);
    refuse(16, 1);
    refuse(8, 3);
    refuse(17, 44);
    EXPECT_EQ(stSegTable[handle].ulTotalAllocBlkNum, 11U);
}

TEST_F(GuardBlocks, PermanentBlocksAreAllocatedOnes)
{
    const U32 heap = segment({"HEAP", 0, 4096, 8});
    const U32 held = allocate(heap, 8192, 1);
    machine().takeLog();
    MM_SetPermanentBlk(held - 4096, 2);
    EXPECT_EQ(lines(kNotAllocated), 1U);
    EXPECT_EQ(MM_GetPermanentStartBlk(), 0U);
    MM_SetPermanentBlk(held, 2);
    EXPECT_EQ(MM_CheckPermanentBlk(held, 2), 1U);
    MM_ReleasePermanentBlk(held, 3);
    EXPECT_EQ(lines(kNotAllocated), 1U);
    MM_RlsAllPermanentBlk();
    EXPECT_EQ(stSegTable[heap].ulTotalAllocBlkNum, 0U);
}

TEST_F(GuardBlocks, APopThatIsNotTheLastPushChangesNothing)
{
    Shape shape{"STCK", 1024, 1};
    shape.discipline = STACK;
    const U32 stack = segment(shape);
    const U32 first = allocate(stack, 8, 0);
    const U32 second = allocate(stack, 5, 0); // takes 8 bytes
    EXPECT_EQ(first - second, 8U);
    const std::string line = "this is not what was pushed last";
    expectRefused(line, EASSERT, [&] { return release(stack, first, 8); });
    expectRefused(line, EASSERT, [&] { return release(stack, second, 14); });
    EXPECT_EQ(release(stack, second, 5), ENOERR);
    EXPECT_EQ(release(stack, first, 8), ENOERR);
    expectRefused(line, EASSERT, [&] { return release(stack, first + 8, 1); });
    EXPECT_EQ(stSegTable[stack].ulTotalFreeBlkNum, 1024U);
    EXPECT_EQ(allocate(stack, 1023, 0), MM_Addr(stSegTable[stack].pubStartAddr));
}

// A flood of refusals is a few lines.
TEST_F(GuardBlocks, LinesOfOneKindBecomeSeldom)
{
    for (unsigned i = 0; i < 10000; ++i)
        EXPECT_EQ(release(handle, start, 64), EASSERT);
    EXPECT_EQ(lines(kNotAllocated), 32U + 8U); // 64, 128, ... 8192
}

} // namespace
} // namespace velmora::guard
