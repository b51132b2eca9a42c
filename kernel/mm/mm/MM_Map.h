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

/* Four bytes of a map at once, at an address that is a multiple of four. */
using TMMMapWord __attribute__((may_alias)) = U32;
constexpr U32 MAP_WORD_BYTES = sizeof(TMMMapWord);

inline TMMMapWord* MM_MapWord(U8* pubAddr)
{
    return reinterpret_cast<TMMMapWord*>(pubAddr);
}

inline bool MM_IsWordAligned(const U8* pubAddr)
{
    return MM_Addr(pubAddr) % MAP_WORD_BYTES == 0;
}

/* ORs a byte into ulBytes bytes. */
inline void MM_OrBytes(U8* pubAddr, U32 ulBytes, U8 ubByte)
{
    MMP_Touch(pubAddr, ulBytes);
    for (; ulBytes > 0 && !MM_IsWordAligned(pubAddr); ++pubAddr, --ulBytes)
        *pubAddr = static_cast<U8>(*pubAddr | ubByte);
    TMMMapWord* pulWord = MM_MapWord(pubAddr);
#pragma GCC unroll 4
    for (U32 ulWords = ulBytes / MAP_WORD_BYTES; ulWords > 0; --ulWords)
        *pulWord++ |= ubByte * 0x01010101u;
    pubAddr += ulBytes - ulBytes % MAP_WORD_BYTES;
    for (ulBytes %= MAP_WORD_BYTES; ulBytes > 0; ++pubAddr, --ulBytes)
        *pubAddr = static_cast<U8>(*pubAddr | ubByte);
}

/* Tells of four bytes at once whether every entry in them is marked. */
class CMMMarkedTest
{
public:
    /* One-bit entries count as marked whatever they hold. */
    explicit CMMMarkedTest(U8 ubWidth)
        : ulLowest(ubWidth == 8 ? 0x01010101u : ubWidth == 4 ? 0x11111111u : 0x55555555u),
          ulHighest(ubWidth == 1 ? 0 : ulLowest << (ubWidth - 1))
    {
    }

    bool All(U32 ulWord) const { return (Unmarked(ulWord) & ulHighest) == 0; }
    bool AllOfByte(U8 ubByte) const { return All(ubByte * 0x01010101u); }
    bool AllOfFour(const TMMMapWord* pulWord) const
    {
        return ((Unmarked(pulWord[0]) | Unmarked(pulWord[1]) | Unmarked(pulWord[2]) | Unmarked(pulWord[3])) & ulHighest) == 0;
    }

private:
    /* An entry of 0 borrows from the bits above it: its highest bit is set where it was not before. */
    U32 Unmarked(U32 ulWord) const { return (ulWord - ulLowest) & ~ulWord; }

    U32 ulLowest, ulHighest; /* these bits of each entry */
};

/* Zeroes up to ulBytes bytes, as far as each of their entries is marked (one-bit entries need not be); the bytes
 * zeroed. */
inline U32 MM_ClearMarkedBytes(U8* pubAddr, U32 ulBytes, U8 ubWidth)
{
    const CMMMarkedTest clMarked(ubWidth);
    U8* pubByte = pubAddr;
    U32 ulLeft = ulBytes;

    MMP_Touch(pubAddr, ulBytes);
    for (;;) {
        if (MM_IsWordAligned(pubByte))
            for (; ulLeft >= 4 * MAP_WORD_BYTES && clMarked.AllOfFour(MM_MapWord(pubByte)); pubByte += 4 * MAP_WORD_BYTES, ulLeft -= 4 * MAP_WORD_BYTES)
                MM_MapWord(pubByte)[0] = MM_MapWord(pubByte)[1] = MM_MapWord(pubByte)[2] = MM_MapWord(pubByte)[3] = 0;
        if (ulLeft == 0 || !clMarked.AllOfByte(*pubByte))
            return ulBytes - ulLeft;
        *pubByte++ = 0;
        --ulLeft;
    }
}

inline CMMMapWalker MM_WalkMap(U32 hulHandle, const TMMRange& stRange, U8* pubAddr)
{
    const TMMSegInfo& stSeg = stSegTable[hulHandle];
    const U32 ulDistance = MM_SearchMap(pubAddr, stRange.pubEndAddr, stSeg.ubBlkBit);
    return {ulDistance, stRange.pubMapEndAddr, stSeg.stInfoFromApp.ubMap};
}

#endif
