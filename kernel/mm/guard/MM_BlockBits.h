/*
 * MM_BlockBits.h - one bit a block, set while the block is allocated, and above the bits two summaries: which words have a
 * set bit, which have a clear one, and so on up to a single word. So the next or last block of either kind is found in a
 * step a level, however long a run is. It knows nothing of the manager and owns no memory.
 */
#ifndef MM_BLOCKBITS_H
#define MM_BLOCKBITS_H

#include <velmora_mm/velmora_mm.h>

constexpr U32 MM_NO_BLOCK = 0xFFFFFFFF; /* one less than the first block */

class CMMBlockBits
{
public:
    static constexpr U32 MAX_LEVELS = 6; /* 32 to the power of 6 is more than there are blocks */

    static constexpr U32 Words(U32 ulCount) { return (ulCount + 31) / 32; }

    /* Words of storage for ulCount blocks (1 to 2^30). */
    static constexpr U32 StorageWords(U32 ulCount)
    {
        U32 ulWords = Words(ulCount);
        for (U32 ulLevel = Words(ulCount); ulLevel > 1;) {
            ulLevel = Words(ulLevel);
            ulWords += 2 * ulLevel;
        }
        return ulWords;
    }

    /* Every block allocated. pulStorage: StorageWords(ulCount) words of zeros that stay the bits'. */
    void Init(U32* pulStorage, U32 ulCount)
    {
        aulWords[0] = Words(ulCount);
        pulBits = pulStorage;
        pulStorage += aulWords[0];
        for (U32 ulWord = 0; ulWord < aulWords[0]; ++ulWord)
            pulBits[ulWord] = ALL;
        for (ulLevels = 0; aulWords[ulLevels] > 1;) {
            const U32 ulBelow = aulWords[ulLevels++];
            const U32 ulWords = aulWords[ulLevels] = Words(ulBelow);
            apulTaken[ulLevels] = pulStorage;
            apulFree[ulLevels] = pulStorage + ulWords;
            pulStorage += 2 * ulWords;
            for (U32 ulIdx = 0; ulIdx < ulBelow; ++ulIdx)
                apulTaken[ulLevels][ulIdx / 32] |= 1u << ulIdx % 32;
        }
    }

    U32 WordCount() const { return aulWords[0]; }
    U32 FreeOf(U32 ulWord) const { return ~pulBits[ulWord]; }
    bool IsTaken(U32 ulBlk) const { return pulBits[ulBlk / 32] >> ulBlk % 32 & 1; }

    /* True when all of ulCount (1 or more) blocks are allocated. */
    bool AllTaken(U32 ulBlk, U32 ulCount) const
    {
        return EachWord(ulBlk, ulCount, [this](U32 ulWord, U32 ulMask) { return (~pulBits[ulWord] & ulMask) == 0; });
    }
    bool AllFree(U32 ulBlk, U32 ulCount) const
    {
        return EachWord(ulBlk, ulCount, [this](U32 ulWord, U32 ulMask) { return (pulBits[ulWord] & ulMask) == 0; });
    }

    /* Free blocks become allocated, and the other way round. */
    void Take(U32 ulBlk, U32 ulCount)
    {
        EachWord(ulBlk, ulCount, [this](U32 ulWord, U32 ulMask) {
            const U32 ulOld = pulBits[ulWord];
            pulBits[ulWord] = ulOld | ulMask;
            if (ulOld == 0)
                Appears(apulTaken, ulWord);
            if ((ulOld | ulMask) == ALL)
                Vanishes(apulFree, ulWord);
            return true;
        });
    }
    void Give(U32 ulBlk, U32 ulCount)
    {
        EachWord(ulBlk, ulCount, [this](U32 ulWord, U32 ulMask) {
            const U32 ulOld = pulBits[ulWord];
            pulBits[ulWord] = ulOld & ~ulMask;
            if (ulOld == ALL)
                Appears(apulFree, ulWord);
            if ((ulOld & ~ulMask) == 0)
                Vanishes(apulTaken, ulWord);
            return true;
        });
    }

    /* The first block of the kind from ulBlk on, the last one below ulBlk; MM_NO_BLOCK when there is none. */
    U32 NextTaken(U32 ulBlk) const { return Next(apulTaken, ulBlk, 0); }
    U32 NextFree(U32 ulBlk) const { return Next(apulFree, ulBlk, ALL); }
    U32 LastTaken(U32 ulBlk) const { return Last(apulTaken, ulBlk, 0); }
    U32 LastFree(U32 ulBlk) const { return Last(apulFree, ulBlk, ALL); }

private:
    static constexpr U32 ALL = 0xFFFFFFFF;

    static U32 Lowest(U32 ulBits) { return static_cast<U32>(__builtin_ctz(ulBits)); }
    static U32 Highest(U32 ulBits) { return 31 ^ static_cast<U32>(__builtin_clz(ulBits)); }

    /* Visits the words of a stretch, each with the mask of its blocks, while the visitor answers true. */
    template <class TVisit> [[gnu::always_inline]] static bool EachWord(U32 ulBlk, U32 ulCount, TVisit fnVisit)
    {
        U32 ulWord = ulBlk / 32;
        const U32 ulBit = ulBlk % 32;
        const U32 ulFirst = 32 - ulBit;
        if (ulCount <= ulFirst)
            return fnVisit(ulWord, (ulCount == 32 ? ALL : (1u << ulCount) - 1) << ulBit);
        if (!fnVisit(ulWord, ALL << ulBit))
            return false;
        for (ulCount -= ulFirst; ulCount >= 32; ulCount -= 32)
            if (!fnVisit(++ulWord, ALL))
                return false;
        return ulCount == 0 || fnVisit(ulWord + 1, (1u << ulCount) - 1);
    }

    /* The bits of level 0 with those of the kind set: taken as they are, free turned over. */
    U32 Bits(U32 ulWord, U32 ulTurn) const { return pulBits[ulWord] ^ ulTurn; }

    void Appears(U32* const* apulLevel, U32 ulIdx)
    {
        for (U32 ulLevel = 1; ulLevel <= ulLevels; ++ulLevel, ulIdx /= 32) {
            U32& ulBits = apulLevel[ulLevel][ulIdx / 32];
            const U32 ulOld = ulBits;
            ulBits = ulOld | 1u << ulIdx % 32;
            if (ulOld != 0)
                return;
        }
    }
    void Vanishes(U32* const* apulLevel, U32 ulIdx)
    {
        for (U32 ulLevel = 1; ulLevel <= ulLevels; ++ulLevel, ulIdx /= 32) {
            U32& ulBits = apulLevel[ulLevel][ulIdx / 32];
            ulBits &= ~(1u << ulIdx % 32);
            if (ulBits != 0)
                return;
        }
    }

    /* Most answers lie in the block's own word. */
    [[gnu::always_inline]] U32 Next(U32* const* apulLevel, U32 ulBlk, U32 ulTurn) const
    {
        const U32 ulIdx = ulBlk / 32;
        if (ulIdx >= aulWords[0])
            return MM_NO_BLOCK;
        const U32 ulBits = Bits(ulIdx, ulTurn) & ALL << ulBlk % 32;
        return ulBits != 0 ? ulIdx * 32 + Lowest(ulBits) : Above(apulLevel, ulIdx, ulTurn);
    }
    [[gnu::always_inline]] U32 Last(U32* const* apulLevel, U32 ulBlk, U32 ulTurn) const
    {
        if (ulBlk == 0)
            return MM_NO_BLOCK;
        const U32 ulIdx = --ulBlk / 32;
        const U32 ulBits = Bits(ulIdx, ulTurn) & ALL >> (31 - ulBlk % 32);
        return ulBits != 0 ? ulIdx * 32 + Highest(ulBits) : Below(apulLevel, ulIdx, ulTurn);
    }

    /* The same in the words above and below one. */
    [[gnu::noinline]] U32 Above(U32* const* apulLevel, U32 ulIdx, U32 ulTurn) const
    {
        for (U32 ulLevel = 1; ulLevel <= ulLevels; ++ulLevel) {
            const U32 ulWord = ++ulIdx / 32;
            if (ulWord >= aulWords[ulLevel])
                return MM_NO_BLOCK;
            const U32 ulBits = apulLevel[ulLevel][ulWord] & ALL << ulIdx % 32;
            ulIdx = ulWord;
            if (ulBits == 0)
                continue;
            for (ulIdx = ulIdx * 32 + Lowest(ulBits); --ulLevel > 0;)
                ulIdx = ulIdx * 32 + Lowest(apulLevel[ulLevel][ulIdx]);
            return ulIdx * 32 + Lowest(Bits(ulIdx, ulTurn));
        }
        return MM_NO_BLOCK;
    }
    [[gnu::noinline]] U32 Below(U32* const* apulLevel, U32 ulIdx, U32 ulTurn) const
    {
        for (U32 ulLevel = 1; ulLevel <= ulLevels && ulIdx > 0; ++ulLevel) {
            const U32 ulWord = --ulIdx / 32;
            const U32 ulBits = apulLevel[ulLevel][ulWord] & ALL >> (31 - ulIdx % 32);
            ulIdx = ulWord;
            if (ulBits == 0)
                continue;
            for (ulIdx = ulIdx * 32 + Highest(ulBits); --ulLevel > 0;)
                ulIdx = ulIdx * 32 + Highest(apulLevel[ulLevel][ulIdx]);
            return ulIdx * 32 + Highest(Bits(ulIdx, ulTurn));
        }
        return MM_NO_BLOCK;
    }

    U32* pulBits;
    U32* apulTaken[MAX_LEVELS + 1]; /* from level 1 on: bit i is set when word i of the level below has a taken block */
    U32* apulFree[MAX_LEVELS + 1];  /* the same for free ones */
    U32 aulWords[MAX_LEVELS + 1];
    U32 ulLevels; /* above the bits */
};

#endif
