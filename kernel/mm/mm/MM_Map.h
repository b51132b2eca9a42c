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
        const U8 ubWidthBit = ubWidth == 0 ? MM_GetBlkBit(0) : MM_Log2(ubWidth);
        ubEntriesBit = static_cast<U8>(3 - ubWidthBit);
        const U32 ulBytes = ubEntriesBit < 32 ? ulDistance >> ubEntriesBit : 0;
        stByte.pubyiscp = MM_At(MM_Addr(pubMapEndAddr) - 1 - ulBytes);
        ubBitPos = ubEntriesBit < 32 ? static_cast<U8>((ulDistance - (ulBytes << ubEntriesBit)) << ubWidthBit) : 0;
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
    U32 WholeBytes(U32 ulEntries) const { return ubBitPos != 0 || ubWidth == 0 ? 0 : ulEntries >> ubEntriesBit; }
    U8* FirstWholeByte() const { return MM_At(stByte.ulyisl + 1); }

    /* Passes over ulBytes whole bytes; the entries in them. */
    U32 SkipBytes(U32 ulBytes)
    {
        stByte.ulyisl += ulBytes;
        return ulBytes << ubEntriesBit;
    }

    U8 EntryMask() const
    {
        return ubWidth == 1 ? aubBitMaskTbl[ubBitPos] : static_cast<U8>(aubMapIDMaskTbl[ubWidth - 1] << ubBitPos);
    }

private:
    TMMBcptr stByte;
    U8 ubBitPos; /* of the entry last visited; 0 means that the byte is used up */
    U8 ubWidth;
    U8 ubEntriesBit; /* log2 of the entries of a byte */
};

/* A byte in which every entry is the ID. Bits of an ID that is wider than the entry reach into the next ones. */
inline U8 MM_ByteOf(U8 ubMapID, U8 ubWidth)
{
    U32 ulByte = ubMapID;
    for (U32 ulFilled = ubWidth; ulFilled < 8; ulFilled *= 2)
        ulByte |= ulByte << ulFilled;
    return static_cast<U8>(ulByte);
}

/* Four bytes of a map at once, at an address that is a multiple of four. */
using TMMMapWord __attribute__((may_alias)) = U32;
constexpr U32 MAP_WORD_BYTES = sizeof(TMMMapWord);

inline TMMMapWord* MM_MapWord(U8* pubAddr)
{
    return reinterpret_cast<TMMMapWord*>(pubAddr);
}

/* The first address at or above, or at or below, that is a multiple of four. */
inline U8* MM_WordAbove(U8* pubAddr)
{
    return MM_At((MM_Addr(pubAddr) + MAP_WORD_BYTES - 1) & ~(MAP_WORD_BYTES - 1));
}

inline U8* MM_WordBelow(U8* pubAddr)
{
    return MM_At(MM_Addr(pubAddr) & ~(MAP_WORD_BYTES - 1));
}

/* ORs a byte into the bytes from pubByte to pubPast. */
inline void MM_OrEachByte(U8* pubByte, const U8* pubPast, U8 ubByte)
{
    for (; pubByte < pubPast; ++pubByte)
        *pubByte = static_cast<U8>(*pubByte | ubByte);
}

/* ORs a byte into ulBytes bytes. */
inline void MM_OrBytes(U8* pubAddr, U32 ulBytes, U8 ubByte)
{
    U8* const pubPast = pubAddr + ulBytes;
    U8* const pubWords = MM_WordAbove(pubAddr);
    U8* const pubPastWords = MM_WordBelow(pubPast);

    MMP_Touch(pubAddr, ulBytes);
    if (pubWords >= pubPastWords)
        return MM_OrEachByte(pubAddr, pubPast, ubByte);
    MM_OrEachByte(pubAddr, pubWords, ubByte);
#pragma GCC unroll 4
    for (TMMMapWord* pulWord = MM_MapWord(pubWords); pulWord < MM_MapWord(pubPastWords); ++pulWord)
        *pulWord |= ubByte * 0x01010101u;
    MM_OrEachByte(pubPastWords, pubPast, ubByte);
}

/* True when every entry of a byte is marked; one-bit entries count as marked whatever they hold. */
inline bool MM_AllMarked(U8 ubByte, U8 ubWidth)
{
    if (ubWidth == 1)
        return true;
    /* An entry of 0 borrows from the bits above it: its highest bit is set where it was not before. */
    const U32 ulLowest = MM_ByteOf(1, ubWidth);
    return ((ubByte - ulLowest) & ~U32(ubByte) & ulLowest << (ubWidth - 1)) == 0;
}

/* Zeroes elements from pElement on, before pPast, as long as they hold the value; past the last one. */
template <class TElement> inline TElement* MM_ClearSame(TElement* pElement, const TElement* pPast, TElement value)
{
    for (; pElement < pPast && *pElement == value; ++pElement)
        *pElement = 0;
    return pElement;
}

/* Zeroes up to ulBytes bytes, as far as each of their entries is marked (one-bit entries need not be); the bytes
 * zeroed. An owner's bytes are all the same, and go by words. */
inline U32 MM_ClearMarkedBytes(U8* pubAddr, U32 ulBytes, U8 ubWidth)
{
    U8* const pubPast = pubAddr + ulBytes;
    U8* pubByte = pubAddr;

    MMP_Touch(pubAddr, ulBytes);
    while (pubByte < pubPast && MM_AllMarked(*pubByte, ubWidth)) {
        const U8 ubSame = *pubByte;
        U8* const pubWords = MM_WordAbove(pubByte);
        if (pubWords < pubPast) {
            pubByte = MM_ClearSame<U8>(pubByte, pubWords, ubSame);
            if (pubByte == pubWords)
                pubByte = reinterpret_cast<U8*>(MM_ClearSame<TMMMapWord>(
                    MM_MapWord(pubWords), MM_MapWord(MM_WordBelow(pubPast)), ubSame * 0x01010101u));
        }
        pubByte = MM_ClearSame<U8>(pubByte, pubPast, ubSame);
    }
    return static_cast<U32>(pubByte - pubAddr);
}

/* Of a block from the end of its range, in blocks: the last block has 1. */
inline U32 MM_BlkDistance(U32 ulAddr, U32 ulEnd, U8 ubBlkBit)
{
    return (ulEnd - ulAddr) >> ubBlkBit;
}

inline CMMMapWalker MM_WalkMap(U32 hulHandle, const TMMRange& stRange, U8* pubAddr)
{
    const TMMSegInfo& stSeg = stSegTable[hulHandle];
    const U32 ulDistance = MM_BlkDistance(MM_Addr(pubAddr), MM_Addr(stRange.pubEndAddr), stSeg.ubBlkBit);
    return {ulDistance, stRange.pubMapEndAddr, stSeg.stInfoFromApp.ubMap};
}

#endif
