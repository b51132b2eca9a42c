/*
 * MM_BlockBits.h - one bit a block, set while the block is allocated, and above the bits a summary: which words have a set
 * bit, and so on up to a single word. So the end of a run of free blocks is found in a step a level, however long the run is.
 * It knows nothing of the manager and owns no memory.
 */
#ifndef MM_BLOCKBITS_H
#define MM_BLOCKBITS_H

#include <velmora_mm/velmora_mm.h>

constexpr U32 MM_NO_BLOCK = 0xFFFFFFFF;

class CMMBlockBits
{
public:
    static constexpr U32 MAX_LEVELS = 6; /* 32 to the power of 6 is more than there are blocks */

    static constexpr U32 Words(U32 ulCount) { return (ulCount + 31) / 32; }

    /* Words of storage for ulCount blocks (1 to 2^30). */
    static constexpr U32 StorageWords(U32 ulCount)
    {
        U32 ulLevel = Words(ulCount);
        U32 ulStorage = ulLevel;
        do {
            ulLevel = Words(ulLevel);
            ulStorage += ulLevel;
        } while (ulLevel > 1);
        return ulStorage;
    }

    /* Every block allocated. pulStorage: StorageWords(ulCount) words of zeros that stay the bits'. */
    void Init(U32* pulStorage, U32 ulCount)
    {
        ulWords = Words(ulCount);
        apulLevel[0] = pulStorage;
        for (U32 ulWord = 0; ulWord < ulWords; ++ulWord)
            pulStorage[ulWord] = ALL;
        U32 ulBelow = ulWords;
        ulLevels = 0;
        do {
            apulLevel[ulLevels + 1] = apulLevel[ulLevels] + ulBelow;
            ++ulLevels;
            for (U32 ulIdx = 0; ulIdx < ulBelow; ++ulIdx)
                apulLevel[ulLevels][ulIdx / 32] |= 1u << ulIdx % 32;
            ulBelow = Words(ulBelow);
        } while (ulBelow > 1);
    }

    U32 WordCount() const { return ulWords; }
    U32 FreeOf(U32 ulWord) const { return ~apulLevel[0][ulWord]; }
    bool IsTaken(U32 ulBlk) const { return apulLevel[0][ulBlk / 32] >> ulBlk % 32 & 1; }

    /* True when all of ulCount (1 or more) blocks are allocated, or free. */
    bool AllTaken(U32 ulBlk, U32 ulCount) const { return !AnyOtherThan(ALL, ulBlk, ulCount); }
    bool AllFree(U32 ulBlk, U32 ulCount) const { return !AnyOtherThan(0, ulBlk, ulCount); }

    /* Free blocks become allocated. */
    [[gnu::always_inline]] void Take(U32 ulBlk, U32 ulCount)
    {
        const TMMEnds stEnds = EndsOf(ulBlk, ulCount);
        for (U32 ulWord = stEnds.ulFirst + 1; ulWord < stEnds.ulLast; ++ulWord)
            TakeOf(ulWord, ALL);
        TakeOf(stEnds.ulFirst, stEnds.ulFirstMask);
        TakeOf(stEnds.ulLast, stEnds.ulLastMask);
    }

    /* Blocks become free; false with nothing changed when one of them is so already. */
    [[gnu::always_inline]] bool Give(U32 ulBlk, U32 ulCount)
    {
        const TMMEnds stEnds = EndsOf(ulBlk, ulCount);
        if (!AllTaken(ulBlk, ulCount))
            return false;
        for (U32 ulWord = stEnds.ulFirst + 1; ulWord < stEnds.ulLast; ++ulWord)
            GiveOf(ulWord, ALL);
        GiveOf(stEnds.ulFirst, stEnds.ulFirstMask);
        GiveOf(stEnds.ulLast, stEnds.ulLastMask);
        return true;
    }

    /* The first allocated block from ulBlk on, which there must be. Most runs end within 32 blocks. */
    [[gnu::always_inline]] U32 NextTaken(U32 ulBlk) const
    {
        const U32* const pulWord = apulLevel[0] + ulBlk / 32;
        const U32 ulBits = pulWord[0] >> ulBlk % 32 | pulWord[1] << 1 << (31 - ulBlk % 32);
        return ulBits != 0 ? ulBlk + Lowest(ulBits) : FarTaken(ulBlk / 32 + 1);
    }

    static U32 Lowest(U32 ulBits) { return static_cast<U32>(__builtin_ctz(ulBits)); }

private:
    static constexpr U32 ALL = 0xFFFFFFFF;

    /* The words of a stretch's first and last block, each with the mask of its blocks. In one word both masks are the same: that
     * what is done to it is done twice costs less than to ask, as the answer is as often yes as no. */
    struct TMMEnds {
        U32 ulFirst, ulLast, ulFirstMask, ulLastMask;
    };
    [[gnu::always_inline]] static TMMEnds EndsOf(U32 ulBlk, U32 ulCount)
    {
        const U32 ulFirst = ulBlk / 32;
        const U32 ulLast = (ulBlk + ulCount - 1) / 32;
        const U32 ulFirstMask = ALL << ulBlk % 32;
        const U32 ulLastMask = ALL >> ~(ulBlk + ulCount - 1) % 32;
        const U32 ulOther = ulFirst == ulLast ? 0 : ALL;
        return {ulFirst, ulLast, ulFirstMask & (ulLastMask | ulOther), ulLastMask & (ulFirstMask | ulOther)};
    }

    [[gnu::always_inline]] bool AnyOtherThan(U32 ulBits, U32 ulBlk, U32 ulCount) const
    {
        const TMMEnds stEnds = EndsOf(ulBlk, ulCount);
        U32 ulOther = ((apulLevel[0][stEnds.ulFirst] ^ ulBits) & stEnds.ulFirstMask) |
                      ((apulLevel[0][stEnds.ulLast] ^ ulBits) & stEnds.ulLastMask);
        for (U32 ulWord = stEnds.ulFirst + 1; ulWord < stEnds.ulLast; ++ulWord)
            ulOther |= apulLevel[0][ulWord] ^ ulBits;
        return ulOther != 0;
    }

    void TakeOf(U32 ulWord, U32 ulMask)
    {
        const U32 ulOld = apulLevel[0][ulWord];
        apulLevel[0][ulWord] = ulOld | ulMask;
        if (ulOld != 0)
            return;
        const U32 ulSummary = apulLevel[1][ulWord / 32];
        apulLevel[1][ulWord / 32] = ulSummary | 1u << ulWord % 32;
        if (ulSummary == 0)
            Appears(ulWord / 32);
    }
    void GiveOf(U32 ulWord, U32 ulMask)
    {
        const U32 ulNew = apulLevel[0][ulWord] & ~ulMask;
        apulLevel[0][ulWord] = ulNew;
        if (ulNew != 0)
            return;
        const U32 ulSummary = apulLevel[1][ulWord / 32] & ~(1u << ulWord % 32);
        apulLevel[1][ulWord / 32] = ulSummary;
        if (ulSummary == 0)
            Vanishes(ulWord / 32);
    }

    /* The same on the levels above, for a word of level 1. */
    [[gnu::noinline]] void Appears(U32 ulIdx)
    {
        for (U32 ulLevel = 2; ulLevel <= ulLevels; ++ulLevel, ulIdx /= 32) {
            U32& ulBits = apulLevel[ulLevel][ulIdx / 32];
            const U32 ulOld = ulBits;
            ulBits = ulOld | 1u << ulIdx % 32;
            if (ulOld != 0)
                return;
        }
    }
    [[gnu::noinline]] void Vanishes(U32 ulIdx)
    {
        for (U32 ulLevel = 2; ulLevel <= ulLevels; ++ulLevel, ulIdx /= 32) {
            U32& ulBits = apulLevel[ulLevel][ulIdx / 32];
            ulBits &= ~(1u << ulIdx % 32);
            if (ulBits != 0)
                return;
        }
    }

    /* The same from a word on. */
    [[gnu::noinline]] U32 FarTaken(U32 ulIdx) const
    {
        if (apulLevel[0][ulIdx] != 0)
            return ulIdx * 32 + Lowest(apulLevel[0][ulIdx]);
        for (U32 ulLevel = 1;; ++ulLevel) {
            const U32 ulBits = apulLevel[ulLevel][ulIdx / 32] & (ALL - 1) << ulIdx % 32;
            ulIdx /= 32;
            if (ulBits == 0)
                continue;
            for (ulIdx = ulIdx * 32 + Lowest(ulBits); --ulLevel > 0;)
                ulIdx = ulIdx * 32 + Lowest(apulLevel[ulLevel][ulIdx]);
            return ulIdx * 32 + Lowest(apulLevel[0][ulIdx]);
        }
    }

    U32*
        apulLevel[MAX_LEVELS + 1]; /* the bits; above them, bit i is set when word i of the level below has a set bit */
    U32 ulWords;
    U32 ulLevels; /* above the bits */
};

#endif
