// Garbage collection by owner and permanent heap blocks.
#include "support/allocator_fixture.h"

namespace velmora::test {
namespace {

class Owners : public AllocatorTest
{
protected:
    Owners() { start(); }

    // A heap of one piece: 63 blocks of 64 bytes behind 64 bytes of map.
    static void createMappedHeap(U8 mapBits, U8 semaphore = NO)
    {
        createHeapOf({{kHeap, 0x1000}}, 64, mapBits, semaphore);
    }
    static U32 fromEnd(U32 blocks) { return kHeap + 0x1000 - blocks * 64; }
    // The heap's map byte that many bytes below the map's end.
    static U8& heapMap(U32 bytesFromEnd) { return *at(kHeap + 64 - bytesFromEnd); }

    static std::string notPermanent(const std::string& text)
    {
        return check(text, "mm/MM_Lib", "MM_CheckPermanentBlk");
    }
    const std::string freed =
        notPermanent("((*(stTempBlk.pubyiscp) & ubBitMask ) != 0) && \"This bit is already freed!!\"");

    static constexpr U32 kHeap = 0x95400000;
};

// Garbage collection ----------------------------------------------------------------------------------------

TEST_F(Owners, CollectionGivesBackAnOwnersBlocks)
{
    const U32 seg = createBlocks("MAPD", 4096, 64, 4);
    alloc(seg, 3, 5);
    alloc(seg, 2, 8);
    alloc(seg, 4, 5);
    EXPECT_EQ(MM_CollectGarbage(seg, 5), U32(ENOERR));
    EXPECT_EQ(blockRuns(seg), (Runs{{0, 58}, {60, 3}}));
    EXPECT_EQ(counts(seg), (std::vector<U32>{63, 2, 61, 58}));
    expectSilence();
}

TEST_F(Owners, CollectionOfTheHeapAcceptsBothItsHandles)
{
    for (const U32 handle : {U32(HEAPHANDLE), U32(HEAPHANDLE_ALIAS)}) {
        SCOPED_TRACE(handle);
        powerOn();
        start();
        createMappedHeap(8);
        alloc(HEAPHANDLE, 3, 5);
        alloc(HEAPHANDLE, 2, 8);
        EXPECT_EQ(MM_CollectGarbage(handle, 5), U32(ENOERR));
        EXPECT_EQ(counts(HEAPHANDLE), (std::vector<U32>{63, 2, 61, 58}));
        expectSilence();
    }
}

TEST_F(Owners, CollectionRefusesHandlesBeyondTheTable)
{
    for (const U32 handle : {50U, 0x10030U, 0xFFFFFFFFU}) {
        EXPECT_EQ(MM_CollectGarbage(handle, 5), 14U);
        EXPECT_EQ(log(), (Lines{check("(hulHandle < MAX_SEGTABLE_SIZE && hulHandle >= 0) && "
                                      "\"The range of Handle is beyond MST range\"",
                                      "mm/MM_Lib", "MM_CollectGarbage")}));
    }
}

TEST_F(Owners, CollectionOfASegmentWithoutMapDoesNothing)
{
    const U32 seg = createBlocks("BLKS", 4096, 64);
    alloc(seg, 3);
    EXPECT_EQ(MM_CollectGarbage(seg, 1), U32(ENOERR));
    EXPECT_EQ(MM_CollectGarbage(48, 1), U32(ENOERR)); // not even created
    EXPECT_EQ(counts(seg)[1], 3U);
    expectSilence();
}

// Permanent blocks ------------------------------------------------------------------------------------------

TEST_F(Owners, SettingBlocksPermanentReplacesTheirOwner)
{
    createMappedHeap(8);
    const U32 address = alloc(HEAPHANDLE, 4, 0x55);
    EXPECT_EQ(MM_GetPermanentStartBlk(), 0U);
    MM_SetPermanentBlk(address + 64, 2);
    EXPECT_EQ(MM_GetPermanentStartBlk(), address + 64);
    EXPECT_EQ(ulPermanentBlkCount, 2U);
    EXPECT_EQ(heapMap(4), 0x55);
    EXPECT_EQ(heapMap(3), 254);
    EXPECT_EQ(heapMap(2), 254);
    EXPECT_EQ(heapMap(1), 0x55);
    EXPECT_EQ(counts(HEAPHANDLE), (std::vector<U32>{63, 4, 59, 59}));
    expectSilence();
}

TEST_F(Owners, FirstPermanentAddressIsKeptAndNotMovedOnWhenItIsReleased)
{
    createMappedHeap(8);
    const U32 a = alloc(HEAPHANDLE, 3, 1);
    const U32 b = alloc(HEAPHANDLE, 5, 1);
    MM_SetPermanentBlk(a, 3);
    MM_SetPermanentBlk(b, 5);
    EXPECT_EQ(MM_GetPermanentStartBlk(), a);
    EXPECT_EQ(ulPermanentBlkCount, 8U);

    MM_ReleasePermanentBlk(a, 3);
    EXPECT_EQ(MM_GetPermanentStartBlk(), 0U);
    EXPECT_EQ(ulPermanentBlkCount, 5U);
    EXPECT_EQ(MM_CheckPermanentBlk(b, 5), 1U);
    EXPECT_EQ(counts(HEAPHANDLE), (std::vector<U32>{63, 5, 58, 55}));
    EXPECT_TRUE(isFilled(kHeap + 64 - 3, 0, 3));

    const U32 c = alloc(HEAPHANDLE, 2, 1); // the next one set is the first again
    MM_SetPermanentBlk(c, 2);
    EXPECT_EQ(MM_GetPermanentStartBlk(), c);
    expectSilence();
}

TEST_F(Owners, ReleaseOfAnotherPermanentBlockKeepsTheFirst)
{
    createMappedHeap(8);
    const U32 a = alloc(HEAPHANDLE, 3, 1);
    const U32 b = alloc(HEAPHANDLE, 5, 1);
    MM_SetPermanentBlk(a, 3);
    MM_SetPermanentBlk(b, 5);
    MM_ReleasePermanentBlk(b, 5);
    EXPECT_EQ(MM_GetPermanentStartBlk(), a);
    EXPECT_EQ(ulPermanentBlkCount, 3U);
}

TEST_F(Owners, ReleasingMoreBlocksThanTheCountMakesItZero)
{
    createMappedHeap(8);
    const U32 address = alloc(HEAPHANDLE, 4, 254);
    MM_SetPermanentBlk(address, 2);
    MM_ReleasePermanentBlk(address, 4);
    EXPECT_EQ(ulPermanentBlkCount, 0U);
    EXPECT_EQ(counts(HEAPHANDLE), (std::vector<U32>{63, 0, 63, 63}));
    expectSilence();
}

TEST_F(Owners, RefusedReleaseIsCountedAllTheSame)
{
    createMappedHeap(8);
    const U32 address = alloc(HEAPHANDLE, 4, 1);
    MM_SetPermanentBlk(address, 4);
    MM_ReleasePermanentBlk(kHeap, 3); // the heap's map
    EXPECT_EQ(log(), (Lines{check("ubFindRange == 1 && \"Free Request is over the available Range of Segment\"",
                                  "mm/MM_FreeBlk", "MM_FreeBlk")}));
    EXPECT_EQ(ulPermanentBlkCount, 1U);
    EXPECT_EQ(MM_GetPermanentStartBlk(), address);
}

TEST_F(Owners, RefusedReleaseOfTheFirstPermanentAddressForgetsItAllTheSame)
{
    createMappedHeap(8);
    const U32 address = alloc(HEAPHANDLE, 4, 1);
    MM_SetPermanentBlk(address, 4);
    MM_ReleasePermanentBlk(address, 0);
    EXPECT_EQ(log(),
              (Lines{check("(ulBlkNo > 0) && \"Requested Block Number is invalid\"", "mm/MM_FreeBlk", "MM_FreeBlk")}));
    EXPECT_EQ(MM_GetPermanentStartBlk(), 0U);
    EXPECT_EQ(ulPermanentBlkCount, 4U);
    EXPECT_EQ(MM_CheckPermanentBlk(address, 4), 1U);
}

TEST_F(Owners, AllPermanentBlocksGoBackAtOnceAndNoOthers)
{
    createMappedHeap(8);
    const U32 a = alloc(HEAPHANDLE, 3, 1);
    alloc(HEAPHANDLE, 2, 1);
    const U32 b = alloc(HEAPHANDLE, 5, 1);
    alloc(HEAPHANDLE, 1, 1);
    MM_SetPermanentBlk(a, 3);
    MM_SetPermanentBlk(b, 5);
    MM_RlsAllPermanentBlk();
    EXPECT_EQ(runs(HEAPHANDLE), (Runs{{kHeap + 64, 52}, {b, 5}, {a, 3}}));
    EXPECT_EQ(counts(HEAPHANDLE), (std::vector<U32>{63, 3, 60, 52}));
    EXPECT_EQ(ulPermanentBlkCount, 0U);
    EXPECT_EQ(MM_GetPermanentStartBlk(), 0U);
    expectSilence();
}

TEST_F(Owners, CollectionOfAnOddOwnerLeavesPermanentBlocksAlone)
{
    createMappedHeap(8);
    const U32 kept = alloc(HEAPHANDLE, 3, 7);
    alloc(HEAPHANDLE, 2, 7);
    MM_SetPermanentBlk(kept, 3);
    MM_CollectGarbage(HEAPHANDLE, 7);
    EXPECT_EQ(counts(HEAPHANDLE), (std::vector<U32>{63, 3, 60, 60}));
    EXPECT_EQ(MM_CheckPermanentBlk(kept, 3), 1U);
    expectSilence();
}

TEST_F(Owners, OwnersThatShareBitsWithThePermanentOneGoTheSameWay)
{
    createMappedHeap(8);
    alloc(HEAPHANDLE, 2, 255); // holds every bit of 254
    alloc(HEAPHANDLE, 1, 1);
    MM_RlsAllPermanentBlk();
    EXPECT_EQ(counts(HEAPHANDLE), (std::vector<U32>{63, 1, 62, 60}));

    const U32 lacking = alloc(HEAPHANDLE, 1, 126); // the highest bit of 254
    MM_RlsAllPermanentBlk();
    EXPECT_EQ(counts(HEAPHANDLE), (std::vector<U32>{63, 2, 61, 60}));
    release(HEAPHANDLE, lacking, 1);

    const U32 address = alloc(HEAPHANDLE, 2, 1);
    MM_SetPermanentBlk(address, 2);
    MM_CollectGarbage(HEAPHANDLE, 6); // 254 holds every bit of it
    EXPECT_EQ(counts(HEAPHANDLE), (std::vector<U32>{63, 1, 62, 60}));
    EXPECT_EQ(MM_GetPermanentStartBlk(), address); // a collection forgets nothing
    EXPECT_EQ(ulPermanentBlkCount, 2U);
    expectSilence();
}

TEST_F(Owners, BlocksOfNobodyAreReportedAndMadePermanentAllTheSame)
{
    createMappedHeap(8);
    const U32 address = alloc(HEAPHANDLE, 4, 5);
    heapMap(3) = 0; // the second of the four
    heapMap(2) = 1; // not reached by the clear, so 254 comes on top
    MM_SetPermanentBlk(address, 4);
    EXPECT_EQ(log(), (Lines{check("((*(stTempBlk.pubyiscp) & ubBitMask ) != 0) && \"This bit is already freed!!\"",
                                  "mm/MM_FreeBlk", "MM_ClearMap")}));
    EXPECT_EQ(heapMap(4), 254);
    EXPECT_EQ(heapMap(3), 254);
    EXPECT_EQ(heapMap(2), 255);
    EXPECT_EQ(heapMap(1), 255); // 5 and 254
    EXPECT_EQ(ulPermanentBlkCount, 4U);
    EXPECT_EQ(MM_GetPermanentStartBlk(), address);
}

TEST_F(Owners, PermanentBlocksAreReleasedUnderTheHeapsLock)
{
    createMappedHeap(8, YES);
    const U32 address = alloc(HEAPHANDLE, 6, 1);
    expectTakesNoLock([=] {
        MM_SetPermanentBlk(address, 2);
        MM_SetPermanentBlk(address + 4 * 64, 2);
        return 0U;
    });
    expectTakes(
        free_lock,
        [=] {
            MM_RlsAllPermanentBlk();
            return 0U;
        },
        2);
    expectTakes(free_lock, [=] {
        MM_ReleasePermanentBlk(address + 2 * 64, 2);
        return 0U;
    });
    EXPECT_EQ(counts(HEAPHANDLE)[1], 0U);
}

TEST_F(Owners, FirstPermanentAddressAndCountSurviveALibraryStart)
{
    createMappedHeap(8);
    const U32 address = alloc(HEAPHANDLE, 2, 1);
    MM_SetPermanentBlk(address, 2);
    ASSERT_EQ(MM_LibEntry(SM_BKUP_OK, nullptr), U32(ENOERR));
    EXPECT_EQ(MM_GetPermanentStartBlk(), address);
    EXPECT_EQ(ulPermanentBlkCount, 2U);
}

// The check for permanent blocks ----------------------------------------------------------------------------

TEST_F(Owners, BlocksArePermanentOnlyWhenEveryEntryIs)
{
    createMappedHeap(8);
    const U32 address = alloc(HEAPHANDLE, 6, 9);
    MM_SetPermanentBlk(address + 64, 3);
    EXPECT_EQ(MM_CheckPermanentBlk(address + 64, 3), 1U);
    EXPECT_EQ(MM_CheckPermanentBlk(address + 64, 4), 0U);
    EXPECT_EQ(MM_CheckPermanentBlk(address, 2), 0U);
    EXPECT_EQ(MM_CheckPermanentBlk(address, 0), 1U); // of none, every one is
    heapMap(4) = 255;
    EXPECT_EQ(MM_CheckPermanentBlk(address + 64, 3), 0U);
    expectSilence();
}

TEST_F(Owners, EntryOfNobodyIsReported)
{
    createMappedHeap(8);
    alloc(HEAPHANDLE, 3, 254);
    EXPECT_EQ(MM_CheckPermanentBlk(fromEnd(4), 4), U32(EASSERT));
    EXPECT_EQ(log(), (Lines{freed}));
    heapMap(1) = 0;
    EXPECT_EQ(MM_CheckPermanentBlk(fromEnd(3), 3), U32(EASSERT));
    EXPECT_EQ(log(), (Lines{freed}));
    heapMap(2) = 1; // told from another owner first
    EXPECT_EQ(MM_CheckPermanentBlk(fromEnd(3), 3), 0U);
    expectSilence();
}

TEST_F(Owners, NarrowEntriesAreTestedByTheirMaskShiftedOnceMore)
{
    const struct {
        U8 mapBits;
        U8 byte;   // the map's last byte
        U32 block; // counted from the end
        U32 expected;
    } cases[] = {
        {4, 0x0E, 1, 1}, {4, 0x0F, 1, 0}, {4, 0xE0, 2, 0}, {4, 0xF0, 2, 0}, // 0xF0 shifted by four is 0xF00
        {2, 0x02, 1, 1}, {2, 0x03, 1, 0}, {2, 0x08, 2, 0}, {2, 0x0C, 2, 0}, {2, 0x80, 4, 0},
        {1, 0x00, 1, 1}, {1, 0x01, 1, 0}, // the mask loses its only bit; one bit is not tested for nobody
        {1, 0x02, 2, 0}, {1, 0x00, 2, 0}, {1, 0x10, 5, 0}, {1, 0x00, 5, 0}, // 0x10 shifted by four is not cut to nothing
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << int(c.mapBits) << " bits, byte " << int(c.byte) << ", block " << c.block);
        powerOn();
        start();
        createMappedHeap(c.mapBits);
        heapMap(1) = c.byte;
        EXPECT_EQ(MM_CheckPermanentBlk(fromEnd(c.block), 1), c.expected);
        expectSilence();
    }
}

TEST_F(Owners, NarrowEntryOfNobodyIsReported)
{
    for (const U8 mapBits : {2, 4}) {
        powerOn();
        start();
        createMappedHeap(mapBits);
        heapMap(1) = static_cast<U8>(~(1U << mapBits) + 1); // everything but the last block's entry
        EXPECT_EQ(MM_CheckPermanentBlk(fromEnd(1), 1), U32(EASSERT));
        EXPECT_EQ(log(), (Lines{freed}));
    }
}

TEST_F(Owners, WalkPastTheMapsEndPassesOneByteAndIsThenReported)
{
    createMappedHeap(8);
    heapMap(1) = 254;
    *at(kHeap + 64) = 254; // the first byte of the blocks
    EXPECT_EQ(MM_CheckPermanentBlk(fromEnd(1), 2), 1U);
    expectSilence();
    EXPECT_EQ(MM_CheckPermanentBlk(fromEnd(1), 3), U32(EASSERT));
    EXPECT_EQ(log(), (Lines{notPermanent("stTempBlk.pubyiscp <= pubMapEndAddr")}));
}

TEST_F(Owners, AddressOutsideTheHeapIsReported)
{
    createMappedHeap(8);
    EXPECT_EQ(MM_CheckPermanentBlk(kHeap + 0x1000, 1), U32(EASSERT));
    EXPECT_EQ(log(), (Lines{notPermanent("stTempBlk.pubyiscp >= pubMapStartAddr")}));
}

TEST_F(Owners, MapAddressThatWrapsIsReported)
{
    createMappedHeap(8);
    stSegMapStartAddr.aulHeapAddr[0] = 0;
    stSegMapEndAddr.aulHeapAddr[0] = 4; // of 63 blocks
    EXPECT_EQ(MM_CheckPermanentBlk(kHeap + 64, 1), U32(EASSERT));
    EXPECT_EQ(log(), (Lines{notPermanent("stTempBlk.pubyiscp < pubMapEndAddr")}));
}

TEST_F(Owners, EachPieceOfTheHeapHasItsOwnMap)
{
    createHeapOf({{0x95400000, 0x1000}, {0x95500000, 0x1000}}, 64, 8);
    alloc(HEAPHANDLE, 62, 1);
    const U32 low = alloc(HEAPHANDLE, 5, 1);
    MM_SetPermanentBlk(low, 5);
    EXPECT_EQ(low, 0x95401000U - 5 * 64);
    EXPECT_TRUE(isFilled(0x95400040 - 5, 254, 5));
    EXPECT_EQ(MM_CheckPermanentBlk(low, 5), 1U);
    EXPECT_EQ(MM_CheckPermanentBlk(0x95501000 - 64, 1), 0U);
}

TEST_F(Owners, TheFirstBlockOfAHeapThatItsMapJustCoversMayBePermanent)
{
    createHeapOf({{0x95400000, 4096}}, 64, 8); // 63 blocks; the first one's entry is the map's second byte
    const U32 first = 0x95400040;
    ASSERT_EQ(MM_AllocBlock(HEAPHANDLE, 63, 5), first);
    EXPECT_EQ(MM_CheckPermanentBlk(first, 1), 0U);
    MM_SetPermanentBlk(first, 1);
    EXPECT_EQ(MM_CheckPermanentBlk(first, 1), 1U);
    expectSilence();
}

TEST_F(Owners, HeapWithoutMapHasNoPermanentBlocks)
{
    EXPECT_EQ(MM_CheckPermanentBlk(kHeap, 1), 0U);
    createHeapOf({{kHeap, 0x1000}}, 64);
    EXPECT_EQ(MM_CheckPermanentBlk(kHeap, 1), 0U);
    expectSilence();
}

} // namespace
} // namespace velmora::test
