/*
 * MM_Map.h - the owner map: one entry of 1, 2, 4 or 8 bits for each block, addressed backwards from the
 * map's end. The last block of a range has distance 1 and lies in the lowest bits of the map's last
 * byte; the block before it in the next higher bits, and so on down through the bytes.
 */
#ifndef MM_MAP_H
#define MM_MAP_H

#include "MM_Heap.h"

extern "C" {
extern const U8 aubMapIDMaskTbl[8]; /* lowest entry of a byte, by width less one */
extern const U8 aubBitMaskTbl[8];   /* one-bit entries, by position */
}

/* The entry of one block, and the walk to higher-addressed blocks. */
class CMMMapWalker
{
public:
    /* At ulDistance blocks from the end of a range whose map ends at pubMapEndAddr. A map width of 0
     * counts as a shift of 32 or more, which leaves nothing of the distance. */
    CMMMapWalker(U32 ulDistance, U8* pubMapEndAddr, U8 ubWidth) : ubWidth(ubWidth)
    {
        const U8 ubWidthBit = MM_GetBlkBit(ubWidth);
        const U8 ubShift = static_cast<U8>(3 - ubWidthBit);
        const U32 ulBytes = ubShift < 32 ? ulDistance >> ubShift : 0;
        stByte.pubyiscp = MM_At(MM_Addr(pubMapEndAddr) - 1 - ulBytes);
        ubBitPos = ubShift < 32 ? static_cast<U8>((ulDistance - (ulBytes << ubShift)) << ubWidthBit) : 0;
    }

    U8* Byte() const { return stByte.pubyiscp; }
    U8 BitPos() const { return ubBitPos; }

    /* Moves to the next byte up when the current one is used up; true when it did. */
    bool NextByte()
    {
        if (ubBitPos != 0)
            return false;
        stByte.ulyisl += 1;
        ubBitPos = 8;
        return true;
    }

    void NextEntry() { ubBitPos = static_cast<U8>(ubBitPos - ubWidth); }

    U8 EntryMask() const
    {
        return ubWidth == 1 ? aubBitMaskTbl[ubBitPos] : static_cast<U8>(aubMapIDMaskTbl[ubWidth - 1] << ubBitPos);
    }

private:
    TMMBcptr stByte;
    U8 ubBitPos; /* of the entry last visited; 0 means that the byte is used up */
    U8 ubWidth;
};

inline CMMMapWalker MM_WalkMap(U32 hulHandle, const TMMRange& stRange, U8* pubAddr)
{
    const TMMSegInfo& stSeg = stSegTable[hulHandle];
    const U32 ulDistance = MM_SearchMap(pubAddr, stRange.pubEndAddr, stSeg.ubBlkBit);
    return {ulDistance, stRange.pubMapEndAddr, stSeg.stInfoFromApp.ubMap};
}

#endif
