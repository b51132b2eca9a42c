// The owner map, by its own operations: where a block's entry lies, and whole bytes at once.
#include "kernel/mm/mm/MM_Map.h"
#include "support/allocator_fixture.h"

namespace velmora::test {
namespace {

constexpr U32 kMapEnd = 0x95400040; // of a map of 64 bytes from 0x95400000
constexpr U8 kWidths[] = {1, 2, 4, 8};

class Map : public AllocatorTest
{
protected:
    static CMMMapWalker walker(U32 distance, U8 width) { return {distance, at(kMapEnd), width}; }
};

TEST_F(Map, TheSeventhEntryMaskIs70AndNot7F)
{
    const U8 entryMasks[8] = {0x01, 0x03, 0x07, 0x0F, 0x1F, 0x3F, 0x70, 0xFF};
    const U8 bitMasks[8] = {0x01, 0x02, 0x04, 0x08, 0x10, 0x20, 0x40, 0x80};
    EXPECT_EQ(std::memcmp(aubMapIDMaskTbl, entryMasks, 8), 0);
    EXPECT_EQ(std::memcmp(aubBitMaskTbl, bitMasks, 8), 0);
}

// Where entries lie ---------------------------------------------------------------------------------------

TEST_F(Map, TheLastBlockHasTheLowestBitsOfTheLastByteAndBlocksBelowItTheNextOnes)
{
    const struct {
        U8 width;
        U32 distance; // of a block from its range's end
        U32 byteFromEnd;
        U8 mask;
    } cases[] = {
        {1, 1, 1, 0x01}, {1, 2, 1, 0x02}, {1, 8, 1, 0x80},    {1, 9, 2, 0x01}, {1, 511, 64, 0x40}, {1, 512, 64, 0x80},
        {2, 1, 1, 0x03}, {2, 2, 1, 0x0C}, {2, 4, 1, 0xC0},    {2, 5, 2, 0x03}, {2, 256, 64, 0xC0}, {4, 1, 1, 0x0F},
        {4, 2, 1, 0xF0}, {4, 3, 2, 0x0F}, {4, 128, 64, 0xF0}, {8, 1, 1, 0xFF}, {8, 2, 2, 0xFF},    {8, 64, 64, 0xFF},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << int(c.width) << " bits, block " << c.distance << " from the end");
        CMMMapWalker map = walker(c.distance, c.width);
        map.NextByte();
        map.NextEntry();
        EXPECT_EQ(MM_Addr(map.Byte()), kMapEnd - c.byteFromEnd);
        EXPECT_EQ(map.EntryMask(), c.mask);
    }
}

TEST_F(Map, TheWalkGoesToHigherBlocksEntryByEntry)
{
    CMMMapWalker map = walker(5, 2); // the lowest entry of the byte before the last
    const struct {
        U32 byteFromEnd;
        U8 bitPos;
        bool newByte;
    } steps[] = {{2, 0, false}, {1, 6, true}, {1, 4, false}, {1, 2, false}, {1, 0, false}};
    for (const auto& step : steps) {
        EXPECT_EQ(map.NextByte(), step.newByte);
        map.NextEntry();
        EXPECT_EQ(MM_Addr(map.Byte()), kMapEnd - step.byteFromEnd);
        EXPECT_EQ(map.BitPos(), step.bitPos);
    }
    EXPECT_TRUE(map.NextByte()); // past the last block: the map's end
    EXPECT_EQ(MM_Addr(map.Byte()), kMapEnd);
}

TEST_F(Map, WholeBytesBeginWhereAByteIsUsedUp)
{
    CMMMapWalker map = walker(8 + 4, 2); // three whole bytes
    EXPECT_EQ(map.WholeBytes(12), 3U);
    EXPECT_EQ(map.WholeBytes(11), 2U);
    EXPECT_EQ(map.WholeBytes(3), 0U);
    EXPECT_EQ(MM_Addr(map.FirstWholeByte()), kMapEnd - 3);
    EXPECT_EQ(map.SkipBytes(2), 8U); // entries
    EXPECT_EQ(MM_Addr(map.FirstWholeByte()), kMapEnd - 1);
    EXPECT_TRUE(map.NextByte());
    EXPECT_EQ(map.WholeBytes(100), 0U); // in the midst of a byte
}

TEST_F(Map, AMapOfNoWidthLiesBeforeItsEndWhateverTheDistance)
{
    for (const U32 distance : {0U, 1U, 5000U}) {
        const CMMMapWalker map = walker(distance, 0);
        EXPECT_EQ(MM_Addr(map.Byte()), kMapEnd - 1);
        EXPECT_EQ(map.BitPos(), 0);
        EXPECT_EQ(map.WholeBytes(100), 0U);
        EXPECT_EQ(log(), (Lines{check("ulBlkSize > 0", "mm/MM_InitSegment", "MM_GetBlkBit")}));
    }
}

TEST_F(Map, DistanceIsCountedInWholeBlocksFromTheEnd)
{
    EXPECT_EQ(MM_BlkDistance(0x9000FC0, 0x9001000, 6), 1U);
    EXPECT_EQ(MM_BlkDistance(0x9000FC1, 0x9001000, 6), 0U);        // 63 bytes are no whole block
    EXPECT_EQ(MM_BlkDistance(0x9001001, 0x9001000, 8), 0xFFFFFFU); // past the end: wraps
}

TEST_F(Map, ASegmentsWalkBeginsAtTheBlocksEntry)
{
    start();
    const U32 seg = mapped(4); // 63 blocks, the map ends where they begin
    CMMMapWalker map = MM_WalkMap(seg, MM_RangeOf(seg, at(block(seg, 60))), at(block(seg, 60)));
    map.NextByte();
    map.NextEntry();
    EXPECT_EQ(MM_Addr(map.Byte()), startOf(seg) - 2); // the third block from the end
    EXPECT_EQ(map.EntryMask(), 0x0F);
}

// Bytes of an owner ---------------------------------------------------------------------------------------

TEST_F(Map, AByteOfAnOwnerHasHimInEveryEntry)
{
    const struct {
        U8 owner, width, byte;
    } cases[] = {
        {1, 1, 0xFF}, {0, 1, 0x00},   {1, 2, 0x55},    {2, 2, 0xAA}, {3, 2, 0xFF},   {1, 4, 0x11},
        {5, 4, 0x55}, {0xF, 4, 0xFF}, {0xFE, 8, 0xFE}, {6, 2, 0xFE}, {0x1E, 4, 0xFE}}; // the last two are too wide
    for (const auto& c : cases)
        EXPECT_EQ(MM_ByteOf(c.owner, c.width), c.byte) << int(c.owner) << " in " << int(c.width) << " bits";
}

TEST_F(Map, AByteIsMarkedThroughoutWhenNoEntryIsZero)
{
    for (const U8 width : kWidths)
        for (unsigned byte = 0; byte < 256; ++byte) {
            bool marked = true; // one-bit entries are marked whatever they hold
            for (unsigned bit = 0; width > 1 && bit < 8; bit += width)
                marked = marked && (byte >> bit & ((1U << width) - 1)) != 0;
            EXPECT_EQ(MM_AllMarked(static_cast<U8>(byte), width), marked) << byte << " in " << int(width) << " bits";
        }
}

TEST_F(Map, BytesAreMarkedExactlyWhereverTheyBegin)
{
    for (U32 first = 0; first < 8; ++first)
        for (U32 bytes = 0; bytes <= 13; ++bytes) {
            SCOPED_TRACE(::testing::Message() << bytes << " bytes from byte " << first);
            fill(0x95400000, 0x21, 32);
            MM_OrBytes(at(0x95400004 + first), bytes, 0x82);
            EXPECT_TRUE(isFilled(0x95400000, 0x21, 4 + first));
            EXPECT_TRUE(isFilled(0x95400004 + first, 0xA3, bytes));
            EXPECT_TRUE(isFilled(0x95400004 + first + bytes, 0x21, 28 - first - bytes));
        }
}

TEST_F(Map, MarkedBytesAreClearedUpToTheFirstThatIsNot)
{
    for (U32 first = 0; first < 4; ++first)
        for (U32 bytes = 0; bytes <= 13; ++bytes)
            for (U32 hole = 0; hole <= bytes; ++hole) {
                SCOPED_TRACE(::testing::Message() << bytes << " bytes from byte " << first << ", " << hole);
                fill(0x95400000, 0x12, 32);
                *at(0x95400004 + first + hole) = 0x10; // nobody's entry; behind the last byte for no hole
                EXPECT_EQ(MM_ClearMarkedBytes(at(0x95400004 + first), bytes, 4), hole);
                EXPECT_TRUE(isFilled(0x95400000, 0x12, 4 + first));
                EXPECT_TRUE(isFilled(0x95400004 + first, 0x00, hole));
                EXPECT_EQ(*at(0x95400004 + first + hole), 0x10);
                EXPECT_TRUE(isFilled(0x95400005 + first + hole, 0x12, 27 - first - hole));
            }
}

TEST_F(Map, BytesOfSeveralOwnersAreClearedAll)
{
    const U8 owners[] = {0x11, 0x11, 0x11, 0x11, 0x11, 0x22, 0x22, 0x22, 0x22, 0x22, 0x22, 0xFF, 0x1F};
    std::memcpy(at(0x95400001), owners, sizeof owners);
    EXPECT_EQ(MM_ClearMarkedBytes(at(0x95400001), sizeof owners, 4), sizeof owners);
    EXPECT_TRUE(isFilled(0x95400000, 0, 16));
}

TEST_F(Map, OneBitEntriesAreClearedWhateverTheyHold)
{
    const U8 bits[] = {0x00, 0xFF, 0x01, 0x00, 0x00, 0x80};
    std::memcpy(at(0x95400001), bits, sizeof bits);
    EXPECT_EQ(MM_ClearMarkedBytes(at(0x95400001), sizeof bits, 1), sizeof bits);
    EXPECT_TRUE(isFilled(0x95400000, 0, 16));
}

} // namespace
} // namespace velmora::test
