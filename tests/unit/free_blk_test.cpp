// Block release: the checks, the list, the counters, the owner map, and the release lock.
#include "support/allocator_fixture.h"

namespace velmora::test {
namespace {

const char kOutOfRange[] = "\"Free Request is over the available Range of Segment\"";

class FreeBlk : public AllocatorTest
{
protected:
    FreeBlk() { start(); }

    static std::string failed(const std::string& text) { return check(text, "mm/MM_FreeBlk", "MM_FreeBlk"); }
    static std::string clearFailed(const std::string& text) { return check(text, "mm/MM_FreeBlk", "MM_ClearMap"); }

    const std::string outsideHeap = failed(std::string("ubFindRange == 1 && ") + kOutOfRange);
    const std::string belowStart =
        failed(std::string("(pubRlsAddr >= stSegTable[hulHandle].pubStartAddr) && ") + kOutOfRange);
    const std::string atEnd = failed(std::string("(pubRlsAddr < stSegTable[hulHandle].pubEndAddr) && ") + kOutOfRange);
    const std::string noBlocks = failed("(ulBlkNo > 0) && \"Requested Block Number is invalid\"");
    const std::string freedAlready =
        failed("(U32)stTemp.pstBlk != stBlkPtr.ulyisl && \"Already Freed Block is requested!!\"");
    const std::string negative = failed("(S32)stSegTable[hulHandle].ulTotalAllocBlkNum >= 0 && "
                                        "\"Allocating Block number is turned to minus\"");
    const std::string largestTooLarge =
        failed("(stSegTable[hulHandle].ulLargestBlkSize >= 0) && "
               "(stSegTable[hulHandle].ulLargestBlkSize <= stSegTable[hulHandle].ulTotalFreeBlkNum)");
    const std::string wrongTotal =
        failed("((stSegTable[hulHandle].ulTotalFreeBlkNum + stSegTable[hulHandle].ulTotalAllocBlkNum) == "
               "stSegTable[hulHandle].ulTotalBlkNum) && \"Total Blk Number is Wrong!!\"");
    const std::string bitFreedAlready =
        clearFailed("((*(stTempBlk.pubyiscp) & ubBitMask ) != 0) && \"This bit is already freed!!\"");
};

TEST_F(FreeBlk, ReleasingTheOnlyAllocatedRunLeavesOneRunOverTheSegment)
{
    const U32 seg = sixteenBlocks();
    const U32 address = alloc(seg, 5);
    EXPECT_EQ(release(seg, address, 5), U32(ENOERR));
    EXPECT_EQ(runs(seg), (Runs{{kFloatStart, 16}}));
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 0, 16, 16}));
    expectSilence();
}

TEST_F(FreeBlk, ReleasedRunIsPutInOrderAndMergedWithWhatItTouches)
{
    const struct {
        const char* name;
        Runs free;
        Run released;
        Runs after;
    } cases[] = {
        {"into an empty list", {}, {5, 2}, {{5, 2}}},
        {"above the tail", {{2, 2}}, {8, 3}, {{2, 2}, {8, 3}}},
        {"above the tail, touching it", {{2, 2}}, {4, 3}, {{2, 5}}},
        {"above the tail, touching it, with a run below", {{0, 1}, {2, 2}}, {4, 3}, {{0, 1}, {2, 5}}},
        {"below the head", {{8, 2}}, {2, 3}, {{2, 3}, {8, 2}}},
        {"below the head, touching it", {{8, 2}}, {5, 3}, {{5, 5}}},
        {"below the head, touching it, with a run above", {{8, 2}, {12, 1}}, {5, 3}, {{5, 5}, {12, 1}}},
        {"between two runs", {{0, 1}, {14, 1}}, {6, 2}, {{0, 1}, {6, 2}, {14, 1}}},
        {"between two runs, touching the lower", {{0, 2}, {14, 1}}, {2, 2}, {{0, 4}, {14, 1}}},
        {"between two runs, touching the upper, the tail", {{0, 2}, {6, 2}}, {4, 2}, {{0, 2}, {4, 4}}},
        {"between two runs, touching the upper", {{0, 2}, {6, 2}, {14, 1}}, {4, 2}, {{0, 2}, {4, 4}, {14, 1}}},
        {"between two runs, touching both, the tail", {{0, 2}, {4, 2}}, {2, 2}, {{0, 6}}},
        {"between two runs, touching both", {{0, 2}, {4, 2}, {14, 1}}, {2, 2}, {{0, 6}, {14, 1}}},
        {"between many runs, touching both", {{0, 1}, {3, 1}, {6, 1}, {9, 1}}, {4, 2}, {{0, 1}, {3, 4}, {9, 1}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        powerOn();
        start();
        const U32 seg = sixteenBlocks(YES);
        leaveFree(seg, c.free);
        EXPECT_EQ(release(seg, block(seg, c.released.first), c.released.blocks), U32(ENOERR));
        EXPECT_EQ(blockRuns(seg), c.after);

        U32 free = 0, largest = 0;
        for (const Run& run : c.after) {
            free += run.blocks;
            largest = std::max(largest, run.blocks);
        }
        EXPECT_EQ(counts(seg), (std::vector<U32>{16, 16 - free, free, largest}));
        EXPECT_FALSE(anyLockHeld());
        expectSilence();
    }
}

TEST_F(FreeBlk, ReleaseWritesTheRunsFirstTwelveBytesOnly)
{
    const U32 seg = sixteenBlocks();
    const U32 address = alloc(seg, 16);
    fill(address, 0xA5, 16 * 64);
    release(seg, address + 4 * 64, 2);
    EXPECT_TRUE(isFilled(address, 0xA5, 4 * 64));
    EXPECT_TRUE(isFilled(address + 4 * 64 + 12, 0xA5, 12 * 64 - 12));
}

TEST_F(FreeBlk, AddressOutsideTheSegmentIsRefused)
{
    const U32 seg = sixteenBlocks();
    alloc(seg, 16);
    for (const U32 blocks : {1U, 0U}) { // the range is checked before the count
        EXPECT_EQ(release(seg, startOf(seg) - 1, blocks), U32(EASSERT));
        EXPECT_EQ(log(), (Lines{belowStart}));
        EXPECT_EQ(release(seg, endOf(seg), blocks), U32(EASSERT));
        EXPECT_EQ(log(), (Lines{atEnd}));
    }
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 16, 0, 0}));
    EXPECT_EQ(runs(seg), Runs{});
    EXPECT_EQ(release(seg, startOf(seg), 1), U32(ENOERR));
    EXPECT_EQ(release(seg, endOf(seg) - 64, 1), U32(ENOERR));
    expectSilence();
}

TEST_F(FreeBlk, AddressOutsideTheHeapsPiecesIsRefused)
{
    createHeapOf({{0x95400000, 0x1000}, {0x95500000, 0x1000}}, 64);
    alloc(HEAPHANDLE, 64);
    for (const U32 address : {0x953FFFC0U, 0x95401000U, 0x954FFFC0U, 0x95501000U}) {
        EXPECT_EQ(release(HEAPHANDLE, address, 1), U32(EASSERT));
        EXPECT_EQ(log(), (Lines{outsideHeap}));
    }
    EXPECT_EQ(counts(HEAPHANDLE), (std::vector<U32>{128, 64, 64, 64}));
    EXPECT_EQ(release(HEAPHANDLE, 0x95500FC0, 1), U32(ENOERR));
    expectSilence();
}

TEST_F(FreeBlk, NothingCanBeReleasedToAHeapThatDoesNotExist)
{
    EXPECT_EQ(release(HEAPHANDLE, 0x95400000, 1), U32(EASSERT));
    EXPECT_EQ(log(), (Lines{outsideHeap}));
}

TEST_F(FreeBlk, HeapRunsOfDifferentPiecesStandInOneList)
{
    createHeapOf({{0x95400000, 0x1000}, {0x95500000, 0x1000}}, 64);
    alloc(HEAPHANDLE, 64);
    alloc(HEAPHANDLE, 64);
    EXPECT_EQ(release(HEAPHANDLE, 0x95500000, 3), U32(ENOERR));
    EXPECT_EQ(release(HEAPHANDLE, 0x95400FC0, 1), U32(ENOERR));
    EXPECT_EQ(runs(HEAPHANDLE), (Runs{{0x95400FC0, 1}, {0x95500000, 3}}));
}

TEST_F(FreeBlk, NoBlocksAreRefused)
{
    const U32 seg = sixteenBlocks();
    const U32 address = alloc(seg, 2);
    EXPECT_EQ(release(seg, address, 0), U32(EASSERT));
    EXPECT_EQ(log(), (Lines{noBlocks}));
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 2, 14, 14}));
}

TEST_F(FreeBlk, HeaderOfAFreeRunIsRefusedWhereverItStands)
{
    for (const U32 number : {12U, 4U, 0U}) { // tail, middle, head
        SCOPED_TRACE(number);
        powerOn();
        start();
        const U32 seg = sixteenBlocks();
        leaveFree(seg, {{0, 2}, {4, 2}, {12, 2}});
        EXPECT_EQ(release(seg, block(seg, number), 1), U32(EASSERT));
        EXPECT_EQ(log(), (Lines{freedAlready}));
        EXPECT_EQ(blockRuns(seg), (Runs{{0, 2}, {4, 2}, {12, 2}}));
        EXPECT_EQ(counts(seg), (std::vector<U32>{16, 10, 6, 2}));
    }
}

TEST_F(FreeBlk, MapIsClearedBeforeTheListRefuses)
{
    const U32 seg = mapped(1);
    mapByte(seg, 8) = 0x40; // the first block, distance 63, which is free
    EXPECT_EQ(release(seg, startOf(seg), 1), U32(EASSERT));
    EXPECT_EQ(log(), (Lines{freedAlready}));
    EXPECT_EQ(mapByte(seg, 8), 0);
}

TEST_F(FreeBlk, RunThatOverlapsAFreeOneOtherwiseIsAccepted)
{
    const U32 seg = sixteenBlocks();
    alloc(seg, 4);
    EXPECT_EQ(release(seg, block(seg, 4), 2), U32(ENOERR));
    EXPECT_EQ(blockRuns(seg), (Runs{{0, 12}, {4, 2}}));
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 2, 14, 12}));
    expectSilence();
}

TEST_F(FreeBlk, MoreBlocksThanAllocatedAreReportedWithTheRunInTheList)
{
    const U32 seg = sixteenBlocks();
    alloc(seg, 1);
    EXPECT_EQ(release(seg, block(seg, 4), 3), U32(EASSERT));
    EXPECT_EQ(log(), (Lines{negative}));
    EXPECT_EQ(blockRuns(seg), (Runs{{0, 15}, {4, 3}}));
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, U32(-2), 15, 15})); // free and largest not yet counted
}

TEST_F(FreeBlk, LargestRunAboveTheFreeCountIsReportedWithEverythingCounted)
{
    const U32 seg = sixteenBlocks();
    const U32 address = alloc(seg, 16);
    stSegTable[seg].ulTotalFreeBlkNum = U32(-2);
    EXPECT_EQ(release(seg, address, 4), U32(EASSERT));
    EXPECT_EQ(log(), (Lines{largestTooLarge}));
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 12, 2, 4}));
    EXPECT_EQ(blockRuns(seg), (Runs{{0, 4}}));
}

TEST_F(FreeBlk, BrokenTotalIsReportedUnderTheLockOnly)
{
    for (const U8 semaphore : {YES, NO}) {
        SCOPED_TRACE(int(semaphore));
        powerOn();
        start();
        const U32 seg = sixteenBlocks(semaphore);
        const U32 address = alloc(seg, 2);
        stSegTable[seg].ulTotalBlkNum += 1;
        EXPECT_EQ(release(seg, address, 2), U32(semaphore == YES ? EASSERT : ENOERR));
        EXPECT_EQ(log(), semaphore == YES ? (Lines{wrongTotal}) : Lines{});
        EXPECT_EQ(counts(seg), (std::vector<U32>{17, 0, 16, 16}));
        EXPECT_EQ(machine().lockHeld(free_lock), semaphore == YES);
    }
}

TEST_F(FreeBlk, BrokenTotalOfTheHeapPrintsItsPiecesFirst)
{
    createHeapOf({{0x95400000, 0x10000}}, 0x1000, 0, YES);
    const U32 address = alloc(HEAPHANDLE, 2);
    stSegTable[HEAPHANDLE].ulTotalBlkNum += 1;
    EXPECT_EQ(release(HEAPHANDLE, address, 1), U32(EASSERT));
    EXPECT_EQ(log(), (Lines{"\r\n HEAP      49   0x   10000       4096       16           1          15        15  0"
                            "  0x95400000 0x95410000 0xffffffff 0xffffffff",
                            wrongTotal}));
    EXPECT_TRUE(machine().lockHeld(free_lock));
}

// Lock ------------------------------------------------------------------------------------------------

TEST_F(FreeBlk, ReleaseTakesTheReleaseLockAndReleasesIt)
{
    const U32 seg = sixteenBlocks(YES);
    const U32 address = alloc(seg, 2);
    expectTakes(free_lock, [=] { return release(seg, address, 2); });
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 0, 16, 16}));
}

TEST_F(FreeBlk, SegmentWithoutSemaphoreTakesNoLock)
{
    const U32 seg = sixteenBlocks(NO);
    const U32 address = alloc(seg, 2);
    expectTakesNoLock([=] { return release(seg, address, 2); });
}

TEST_F(FreeBlk, EveryFailedCheckLeavesTheLockHeldAndTheNextReleaseHangs)
{
    const struct {
        const char* name;
        std::function<void(U32 seg)> fail;
    } cases[] = {
        {"below the start", [](U32 seg) { release(seg, startOf(seg) - 64, 1); }},
        {"at the end", [](U32 seg) { release(seg, endOf(seg), 1); }},
        {"no blocks", [](U32 seg) { release(seg, startOf(seg), 0); }},
        {"header of the tail", [](U32 seg) { release(seg, block(seg, 8), 1); }},
        {"header of the head", [](U32 seg) { release(seg, block(seg, 2), 1); }},
        {"allocated turns negative", [](U32 seg) { release(seg, block(seg, 0), 16); }},
        {"largest above free",
         [](U32 seg) {
             stSegTable[seg].ulTotalFreeBlkNum = 0;
             release(seg, block(seg, 0), 1);
         }},
        {"broken total",
         [](U32 seg) {
             stSegTable[seg].ulTotalBlkNum = 0;
             release(seg, block(seg, 0), 1);
         }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        powerOn();
        start();
        const U32 seg = sixteenBlocks(YES);
        leaveFree(seg, {{2, 4}, {8, 4}});
        c.fail(seg);
        EXPECT_EQ(log().size(), 1U);
        EXPECT_TRUE(machine().run([=] { return alloc(seg, 1); }).returned()); // its own lock
        machine().lock(search_lock);                                          // which turned interrupts on again
        machine().unlock(search_lock);
        EXPECT_EQ(machine().run([=] { return release(seg, block(seg, 15), 1); }).lock, free_lock);
        EXPECT_TRUE(machine().lockHeld(free_lock));
    }
}

TEST_F(FreeBlk, FailedCheckLeavesInterruptsOff)
{
    const U32 seg = sixteenBlocks(YES);
    release(seg, endOf(seg), 1);
    expectLeftHeld(free_lock, [=] { return release(seg, startOf(seg), 1); });
}

TEST_F(FreeBlk, FailedCheckWithoutSemaphoreHoldsNothing)
{
    const U32 seg = sixteenBlocks(NO);
    release(seg, endOf(seg), 1);
    EXPECT_FALSE(anyLockHeld());
    EXPECT_FALSE(machine().interruptsOff());
}

// Owner map ---------------------------------------------------------------------------------------------

TEST_F(FreeBlk, ReleaseErasesTheOwnersOfItsBlocksOnly)
{
    const struct {
        U8 mapBits;
        U8 owner;
        std::vector<U8> mapFromEnd; // of ten blocks after the release of the fourth to sixth from the end
    } cases[] = {
        {1, 1, {0xC7, 0x03}},
        {2, 3, {0x3F, 0xF0, 0x0F}},
        {4, 0xF, {0xFF, 0x0F, 0x00, 0xFF, 0xFF}},
        {8, 0x81, {0x81, 0x81, 0x81, 0, 0, 0, 0x81, 0x81, 0x81, 0x81}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << int(c.mapBits) << " bits");
        powerOn();
        start();
        const U32 seg = mapped(c.mapBits);
        alloc(seg, 10, c.owner);
        EXPECT_EQ(release(seg, endOf(seg) - 6 * 64, 3), U32(ENOERR));
        for (U32 i = 0; i < c.mapFromEnd.size(); ++i)
            EXPECT_EQ(mapByte(seg, i + 1), c.mapFromEnd[i]) << "byte " << i + 1 << " from the map's end";
        expectSilence();
    }
}

TEST_F(FreeBlk, EntriesThatAreClearAlreadyAreReportedAndTheReleaseGoesOn)
{
    for (const U8 mapBits : {2, 4, 8}) {
        SCOPED_TRACE(int(mapBits));
        powerOn();
        start();
        const U32 seg = mapped(mapBits);
        const U32 address = alloc(seg, 3, 0);
        EXPECT_EQ(release(seg, address, 3), U32(ENOERR));
        EXPECT_EQ(log(), (Lines{bitFreedAlready}));
        EXPECT_EQ(blockRuns(seg), (Runs{{0, 63}}));
        EXPECT_EQ(counts(seg), (std::vector<U32>{63, 0, 63, 63}));
    }
}

TEST_F(FreeBlk, OneBitMapIsNotCheckedForASecondRelease)
{
    const U32 seg = mapped(1);
    const U32 address = alloc(seg, 3, 0);
    EXPECT_EQ(release(seg, address, 3), U32(ENOERR));
    expectSilence();
}

TEST_F(FreeBlk, EntriesClearedBeforeAFailedCheckStayCleared)
{
    const U32 seg = mapped(4);
    alloc(seg, 4, 0xF);
    mapByte(seg, 1) = 0xF0; // the last block's entry is gone: it is met fourth
    EXPECT_EQ(MM_ClearMap(seg, at(endOf(seg) - 4 * 64), 4), U32(EASSERT));
    EXPECT_EQ(log(), (Lines{bitFreedAlready}));
    EXPECT_EQ(mapByte(seg, 1), 0);
    EXPECT_EQ(mapByte(seg, 2), 0);

    mapByte(seg, 2) = 0x0F; // the second of two is clear, the third is not reached
    mapByte(seg, 1) = 0x0F;
    EXPECT_EQ(MM_ClearMap(seg, at(endOf(seg) - 3 * 64), 3), U32(EASSERT));
    EXPECT_EQ(mapByte(seg, 2), 0);
    EXPECT_EQ(mapByte(seg, 1), 0x0F);
}

TEST_F(FreeBlk, LongRunIsClearedUpToAnEntryThatIsClearAlready)
{
    const U32 blocks = 60;
    for (const U8 mapBits : {2, 4, 8}) {
        const U32 seg = createBlocks(mapBits == 2 ? "MAP2" : mapBits == 4 ? "MAP4" : "MAP8", 4096, 64, mapBits);
        const U32 perByte = 8 / mapBits;
        const U32 lowest = mapBits == 2 ? 0x55 : mapBits == 4 ? 0x11 : 0x01; // owner 1 in every entry
        const auto entry = [=](U32 fromEnd) { // of the block with this distance from the end
            const U32 shift = (fromEnd - 1) % perByte * mapBits;
            return mapByte(seg, (fromEnd - 1) / perByte + 1) >> shift & ((1U << mapBits) - 1);
        };
        for (U32 hole = 1; hole <= blocks; ++hole) {
            SCOPED_TRACE(::testing::Message() << int(mapBits) << " bits, nobody's at " << hole << " from the end");
            fill(startOf(seg) - 64, static_cast<U8>(lowest), 64);
            U8& byte = mapByte(seg, (hole - 1) / perByte + 1);
            byte = static_cast<U8>(byte & ~(1U << (hole - 1) % perByte * mapBits));
            EXPECT_EQ(MM_ClearMap(seg, at(endOf(seg) - blocks * 64), blocks), U32(EASSERT));
            EXPECT_EQ(log(), (Lines{bitFreedAlready}));
            for (U32 fromEnd = 1; fromEnd <= 63; ++fromEnd)
                EXPECT_EQ(entry(fromEnd), fromEnd < hole || fromEnd > blocks ? 1U : 0U) << fromEnd << " from the end";
        }
    }
}

TEST_F(FreeBlk, AddressWhoseEntryLiesBelowTheMapIsRefused)
{
    const U32 seg = mapped(1); // 512 entries
    fill(kFloatStart, 0xFF, 64);
    EXPECT_EQ(MM_ClearMap(seg, at(endOf(seg) - 512 * 64), 1), U32(EASSERT));
    EXPECT_EQ(log(), (Lines{clearFailed("stTempBlk.pubyiscp >= pubMapStartAddr")}));
    EXPECT_TRUE(isFilled(kFloatStart, 0xFF, 64));
    EXPECT_EQ(MM_ClearMap(seg, at(endOf(seg) - 511 * 64), 1), U32(ENOERR));
    EXPECT_EQ(*at(kFloatStart), 0xBF); // distance 511 is bit 6 of the first byte
    expectSilence();
}

TEST_F(FreeBlk, AddressWhoseEntryLiesAboveTheMapIsRefused)
{
    // Only one-byte blocks with one byte of map reach above the map's end: one byte past the segment.
    const U32 seg = createBlocks("BYTE", 128, 1, 8);
    EXPECT_EQ(MM_ClearMap(seg, at(endOf(seg) + 1), 1), U32(EASSERT));
    EXPECT_EQ(log(), (Lines{clearFailed("stTempBlk.pubyiscp < pubMapEndAddr")}));
}

TEST_F(FreeBlk, WalkPastTheMapsEndClearsOneByteOfTheBlocksBeforeItIsRefused)
{
    const U32 seg = mapped(1);
    mapByte(seg, 1) = 0xFF;
    fill(startOf(seg), 0xFF, 2);
    EXPECT_EQ(MM_ClearMap(seg, at(endOf(seg) - 64), 9), U32(ENOERR)); // the map's end itself still passes
    expectSilence();
    EXPECT_EQ(*at(startOf(seg)), 0x00);

    fill(startOf(seg), 0xFF, 2);
    EXPECT_EQ(MM_ClearMap(seg, at(endOf(seg) - 64), 10), U32(EASSERT));
    EXPECT_EQ(log(), (Lines{clearFailed("stTempBlk.pubyiscp <= pubMapEndAddr")}));
    EXPECT_EQ(mapByte(seg, 1), 0xFE);
    EXPECT_EQ(*at(startOf(seg)), 0x00);
    EXPECT_EQ(*at(startOf(seg) + 1), 0xFF);
}

TEST_F(FreeBlk, HeapMapIsThatOfThePieceThatHoldsTheAddress)
{
    createHeapOf({{0x95400000, 0x1000}, {0x95500000, 0x1000}}, 64, 8);
    fill(0x95400000, 0x11, 64);
    fill(0x95500000, 0x11, 64);
    EXPECT_EQ(MM_ClearMap(HEAPHANDLE, at(0x95401000 - 2 * 64), 2), U32(ENOERR));
    EXPECT_TRUE(isFilled(0x95400000, 0x11, 62));
    EXPECT_TRUE(isFilled(0x9540003E, 0x00, 2));
    EXPECT_TRUE(isFilled(0x95500000, 0x11, 64));
}

TEST_F(FreeBlk, AddressOutsideTheHeapHasNoMap)
{
    createHeapOf({{0x95400000, 0x1000}}, 64, 8);
    EXPECT_EQ(MM_ClearMap(HEAPHANDLE, at(0x95300000), 1), U32(EASSERT));
    EXPECT_EQ(log(), (Lines{clearFailed("stTempBlk.pubyiscp >= pubMapStartAddr")}));
}

TEST_F(FreeBlk, SegmentWithoutMapHasNoEntryToClear)
{
    const U32 seg = sixteenBlocks();
    EXPECT_EQ(MM_ClearMap(seg, at(startOf(seg)), 1), U32(EASSERT));
    EXPECT_EQ(log(), (Lines{check("ulBlkSize > 0", "mm/MM_InitSegment", "MM_GetBlkBit"), // of a width of 0
                            clearFailed("stTempBlk.pubyiscp < pubMapEndAddr")}));
}

} // namespace
} // namespace velmora::test
