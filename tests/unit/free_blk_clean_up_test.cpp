// Clean-up by owner: every run of an owner's blocks back in one call.
#include "support/allocator_fixture.h"

namespace velmora::test {
namespace {

class CleanUp : public AllocatorTest
{
protected:
    CleanUp() { start(); }

    // Fills the segment from its end downwards for these owners; what remains belongs to owner 0.
    static void allocateAll(U32 seg, const std::vector<Run>& owners)
    {
        for (const Run& owner : owners)
            ASSERT_NE(alloc(seg, owner.blocks, static_cast<U8>(owner.first)), 0U);
        ASSERT_NE(alloc(seg, stSegTable[seg].ulTotalFreeBlkNum), 0U);
    }
    // The map's bytes, from its last byte down.
    static std::vector<U8> mapFromEnd(U32 seg, U32 bytes)
    {
        std::vector<U8> found;
        for (U32 i = 1; i <= bytes; ++i)
            found.push_back(mapByte(seg, i));
        return found;
    }
};

TEST_F(CleanUp, OneBitMapReleasesEachMaximalRunOfSetBits)
{
    const U32 seg = mapped(1);
    allocateAll(seg, {{1, 2}, {0, 3}, {1, 9}, {0, 1}, {1, 1}});
    MM_CleanUp(seg, 1);
    EXPECT_EQ(blockRuns(seg), (Runs{{47, 1}, {49, 9}, {61, 2}}));
    EXPECT_EQ(counts(seg), (std::vector<U32>{63, 51, 12, 9}));
    EXPECT_EQ(mapFromEnd(seg, 3), (std::vector<U8>{0, 0, 0}));
    expectSilence();
}

TEST_F(CleanUp, OnlyTheOwnersRunsAreGivenBackForEveryMapWidth)
{
    const struct {
        U8 mapBits;
        U8 owner, other; // no bit in common
        std::vector<U8> mapLeft;
    } cases[] = {
        // From the end: owner 3 blocks, other 2, owner 6, other 1, owner 1, nobody.
        {2, 2, 1, {0x40, 0x01, 0x40}},
        {4, 0xA, 5, {0x00, 0x50, 0x05, 0x00, 0x00, 0x50, 0x00}},
        {8, 0x81, 0x7E, {0, 0, 0, 0x7E, 0x7E, 0, 0, 0, 0, 0, 0, 0x7E, 0}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << int(c.mapBits) << " bits");
        powerOn();
        start();
        const U32 seg = mapped(c.mapBits);
        allocateAll(seg, {{c.owner, 3}, {c.other, 2}, {c.owner, 6}, {c.other, 1}, {c.owner, 1}});
        MM_CleanUp(seg, c.owner);
        EXPECT_EQ(blockRuns(seg), (Runs{{50, 1}, {52, 6}, {60, 3}}));
        EXPECT_EQ(counts(seg), (std::vector<U32>{63, 53, 10, 6}));
        EXPECT_EQ(mapFromEnd(seg, static_cast<U32>(c.mapLeft.size())), c.mapLeft);
        expectSilence();
    }
}

TEST_F(CleanUp, NeighbouringAllocationsOfOneOwnerGoBackAsOneRun)
{
    const U32 seg = mapped(4, YES);
    allocateAll(seg, {{3, 2}, {3, 4}, {3, 1}});
    const unsigned long takes = machine().lockTakes();
    MM_CleanUp(seg, 3);
    EXPECT_EQ(machine().lockTakes(), takes + 1);
    EXPECT_EQ(blockRuns(seg), (Runs{{56, 7}}));
}

TEST_F(CleanUp, ReleaseMergesWithWhatWasFree)
{
    const U32 seg = mapped(8);
    alloc(seg, 4, 9);
    alloc(seg, 4, 7);
    MM_CleanUp(seg, 7);
    EXPECT_EQ(blockRuns(seg), (Runs{{0, 59}}));
    MM_CleanUp(seg, 9);
    EXPECT_EQ(blockRuns(seg), (Runs{{0, 63}}));
    EXPECT_EQ(counts(seg), (std::vector<U32>{63, 0, 63, 63}));
}

TEST_F(CleanUp, EntryThatHoldsMoreBitsThanTheOwnerMatches)
{
    const U32 seg = mapped(4);
    allocateAll(seg, {{7, 2}, {8, 2}, {6, 1}, {5, 1}});
    MM_CleanUp(seg, 2); // 7 and 6 hold bit 1
    EXPECT_EQ(blockRuns(seg), (Runs{{58, 1}, {61, 2}}));
    EXPECT_EQ(mapFromEnd(seg, 3), (std::vector<U8>{0x00, 0x88, 0x50}));
}

TEST_F(CleanUp, UnknownOwnerChangesNothing)
{
    const U32 seg = mapped(8);
    allocateAll(seg, {{4, 5}});
    MM_CleanUp(seg, 3);
    EXPECT_EQ(counts(seg), (std::vector<U32>{63, 63, 0, 0}));
    EXPECT_EQ(mapFromEnd(seg, 5), (std::vector<U8>{4, 4, 4, 4, 4}));
}

TEST_F(CleanUp, OwnerBitsBeyondTheByteNeverMatch)
{
    const U32 seg = mapped(4);
    allocateAll(seg, {{1, 1}, {3, 1}, {1, 1}, {3, 1}}); // 0x31, 0x31
    MM_CleanUp(seg, 0x83); // its low half stands in the upper entries, its bit 7 would lie beyond
    EXPECT_EQ(counts(seg), (std::vector<U32>{63, 63, 0, 0}));
    EXPECT_EQ(mapFromEnd(seg, 2), (std::vector<U8>{0x31, 0x31}));
}

TEST_F(CleanUp, OwnerWiderThanTheEntryMatchesWhereItsBitsStandInNeighbouringEntries)
{
    const struct {
        U8 mapBits, owner;
        std::vector<Run> owners; // from the segment's end
        Runs given;
        std::vector<U32> counts;
        std::vector<U8> mapLeft;
    } cases[] = {
        // 0xE3 0xBF: bits 0+1, 5+6, 6+7; then 0+1 to 4+5. The highest bit of a byte has no neighbour above it.
        {1, 3, {{1, 2}, {0, 3}, {1, 9}, {0, 1}, {1, 1}}, {{50, 5}, {56, 2}, {62, 1}}, {63, 55, 8, 5}, {0x82, 0xA0, 0}},
        // 0x95 0xFF: the low bits of two neighbouring entries.
        {2, 5, {{1, 3}, {2, 1}, {3, 4}}, {{56, 3}, {61, 2}}, {63, 58, 5, 3}, {0x90, 0xC0, 0}},
        // 0x13 0x33 0x23: 3 below an entry with bit 0.
        {4, 0x13, {{3, 1}, {1, 1}, {3, 3}, {2, 1}}, {{60, 1}, {62, 1}}, {63, 61, 2, 1}, {0x10, 0x30, 0x23}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << int(c.mapBits) << " bits");
        powerOn();
        start();
        const U32 seg = mapped(c.mapBits);
        allocateAll(seg, c.owners);
        MM_CleanUp(seg, c.owner);
        EXPECT_EQ(blockRuns(seg), c.given);
        EXPECT_EQ(counts(seg), c.counts);
        EXPECT_EQ(mapFromEnd(seg, 3), c.mapLeft);
        expectSilence();
    }
}

TEST_F(CleanUp, OwnerWhoseBitsAllLieAboveTheEntryTakesTheBlockNextToThem)
{
    const U32 seg = mapped(1);
    allocateAll(seg, {{0, 1}, {1, 1}}); // 0x02
    MM_CleanUp(seg, 2);
    EXPECT_EQ(blockRuns(seg), (Runs{{62, 1}})); // the block whose own entry is clear
    EXPECT_EQ(mapByte(seg, 1), 0x02);
    expectSilence();
}

TEST_F(CleanUp, OwnerOfSevenBitsMatchesOneEntryOfEachFullByteOfOneBitEntries)
{
    const U32 seg = mapped(1);
    ASSERT_NE(alloc(seg, 40, 1), 0U); // five bytes of 0xFF
    MM_CleanUp(seg, 0xFE);
    EXPECT_EQ(blockRuns(seg), (Runs{{0, 23}, {30, 1}, {38, 1}, {46, 1}, {54, 1}, {62, 1}}));
    EXPECT_EQ(mapFromEnd(seg, 6), (std::vector<U8>{0xFE, 0xFE, 0xFE, 0xFE, 0xFE, 0}));
    EXPECT_EQ(counts(seg), (std::vector<U32>{63, 35, 28, 23}));
    expectSilence();
}

TEST_F(CleanUp, RunThatReachesTheMapsStartIsNotReleased)
{
    const U32 seg = mapped(1);
    allocateAll(seg, {});
    fill(kFloatStart, 0xFF, 64);
    mapByte(seg, 1) = 0xF7; // three blocks, then a clear bit, then everything up to the map's start
    MM_CleanUp(seg, 1);
    EXPECT_EQ(blockRuns(seg), (Runs{{60, 3}}));
    EXPECT_EQ(mapByte(seg, 1), 0xF0);
    EXPECT_TRUE(isFilled(kFloatStart, 0xFF, 63));
    expectSilence();
}

TEST_F(CleanUp, OwnerZeroMatchesEveryEntryAndReleasesNothing)
{
    const U32 seg = mapped(2);
    allocateAll(seg, {{1, 5}});
    MM_CleanUp(seg, 0);
    EXPECT_EQ(counts(seg), (std::vector<U32>{63, 63, 0, 0}));
    expectSilence();
}

TEST_F(CleanUp, SegmentWithoutMapIsLeftAlone)
{
    const U32 seg = createBlocks("BLKS", 4096, 64);
    const U32 stack = createStack("STCK", 4096, 64);
    alloc(seg, 5);
    push(stack, 5);
    MM_CleanUp(seg, 1);
    MM_CleanUp(stack, 1);
    MM_CleanUp(HEAPHANDLE, 1); // there is none yet
    EXPECT_EQ(counts(seg), (std::vector<U32>{64, 5, 59, 59}));
    EXPECT_EQ(counts(stack), (std::vector<U32>{64, 5, 59, 59}));
    expectSilence();
}

TEST_F(CleanUp, AddressesAreCountedFromTheEndOfTheDataEvenWhereItEndsInPartOfABlock)
{
    // Blocks of 102 bytes count as 64 and are aligned to 4: 16 units of the 1024 bytes placed, of which four bytes
    // become the map; 1020 bytes are 15 blocks and 60 bytes.
    const U32 seg = createBlocks("PART", 1024, 102, 1);
    ASSERT_EQ(startOf(seg), kFloatStart + 4);
    ASSERT_EQ(endOf(seg), kFloatStart + 1024);
    const U32 address = alloc(seg, 2, 1);
    EXPECT_EQ(address, kFloatStart + 4 + 13 * 64);
    EXPECT_EQ(mapByte(seg, 1), 0x03);
    MM_CleanUp(seg, 1);
    EXPECT_EQ(runs(seg), (Runs{{kFloatStart + 4, 13}, {address + 60, 2}}));
    EXPECT_EQ(mapByte(seg, 1), 0x00);
    EXPECT_EQ(counts(seg), (std::vector<U32>{15, 0, 15, 13}));
    expectSilence();
}

TEST_F(CleanUp, HeapIsCleanedPieceByPiece)
{
    createHeapOf({{0x95400000, 0x1000}, {0x95500000, 0x1000}}, 64, 8); // 63 blocks each
    alloc(HEAPHANDLE, 62, 5);
    alloc(HEAPHANDLE, 1, 6);
    alloc(HEAPHANDLE, 3, 5);
    alloc(HEAPHANDLE, 60, 6);
    MM_CleanUp(HEAPHANDLE, 5);
    EXPECT_EQ(runs(HEAPHANDLE), (Runs{{0x95401000 - 3 * 64, 3}, {0x95501000 - 62 * 64, 62}}));
    EXPECT_EQ(counts(HEAPHANDLE), (std::vector<U32>{126, 61, 65, 62}));
    expectSilence();
}

TEST_F(CleanUp, RunIsNotCarriedFromOnePieceOfTheHeapToTheNext)
{
    createHeapOf({{0x95400000, 0x1000}, {0x95500000, 0x1000}}, 64, 8);
    alloc(HEAPHANDLE, 63);
    alloc(HEAPHANDLE, 63);
    fill(0x95400000, 5, 64); // to the start of the first piece's map
    MM_CleanUp(HEAPHANDLE, 5);
    EXPECT_EQ(counts(HEAPHANDLE), (std::vector<U32>{126, 126, 0, 0}));
    expectSilence();
}

TEST_F(CleanUp, HeapOfFivePiecesIsCleanedToItsLast)
{
    createHeapOf(
        {{0x95400000, 0x400}, {0x95500000, 0x400}, {0x95600000, 0x400}, {0x95700000, 0x400}, {0x95800000, 0x400}}, 64,
        1);
    for (int piece = 0; piece < 5; ++piece)
        alloc(HEAPHANDLE, 15, 1);
    MM_CleanUp(HEAPHANDLE, 1);
    EXPECT_EQ(counts(HEAPHANDLE), (std::vector<U32>{75, 0, 75, 15}));
    expectSilence();
}

TEST_F(CleanUp, LockIsTakenRunByRun)
{
    const U32 seg = mapped(1, YES);
    allocateAll(seg, {{1, 2}, {0, 3}, {1, 9}, {0, 1}, {1, 1}});
    expectTakes(
        free_lock,
        [=] {
            MM_CleanUp(seg, 1);
            return 0U;
        },
        3);
}

TEST_F(CleanUp, SegmentWithoutSemaphoreTakesNoLock)
{
    const U32 seg = mapped(1, NO);
    allocateAll(seg, {{1, 2}});
    expectTakesNoLock([=] {
        MM_CleanUp(seg, 1);
        return 0U;
    });
}

TEST_F(CleanUp, RefusedRunLeavesTheLockHeldAndTheNextRunHangs)
{
    const U32 seg = mapped(1, YES);
    leaveFree(seg, {{61, 2}});
    mapByte(seg, 1) = 0x0B; // a free run that the map calls allocated, then an allocated one
    const Outcome outcome = machine().run([=] {
        MM_CleanUp(seg, 1);
        return 0U;
    });
    EXPECT_EQ(outcome.kind, Outcome::Kind::Hang);
    EXPECT_EQ(outcome.lock, free_lock);
    EXPECT_EQ(log(), (Lines{check("(U32)stTemp.pstBlk != stBlkPtr.ulyisl && \"Already Freed Block is requested!!\"",
                                  "mm/MM_FreeBlk", "MM_FreeBlk")}));
    EXPECT_EQ(mapByte(seg, 1), 0x08);
    EXPECT_EQ(blockRuns(seg), (Runs{{61, 2}}));
}

} // namespace
} // namespace velmora::test
