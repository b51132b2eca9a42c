// Status queries, the MST display and the short trace.
#include "controller/manager_state.h"
#include "support/allocator_fixture.h"

namespace velmora::test {
namespace {

const char kLib[] = "mm/MM_Lib";
constexpr U32 kAllOnes = 0xFFFFFFFF;

class Queries : public AllocatorTest
{
protected:
    Queries() { start(); }

    // 16 blocks of 4096 bytes from kFloatStart, three of them allocated.
    static U32 createUsed(const char* name = "BLKS")
    {
        const U32 seg = createBlocks(name, 0x10000, 0x1000);
        alloc(seg, 3);
        return seg;
    }
    // Two pieces, 16 and 32 blocks; five blocks of the second are allocated.
    static void createUsedHeap()
    {
        createHeapOf({{0x95400000, 0x10000}, {0x95500000, 0x20000}}, 0x1000);
        alloc(HEAPHANDLE, 5);
    }
};

// Counts of blocks ------------------------------------------------------------------------------------------

TEST_F(Queries, CountsOfASegmentAndOfTheHeapUnderBothItsHandles)
{
    const U32 seg = createUsed();
    EXPECT_EQ(MM_GetTotBlk(seg), 16U);
    EXPECT_EQ(MM_GetTotAvailBlk(seg), 13U);
    EXPECT_EQ(MM_GetLargestBlk(seg), 13U);
    EXPECT_EQ(MM_GetInitTotBlk(seg), 16U);
    EXPECT_EQ(MM_GetTotBlk(48), 0U);
    createUsedHeap();
    for (const U32 heap : {U32(HEAPHANDLE), U32(HEAPHANDLE_ALIAS)}) {
        EXPECT_EQ(MM_GetTotBlk(heap), 48U);
        EXPECT_EQ(MM_GetTotAvailBlk(heap), 43U);
        EXPECT_EQ(MM_GetLargestBlk(heap), 27U);
    }
    EXPECT_EQ(MM_GetInitTotBlk(HEAPHANDLE), 48U);
    expectSilence();
}

TEST_F(Queries, CountsRefuseHandlesBeyondTheTableWithFourteen)
{
    const struct {
        const char* name;
        U32 (*query)(U32);
    } cases[] = {{"MM_GetTotBlk", MM_GetTotBlk},
                 {"MM_GetTotAvailBlk", MM_GetTotAvailBlk},
                 {"MM_GetLargestBlk", MM_GetLargestBlk}};
    for (const auto& c : cases)
        for (const U32 handle : {50U, 0x10030U, kAllOnes}) {
            EXPECT_EQ(c.query(handle), 14U);
            EXPECT_EQ(log(), (Lines{check("(hulHandle < MAX_SEGTABLE_SIZE && hulHandle >= 0) && "
                                          "\"The range of Handle is beyond MST range\"",
                                          kLib, c.name)}));
        }
}

TEST_F(Queries, InitialCountDoesNotKnowTheHeapsSecondHandle)
{
    createUsedHeap();
    for (const U32 handle : {U32(HEAPHANDLE_ALIAS), 50U, kAllOnes}) {
        EXPECT_EQ(MM_GetInitTotBlk(handle), 14U);
        EXPECT_EQ(log(), (Lines{check("(hulHandle < MAX_SEGTABLE_SIZE) && \"Handle value is invalid!!\"", kLib,
                                      "MM_GetInitTotBlk")}));
    }
}

// Addresses -------------------------------------------------------------------------------------------------

TEST_F(Queries, AddressesOfASegment)
{
    const U32 seg = createUsed();
    EXPECT_EQ(MM_Addr(MM_GetStartAddrOfSegment(seg)), kFloatStart);
    EXPECT_EQ(MM_GetEndAddrOfSegment(seg), kFloatStart + 0x10000);
    EXPECT_EQ(MM_Addr(MM_GetRCBEnd(seg)), kFloatStart + 0x10000);
    EXPECT_EQ(MM_GetStartAddrOfSegment(seg + 1), nullptr);
    EXPECT_EQ(MM_GetEndAddrOfSegment(seg + 1), 0U);
    EXPECT_EQ(MM_GetRCBEnd(seg + 1), nullptr);
}

TEST_F(Queries, AddressesOfTheHeapAreThoseOfItsBiggestPiece)
{
    createUsedHeap();
    for (const U32 heap : {U32(HEAPHANDLE), U32(HEAPHANDLE_ALIAS)}) {
        EXPECT_EQ(MM_Addr(MM_GetStartAddrOfSegment(heap)), 0x95500000U);
        EXPECT_EQ(MM_GetEndAddrOfSegment(heap), 0x95520000U);
    }
    EXPECT_EQ(MM_Addr(MM_GetRCBEnd(HEAPHANDLE)), MM_Addr(&stSegEndAddr));
    expectSilence();
}

TEST_F(Queries, EndOfTheHeapThatCannotBeFoundIsReported)
{
    const Lines notFound{message("can't find the end address of segment", kLib, "MM_GetEndAddrOfSegment")};
    EXPECT_EQ(MM_GetStartAddrOfSegment(HEAPHANDLE), nullptr);
    EXPECT_EQ(MM_GetEndAddrOfSegment(HEAPHANDLE), kAllOnes);
    EXPECT_EQ(log(), notFound);
    createUsedHeap();
    stSegEndAddr.aulHeapAddr[1] = 0;
    EXPECT_EQ(MM_GetEndAddrOfSegment(HEAPHANDLE_ALIAS), kAllOnes);
    EXPECT_EQ(log(), notFound);
    stSegEndAddr.aulHeapAddr[1] = 0x95520000;
    pstHEAPBiggestBlk = node(0x95500040);
    EXPECT_EQ(MM_GetEndAddrOfSegment(HEAPHANDLE), kAllOnes);
    EXPECT_EQ(log(), notFound);
}

TEST_F(Queries, SegmentsEndAddressItselfCountsAsInside)
{
    const U32 seg = createUsed();
    EXPECT_EQ(MM_CheckSegment(seg, kFloatStart - 1), 0);
    EXPECT_EQ(MM_CheckSegment(seg, kFloatStart), TRUE);
    EXPECT_EQ(MM_CheckSegment(seg, kFloatStart + 0x10000), TRUE);
    EXPECT_EQ(MM_CheckSegment(seg, kFloatStart + 0x10001), 0);
}

TEST_F(Queries, PhysicalAddressesCountFromTheLinearMap)
{
    for (const U32 handle : {0U, 49U, kAllOnes}) { // ignored
        EXPECT_EQ(MM_GetPhysAddr(handle, 0x94100000), 0x00100000U);
        EXPECT_EQ(MM_GetPhysAddr(handle, 0x94000000), 0U);
        EXPECT_EQ(MM_GetPhysAddr(handle, 0x00000001), 0x6C000001U);
        EXPECT_EQ(MM_GetPhysAddr(handle, 0xFFFFFFFF), 0x6BFFFFFFU);
        expectSilence();
        EXPECT_EQ(MM_GetPhysAddr(handle, 0), 14U);
        EXPECT_EQ(log(), (Lines{check("ulStart", kLib, "MM_GetPhysAddr")}));
    }
}

// Records ---------------------------------------------------------------------------------------------------

TEST_F(Queries, SummaryOfASegment)
{
    const U32 seg = createBlocks("MAPD", 4096, 64, 1); // 63 blocks behind 64 bytes of map
    const TMSTInfo* const info = MM_ReadMST(seg);
    ASSERT_EQ(info, &stMSTInfo);
    EXPECT_EQ(info->ulBlkSize, 64U);
    EXPECT_EQ(info->ulTotalSegsize, 4032U);
    EXPECT_EQ(MM_Addr(info->pubStartSegAddr), kFloatStart + 64);
    EXPECT_EQ(MM_Addr(info->pubEndSegAddr), kFloatStart + 4096);

    EXPECT_EQ(MM_ReadMST(48), &stMSTInfo); // one record for all: zeros of an unused entry
    EXPECT_EQ(info->ulTotalSegsize, 0U);
    EXPECT_EQ(info->pubEndSegAddr, nullptr);
    expectSilence();
}

TEST_F(Queries, SummaryOfTheHeapNamesItsBiggestPiece)
{
    createUsedHeap();
    for (const U32 heap : {U32(HEAPHANDLE), U32(HEAPHANDLE_ALIAS)}) {
        stMSTInfo = TMSTInfo{};
        ASSERT_EQ(MM_ReadMST(heap), &stMSTInfo);
        EXPECT_EQ(stMSTInfo.ulBlkSize, 0x1000U);
        EXPECT_EQ(stMSTInfo.ulTotalSegsize, 0x30000U);
        EXPECT_EQ(MM_Addr(stMSTInfo.pubStartSegAddr), 0x95500000U);
        EXPECT_EQ(MM_Addr(stMSTInfo.pubEndSegAddr), 0x95520000U);
    }
    expectSilence();
}

TEST_F(Queries, SummaryThatCannotBeGivenIsTheAllOnesPointer)
{
    createUsed();
    for (const U32 handle : {50U, 0x10030U, kAllOnes}) {
        EXPECT_EQ(MM_Addr(MM_ReadMST(handle)), kAllOnes);
        EXPECT_EQ(log(), (Lines{message("The range of Handle is beyond MST range.", kLib, "MM_ReadMST")}));
    }
    const Lines notFound{message("can't find the end address of segment", kLib, "MM_ReadMST")};
    MM_ReadMST(5);
    EXPECT_EQ(MM_Addr(MM_ReadMST(HEAPHANDLE)), kAllOnes); // no heap yet
    EXPECT_EQ(log(), notFound);
    EXPECT_EQ(stMSTInfo.pubEndSegAddr, nullptr);
    createUsedHeap();
    stSegEndAddr.aulHeapAddr[1] = 0;
    EXPECT_EQ(MM_Addr(MM_ReadMST(HEAPHANDLE)), kAllOnes);
    EXPECT_EQ(log(), notFound);
}

TEST_F(Queries, EntryIsCopiedWholeButNotTheHeaps)
{
    const U32 seg = createUsed();
    createUsedHeap();
    TMMSegInfo copy;
    for (const U32 index : {0U, seg, 48U}) {
        std::memset(&copy, 0xA5, sizeof copy);
        EXPECT_EQ(MM_GetMST(index, &copy), 0);
        EXPECT_EQ(std::memcmp(&copy, &stSegTable[index], 80), 0) << index;
    }
    for (const U32 index : {49U, 50U, U32(HEAPHANDLE_ALIAS), kAllOnes}) {
        std::memset(&copy, 0xA5, sizeof copy);
        EXPECT_EQ(MM_GetMST(index, &copy), 255);
        EXPECT_TRUE(isFilled(MM_Addr(&copy), 0xA5, 80));
    }
    expectSilence();
}

TEST_F(Queries, NameInTheMctGivesItsStartAndSize)
{
    U32 address = 1, bytes = 2;
    MM_ReadMCT(id("$UEV"), &address, &bytes);
    EXPECT_EQ(address, kAreaStart + 73728);
    EXPECT_EQ(bytes, 1048576U);
    MM_ReadMCT(id("$RJL"), &address, nullptr);
    EXPECT_EQ(address, kAreaStart + 4096);
    EXPECT_EQ(bytes, 1048576U);
    expectSilence();
}

TEST_F(Queries, UnknownNameInTheMctIsReportedAndGivesZeros)
{
    U32 address = 1, bytes = 2;
    MM_ReadMCT(id("NONE"), &address, &bytes);
    EXPECT_EQ(log(), (Lines{check("0 && \"Can't find such ID in MCT\"", "mm/MM_MCT", "MM_ReadSegOnMCT")}));
    EXPECT_EQ(address, 0U);
    EXPECT_EQ(bytes, 0U);
    address = 1;
    MM_ReadMCT(id("NONE"), &address, nullptr);
    EXPECT_EQ(address, 0U);
}

// Memory totals ---------------------------------------------------------------------------------------------

TEST_F(Queries, TotalsAddUpUsableAndFreeBytesOfAllEntries)
{
    U32 total = 1, free = 1;
    MM_GetTotalMemoryStatus(&total, &free);
    EXPECT_EQ(total, 0U);
    EXPECT_EQ(free, 0U);

    createUsed();                       // 0x10000 bytes, 13 of 16 blocks free
    createBlocks("ODD!", 4096, 100);    // 63 blocks that count as 64 bytes, but free ones as 100
    createStack("STCK", 0x2000, 0x100); // 32 blocks
    createUsedHeap();                   // 0x30000 bytes, 43 of 48 blocks free
    MM_GetTotalMemoryStatus(&total, &free);
    EXPECT_EQ(total, 0x10000U + 63 * 64 + 0x2000 + 0x30000);
    EXPECT_EQ(free, 13U * 0x1000 + 63 * 100 + 0x2000 + 43 * 0x1000);
}

TEST_F(Queries, CollationCopyMemoryIsTheHeapAloneOnceItIsInitialised)
{
    U32 total = 1, free = 1;
    createUsed();
    MM_GetCollationCopyMemoryStatus(&total, &free);
    EXPECT_EQ(total, 0U);
    EXPECT_EQ(free, 0U);

    createUsedHeap();
    MM_GetCollationCopyMemoryStatus(&total, &free);
    EXPECT_EQ(total, 0x30000U);
    EXPECT_EQ(free, 43U * 0x1000);

    stSegTable[HEAPHANDLE].pfnFree = nullptr;
    MM_GetCollationCopyMemoryStatus(&total, &free);
    EXPECT_EQ(total, 0U);
    EXPECT_EQ(free, 0U);
}

TEST_F(Queries, NoticeOfSeveralJobsIsStoredAsGiven)
{
    for (const U32 value : {1U, 0U, 7U}) {
        MM_RunningMultiJob_Notify(value);
        EXPECT_EQ(ulRunningMultiJob, value);
    }
}

TEST_F(Queries, QueriesTakeNoLockAndChangeNothing)
{
    const U32 seg = createBlocks("BLKS", 0x10000, 0x1000, 8, YES);
    alloc(seg, 3, 9);
    createHeapOf({{0x95400000, 0x10000}}, 0x1000, 1, YES);
    alloc(HEAPHANDLE, 2, 1);
    const std::string before = sim::dumpManagerState();
    expectTakesNoLock([=] {
        U32 a, b;
        TMMSegInfo copy;
        for (const U32 handle : {seg, U32(HEAPHANDLE)}) {
            MM_GetTotBlk(handle), MM_GetTotAvailBlk(handle), MM_GetLargestBlk(handle), MM_GetInitTotBlk(handle);
            MM_GetStartAddrOfSegment(handle), MM_GetEndAddrOfSegment(handle), MM_GetRCBEnd(handle);
            MM_ReadMST(handle), MM_GetMST(handle, &copy), MM_CheckSegment(handle, kFloatStart);
            MM_DisplayMST(handle), MM_TraceMST(handle);
        }
        MM_ReadMCT(id("$JCB"), &a, &b);
        MM_GetTotalMemoryStatus(&a, &b), MM_GetCollationCopyMemoryStatus(&a, &b);
        MM_DisplayMST(MM_DISPLAY_ALL), MM_TraceMST(MM_DISPLAY_ALL);
        return MM_GetPhysAddr(seg, kFloatStart);
    });
    EXPECT_EQ(sim::dumpManagerState(), before);
}

// Display -----------------------------------------------------------------------------------------------------

const char kRule[] = "==============================================================================================\n";
const char kTitle[] =
    "                             Display MST                                                     =\n";
const char kColumns[] =
    "[S_ID][Hd][Seg Size][BlkSize][TotBNO][TAllocBNO][TFreeBNO][TLargeBNO][VM][StartAdd][EndAddre]=\n";
const char kClosing[] = "==========================================================================\n";
const std::string kUnusedRow =
    std::string(" \0\0\0\0", 5) +
    "   0-        0-        0-        0-        0-        0-        0- 0-        0-        0\n";

class Display : public Queries
{
protected:
    static void expectDisplayed(U32 selector, const Lines& rows)
    {
        Lines expected{kRule, kTitle, kColumns};
        expected.insert(expected.end(), rows.begin(), rows.end());
        expected.push_back(kClosing);
        MM_DisplayMST(selector);
        EXPECT_EQ(log(), expected);
    }
    static void expectTraced(U32 selector, const Lines& rows)
    {
        MM_TraceMST(selector);
        EXPECT_EQ(log(), rows);
    }

    const Lines usedHeapRows{
        " HEAP  49-    10000-     1000-       10-        0-       10-       1b- 0- 95400000- 95410000\n",
        " HEAP  49-    20000-     1000-       20-        5-       1b-       1b- 0- 95500000- 95520000\n"};
    const std::string usedRow =
        " BLKS   5-    10000-     1000-       10-        3-        d-        d- 0- 95312000- 95322000\n";
};

TEST_F(Display, OneEntry)
{
    expectDisplayed(createUsed(), {usedRow});
}

TEST_F(Display, UnusedEntryIsARowOfZeros)
{
    expectDisplayed(3, {kUnusedRow});
    createUsedHeap();
    expectDisplayed(48, {kUnusedRow});
}

TEST_F(Display, SizeIsTheUsableOneAndOverflowIsShown)
{
    TSegInfoFromApp info = request("MAPD", 4096, 64);
    info.ubMap = 1;
    info.ubVM = 0x1F;
    ASSERT_EQ(MM_CreateSegment(&info), U32(ENOERR));
    expectDisplayed(5,
                    {" MAPD   5-      fc0-       40-       3f-        0-       3f-       3f-1f- 95312040- 95313000\n"});
}

TEST_F(Display, HandleColumnIsTheRecordsOwn)
{
    createUsed();
    stSegTable[5].stInfoFromApp.hulHandle = 12345;
    expectDisplayed(
        5, {" BLKS12345-    10000-     1000-       10-        3-        d-        d- 0- 95312000- 95322000\n"});
}

TEST_F(Display, HeapIsShownPieceByPiece)
{
    createUsedHeap();
    expectDisplayed(HEAPHANDLE, usedHeapRows);
}

TEST_F(Display, PieceIsCountedInTheHeapsOwnBlockSize)
{
    // Blocks of 100 bytes count as 64: 62 in a piece that is aligned to 0x95400004 and loses a block at its end.
    createHeapOf({{0x95400000, 0x1000}}, 100);
    expectDisplayed(HEAPHANDLE,
                    {" HEAP  49-      f9c-       64-       27- ffffffe9-       3e-       3e- 0- 95400004- 95400fa0\n"});
}

TEST_F(Display, PiecesMapIsNotPartOfItsRow)
{
    createHeapOf({{0x95400000, 0x1000}}, 64, 8);
    alloc(HEAPHANDLE, 3, 1);
    expectDisplayed(HEAPHANDLE,
                    {" HEAP  49-      fc0-       40-       3f-        3-       3c-       3c- 0- 95400040- 95401000\n"});
}

TEST_F(Display, EverythingIsEntryZeroTheEntriesWithAHandleAndTheHeap)
{
    createUsed();
    createStack("STCK", 0x1000, 0x100);
    createUsedHeap();
    Lines rows{kUnusedRow, usedRow,
               " STCK   6-     1000-      100-       10-        0-       10-       10- 0- 95322000- 95323000\n"};
    rows.insert(rows.end(), usedHeapRows.begin(), usedHeapRows.end());
    expectDisplayed(MM_DISPLAY_ALL, rows);
}

TEST_F(Display, EverythingShowsEntryZeroAlsoWhenItIsUsed)
{
    for (const char* name : {"$RJL", "$JCB"}) {
        TSegInfoFromApp info = request(name, 0, 0x400);
        info.ubType = FIXED;
        ASSERT_EQ(MM_CreateSegment(&info), U32(ENOERR));
    }
    expectDisplayed(MM_DISPLAY_ALL,
                    {" $RJL   0-     1000-      400-        4-        0-        4-        4- 0- 95101000- 95102000\n",
                     " $JCB   1-    10000-      400-       40-        0-       40-       40- 0- 95102000- 95112000\n"});
}

TEST_F(Display, EverythingGoesByTheHandleFieldAlone)
{
    createUsed();
    createStack("STCK", 0x1000, 0x100);
    stSegTable[5].stInfoFromApp.hulHandle = 0;
    stSegTable[48].stInfoFromApp.hulHandle = 7; // nothing else of it is there
    expectDisplayed(MM_DISPLAY_ALL,
                    {kUnusedRow,
                     " STCK   6-     1000-      100-       10-        0-       10-       10- 0- 95322000- 95323000\n",
                     std::string(" \0\0\0\0", 5) +
                         "   7-        0-        0-        0-        0-        0-        0- 0-        0-        0\n"});
}

TEST_F(Display, RunAtAPiecesEndBelongsToTheNextPiece)
{
    createHeapOf({{0x95400000, 0x1000}, {0x95401000, 0x2000}}, 64);
    expectDisplayed(HEAPHANDLE,
                    {" HEAP  49-     1000-       40-       40-        0-       40-       80- 0- 95400000- 95401000\n",
                     " HEAP  49-     2000-       40-       80-        0-       80-       80- 0- 95401000- 95403000\n"});
}

TEST_F(Display, HeapThatDoesNotExistHasNoRows)
{
    expectDisplayed(HEAPHANDLE, {});
    expectDisplayed(MM_DISPLAY_ALL, {kUnusedRow});
    expectTraced(HEAPHANDLE, {});
}

TEST_F(Display, FivePiecesAreFiveRows)
{
    createHeapOf(
        {{0x95400000, 0x400}, {0x95500000, 0x400}, {0x95600000, 0x400}, {0x95700000, 0x400}, {0x95800000, 0x400}}, 64);
    MM_DisplayMST(HEAPHANDLE);
    EXPECT_EQ(log().size(), 3U + 5 + 1);
}

// Trace -------------------------------------------------------------------------------------------------------

TEST_F(Display, TraceOfTheHeapAddsThePiecesMap)
{
    createHeapOf({{0x95400000, 0x1000}, {0x95500000, 0x2000}}, 64, 8);
    alloc(HEAPHANDLE, 3, 1);
    expectTraced(HEAPHANDLE, {"\r\n HEAP      49   0x     fc0         64       63           0          63       123  0"
                              "  0x95400040 0x95401000 0x95400000 0x95400040",
                              "\r\n HEAP      49   0x    1f80         64      126           3         123       123  0"
                              "  0x95500080 0x95502000 0x95500000 0x95500080"});
}

TEST_F(Display, TraceOfEverythingHasItsOwnSpacing)
{
    createUsed();
    createUsedHeap();
    const std::string unused = std::string("\r\n \0\0\0\0", 7) +
                               "       0   0x       0          0        0           0           0          0   0"
                               "  0x       0 0x       0";
    expectTraced(MM_DISPLAY_ALL, {unused,
                                  "\r\n BLKS       5   0x   10000       4096       16           3          13         "
                                  "13   0  0x95312000 0x95322000",
                                  "\r\n HEAP      49   0x   10000       4096       16           0          16         "
                                  "27   0  0x95400000 0x95410000",
                                  "\r\n HEAP      49   0x   20000       4096       32           5          27         "
                                  "27   0  0x95500000 0x95520000"});
}

TEST_F(Display, TraceOfAnythingElsePrintsNothing)
{
    const U32 seg = createUsed();
    createUsedHeap();
    for (const U32 selector : {0U, seg, 48U, 50U, 99U, 101U, U32(HEAPHANDLE_ALIAS), kAllOnes})
        expectTraced(selector, {});
}

} // namespace
} // namespace velmora::test
