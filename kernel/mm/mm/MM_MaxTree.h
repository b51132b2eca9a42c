/*
 * MM_MaxTree.h - a tree of maxima over an array of numbers: the largest of all, and the last element that is
 * large enough, in as many steps as the tree has levels.
 *
 * It knows nothing of the manager and owns no memory: the numbers and the levels above them lie in storage
 * that the user gives it. Level 0 is the array; each element of a level above is the maximum of 16
 * neighbours below, one cache line; the top level has one group.
 */
#ifndef MM_MAXTREE_H
#define MM_MAXTREE_H

#include <velmora_mm/velmora_mm.h>

class CMMMaxTree
{
public:
    static constexpr U32 FANOUT = 16;
    static constexpr U32 MAX_LEVELS = 6; /* 16^6 elements */
    static constexpr U32 NONE = 0xFFFFFFFF;

    /* Words of storage for ulCount elements (1 to 16^6). */
    static constexpr U32 StorageWords(U32 ulCount)
    {
        U32 ulWords = 0;
        for (;;) {
            ulWords += Groups(ulCount) * FANOUT;
            if (ulCount <= FANOUT)
                return ulWords;
            ulCount = Groups(ulCount);
        }
    }

    /* Sets every element to 0. pulStorage: StorageWords(ulCount) words that stay the tree's. */
    void Init(U32* pulStorage, U32 ulCount)
    {
        ulLevels = 0;
        ulMax = 0;
        for (;;) {
            apulLevel[ulLevels++] = pulStorage;
            const U32 ulWords = Groups(ulCount) * FANOUT;
            for (U32 ulIdx = 0; ulIdx < ulWords; ++ulIdx)
                pulStorage[ulIdx] = 0;
            pulStorage += ulWords;
            if (ulCount <= FANOUT)
                break;
            ulCount = Groups(ulCount);
        }
    }

    U32 Get(U32 ulIdx) const { return apulLevel[0][ulIdx]; }

    /* Stores an element and mends the maxima above it, as far up as they change. */
    void Set(U32 ulIdx, U32 ulValue)
    {
        U32 ulOld = apulLevel[0][ulIdx];
        for (U32 ulLevel = 0; ulValue != ulOld; ++ulLevel) {
            apulLevel[ulLevel][ulIdx] = ulValue;
            const U32 ulGroup = ulIdx / FANOUT;
            const bool fTop = ulLevel + 1 == ulLevels;
            const U32 ulAbove = fTop ? ulMax : apulLevel[ulLevel + 1][ulGroup];
            U32 ulNew = ulAbove;
            if (ulValue > ulAbove)
                ulNew = ulValue;
            else if (ulOld == ulAbove)
                ulNew = MaxOfGroup(apulLevel[ulLevel] + ulGroup * FANOUT);
            if (fTop) {
                ulMax = ulNew;
                return;
            }
            ulOld = ulAbove;
            ulValue = ulNew;
            ulIdx = ulGroup;
        }
    }

    /* The largest element. */
    U32 Max() const { return ulMax; }

    /* The highest index whose element is at least ulLeast (1 or more); NONE when there is none. */
    U32 FindLast(U32 ulLeast) const
    {
        if (ulMax < ulLeast)
            return NONE;
        return Descend(ulLevels - 1, LastInGroup(ulLevels - 1, FANOUT - 1, ulLeast), ulLeast);
    }

    /* The highest index below ulLimit whose element is at least ulLeast (1 or more); NONE when there is none. */
    U32 FindLastBelow(U32 ulLimit, U32 ulLeast) const
    {
        /* Up: until the rest of a group holds an element that is large enough. */
        for (U32 ulLevel = 0; ulLevel < ulLevels && ulLimit > 0; ++ulLevel) {
            const U32 ulFound = LastInGroup(ulLevel, ulLimit - 1, ulLeast);
            if (ulFound != NONE)
                return Descend(ulLevel, ulFound, ulLeast);
            ulLimit = (ulLimit - 1) / FANOUT;
        }
        return NONE;
    }

private:
    static constexpr U32 Groups(U32 ulCount) { return (ulCount + FANOUT - 1) / FANOUT; }

    static U32 MaxOfGroup(const U32* pulGroup)
    {
        U32 ulLargest = 0;
#pragma GCC unroll 16
        for (U32 ulIdx = 0; ulIdx < FANOUT; ++ulIdx)
            ulLargest = pulGroup[ulIdx] > ulLargest ? pulGroup[ulIdx] : ulLargest;
        return ulLargest;
    }

    /* From ulIdx down to the first element of its group; NONE when none is large enough. All are compared: one
     * jump that is guessed wrong costs more. */
    U32 LastInGroup(U32 ulLevel, U32 ulIdx, U32 ulLeast) const
    {
        const U32 ulFirst = ulIdx & ~(FANOUT - 1);
        const U32* pulGroup = apulLevel[ulLevel] + ulFirst;
        U32 ulMask = 0;
#pragma GCC unroll 16
        for (U32 ulAt = FANOUT; ulAt > 0; --ulAt)
            ulMask = ulMask * 2 + (pulGroup[ulAt - 1] >= ulLeast);
        ulMask &= (2u << (ulIdx - ulFirst)) - 1;
        return ulMask == 0 ? NONE : ulFirst + 31 - static_cast<U32>(__builtin_clz(ulMask));
    }

    /* From an element of a level to the last leaf below it that is large enough. */
    U32 Descend(U32 ulLevel, U32 ulIdx, U32 ulLeast) const
    {
        while (ulLevel > 0)
            ulIdx = LastInGroup(--ulLevel, ulIdx * FANOUT + FANOUT - 1, ulLeast);
        return ulIdx;
    }

    U32* apulLevel[MAX_LEVELS];
    U32 ulLevels;
    U32 ulMax;
};

#endif
