// Initialisation: alignment, owner map, counts and the allocators' starting state of a placed segment.
#include "kernel/mm/mm/MM_Layout.h"
#include "kernel/mm/mm/MM_RunIndex.h"
#include "support/manager_fixture.h"

namespace velmora::test {
namespace {

constexpr U32 kA = 0x95400000, kB = 0x95500000, kC = 0x95600000, kD = 0x95700000;
constexpr U32 kHandle = 7;

constexpr const char* kBadLargest =
    "(stSegTable[hulHandle].ulLargestBlkSize >= 0) && (stSegTable[hulHandle].ulLargestBlkSize <= "
    "stSegTable[hulHandle].ulTotalFreeBlkNum)";

class InitSegment : public ManagerTest
{
protected:
    InitSegment() { start(); }

    // A record as placement leaves it; what initialisation has to fill in holds rubbish.
    static TMMSegInfo placed(U32 startAddress, U32 bytes, U32 blockBytes, U8 map = 0, U8 discipline = LINKEDLIST)
    {
        TMMSegInfo info;
        std::memset(&info, 0xEE, sizeof info);
        info.stInfoFromApp = request("TEST", bytes, blockBytes);
        info.stInfoFromApp.ubMap = map;
        info.stInfoFromApp.ubSegDSType = discipline;
        info.stInfoFromApp.hulHandle = kHandle;
        info.stInfoFromApp.ulRetSegSize = bytes;
        info.pubStartAddr = at(startAddress);
        info.pubEndAddr = at(startAddress + bytes);
        return info;
    }

    static const TMMSegInfo& initialised(TMMSegInfo info)
    {
        EXPECT_EQ(MM_SegInitial(&info), U32(ENOERR));
        expectSilence();
        return stSegTable[info.stInfoFromApp.hulHandle];
    }

    static std::string failed(const char* text, const char* function = "MM_SegInitial")
    {
        return check(text, "mm/MM_InitSegment", function);
    }
};

// Layout as numbers -----------------------------------------------------------------------------------

TEST_F(InitSegment, AnAddressThatIsNoMultipleOfTheUnitMovesUp)
{
    const struct {
        U32 address, unit, aligned;
    } cases[] = {{0x1000, 64, 0x1000}, {0x1001, 64, 0x1040}, {0x103F, 64, 0x1040}, {0x1040, 64, 0x1040}, {5, 4, 8},
                 {0x1001, 0, 0x1001},   // no unit: it stays
                 {0x1000, 12, 0x1004}}; // no power of two: 0x100C masked with 0xFFFFFFF4
    for (const auto& item : cases)
        EXPECT_EQ(MM_AlignUp(item.address, item.unit), item.aligned) << item.address << " by " << item.unit;
}

TEST_F(InitSegment, AMapHasAnEntryForEachBlockAndAByteMoreWhereTheCountIsNoMultipleOfEight)
{
    const struct {
        U32 blocks;
        U8 width;
        U32 bytes;
    } cases[] = {{8, 1, 1}, {9, 1, 2}, {16, 2, 4}, {17, 2, 5}, {8, 4, 4},
                 {9, 4, 5}, {8, 8, 8}, {9, 8, 10}, {8, 16, 0}, {9, 16, 1}}; // wider than a byte: no entries
    for (const auto& item : cases)
        EXPECT_EQ(MM_MapBytes(item.blocks, item.width), item.bytes) << item.blocks << " of " << int(item.width);
}

// Block size as a shift -------------------------------------------------------------------------------

TEST_F(InitSegment, ABlockSizeIsTheShiftOfThePowerOfTwoBelow)
{
    const struct {
        U32 size;
        int shift;
    } cases[] = {{1, 0},   {2, 1},   {3, 1},   {4, 2},           {6, 2},           {64, 6},
                 {100, 6}, {127, 6}, {128, 7}, {0x7FFFFFFF, 30}, {0x80000000, 31}, {0xFFFFFFFF, 31}};
    for (const auto& item : cases)
        EXPECT_EQ(MM_GetBlkBit(item.size), item.shift) << item.size;
    expectSilence();
}

TEST_F(InitSegment, ABlockSizeOf0IsReportedAndGives14)
{
    EXPECT_EQ(MM_GetBlkBit(0), 14);
    EXPECT_EQ(log(), Lines{failed("ulBlkSize > 0", "MM_GetBlkBit")});
}

// Segments without a map ------------------------------------------------------------------------------

TEST_F(InitSegment, AnAlignedSegmentIsAllBlocks)
{
    const TMMSegInfo& entry = initialised(placed(kA, 4096, 64));
    EXPECT_EQ(entry.ubBlkBit, 6);
    EXPECT_EQ(entry.pubStartAddr, at(kA));
    EXPECT_EQ(entry.pubEndAddr, at(kA + 4096));
    EXPECT_EQ(entry.pubMapStartAddr, nullptr);
    EXPECT_EQ(entry.pubMapEndAddr, nullptr);
    EXPECT_EQ(entry.ulTotalBlkNum, 64u);
    EXPECT_EQ(entry.ulTotalFreeBlkNum, 64u);
    EXPECT_EQ(entry.ulTotalAllocBlkNum, 0u);
    EXPECT_EQ(entry.ulLargestBlkSize, 64u);
    EXPECT_EQ(entry.ulRealAvailSize, 4096u);
    EXPECT_EQ(entry.stInfoFromApp.ulRetSegSize, 4096u);
    EXPECT_EQ(entry.stInfoFromApp.ulSegSize, 4096u);
    EXPECT_EQ(std::memcmp(entry.stInfoFromApp.aubSegID, "TEST", 4), 0);
}

TEST_F(InitSegment, TheWorkingRecordsSemaphoreIsCarriedOver)
{
    stSegTable[kHandle].ulSemID = 7;
    TMMSegInfo info = placed(kA, 4096, 64);
    info.ulSemID = 0x1234;
    EXPECT_EQ(initialised(info).ulSemID, 0x1234u);
}

TEST_F(InitSegment, ABlockSegmentBeginsWithOneFreeRun)
{
    fill(kA, 0xA5, 64);
    const TMMSegInfo& entry = initialised(placed(kA, 4096, 16));
    EXPECT_EQ(entry.pfnAlloc, &MM_AllocBlk);
    EXPECT_EQ(entry.pfnFree, &MM_FreeBlk);
    EXPECT_EQ(astBlkHead[kHandle].pstBlk, node(kA));
    EXPECT_EQ(astBlkTail[kHandle].pstBlk, node(kA));
    EXPECT_EQ(node(kA)->pstNext, nullptr);
    EXPECT_EQ(node(kA)->pstBack, nullptr);
    EXPECT_EQ(node(kA)->ulSize, 256u); // blocks
    EXPECT_TRUE(isFilled(kA + 12, 0xA5, 52));
}

TEST_F(InitSegment, AStackBeginsEmptyAndWritesNoMemory)
{
    fill(kA, 0xA5, 4096);
    const TMMSegInfo& entry = initialised(placed(kA, 4096, 64, 0, STACK));
    EXPECT_EQ(entry.pfnAlloc, &MM_Push);
    EXPECT_EQ(entry.pfnFree, &MM_Pop);
    EXPECT_EQ(astStackStr[kHandle].pubStackTail, at(kA));
    EXPECT_EQ(astStackStr[kHandle].pubStackHead, at(kA + 4096));
    EXPECT_EQ(entry.ulLargestBlkSize, 64u);
    EXPECT_EQ(entry.ulTotalFreeBlkNum, 64u);
    EXPECT_TRUE(isFilled(kA, 0xA5, 4096));
}

TEST_F(InitSegment, StartsMoveUpAndABlockThatNoLongerFitsIsTakenOff)
{
    const struct {
        const char* what;
        U32 start, bytes, blockBytes;
        U32 firstBlock, end, blocks, usable;
    } cases[] = {
        {"4 past a multiple of 64", kA + 4, 4096, 64, kA + 64, kA + 4096, 63, 4032},
        {"the same with room to spare", kA + 4, 4156, 64, kA + 64, kA + 4160, 64, 4096},
        {"one byte less than that room", kA + 4, 4155, 64, kA + 64, kA + 4096, 63, 4032},
        {"part of a block at the end", kA, 4100, 64, kA, kA + 4096, 64, 4096},
        // Unit 4 and blocks of 4 bytes; a block that does not fit takes 6 off the end.
        {"6, no multiple of 4", kA, 4096, 6, kA, kA + 4096, 1024, 4096},
        {"6, moved", kA + 2, 4096, 6, kA + 4, kA + 4 + 4096 - 6, 1023, 4092},
        {"1, unit 4", kA + 1, 100, 1, kA + 4, kA + 103, 99, 99},
        // Blocks of 64 bytes. 0x95400264 = 2504000100 is a multiple of 100 although its low bits are not 0.
        {"a true multiple of 100", kA + 0x264, 640, 100, kA + 0x264, kA + 0x264 + 640, 10, 640},
        // 0x95400268 & 0xFFFFFF9C
        {"no multiple of 100", kA + 0x204, 640, 100, kA + 0x208, kA + 0x208 + 640 - 100, 9, 576},
        // 0x95400064 & 0xFFFFFF9C: low bits 0 but no multiple
        {"no multiple of 100, low bits 0", kA, 644, 100, kA + 4, kA + 644, 10, 640},
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(item.what);
        const TMMSegInfo& entry = initialised(placed(item.start, item.bytes, item.blockBytes));
        EXPECT_EQ(entry.pubStartAddr, at(item.firstBlock));
        EXPECT_EQ(entry.pubEndAddr, at(item.end));
        EXPECT_EQ(entry.ulTotalBlkNum, item.blocks);
        EXPECT_EQ(entry.ulTotalFreeBlkNum, item.blocks);
        EXPECT_EQ(entry.ulLargestBlkSize, item.blocks);
        EXPECT_EQ(entry.ulRealAvailSize, item.usable);
        EXPECT_EQ(entry.stInfoFromApp.ulRetSegSize, item.usable);
    }
}

// Without a block to take off, the count wraps.
TEST_F(InitSegment, AMovedSegmentWithoutBlocksHasMinusOne)
{
    const TMMSegInfo& entry = initialised(placed(kA + 4, 4, 64, 0, STACK));
    EXPECT_EQ(entry.pubStartAddr, at(kA + 64));
    EXPECT_EQ(entry.pubEndAddr, at(kA));
    EXPECT_EQ(entry.ulTotalBlkNum, 0xFFFFFFFFu);
    EXPECT_EQ(entry.ulRealAvailSize, 0xFFFFFFC0u);
    EXPECT_EQ(entry.ulLargestBlkSize, 0x03FFFFFFu); // -64 bytes >> 6
}

// One block of 64 bytes of size 100 moves from kA to kA + 4 and does not fit: 0 blocks, an end 36 below the start.
TEST_F(InitSegment, ALargestRunAboveTheFreeBlocksIsReportedWithTheSegmentInPlace)
{
    TMMSegInfo info = placed(kA, 64, 100, 0, STACK);
    EXPECT_EQ(MM_SegInitial(&info), U32(EASSERT));
    EXPECT_EQ(log(), Lines{failed(kBadLargest)});
    const TMMSegInfo& entry = stSegTable[kHandle];
    EXPECT_EQ(entry.pubStartAddr, at(kA + 4));
    EXPECT_EQ(entry.pubEndAddr, at(kA + 4 - 36));
    EXPECT_EQ(entry.ulTotalFreeBlkNum, 0u);
    EXPECT_EQ(entry.ulLargestBlkSize, 0x03FFFFFFu); // -36 bytes >> 6
    EXPECT_EQ(entry.pfnAlloc, &MM_Push);
    EXPECT_EQ(entry.pfnFree, &MM_Pop);
}

// Segments with a map ---------------------------------------------------------------------------------

TEST_F(InitSegment, AMapIsCutOffTheFrontAndAlignedToABlock)
{
    for (const U8 map : {1, 2, 4, 8}) { // 8, 16, 32 and 64 bytes, each one block
        SCOPED_TRACE(int(map));
        fill(kA, 0xA5, 4096);
        const TMMSegInfo& entry = initialised(placed(kA, 4096, 64, map));
        EXPECT_EQ(entry.pubMapStartAddr, at(kA));
        EXPECT_EQ(entry.pubMapEndAddr, at(kA + 64));
        EXPECT_EQ(entry.pubStartAddr, at(kA + 64));
        EXPECT_EQ(entry.pubEndAddr, at(kA + 4096));
        EXPECT_EQ(entry.ulTotalBlkNum, 63u);
        EXPECT_EQ(entry.ulTotalFreeBlkNum, 63u);
        EXPECT_EQ(entry.ulLargestBlkSize, 63u);
        EXPECT_EQ(entry.ulRealAvailSize, 4032u);
        EXPECT_EQ(entry.stInfoFromApp.ulRetSegSize, 4032u);
        EXPECT_TRUE(isFilled(kA, 0, 64)); // its padding too
        EXPECT_EQ(node(kA + 64)->ulSize, 63u);
        EXPECT_EQ(astBlkHead[kHandle].pstBlk, node(kA + 64));
        EXPECT_TRUE(isFilled(kA + 64 + 12, 0xA5, 4096 - 64 - 12));
    }
}

// Blocks and units of 4 bytes show a map's length to the next multiple of 4.
TEST_F(InitSegment, AMapHasOneByteMoreUnlessTheBlocksAreAMultipleOf8)
{
    const struct {
        U8 map;
        U32 blocks, mapBytes, left;
    } cases[] = {
        {1, 32, 4, 31},  // 32 >> 3
        {1, 33, 8, 31},  // 4 + 1
        {1, 39, 8, 37},  // 4 + 1
        {2, 16, 4, 15},  // 16 >> 2
        {2, 17, 8, 15},  // 4 + 1
        {4, 8, 4, 7},    // 8 >> 1
        {4, 9, 8, 7},    // 4 + 1
        {8, 8, 8, 6},    // 8
        {8, 10, 12, 7},  // 10 + 1
        {8, 12, 16, 8},  // 12 + 1, although 12 bytes would do
        {8, 20, 24, 14}, // 20 + 1
        {2, 12, 4, 11},  // 3 + 1
        {2, 28, 8, 26},  // 7 + 1
        {4, 14, 8, 12},  // 7 + 1
        {4, 12, 8, 10},  // 6 + 1
        {4, 16, 8, 14},  // 8
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(testing::Message() << item.blocks << " blocks, " << int(item.map) << " bits");
        const TMMSegInfo& entry = initialised(placed(kA, item.blocks * 4, 4, item.map));
        EXPECT_EQ(MM_Addr(entry.pubMapEndAddr) - kA, item.mapBytes);
        EXPECT_EQ(entry.ulTotalBlkNum, item.left);
    }
}

TEST_F(InitSegment, AMovedSegmentsMapBeginsAtTheUnit)
{
    const TMMSegInfo& entry = initialised(placed(kA + 4, 4096, 64, 1));
    EXPECT_EQ(entry.pubMapStartAddr, at(kA + 64));
    EXPECT_EQ(entry.pubMapEndAddr, at(kA + 128)); // 63 blocks: 7 + 1 bytes
    EXPECT_EQ(entry.pubEndAddr, at(kA + 4096));
    EXPECT_EQ(entry.ulTotalBlkNum, 62u);
    EXPECT_EQ(entry.ulRealAvailSize, 62u * 64);
}

// Size 100, blocks of 64: 16 map bytes end at 0x95400274, no multiple, which moves to 0x954002D8 & 0xFFFFFF9C. The blocks
// end where they did, 972 bytes on: 15 blocks and 12 bytes that are never handed out.
TEST_F(InitSegment, AMapMayLeavePartOfABlockAtTheEnd)
{
    const TMMSegInfo& entry = initialised(placed(kA + 0x264, 1024, 100, 8));
    EXPECT_EQ(entry.pubMapStartAddr, at(kA + 0x264));
    EXPECT_EQ(entry.pubMapEndAddr, at(kA + 0x298));
    EXPECT_EQ(entry.pubStartAddr, at(kA + 0x298));
    EXPECT_EQ(entry.pubEndAddr, at(kA + 0x664));
    EXPECT_EQ(entry.ulTotalBlkNum, 15u);
    EXPECT_EQ(entry.ulRealAvailSize, 972u);
    EXPECT_EQ(entry.stInfoFromApp.ulRetSegSize, 972u);
}

TEST_F(InitSegment, AMapCanTakeTheOnlyBlock)
{
    const TMMSegInfo& entry = initialised(placed(kA, 64, 64, 1));
    EXPECT_EQ(entry.pubStartAddr, at(kA + 64));
    EXPECT_EQ(entry.pubEndAddr, at(kA + 64));
    EXPECT_EQ(entry.ulTotalBlkNum, 0u);
    EXPECT_EQ(entry.ulRealAvailSize, 0u);
    EXPECT_EQ(entry.ulLargestBlkSize, 0u);
    EXPECT_EQ(entry.pfnAlloc, &MM_AllocBlk);
}

// Heap ------------------------------------------------------------------------------------------------

class InitHeap : public InitSegment
{
protected:
    // Creates the heap over these stretches.
    static const TMMSegInfo& heapOver(const std::vector<FreeNode>& stretches, U32 blockBytes, U8 map = 0,
                                      U8 discipline = LINKEDLIST)
    {
        setFreeMemory(stretches);
        TSegInfoFromApp info = request("HEAP", 0, blockBytes);
        info.ubMap = map;
        info.ubSegDSType = discipline;
        EXPECT_EQ(MM_CreateSegment(&info), U32(ENOERR));
        EXPECT_EQ(info.ulRetSegSize, stSegTable[49].stInfoFromApp.ulRetSegSize);
        expectSilence();
        EXPECT_EQ(pstSegBlkHead, nullptr);
        EXPECT_EQ(pstSegBlkTail, nullptr);
        return stSegTable[49];
    }

    // The heap's free runs from head to tail, sizes in blocks; links back and tail agree.
    static std::vector<FreeNode> runs()
    {
        pstSegBlkHead = astBlkHead[49].pstBlk;
        pstSegBlkTail = astBlkTail[49].pstBlk;
        std::vector<FreeNode> found = freeMemory();
        pstSegBlkHead = pstSegBlkTail = nullptr;
        return found;
    }

    static void expectPiece(U32 index, U32 startAddress, U32 end, U32 mapStart = 0xFFFFFFFF, U32 mapEnd = 0xFFFFFFFF)
    {
        SCOPED_TRACE(index);
        EXPECT_EQ(stSegStartAddr.aulHeapAddr[index], startAddress);
        EXPECT_EQ(stSegEndAddr.aulHeapAddr[index], end);
        EXPECT_EQ(stSegMapStartAddr.aulHeapAddr[index], mapStart);
        EXPECT_EQ(stSegMapEndAddr.aulHeapAddr[index], mapEnd);
    }

    static void expectTotals(const TMMSegInfo& entry, U32 blocks, U32 bytes, U32 largest)
    {
        EXPECT_EQ(entry.ulTotalBlkNum, blocks);
        EXPECT_EQ(entry.ulTotalFreeBlkNum, blocks);
        EXPECT_EQ(entry.ulTotalAllocBlkNum, 0u);
        EXPECT_EQ(entry.ulLargestBlkSize, largest);
        EXPECT_EQ(entry.ulRealAvailSize, bytes);
        EXPECT_EQ(entry.stInfoFromApp.ulRetSegSize, bytes);
    }
};

TEST_F(InitHeap, TakesTheFreeMemoryListOverInBlocks)
{
    const TMMSegInfo& entry = heapOver({{kA, 0x1000}, {kB, 0x2000}, {kC, 0x2000}}, 64);
    expectPiece(0, kA, kA + 0x1000);
    expectPiece(1, kB, kB + 0x2000);
    expectPiece(2, kC, kC + 0x2000);
    expectPiece(3, 0xFFFFFFFF, 0xFFFFFFFF);
    EXPECT_EQ(runs(), (std::vector<FreeNode>{{kA, 64}, {kB, 128}, {kC, 128}}));
    expectTotals(entry, 320, 0x5000, 128);
    EXPECT_EQ(entry.ubBlkBit, 6);
    EXPECT_EQ(entry.pfnAlloc, &MM_AllocBlk);
    EXPECT_EQ(entry.pfnFree, &MM_FreeBlk);
    EXPECT_EQ(pstHEAPBiggestBlk, node(kB)); // the first of equals
}

TEST_F(InitHeap, PiecesMoveUpToTheUnit)
{
    const TMMSegInfo& entry = heapOver({{kA + 0x10, 0x1000}, {kB + 0x10, 0x2000}, {kC + 0x20, 0x2000}}, 64);
    expectPiece(0, kA + 0x40, kA + 0x1000); // 63 blocks
    expectPiece(1, kB + 0x40, kB + 0x2000); // 127
    expectPiece(2, kC + 0x40, kC + 0x2000); // 127
    EXPECT_EQ(runs(), (std::vector<FreeNode>{{kA + 0x40, 63}, {kB + 0x40, 127}, {kC + 0x40, 127}}));
    expectTotals(entry, 317, 317 * 64, 127);
    EXPECT_EQ(pstHEAPBiggestBlk, node(kB + 0x40));
}

TEST_F(InitHeap, TheOnlyPieceMovesToo)
{
    const TMMSegInfo& entry = heapOver({{kA + 0x10, 0x1000}}, 64, 1);
    expectPiece(0, kA + 0x80, kA + 0x1000, kA + 0x40, kA + 0x80); // 63 blocks: 7 + 1 bytes of map
    EXPECT_EQ(runs(), (std::vector<FreeNode>{{kA + 0x80, 62}}));
    expectTotals(entry, 62, 62 * 64, 62);
}

TEST_F(InitHeap, APieceWithRoomToSpareKeepsItsBlocks)
{
    const TMMSegInfo& entry = heapOver({{kA + 0x10, 0x1030}}, 64); // 0x30 bytes more than 64 blocks
    expectPiece(0, kA + 0x40, kA + 0x1040);
    expectTotals(entry, 64, 0x1000, 64);
}

TEST_F(InitHeap, EachPieceHasItsMapInFront)
{
    for (const U32 address : {kA, kB, kC})
        fill(address, 0xA5, 0x2040);
    const TMMSegInfo& entry = heapOver({{kA + 0x10, 0x1000}, {kB, 0x2000}, {kC + 0x20, 0x2000}}, 64, 8);
    expectPiece(0, kA + 0x80, kA + 0x1000, kA + 0x40, kA + 0x80); // 63 blocks: 63 + 1 bytes
    expectPiece(1, kB + 0x80, kB + 0x2000, kB, kB + 0x80);        // 128 blocks: 128 bytes
    expectPiece(2, kC + 0xC0, kC + 0x2000, kC + 0x40, kC + 0xC0); // 127 blocks: 127 + 1 bytes
    expectPiece(3, 0xFFFFFFFF, 0xFFFFFFFF);
    EXPECT_EQ(runs(), (std::vector<FreeNode>{{kA + 0x80, 62}, {kB + 0x80, 126}, {kC + 0xC0, 125}}));
    expectTotals(entry, 313, 313 * 64, 126);
    EXPECT_EQ(pstHEAPBiggestBlk, node(kB + 0x80));
    EXPECT_TRUE(isFilled(kA + 0x40, 0, 0x40));
    EXPECT_TRUE(isFilled(kB, 0, 0x80));
    EXPECT_TRUE(isFilled(kC + 0x40, 0, 0x80));
    EXPECT_TRUE(isFilled(kB + 0x80 + 12, 0xA5, 0x2000 - 0x80 - 12));
}

TEST_F(InitHeap, APiecesBytesMayEndWithPartOfABlock)
{
    // As for a segment: 15 blocks of 64 in 972 bytes.
    const TMMSegInfo& entry = heapOver({{kA + 0x264, 1024}}, 100, 8);
    expectPiece(0, kA + 0x298, kA + 0x664, kA + 0x264, kA + 0x298);
    expectTotals(entry, 15, 972, 15);
}

TEST_F(InitHeap, ABlockThatNoLongerFitsTakesItsWholeSizeOffAPiece)
{
    // Unit 4, blocks of 4 bytes: the end goes 6 back, and what is left is counted in blocks again.
    const TMMSegInfo& entry = heapOver({{kA + 2, 4096}}, 6);
    expectPiece(0, kA + 4, kA + 4 + 4090);
    expectTotals(entry, 1022, 4090, 1022);
}

// Blocks of 4096 bytes move both pieces to kA + 0x1000. Neither holds a block there: 4096 come off its end, which makes
// -0x1000 bytes, 0xFFFFF blocks. The list finds a piece's node at its new address before the node is written: the
// second piece's neighbour is at that address, and what it is told is written over.
TEST_F(InitHeap, PiecesMayComeToShareAnAddress)
{
    const TMMSegInfo& entry = heapOver({{kA + 0x10, 200}, {kA + 0x200, 200}}, 4096);
    expectPiece(0, kA + 0x1000, kA);
    expectPiece(1, kA + 0x1000, kA);
    EXPECT_EQ(astBlkHead[49].pstBlk, node(kA + 0x1000));
    EXPECT_EQ(astBlkTail[49].pstBlk, node(kA + 0x1000));
    EXPECT_EQ(node(kA + 0x1000)->pstNext, nullptr);
    EXPECT_EQ(node(kA + 0x1000)->pstBack, node(kA + 0x1000));
    EXPECT_EQ(node(kA + 0x1000)->ulSize, 0xFFFFFu);
    expectTotals(entry, 0x1FFFFE, 0xFFFFE000, 0xFFFFF);
}

TEST_F(InitHeap, FivePiecesAreLaidOut)
{
    const TMMSegInfo& entry =
        heapOver({{kA, 0x1000}, {kB, 0x1000}, {kC, 0x1000}, {kD, 0x1000}, {kD + 0x2000, 0x1040}}, 64, 1);
    for (U32 i = 0; i < 4; ++i)
        expectPiece(i, kA + 0x100000 * i + 64, kA + 0x100000 * i + 0x1000, kA + 0x100000 * i, kA + 0x100000 * i + 64);
    expectPiece(4, kD + 0x2040, kD + 0x3040, kD + 0x2000, kD + 0x2040);
    expectTotals(entry, 4 * 63 + 64, (4 * 63 + 64) * 64, 64);
    EXPECT_EQ(pstHEAPBiggestBlk, node(kD + 0x2040));
}

TEST_F(InitHeap, AStackHeapIsItsBiggestPieceAlone)
{
    const TMMSegInfo& entry = heapOver({{kA, 0x1000}, {kB + 0x10, 0x2100}, {kC, 0x2100}}, 64, 0, STACK);
    // The second piece has 131 blocks once moved, the third 132.
    EXPECT_EQ(pstHEAPBiggestBlk, node(kC));
    expectPiece(0, kC, kC + 0x2100);
    for (U32 i = 1; i < 5; ++i)
        expectPiece(i, 0xFFFFFFFF, 0xFFFFFFFF);
    EXPECT_EQ(astStackStr[49].pubStackTail, at(kC));
    EXPECT_EQ(astStackStr[49].pubStackHead, at(kC));
    expectTotals(entry, 132, 0x2100, 0);
    EXPECT_EQ(entry.pfnAlloc, &MM_Push);
    EXPECT_EQ(entry.pfnFree, &MM_Pop);
}

TEST_F(InitHeap, AStackHeapTakesTheFirstOfEqualPieces)
{
    heapOver({{kA, 0x1000}, {kB, 0x2000}, {kC, 0x2000}}, 64, 0, STACK);
    EXPECT_EQ(pstHEAPBiggestBlk, node(kB));
    expectPiece(0, kB, kB + 0x2000);
}

TEST_F(InitHeap, NoFloatSegmentCanBePlacedAfterwards)
{
    heapOver({{kA, 0x10000}}, 64);
    TSegInfoFromApp info = request("RIP0", 0x1000, 64);
    EXPECT_EQ(MM_CreateSegment(&info), U32(EASSERT));
    EXPECT_EQ(log(), Lines{check(R"(pstSegBlkHead != NULL && "There is no available Segment list")", "mm/MM_MST",
                                 "MM_InstallSegment")});
}

class InitHeapRefusal : public InitHeap
{
protected:
    static TMMSegInfo heapRecord()
    {
        TMMSegInfo info = placed(0, 0x1000, 64);
        info.stInfoFromApp.hulHandle = HEAPHANDLE;
        info.pubStartAddr = reinterpret_cast<U8*>(&stSegStartAddr);
        info.pubEndAddr = reinterpret_cast<U8*>(&stSegEndAddr);
        info.pubMapStartAddr = reinterpret_cast<U8*>(&stSegMapStartAddr);
        info.pubMapEndAddr = reinterpret_cast<U8*>(&stSegMapEndAddr);
        return info;
    }
};

TEST_F(InitHeapRefusal, WithoutFreeMemoryNothingButTheSemaphoreIsWritten)
{
    std::memset(&stSegTable[49], 0xA5, 80);
    TMMSegInfo info = heapRecord();
    setFreeMemory({});
    EXPECT_EQ(MM_SegInitial(&info), U32(EASSERT));
    EXPECT_EQ(log(), Lines{failed(R"(pstSegBlkHead != NULL && "There is no available Segment list")")});
    EXPECT_EQ(stSegTable[49].ulSemID, 0u);
    stSegTable[49].ulSemID = 0xA5A5A5A5;
    EXPECT_TRUE(isFilled(MM_Addr(&stSegTable[49]), 0xA5, 80));
    EXPECT_EQ(info.ulRealAvailSize, 0x1000u);

    setFreeMemory({{kA, 4096}});
    pstSegBlkTail = nullptr;
    EXPECT_EQ(MM_SegInitial(&info), U32(EASSERT));
    EXPECT_EQ(log(), Lines{failed(R"(pstSegBlkTail != NULL && "There is no available Segment list")")});
}

TEST_F(InitHeapRefusal, ALargestRunAboveTheFreeBlocksIsReportedWithTheHeapInPlace)
{
    // A free stretch that is no piece: a run, but no blocks.
    std::memset(&stSegStartAddr, 0xFF, sizeof stSegStartAddr);
    setFreeMemory({{kA, 4096}});
    TMMSegInfo info = heapRecord();
    EXPECT_EQ(MM_SegInitial(&info), U32(EASSERT));
    EXPECT_EQ(log(), Lines{failed(kBadLargest)});
    EXPECT_EQ(stSegTable[49].ulTotalBlkNum, 0u);
    EXPECT_EQ(stSegTable[49].ulLargestBlkSize, 4096u);
    EXPECT_EQ(stSegTable[49].pfnAlloc, &MM_AllocBlk);
    EXPECT_EQ(astBlkHead[49].pstBlk, node(kA));
    EXPECT_EQ(pstSegBlkHead, nullptr);
}

// Clearing a map --------------------------------------------------------------------------------------

TEST_F(InitSegment, ClearingAMapZeroesItsBytesOnly)
{
    initialised(placed(kA, 4096, 64, 8));
    fill(kA - 64, 0xA5, 4096);
    MM_ClearMapAll(kHandle);
    EXPECT_TRUE(isFilled(kA - 64, 0xA5, 64));
    EXPECT_TRUE(isFilled(kA, 0, 64));
    EXPECT_TRUE(isFilled(kA + 64, 0xA5, 4096 - 128));
}

TEST_F(InitSegment, ClearingWithoutAMapTouchesNothing)
{
    initialised(placed(kA, 4096, 64));
    fill(kA, 0xA5, 4096);
    MM_ClearMapAll(kHandle); // from 0 up to 0
    MM_ClearMapAll(48);      // no segment at all
    EXPECT_TRUE(isFilled(kA, 0xA5, 4096));
    EXPECT_EQ(stSegTable[kHandle].ulTotalBlkNum, 64u);
}

TEST_F(InitHeap, ClearingTheHeapsMapZeroesItInEveryPiece)
{
    heapOver({{kA, 0x1000}, {kB, 0x2000}}, 64, 8);
    fill(kA, 0xA5, 0x1000);
    fill(kB, 0xA5, 0x2000);
    MM_ClearMapAll(49);
    EXPECT_TRUE(isFilled(kA, 0, 64));
    EXPECT_TRUE(isFilled(kA + 64, 0xA5, 0x1000 - 64));
    EXPECT_TRUE(isFilled(kB, 0, 128));
    EXPECT_TRUE(isFilled(kB + 128, 0xA5, 0x2000 - 128));
}

// Largest free run ------------------------------------------------------------------------------------

TEST_F(InitSegment, TheLargestRunIsFoundInAList)
{
    initialised(placed(kA, 4096, 64));
    setFreeMemory({{kA, 3}, {kA + 0x400, 9}, {kA + 0x800, 9}, {kA + 0xC00, 4}});
    MM_MemoryWritten(kA, 12); // the list is somebody else's from here on
    astBlkHead[kHandle].pstBlk = node(kA);
    EXPECT_EQ(MM_FindNewLargestBlk(kHandle), 9u);
    EXPECT_EQ(stSegTable[kHandle].ulLargestBlkSize, 64u); // not stored
    node(kA + 0xC00)->ulSize = 0xFFFFFFFF;                // sizes are unsigned
    EXPECT_EQ(MM_FindNewLargestBlk(kHandle), 0xFFFFFFFFu);
    astBlkHead[kHandle].pstBlk = nullptr;
    EXPECT_EQ(MM_FindNewLargestBlk(kHandle), 0u);
    expectSilence();
}

TEST_F(InitSegment, TheLargestRunOfAStackIsWhatIsLeftOfIt)
{
    initialised(placed(kA, 4096, 64, 0, STACK));
    EXPECT_EQ(MM_FindNewLargestBlk(kHandle), 64u);
    astStackStr[kHandle].pubStackHead = at(kA + 0x7F);
    EXPECT_EQ(MM_FindNewLargestBlk(kHandle), 1u);
    astStackStr[kHandle].pubStackHead = at(kA);
    EXPECT_EQ(MM_FindNewLargestBlk(kHandle), 0u);
}

TEST_F(InitHeap, TheAliasAsksForTheHeapsLargestRun)
{
    heapOver({{kA, 0x1000}, {kB, 0x2000}}, 64);
    EXPECT_EQ(MM_FindNewLargestBlk(49), 128u);
    EXPECT_EQ(MM_FindNewLargestBlk(0x10031), 128u);
    expectSilence();
}

TEST_F(InitSegment, TheLargestRunOfAHandleAbove49Is14)
{
    for (const U32 handle : {50u, 0x10030u, 0x10032u, 0xFFFFFFFFu}) {
        EXPECT_EQ(MM_FindNewLargestBlk(handle), 14u);
        EXPECT_EQ(
            log(),
            Lines{failed(
                R"((hulHandle < MAX_SEGTABLE_SIZE && hulHandle >= 0) && "The range of Handle is beyond MST range")",
                "MM_FindNewLargestBlk")});
    }
}

} // namespace
} // namespace velmora::test
