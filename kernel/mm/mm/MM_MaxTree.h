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
        apulLevel[0][ulIdx] = ulValue;
        for (U32 ulLevel = 1; ulLevel < ulLevels && ulValue != ulOld; ++ulLevel) {
            const U32 ulGroup = ulIdx / FANOUT;
            U32& ulMax = apulLevel[ulLevel][ulGroup];
            const U32 ulOldMax = ulMax;
            if (ulValue > ulMax)
                ulMax = ulValue;
            else if (ulOld == ulMax)
                ulMax = MaxOfGroup(apulLevel[ulLevel - 1] + ulGroup * FANOUT);
            ulOld = ulOldMax;
            ulValue = ulMax;
            ulIdx = ulGroup;
        }
    }

    /* The largest element. */
    U32 Max() const { return MaxOfGroup(apulLevel[ulLevels - 1]); }

    /* The highest index at or below ulLast whose element is at least ulLeast (1 or more); NONE when there is
     * none. */
    U32 FindLast(U32 ulLast, U32 ulLeast) const
    {
        U32 ulIdx = ulLast;
        U32 ulLevel = 0;

        /* Up: until the rest of a group, at and below ulIdx, holds an element that is large enough. */
        for (;;) {
            const U32 ulFound = LastInGroup(ulLevel, ulIdx, ulLeast);
            if (ulFound != NONE) {
                ulIdx = ulFound;
                break;
            }
            const U32 ulGroup = ulIdx / FANOUT;
            if (++ulLevel >= ulLevels || ulGroup == 0)
                return NONE;
            ulIdx = ulGroup - 1;
        }
        /* Down: the last of each group below it. */
        while (ulLevel > 0)
            ulIdx = LastInGroup(--ulLevel, ulIdx * FANOUT + FANOUT - 1, ulLeast);
        return ulIdx;
    }

private:
    static constexpr U32 Groups(U32 ulCount) { return (ulCount + FANOUT - 1) / FANOUT; }

    static U32 MaxOfGroup(const U32* pulGroup)
    {
        U32 ulMax = 0;
        for (U32 ulIdx = 0; ulIdx < FANOUT; ++ulIdx)
            ulMax = pulGroup[ulIdx] > ulMax ? pulGroup[ulIdx] : ulMax;
        return ulMax;
    }

    /* From ulIdx down to the first element of its group. */
    U32 LastInGroup(U32 ulLevel, U32 ulIdx, U32 ulLeast) const
    {
        const U32* pulLevel = apulLevel[ulLevel];
        const U32 ulFirst = ulIdx & ~(FANOUT - 1);
        for (U32 ulAt = ulIdx + 1; ulAt > ulFirst; --ulAt)
            if (pulLevel[ulAt - 1] >= ulLeast)
                return ulAt - 1;
        return NONE;
    }

    U32* apulLevel[MAX_LEVELS];
    U32 ulLevels;
};

#endif
