// The heap's pieces: their arrays, which piece holds an address, and what of a segment lies around it.
#include "kernel/mm/mm/MM_Heap.h"
#include "support/allocator_fixture.h"

namespace velmora::test {
namespace {

class Heap : public AllocatorTest
{
protected:
    Heap() { start(); }

    static std::vector<FreeNode> stretches(U32 count, U32 bytes = 0x1000)
    {
        std::vector<FreeNode> found;
        for (U32 i = 0; i < count; ++i)
            found.push_back({0x95400000 + i * 0x100000, bytes});
        return found;
    }
    static U8 pieceOf(U32 address) { return MM_GetHeapBlkID(at(address)); }
    static void expectRange(const TMMRange& range, U32 end, U32 mapStart, U32 mapEnd)
    {
        EXPECT_EQ(MM_Addr(range.pubEndAddr), end);
        EXPECT_EQ(MM_Addr(range.pubMapStartAddr), mapStart);
        EXPECT_EQ(MM_Addr(range.pubMapEndAddr), mapEnd);
    }
};

TEST_F(Heap, PiecesStandInTheArraysThatTheEntryRefersTo)
{
    createHeapOf(stretches(2), 64, 8); // 64 bytes of map are one block
    EXPECT_EQ(MM_PieceAddr(PIECE_START, 0), 0x95400040U);
    EXPECT_EQ(MM_PieceAddr(PIECE_END, 0), 0x95401000U);
    EXPECT_EQ(MM_PieceAddr(PIECE_MAP_START, 0), 0x95400000U);
    EXPECT_EQ(MM_PieceAddr(PIECE_MAP_END, 0), 0x95400040U);
    EXPECT_EQ(MM_PieceAddr(PIECE_START, 1), 0x95500040U);
    for (const U8 unused : {2, 3, 4, 5, 255})
        for (const EMMPieceField field : {PIECE_START, PIECE_END, PIECE_MAP_START, PIECE_MAP_END})
            EXPECT_EQ(MM_PieceAddr(field, unused), 0xFFFFFFFFU) << int(unused);
}

TEST_F(Heap, HasNoPieceBeforeItExists)
{
    EXPECT_EQ(MM_PieceAddr(PIECE_START, 0), 0xFFFFFFFFU);
    EXPECT_EQ(pieceOf(0x95400000), 0);
    EXPECT_EQ(MM_CheckHeapArea(at(0x95400000)), 0);
}

// Which piece ---------------------------------------------------------------------------------------------

TEST_F(Heap, BlockIdIsThePieceOrTheFirstUnusedIndex)
{
    createHeapOf(stretches(2), 64);
    EXPECT_EQ(pieceOf(0x95400000), 0);
    EXPECT_EQ(pieceOf(0x95400FFF), 0);
    EXPECT_EQ(pieceOf(0x95500000), 1);
    EXPECT_EQ(pieceOf(0x95500FFF), 1);
    for (const U32 outside : {0U, 0x953FFFFFU, 0x95401000U, 0x954FFFFFU, 0x95501000U, 0xFFFFFFFFU})
        EXPECT_EQ(pieceOf(outside), 2) << std::hex << outside; // a piece's end is outside
}

TEST_F(Heap, BlockIdOfAnAddressOutsideFivePiecesIsFive)
{
    createHeapOf(stretches(5), 64);
    EXPECT_EQ(pieceOf(0x95800000), 4);
    EXPECT_EQ(pieceOf(0x95801000), 5);
    EXPECT_EQ(pieceOf(0x953FFFFF), 5);
}

TEST_F(Heap, AreaIsTheHeapsPieces)
{
    createHeapOf(stretches(2), 64);
    for (const U32 inside : {0x95400000U, 0x95400FFFU, 0x95500000U, 0x95500FFFU})
        EXPECT_EQ(MM_CheckHeapArea(at(inside)), TRUE) << std::hex << inside;
    for (const U32 outside : {0x953FFFFFU, 0x95401000U, 0x954FFFFFU, 0x95501000U, 0xFFFFFFFFU})
        EXPECT_EQ(MM_CheckHeapArea(at(outside)), 0) << std::hex << outside;
}

TEST_F(Heap, AreaOfFivePiecesEndsAfterTheFifth)
{
    createHeapOf(stretches(5, 0x400), 64);
    EXPECT_EQ(MM_CheckHeapArea(at(0x958003FF)), TRUE);
    EXPECT_EQ(MM_CheckHeapArea(at(0x95800400)), 0);
}

TEST_F(Heap, MapIsNoPartOfItsPiece)
{
    createHeapOf(stretches(1), 64, 8);
    EXPECT_EQ(MM_CheckHeapArea(at(0x9540003F)), 0);
    EXPECT_EQ(MM_CheckHeapArea(at(0x95400040)), TRUE);
    EXPECT_EQ(pieceOf(0x9540003F), 1);
    EXPECT_EQ(pieceOf(0x95400040), 0);
}

TEST_F(Heap, HasNoAreaWithoutOneOfItsArrays)
{
    createHeapOf(stretches(1), 64);
    TMMSegInfo& heap = stSegTable[HEAPHANDLE];
    for (U8** array : {&heap.pubStartAddr, &heap.pubEndAddr}) {
        U8* const kept = *array;
        *array = nullptr;
        EXPECT_EQ(MM_CheckHeapArea(at(0x95400000)), 0);
        *array = kept;
    }
    EXPECT_EQ(MM_CheckHeapArea(at(0x95400000)), TRUE);
}

// What lies around an address -----------------------------------------------------------------------------

TEST_F(Heap, RangeOfAnAddressIsThatOfItsPiece)
{
    createHeapOf(stretches(2), 64, 8);
    expectRange(MM_RangeOf(HEAPHANDLE, at(0x95400040)), 0x95401000, 0x95400000, 0x95400040);
    expectRange(MM_RangeOf(HEAPHANDLE, at(0x95500FFF)), 0x95501000, 0x95500000, 0x95500040);
}

TEST_F(Heap, RangeOfAnAddressOutsideIsThatOfAnUnusedPiece)
{
    createHeapOf(stretches(2), 64, 8);
    expectRange(MM_RangeOf(HEAPHANDLE, at(0x95401000)), 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF);
}

TEST_F(Heap, RangeInAnotherSegmentIsTheSegmentWhateverTheAddress)
{
    const U32 seg = mapped(8); // 63 blocks of 64 bytes behind 64 bytes of map
    for (const U32 address : {startOf(seg), endOf(seg), 0U})
        expectRange(MM_RangeOf(seg, at(address)), kFloatStart + 4096, kFloatStart, kFloatStart + 64);
}

} // namespace
} // namespace velmora::test
