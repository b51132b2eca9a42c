// Block allocation: the search of the free runs, the owner map, the address helpers, the search lock.
#include "support/allocator_fixture.h"

namespace velmora::test {
namespace {

class AllocBlk : public AllocatorTest
{
protected:
    AllocBlk() { start(); }
};

TEST_F(AllocBlk, FreshSegmentIsFilledFromItsEndDownwards)
{
    const U32 seg = sixteenBlocks();
    EXPECT_EQ(alloc(seg, 3), kFloatStart + 13 * 64);
    EXPECT_EQ(alloc(seg, 2), kFloatStart + 11 * 64);
    EXPECT_EQ(runs(seg), (Runs{{kFloatStart, 11}}));
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 5, 11, 11}));
    expectSilence();
}

TEST_F(AllocBlk, RequestOfTheWholeSegmentEmptiesTheList)
{
    const U32 seg = sixteenBlocks();
    EXPECT_EQ(alloc(seg, 16), kFloatStart);
    EXPECT_EQ(astBlkHead[seg].pstBlk, nullptr);
    EXPECT_EQ(astBlkTail[seg].pstBlk, nullptr);
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 16, 0, 0}));
}

TEST_F(AllocBlk, SearchTakesTheHighestRunThatFitsAndCutsItsTop)
{
    const struct {
        const char* name;
        Runs free;
        U32 request;
        U32 block;
        Runs left;
    } cases[] = {
        {"exact fit at the tail", {{0, 2}, {4, 4}, {10, 3}}, 3, 10, {{0, 2}, {4, 4}}},
        {"exact fit in the middle", {{0, 2}, {4, 4}, {10, 3}}, 4, 4, {{0, 2}, {10, 3}}},
        {"exact fit at the head", {{0, 4}, {6, 3}, {10, 3}}, 4, 0, {{6, 3}, {10, 3}}},
        {"shorter than the run at the tail", {{0, 2}, {4, 8}}, 3, 9, {{0, 2}, {4, 5}}},
        {"shorter than a run below smaller ones", {{0, 7}, {8, 2}, {12, 3}}, 4, 3, {{0, 3}, {8, 2}, {12, 3}}},
        {"higher run before the better fit", {{0, 2}, {4, 8}}, 2, 10, {{0, 2}, {4, 6}}},
        {"higher run before the exact fit", {{0, 3}, {4, 3}, {9, 7}}, 3, 13, {{0, 3}, {4, 3}, {9, 4}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        powerOn();
        start();
        const U32 seg = sixteenBlocks();
        leaveFree(seg, c.free);
        EXPECT_EQ(alloc(seg, c.request), block(seg, c.block));
        EXPECT_EQ(blockRuns(seg), c.left);

        U32 free = 0, largest = 0;
        for (const Run& run : c.left) {
            free += run.blocks;
            largest = std::max(largest, run.blocks);
        }
        EXPECT_EQ(counts(seg), (std::vector<U32>{16, 16 - free, free, largest}));
    }
}

TEST_F(AllocBlk, CutRunKeepsItsHeaderAndNothingElseIsWritten)
{
    const U32 seg = sixteenBlocks();
    fill(kFloatStart + 12, 0xA5, 16 * 64 - 12);
    alloc(seg, 4);
    EXPECT_EQ(runs(seg), (Runs{{kFloatStart, 12}}));
    EXPECT_TRUE(isFilled(kFloatStart + 12, 0xA5, 16 * 64 - 12));
}

TEST_F(AllocBlk, NoFreeBlockGivesNullBeforeAnyLock)
{
    const U32 seg = sixteenBlocks(YES);
    alloc(seg, 16);
    expectTakesNoLock([=] { return alloc(seg, 1); });
    EXPECT_EQ(alloc(seg, 1), 0U);
    expectSilence();
}

TEST_F(AllocBlk, NoRunLongEnoughGivesNullAndReleasesTheLock)
{
    const U32 seg = sixteenBlocks(YES);
    leaveFree(seg, {{0, 2}, {4, 2}});
    expectTakes(search_lock, [=] { return alloc(seg, 3); });
    EXPECT_EQ(alloc(seg, 3), 0U);
    EXPECT_EQ(blockRuns(seg), (Runs{{0, 2}, {4, 2}}));
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 12, 4, 2}));
    expectSilence();
}

TEST_F(AllocBlk, CounterThatPromisesMoreThanTheListEndsAfterOneRetry)
{
    const U32 seg = sixteenBlocks(YES);
    leaveFree(seg, {{0, 2}, {4, 2}});
    stSegTable[seg].ulLargestBlkSize = 3;
    expectTakes(
        search_lock, [=] { return alloc(seg, 3); }, 2);
    EXPECT_EQ(alloc(seg, 3), 0U);
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 12, 4, 3}));
    EXPECT_EQ(blockRuns(seg), (Runs{{0, 2}, {4, 2}}));
}

TEST_F(AllocBlk, CounterThatPromisesLessThanTheListDoesNotStopTheSearch)
{
    const U32 seg = sixteenBlocks();
    stSegTable[seg].ulLargestBlkSize = 0;
    EXPECT_EQ(alloc(seg, 4), block(seg, 12));
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 4, 12, 12}));
}

TEST_F(AllocBlk, FitIsDecidedBySignedDifference)
{
    const U32 seg = sixteenBlocks();
    EXPECT_EQ(alloc(seg, 0x80000010), 0U);             // 16 - 0x80000010 is the lowest signed number
    EXPECT_EQ(alloc(seg, 0xFFFFFFFF), block(seg, 17)); // 16 + 1 blocks remain
    EXPECT_EQ(runs(seg), (Runs{{kFloatStart, 17}}));
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 0xFFFFFFFF, 17, 17}));
}

TEST_F(AllocBlk, RequestOfNoBlocksAnswersTheEndOfTheHighestRun)
{
    const U32 seg = mapped(2);
    EXPECT_EQ(alloc(seg, 0, 1), endOf(seg));
    EXPECT_EQ(counts(seg), (std::vector<U32>{63, 0, 63, 63}));
    EXPECT_EQ(runs(seg), (Runs{{kFloatStart + 64, 63}}));
    EXPECT_TRUE(isFilled(kFloatStart, 0, 64));
}

TEST_F(AllocBlk, BlockSizeBetweenPowersOfTwoCountsAsTheLowerOne)
{
    // 100-byte blocks count as 64. The first address moves up to 0x95312004, so 64 whole units no longer fit.
    const U32 seg = createBlocks("BLKS", 4096, 100);
    EXPECT_EQ(startOf(seg), 0x95312004U);
    EXPECT_EQ(alloc(seg, 3), 0x95312004U + (63 - 3) * 64);
}

// Owner map ---------------------------------------------------------------------------------------

TEST_F(AllocBlk, OneBitMapMarksTheLastBlockInBitZeroOfTheLastByte)
{
    const U32 seg = mapped(1);
    alloc(seg, 1, 1);
    EXPECT_EQ(mapByte(seg, 1), 0x01);
    EXPECT_TRUE(isFilled(kFloatStart, 0, 63));
}

TEST_F(AllocBlk, OneBitMapOfTheLastEightBlocksFillsTheLastByte)
{
    const U32 seg = mapped(1);
    alloc(seg, 8, 1);
    EXPECT_EQ(mapByte(seg, 1), 0xFF);
    EXPECT_TRUE(isFilled(kFloatStart, 0, 63));
    alloc(seg, 1, 1);
    EXPECT_EQ(mapByte(seg, 2), 0x01);
}

TEST_F(AllocBlk, MapEntriesOfHigherBlocksLieInLowerBitsAndLaterBytes)
{
    const struct {
        U8 mapBits;
        std::vector<Run> requests; // owner, blocks
        std::vector<U8> mapFromEnd;
    } cases[] = {
        {1, {{1, 3}, {0, 2}, {1, 5}}, {0xE7, 0x03}},
        {2, {{2, 1}, {3, 2}, {1, 2}}, {0x7E, 0x01}},
        {4, {{0xA, 1}, {5, 2}, {0xF, 1}}, {0x5A, 0xF5}},
        {8, {{0xFE, 1}, {0x81, 2}, {1, 1}}, {0xFE, 0x81, 0x81, 0x01}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << int(c.mapBits) << " bits");
        powerOn();
        start();
        const U32 seg = mapped(c.mapBits);
        for (const Run& request : c.requests)
            alloc(seg, request.blocks, static_cast<U8>(request.first));

        const auto bytes = static_cast<U32>(c.mapFromEnd.size());
        for (U32 i = 0; i < bytes; ++i)
            EXPECT_EQ(mapByte(seg, i + 1), c.mapFromEnd[i]) << "byte " << i + 1 << " from the map's end";
        const U32 mapStart = MM_Addr(stSegTable[seg].pubMapStartAddr);
        EXPECT_TRUE(isFilled(mapStart, 0, MM_Addr(stSegTable[seg].pubMapEndAddr) - bytes - mapStart));
    }
}

TEST_F(AllocBlk, OwnerZeroMarksNothing)
{
    const U32 seg = mapped(4);
    alloc(seg, 5, 0);
    EXPECT_TRUE(isFilled(kFloatStart, 0, 64));
    EXPECT_EQ(counts(seg), (std::vector<U32>{63, 5, 58, 58}));
}

TEST_F(AllocBlk, SegmentWithoutMapMarksNothing)
{
    const U32 seg = sixteenBlocks();
    fill(kFloatStart + 12, 0, 16 * 64 - 12);
    alloc(seg, 2, 5);
    EXPECT_TRUE(isFilled(kFloatStart + 12, 0, 16 * 64 - 12));
    expectSilence();
}

TEST_F(AllocBlk, SetMapOrsTheOwnerIntoTheEntry)
{
    const U32 seg = mapped(4);
    MM_SetMap(seg, at(block(seg, 62)), 1, 1);
    MM_SetMap(seg, at(block(seg, 62)), 1, 4);
    EXPECT_EQ(mapByte(seg, 1), 0x05);
}

TEST_F(AllocBlk, OwnerWiderThanTheEntrySpillsIntoItsNeighboursInTheSameByte)
{
    const U32 seg = mapped(2);
    MM_SetMap(seg, at(block(seg, 62)), 1, 0x0E);
    EXPECT_EQ(mapByte(seg, 1), 0x0E);
    mapByte(seg, 1) = 0;
    MM_SetMap(seg, at(block(seg, 59)), 1, 0x1E); // top entry of the byte: what lies beyond it is lost
    EXPECT_EQ(mapByte(seg, 1), 0x80);
    EXPECT_EQ(mapByte(seg, 2), 0x00);
}

TEST_F(AllocBlk, OwnerWiderThanTheEntrySpillsWithinEveryByteOfALongRun)
{
    const U32 seg = mapped(2);
    MM_SetMap(seg, at(block(seg, 63 - 40)), 40, 0x06);
    for (U32 i = 1; i <= 10; ++i) // 0x06, 0x18, 0x60 and what is left of 0x180
        EXPECT_EQ(mapByte(seg, i), 0xFE) << "byte " << i << " from the map's end";
    EXPECT_TRUE(isFilled(kFloatStart, 0, 64 - 10));
}

TEST_F(AllocBlk, SetMapOrsTheOwnerIntoEveryEntryOfALongRun)
{
    const U32 seg = mapped(8);
    fill(kFloatStart, 0x01, 64);
    MM_SetMap(seg, at(block(seg, 63 - 23)), 22, 0x82); // all but the last block of 23
    EXPECT_EQ(mapByte(seg, 1), 0x01);
    for (U32 i = 2; i <= 23; ++i)
        EXPECT_EQ(mapByte(seg, i), 0x83) << "byte " << i << " from the map's end";
    EXPECT_TRUE(isFilled(kFloatStart, 0x01, 64 - 23));
}

TEST_F(AllocBlk, SearchMapCountsBlocksToTheEnd)
{
    EXPECT_EQ(MM_SearchMap(at(0x9000FC0), at(0x9001000), 6), 1U);
    EXPECT_EQ(MM_SearchMap(at(0x9000000), at(0x9001000), 6), 64U);
    EXPECT_EQ(MM_SearchMap(at(0x9000FC1), at(0x9001000), 6), 0U); // 63 bytes are no whole block
    EXPECT_EQ(MM_SearchMap(at(0x9000000), at(0x9001000), 0), 0x1000U);
    EXPECT_EQ(MM_SearchMap(at(0x9001001), at(0x9001000), 8), 0xFFFFFFU); // past the end: wraps
}

// Heap ----------------------------------------------------------------------------------------------

TEST_F(AllocBlk, HeapIsSearchedFromItsHighestPieceAndMarksThatPiecesMap)
{
    createHeapOf({{0x95400000, 0x1000}, {0x95500000, 0x400}}, 64, 8);
    // 16 map bytes become one block in the second piece: 15 blocks from 0x95500040.
    EXPECT_EQ(alloc(HEAPHANDLE, 15, 7), 0x95500040U);
    EXPECT_EQ(alloc(HEAPHANDLE, 2, 9), 0x95400F80U);
    EXPECT_TRUE(isFilled(0x95500040 - 15, 7, 15));
    // 64 map bytes are one block in the first piece: the map ends at 0x95400040.
    EXPECT_TRUE(isFilled(0x95400040 - 2, 9, 2));
    EXPECT_TRUE(isFilled(0x95400000, 0, 62));
    EXPECT_EQ(runs(HEAPHANDLE), (Runs{{0x95400040, 61}}));
    EXPECT_EQ(counts(HEAPHANDLE), (std::vector<U32>{78, 17, 61, 61}));
}

// Lock and counters -----------------------------------------------------------------------------------

TEST_F(AllocBlk, AllocationTakesTheSearchLockAndReleasesIt)
{
    const U32 seg = sixteenBlocks(YES);
    expectTakes(search_lock, [=] { return alloc(seg, 1); });
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 1, 15, 15}));
}

TEST_F(AllocBlk, SegmentWithoutSemaphoreTakesNoLock)
{
    const U32 seg = sixteenBlocks(NO);
    expectTakesNoLock([=] { return alloc(seg, 1); });
}

TEST_F(AllocBlk, OneSearchLockServesAllSegmentsAndNoOtherLockExcludesAllocation)
{
    const U32 seg = sixteenBlocks(YES);
    machine().lock(free_lock);
    machine().lock(push_lock);
    machine().lock(pop_lock);
    EXPECT_TRUE(machine().run([=] { return alloc(seg, 1); }).returned());
    machine().lock(search_lock);
    createHeapOf({{0x95400000, 0x1000}}, 64, 0, YES);
    EXPECT_EQ(machine().run([=] { return alloc(HEAPHANDLE, 1); }).lock, search_lock);
}

TEST_F(AllocBlk, BrokenCountersOfTheHeapPrintItsPiecesAndTheAllocationStands)
{
    createHeapOf({{0x95400000, 0x10000}, {0x95500000, 0x2000}}, 0x1000, 0, YES);
    stSegTable[HEAPHANDLE].ulTotalBlkNum += 1;
    EXPECT_EQ(alloc(HEAPHANDLE, 3), 0x9540D000U);
    EXPECT_EQ(log(), (Lines{"\r\n HEAP      49   0x   10000       4096       16           3          13        13  0"
                            "  0x95400000 0x95410000 0xffffffff 0xffffffff",
                            "\r\n HEAP      49   0x    2000       4096        2           0           2        13  0"
                            "  0x95500000 0x95502000 0xffffffff 0xffffffff"}));
    EXPECT_EQ(counts(HEAPHANDLE), (std::vector<U32>{19, 3, 15, 13}));
    EXPECT_FALSE(anyLockHeld());
}

TEST_F(AllocBlk, BrokenCountersOfAnotherSegmentPrintNothing)
{
    const U32 seg = sixteenBlocks(YES);
    stSegTable[seg].ulTotalBlkNum += 1;
    EXPECT_EQ(alloc(seg, 3), block(seg, 13));
    expectSilence();
    EXPECT_FALSE(anyLockHeld());
}

TEST_F(AllocBlk, CountersAreNotCheckedWithoutSemaphore)
{
    createHeapOf({{0x95400000, 0x10000}}, 0x1000);
    stSegTable[HEAPHANDLE].ulTotalBlkNum += 1;
    EXPECT_EQ(alloc(HEAPHANDLE, 3), 0x9540D000U);
    expectSilence();
}

} // namespace
} // namespace velmora::test
