// Allocation and release by handle: bytes to blocks, the checks, overflow into the heap, releases that go there.
#include "support/allocator_fixture.h"

namespace velmora::test {
namespace {

const char kLib[] = "mm/MM_Lib";
constexpr U32 kRefused = 0xFFFFFFFF;

class HandleApi : public AllocatorTest
{
protected:
    HandleApi() { start(); }

    // The fixed segment "$JCB", of 64 KiB: handle 0.
    static U32 createFixed(U32 blockBytes)
    {
        TSegInfoFromApp info = request("$JCB", 0, blockBytes);
        info.ubType = FIXED;
        info.ubMap = 8;
        EXPECT_EQ(MM_CreateSegment(&info), U32(ENOERR));
        EXPECT_EQ(info.hulHandle, 0U);
        return info.hulHandle;
    }

    static std::string place(const std::string& function)
    {
        return "Assertion failed! kernel/mm/mm/MM_Lib.cpp," + function + ",line=N\n";
    }

    // A segment that overflows into the heap.
    static U32 createOverflowing(const char* name, U32 bytes, U32 blockBytes, U8 kind = LINKEDLIST, U8 mapBits = 0)
    {
        TSegInfoFromApp info = request(name, bytes, blockBytes);
        info.ubSegDSType = kind;
        info.ubMap = mapBits;
        info.ubVM = 1;
        EXPECT_EQ(MM_CreateSegment(&info), U32(ENOERR));
        return info.hulHandle;
    }
    // A release routine that is neither of the manager's.
    static U32 foreignRelease(U32, U8*, U32) { return ENOERR; }
};

// Bytes and blocks ----------------------------------------------------------------------------------------

TEST_F(HandleApi, HandleZeroIsServedAsEveryOther)
{
    const U32 handle = createFixed(4096); // 15 blocks behind a block of map
    const U32 end = MM_Addr(stSegTable[handle].pubEndAddr);
    ASSERT_EQ(MM_GetTotBlk(handle), 15U);
    EXPECT_EQ(MM_GetInitTotBlk(handle), 15U);
    EXPECT_EQ(MM_Malloc(handle, 4096, 7), end - 4096);
    EXPECT_EQ(MM_AllocBlock(handle, 2, 7), end - 3 * 4096);
    EXPECT_EQ(MM_GetTotAvailBlk(handle), 12U);
    EXPECT_EQ(MM_GetLargestBlk(handle), 12U);
    EXPECT_EQ(MM_FindNewLargestBlk(handle), 12U);
    EXPECT_EQ(MM_Free(handle, at(end - 4096), 4096), U32(ENOERR));
    EXPECT_EQ(MM_GetTotAvailBlk(handle), 13U);
    EXPECT_EQ(MM_FreeBlock(handle, at(end - 2 * 4096), 1), U32(ENOERR));
    EXPECT_EQ(MM_GetTotAvailBlk(handle), 14U);
    EXPECT_EQ(MM_CollectGarbage(handle, 7), U32(ENOERR));
    EXPECT_EQ(MM_GetTotAvailBlk(handle), 15U);
    expectSilence();
}

TEST_F(HandleApi, MallocRoundsBytesUpToBlocks)
{
    const struct {
        U32 blockBytes, bytes, blocks;
    } cases[] = {{4096, 1, 1}, {4096, 4096, 1}, {4096, 4097, 2}, {4096, 8192, 2},
                 {64, 65, 2},  {100, 100, 1},   {100, 101, 2}};
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.bytes << " bytes in blocks of " << c.blockBytes);
        powerOn();
        start();
        const U32 seg = createBlocks("BLKS", 0x10000, c.blockBytes);
        const U32 total = counts(seg)[0];
        const U32 address = MM_Malloc(seg, c.bytes, 0);
        EXPECT_EQ(address, block(seg, total - c.blocks));
        EXPECT_EQ(counts(seg), (std::vector<U32>{total, c.blocks, total - c.blocks, total - c.blocks}));
        EXPECT_EQ(MM_Free(seg, at(address), c.bytes), U32(ENOERR));
        EXPECT_EQ(counts(seg), (std::vector<U32>{total, 0, total, total}));
        expectSilence();
    }
}

TEST_F(HandleApi, AllocBlockAndFreeBlockCountBlocks)
{
    const U32 seg = createBlocks("BLKS", 0x10000, 4096, 8);
    const U32 address = MM_AllocBlock(seg, 3, 17);
    EXPECT_EQ(address, endOf(seg) - 3 * 4096);
    EXPECT_EQ(mapByte(seg, 3), 17);
    EXPECT_EQ(MM_FreeBlock(seg, at(address), 3), U32(ENOERR));
    EXPECT_EQ(counts(seg), (std::vector<U32>{15, 0, 15, 15}));
}

TEST_F(HandleApi, StackSegmentIsServedByPushAndPop)
{
    const U32 stack = createStack("STCK", 0x10000, 4096);
    const U32 first = MM_Malloc(stack, 5000, 0);
    EXPECT_EQ(first, endOf(stack) - 2 * 4096);
    const U32 second = MM_AllocBlock(stack, 1, 0);
    EXPECT_EQ(second, first - 4096);
    EXPECT_EQ(MM_Free(stack, at(second), 1), U32(ENOERR));
    EXPECT_EQ(MM_FreeBlock(stack, at(first), 2), U32(ENOERR));
    EXPECT_EQ(counts(stack), (std::vector<U32>{16, 0, 16, 16}));
    expectSilence();
}

// Refused allocations ---------------------------------------------------------------------------------------

TEST_F(HandleApi, MallocChecksBytesThenHandleThenBlockSizeThenBlocks)
{
    const U32 seg = createBlocks("BLKS", 0x10000, 4096);
    const auto refused = [](const std::string& text) { return Lines{message(text, kLib, "MM_Malloc")}; };
    EXPECT_EQ(MM_Malloc(50, 0, 9), kRefused);
    EXPECT_EQ(log(), refused("ulReqBytes is less then 0"));
    EXPECT_EQ(MM_Malloc(seg, 0, 0), kRefused);
    EXPECT_EQ(log(), refused("ulReqBytes is less then 0"));
    for (const U32 handle : {50U, 100U, 0x10030U, 0x10032U, 0xFFFFFFFFU}) {
        EXPECT_EQ(MM_Malloc(handle, 1, 9), kRefused);
        EXPECT_EQ(log(), refused("The range of Handle is beyond MST range"));
    }
    for (const U32 handle : {seg + 1, U32(HEAPHANDLE), U32(HEAPHANDLE_ALIAS)}) {
        EXPECT_EQ(MM_Malloc(handle, 1, 9), kRefused);
        EXPECT_EQ(log(), refused("ulBlockSize is wrong"));
    }
    EXPECT_EQ(MM_Malloc(seg, 0xFFFFF001, 9), kRefused); // 4095 more wrap to 0
    EXPECT_EQ(log(), refused("ulReqBlock is wrong"));
    EXPECT_EQ(MM_Malloc(seg, 0xFFFFF000, 0), 0U); // one byte less does not wrap and does not fit
    expectSilence();
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 0, 16, 16}));
}

TEST_F(HandleApi, AllocBlockRefusesHandlesBeyondTheTableWithoutText)
{
    for (const U32 handle : {50U, 0x10030U, 0xFFFFFFFFU}) {
        EXPECT_EQ(MM_AllocBlock(handle, 1, 9), kRefused);
        EXPECT_EQ(log(), (Lines{place("MM_AllocBlock")}));
    }
}

TEST_F(HandleApi, OwnersAreAcceptedByMapWidth)
{
    const struct {
        U8 mapBits;
        std::vector<U8> accepted, refused;
    } cases[] = {
        {0, {0}, {1, 2, 255}},           {1, {0, 1}, {2, 3, 255}},
        {2, {1, 2, 3}, {0, 4, 255}},     {4, {1, 2, 14, 15}, {0, 16, 255}},
        {8, {1, 2, 128, 254, 255}, {0}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << int(c.mapBits) << " bits");
        powerOn();
        start();
        const U32 seg = createBlocks("MAPD", 0x10000, 4096, c.mapBits);
        for (const U8 owner : c.refused) {
            EXPECT_EQ(MM_AllocBlock(seg, 1, owner), kRefused) << int(owner);
            EXPECT_EQ(log(), (Lines{message("Inpropriate MapID", kLib, "MM_AllocBlock")}));
        }
        EXPECT_EQ(counts(seg)[1], 0U);
        U32 lowest = endOf(seg);
        for (const U8 owner : c.accepted)
            EXPECT_EQ(MM_Malloc(seg, 1, owner), lowest -= 4096) << int(owner);
        EXPECT_EQ(counts(seg)[1], c.accepted.size());
        expectSilence();
    }
}

TEST_F(HandleApi, SegmentThatIsNotInitialisedServesNothing)
{
    EXPECT_EQ(MM_AllocBlock(7, 1, 1), kRefused); // its map width is 0, and the owner is looked at first
    EXPECT_EQ(log(), (Lines{message("Inpropriate MapID", kLib, "MM_AllocBlock")}));
    for (const U32 handle : {7U, U32(HEAPHANDLE), U32(HEAPHANDLE_ALIAS)}) {
        EXPECT_EQ(MM_AllocBlock(handle, 1, 0), kRefused);
        EXPECT_EQ(log(), (Lines{message("Current handle is not yet initialized.", kLib, "MM_AllocBlock")}));
    }
    stSegTable[7].pfnFree = MM_FreeBlk; // one routine is not enough
    EXPECT_EQ(MM_AllocBlock(7, 1, 0), kRefused);
    EXPECT_EQ(log(), (Lines{message("Current handle is not yet initialized.", kLib, "MM_AllocBlock")}));
}

TEST_F(HandleApi, InitialisedMeansBothRoutines)
{
    EXPECT_EQ(MM_CheckSegInitCompleted(7), 0);
    stSegTable[7].pfnAlloc = MM_AllocBlk;
    EXPECT_EQ(MM_CheckSegInitCompleted(7), 0);
    stSegTable[7].pfnFree = MM_FreeBlk;
    EXPECT_EQ(MM_CheckSegInitCompleted(7), 1);
    stSegTable[7].pfnAlloc = nullptr;
    EXPECT_EQ(MM_CheckSegInitCompleted(7), 0);
}

// The heap ----------------------------------------------------------------------------------------------

TEST_F(HandleApi, AliasNamesTheHeapInEveryEntry)
{
    createHeapOf({{0x95400000, 0x10000}}, 4096, 8); // 15 blocks
    EXPECT_EQ(MM_Malloc(HEAPHANDLE_ALIAS, 4097, 1), 0x9540E000U);
    EXPECT_EQ(MM_Malloc(HEAPHANDLE, 1, 1), 0x9540D000U);
    EXPECT_EQ(MM_AllocBlock(HEAPHANDLE_ALIAS, 2, 1), 0x9540B000U);
    EXPECT_EQ(counts(HEAPHANDLE), (std::vector<U32>{15, 5, 10, 10}));
    EXPECT_EQ(MM_Free(HEAPHANDLE_ALIAS, at(0x9540E000), 4097), U32(ENOERR));
    EXPECT_EQ(MM_FreeBlock(HEAPHANDLE_ALIAS, at(0x9540B000), 2), U32(ENOERR));
    EXPECT_EQ(MM_FreeBlock(HEAPHANDLE, at(0x9540D000), 1), U32(ENOERR));
    EXPECT_EQ(counts(HEAPHANDLE), (std::vector<U32>{15, 0, 15, 15}));
    EXPECT_EQ(MM_AllocBlock(HEAPHANDLE_ALIAS, 1, 0), kRefused);
    EXPECT_EQ(log(), (Lines{message("Inpropriate MapID", kLib, "MM_AllocBlock")}));
}

TEST_F(HandleApi, ReserveForSeveralJobsIsNoneAndRefusesNothing)
{
    createHeapOf({{0x95400000, 0x10000}}, 4096);
    EXPECT_EQ(CM_IF_RIPAvailBlk(), 0U);
    MM_RunningMultiJob_Notify(1);
    EXPECT_EQ(MM_AllocBlock(HEAPHANDLE_ALIAS, 16, 0), 0x95400000U);
    EXPECT_EQ(MM_AllocBlock(HEAPHANDLE_ALIAS, 1, 0), 0U);
    EXPECT_EQ(MM_AllocBlock(HEAPHANDLE_ALIAS, 1, 5), kRefused); // not refused by the reserve: the owner is looked at
    EXPECT_EQ(log(), (Lines{message("Inpropriate MapID", kLib, "MM_AllocBlock")}));
}

TEST_F(HandleApi, FullSegmentWithoutOverflowGivesNull)
{
    const U32 seg = createBlocks("BLKS", 0x10000, 4096);
    createHeap(4096);
    EXPECT_EQ(MM_AllocBlock(seg, 17, 0), 0U);
    EXPECT_EQ(MM_AllocBlock(seg, 16, 0), kFloatStart);
    EXPECT_EQ(MM_AllocBlock(seg, 1, 0), 0U);
    expectSilence();
}

TEST_F(HandleApi, OverflowTakesTheSameCountInHeapBlocksAndMarksNoOwner)
{
    for (const U8 kind : {LINKEDLIST, STACK}) {
        SCOPED_TRACE(int(kind));
        powerOn();
        start();
        const U8 mapBits = kind == STACK ? 0 : 4;
        const U32 seg = createOverflowing("VIRT", 0x1000, 64, kind, mapBits);
        createHeapOf({{0x95400000, 0x10000}}, 4096, 8); // 15 blocks
        EXPECT_EQ(MM_AllocBlock(seg, 1, mapBits != 0 ? 3 : 0), endOf(seg) - 64);
        const std::vector<U32> before = counts(seg);
        fill(0x95400000, 0, 4096);

        EXPECT_EQ(MM_Malloc(seg, 64 * 64 - 63, mapBits != 0 ? 3 : 0), 0U); // 64 blocks: more than the heap has
        stSegTable[seg].ulTotalFreeBlkNum = 0;
        stSegTable[seg].ulLargestBlkSize = 0;
        EXPECT_EQ(MM_Malloc(seg, 5 * 64, mapBits != 0 ? 3 : 0), 0x95410000U - 5 * 4096);
        EXPECT_EQ(counts(HEAPHANDLE), (std::vector<U32>{15, 5, 10, 10}));
        EXPECT_TRUE(isFilled(0x95400000, 0, 4096)); // the heap's map
        EXPECT_EQ(counts(seg)[1], before[1]);
        expectSilence();
    }
}

TEST_F(HandleApi, OverflowNeedsAHeap)
{
    const U32 seg = createOverflowing("VIRT", 0x1000, 64);
    EXPECT_EQ(MM_AllocBlock(seg, 65, 0), kRefused);
    EXPECT_EQ(log(), (Lines{message("HEAP is not yet initialized.", kLib, "MM_AllocBlock")}));
    EXPECT_EQ(MM_AllocBlock(seg, 64, 0), kFloatStart);
    expectSilence();
}

TEST_F(HandleApi, HeapThatOverflowsIsAskedTwice)
{
    setFreeMemory({{0x95400000, 0x10000}});
    TSegInfoFromApp info = request("HEAP", 0, 4096);
    info.ubMap = 8; // 15 blocks
    info.ubSemaphore = YES;
    info.ubVM = 1;
    ASSERT_EQ(MM_CreateSegment(&info), U32(ENOERR));
    expectTakes(
        search_lock, [] { return MM_AllocBlock(HEAPHANDLE_ALIAS, 16, 9); }, 2);
    EXPECT_EQ(MM_AllocBlock(HEAPHANDLE, 16, 9), 0U);
    EXPECT_EQ(counts(HEAPHANDLE), (std::vector<U32>{15, 0, 15, 15}));
    expectTakes(search_lock, [] { return MM_AllocBlock(HEAPHANDLE, 15, 9); });
    EXPECT_TRUE(isFilled(0x95401000 - 15, 9, 15)); // the first attempt has the owner
    expectSilence();
}

// Release -----------------------------------------------------------------------------------------------

TEST_F(HandleApi, FreeChecksAddressThenBytesThenHandleThenBlockSizeThenBlocks)
{
    const U32 seg = createBlocks("BLKS", 0x10000, 4096);
    const U32 address = MM_AllocBlock(seg, 2, 0);
    const auto refused = [](const std::string& text) { return Lines{check(text, kLib, "MM_Free")}; };
    EXPECT_EQ(MM_Free(50, nullptr, 0), U32(EASSERT));
    EXPECT_EQ(log(), refused("pubRlsAddr"));
    EXPECT_EQ(MM_Free(50, at(address), 0), U32(EASSERT));
    EXPECT_EQ(log(), refused("ulBytesNo"));
    for (const U32 handle : {50U, 0x10030U, 0xFFFFFFFFU}) {
        EXPECT_EQ(MM_Free(handle, at(address), 1), U32(EASSERT));
        EXPECT_EQ(log(), refused("(hulTempHandle < MAX_SEGTABLE_SIZE && hulTempHandle >= 0) && "
                                 "\"The range of Handle is beyond MST range\""));
    }
    for (const U32 handle : {seg + 1, U32(HEAPHANDLE), U32(HEAPHANDLE_ALIAS)}) {
        EXPECT_EQ(MM_Free(handle, at(address), 1), U32(EASSERT));
        EXPECT_EQ(log(), refused("ulBlockSize"));
    }
    EXPECT_EQ(MM_Free(seg, at(address), 0xFFFFF001), U32(EASSERT));
    EXPECT_EQ(log(), refused("ulRlsBlock"));
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 2, 14, 14}));
}

TEST_F(HandleApi, FreeBlockChecksAddressThenBlocksThenHandle)
{
    const U32 seg = createBlocks("BLKS", 0x10000, 4096);
    const U32 address = MM_AllocBlock(seg, 2, 0);
    const auto refused = [](const std::string& text) { return Lines{check(text, kLib, "MM_FreeBlock")}; };
    EXPECT_EQ(MM_FreeBlock(50, nullptr, 0), U32(EASSERT));
    EXPECT_EQ(log(), refused("pubRlsAddr"));
    EXPECT_EQ(MM_FreeBlock(50, at(address), 0), U32(EASSERT));
    EXPECT_EQ(log(), refused("ulBlkNo > 0"));
    for (const U32 handle : {50U, 0x10030U, 0xFFFFFFFFU}) {
        EXPECT_EQ(MM_FreeBlock(handle, at(address), 1), U32(EASSERT));
        EXPECT_EQ(log(), refused("(hulHandle < MAX_SEGTABLE_SIZE && hulHandle >= 0) && "
                                 "\"The range of Handle is beyond MST range\""));
    }
    EXPECT_EQ(counts(seg), (std::vector<U32>{16, 2, 14, 14}));
}

TEST_F(HandleApi, ReleaseRoutineThatIsNeitherOfTheTwoIsNotMatched)
{
    const Lines notMatched{check("0 && \"Release function is not matched\"", kLib, "MM_FreeBlock")};
    for (const U32 handle : {7U, U32(HEAPHANDLE), U32(HEAPHANDLE_ALIAS)}) {
        EXPECT_EQ(MM_FreeBlock(handle, at(kFloatStart), 1), U32(EASSERT));
        EXPECT_EQ(log(), notMatched);
    }
    const U32 seg = createBlocks("BLKS", 0x10000, 4096);
    stSegTable[seg].pfnFree = foreignRelease;
    EXPECT_EQ(MM_FreeBlock(seg, at(kFloatStart), 1), U32(EASSERT));
    EXPECT_EQ(log(), notMatched);
}

TEST_F(HandleApi, WhatTheReleaseRoutineRefusesIsNotPassedBack)
{
    const U32 seg = createBlocks("BLKS", 0x10000, 4096);
    const U32 stack = createStack("STCK", 0x10000, 4096);
    const Lines freedAlready{check("(U32)stTemp.pstBlk != stBlkPtr.ulyisl && \"Already Freed Block is requested!!\"",
                                   "mm/MM_FreeBlk", "MM_FreeBlk")};
    EXPECT_EQ(MM_Free(seg, at(startOf(seg)), 1), U32(ENOERR));
    EXPECT_EQ(log(), freedAlready);
    EXPECT_EQ(MM_FreeBlock(seg, at(startOf(seg)), 1), U32(ENOERR));
    EXPECT_EQ(log(), freedAlready);
    EXPECT_EQ(MM_FreeBlock(stack, at(startOf(stack)), 1), U32(ENOERR));
    EXPECT_EQ(log().size(), 1U);

    // What MM_FreeBlock itself refuses does not come back from MM_Free either.
    stSegTable[seg].pfnFree = nullptr;
    EXPECT_EQ(MM_Free(seg, at(startOf(seg)), 1), U32(ENOERR));
    EXPECT_EQ(log(), (Lines{check("0 && \"Release function is not matched\"", kLib, "MM_FreeBlock")}));
}

TEST_F(HandleApi, HeapAddressGoesBackToTheHeapUnderAnyBlockSegmentsHandle)
{
    const U32 seg = createBlocks("BLKS", 0x10000, 64);
    createHeapOf({{0x95400000, 0x10000}}, 4096);
    const U32 address = MM_AllocBlock(HEAPHANDLE, 3, 0);
    EXPECT_EQ(MM_FreeBlock(seg, at(address), 1), U32(ENOERR));
    EXPECT_EQ(counts(HEAPHANDLE), (std::vector<U32>{16, 2, 14, 14}));
    // Bytes are counted in the named segment's blocks: two of 64, and two of 4096 come back.
    EXPECT_EQ(MM_Free(seg, at(address + 4096), 128), U32(ENOERR));
    EXPECT_EQ(counts(HEAPHANDLE), (std::vector<U32>{16, 0, 16, 16}));
    EXPECT_EQ(counts(seg), (std::vector<U32>{1024, 0, 1024, 1024}));
    expectSilence();
}

TEST_F(HandleApi, WhatTheHeapRefusesIsNotPassedBackEither)
{
    const U32 seg = createBlocks("BLKS", 0x10000, 4096);
    createHeapOf({{0x95400000, 0x10000}}, 4096);
    for (const U32 handle : {seg, U32(HEAPHANDLE)}) {
        EXPECT_EQ(MM_FreeBlock(handle, at(0x95400000), 1), U32(ENOERR)); // the header of the only free run
        EXPECT_EQ(log(), (Lines{check("(U32)stTemp.pstBlk != stBlkPtr.ulyisl && \"Already Freed Block is requested!!\"",
                                      "mm/MM_FreeBlk", "MM_FreeBlk")}));
    }
    EXPECT_EQ(counts(HEAPHANDLE), (std::vector<U32>{16, 0, 16, 16}));
}

TEST_F(HandleApi, HeapAddressUnderAStacksHandleGoesToTheStackWhichRefusesIt)
{
    const U32 stack = createStack("STCK", 0x10000, 4096);
    createHeapOf({{0x95400000, 0x10000}}, 4096);
    const U32 address = MM_AllocBlock(HEAPHANDLE, 3, 0);
    EXPECT_EQ(MM_FreeBlock(stack, at(address), 3), U32(ENOERR));
    EXPECT_EQ(
        log(),
        (Lines{check("(pubRlsAddr == astStackStr[hulHandle].pubStackHead) && \"Already Freed Address is requested!\"",
                     "mm/MM_FreeBlk", "MM_Pop")}));
    EXPECT_EQ(counts(HEAPHANDLE), (std::vector<U32>{16, 3, 13, 13}));
}

TEST_F(HandleApi, SegmentAddressUnderTheHeapsHandleIsRefusedByTheHeap)
{
    const U32 seg = createBlocks("BLKS", 0x10000, 4096);
    createHeapOf({{0x95400000, 0x10000}}, 4096);
    const U32 address = MM_AllocBlock(seg, 1, 0);
    EXPECT_EQ(MM_FreeBlock(HEAPHANDLE, at(address), 1), U32(ENOERR));
    EXPECT_EQ(log(), (Lines{check("ubFindRange == 1 && \"Free Request is over the available Range of Segment\"",
                                  "mm/MM_FreeBlk", "MM_FreeBlk")}));
    EXPECT_EQ(counts(seg)[1], 1U);
}

TEST_F(HandleApi, ReleaseNeedsBothRoutinesOfTheSegmentThatGetsIt)
{
    const U32 seg = createBlocks("BLKS", 0x10000, 4096);
    createHeapOf({{0x95400000, 0x10000}}, 4096);
    const U32 own = MM_AllocBlock(seg, 1, 0);
    const U32 heaps = MM_AllocBlock(HEAPHANDLE, 1, 0);

    stSegTable[HEAPHANDLE].pfnAlloc = nullptr;
    EXPECT_EQ(MM_FreeBlock(seg, at(heaps), 1), U32(EASSERT));
    EXPECT_EQ(log(), (Lines{check("0", kLib, "MM_FreeBlock")}));
    stSegTable[seg].pfnAlloc = nullptr;
    EXPECT_EQ(MM_FreeBlock(seg, at(own), 1), U32(EASSERT));
    EXPECT_EQ(log(), (Lines{check("0", kLib, "MM_FreeBlock")}));
    EXPECT_EQ(counts(seg)[1], 1U);
    EXPECT_EQ(counts(HEAPHANDLE)[1], 1U);
}

TEST_F(HandleApi, ReleaseCallsTheHeapsOwnRoutine)
{
    const U32 seg = createBlocks("BLKS", 0x10000, 4096);
    createHeapOf({{0x95400000, 0x10000}}, 4096);
    const U32 heaps = MM_AllocBlock(HEAPHANDLE, 1, 0);
    stSegTable[HEAPHANDLE].pfnFree = foreignRelease;
    EXPECT_EQ(MM_FreeBlock(seg, at(heaps), 1), U32(ENOERR));
    EXPECT_EQ(counts(HEAPHANDLE)[1], 1U);
    expectSilence();
}

TEST_F(HandleApi, LocksAreTheAllocatorsOwn)
{
    const U32 seg = createBlocks("BLKS", 0x10000, 4096, 0, YES);
    const U32 stack = createStack("STCK", 0x10000, 4096, YES);
    expectTakes(search_lock, [=] { return MM_Malloc(seg, 1, 0); });
    expectTakes(free_lock, [=] { return MM_Free(seg, at(endOf(seg) - 4096), 1); });
    expectTakes(push_lock, [=] { return MM_Malloc(stack, 1, 0); });
    expectTakes(pop_lock, [=] { return MM_Free(stack, at(endOf(stack) - 4096), 1); });
    EXPECT_EQ(counts(seg)[1], 0U);
    EXPECT_EQ(counts(stack)[1], 0U);
}

} // namespace
} // namespace velmora::test
