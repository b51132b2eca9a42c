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

    /* Whole bytes that the next ulEntries entries fill from the next byte on; 0 unless the current one is used up. */
    U32 WholeBytes(U32 ulEntries) const { return ubBitPos != 0 || ubWidth == 0 ? 0 : ulEntries / (8 / ubWidth); }
    U8* FirstWholeByte() const { return MM_At(stByte.ulyisl + 1); }

    /* Passes over ulBytes whole bytes; the entries in them. */
    U32 SkipBytes(U32 ulBytes)
    {
        stByte.ulyisl += ulBytes;
        return ulBytes * (8 / ubWidth);
    }

    U8 EntryMask() const
    {
        return ubWidth == 1 ? aubBitMaskTbl[ubBitPos] : static_cast<U8>(aubMapIDMaskTbl[ubWidth - 1] << ubBitPos);
    }

private:
    TMMBcptr stByte;
    U8 ubBitPos; /* of the entry last visited; 0 means that the byte is used up */
    U8 ubWidth;
};

/* A byte in which every entry is the ID. Bits of an ID that is wider than the entry reach into the next ones. */
inline U8 MM_ByteOf(U8 ubMapID, U8 ubWidth)
{
    U32 ulByte = 0;
    for (U8 ubBitPos = 0; ubBitPos < 8; ubBitPos = static_cast<U8>(ubBitPos + ubWidth))
        ulByte |= static_cast<U32>(ubMapID) << ubBitPos;
    return static_cast<U8>(ulByte);
}

/* Four bytes of a map at once; they may lie at any address. */
struct __attribute__((packed, may_alias)) TMMMapWord {
    U32 ulBits;
};

/* ORs a byte into ulBytes bytes. */
inline void MM_OrBytes(U8* pubAddr, U32 ulBytes, U8 ubByte)
{
    MMP_Touch(pubAddr, ulBytes);
    for (; ulBytes >= sizeof(TMMMapWord); ulBytes -= sizeof(TMMMapWord), pubAddr += sizeof(TMMMapWord))
        reinterpret_cast<TMMMapWord*>(pubAddr)->ulBits |= ubByte * 0x01010101u;
    for (; ulBytes > 0; --ulBytes, ++pubAddr)
        *pubAddr = static_cast<U8>(*pubAddr | ubByte);
}

/* True when every entry of 2, 4 or 8 bits in the word has a bit set. */
inline bool MM_AllMarked(U32 ulWord, U8 ubWidth)
{
    const U32 ulLowest = ubWidth == 8 ? 0x01010101u : ubWidth == 4 ? 0x11111111u : 0x55555555u;
    for (U8 ubShift = 1; ubShift < ubWidth; ubShift = static_cast<U8>(ubShift * 2))
        ulWord |= ulWord >> ubShift;
    return (ulWord & ulLowest) == ulLowest;
}

/* Zeroes up to ulBytes bytes, as far as each of their entries is marked (one-bit entries need not be); the bytes
 * zeroed. */
inline U32 MM_ClearMarkedBytes(U8* pubAddr, U32 ulBytes, U8 ubWidth)
{
    U32 ulDone = 0;
    MMP_Touch(pubAddr, ulBytes);
    for (; ulBytes - ulDone >= sizeof(TMMMapWord); ulDone += sizeof(TMMMapWord)) {
        auto* pstWord = reinterpret_cast<TMMMapWord*>(pubAddr + ulDone);
        if (ubWidth > 1 && !MM_AllMarked(pstWord->ulBits, ubWidth))
            break;
        pstWord->ulBits = 0;
    }
    for (; ulDone < ulBytes; ++ulDone) {
        if (ubWidth > 1 && !MM_AllMarked(pubAddr[ulDone] * 0x01010101u, ubWidth))
            break;
        pubAddr[ulDone] = 0;
    }
    return ulDone;
}

inline CMMMapWalker MM_WalkMap(U32 hulHandle, const TMMRange& stRange, U8* pubAddr)
{
    const TMMSegInfo& stSeg = stSegTable[hulHandle];
    const U32 ulDistance = MM_SearchMap(pubAddr, stRange.pubEndAddr, stSeg.ubBlkBit);
    return {ulDistance, stRange.pubMapEndAddr, stSeg.stInfoFromApp.ubMap};
}

#endif
