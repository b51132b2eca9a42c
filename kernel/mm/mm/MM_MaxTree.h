/*
 * MM_MaxTree.h - a tree of maxima over an array of numbers: the largest of all, and the last element that is
 * large enough, in as many steps as the tree has levels.
 *
 * It knows nothing of the manager and owns no memory: the numbers and the levels above them lie in storage
 * that the user gives it. Level 0 is the array, cut into nodes; each element of a level above is the maximum of
 * one node below; the top level has one node. There are two kinds of node: 16 whole words, and 32 numbers up to
 * 127, four to a word, which are compared four at a time: most of the work that an allocation costs is here.
 */
#ifndef MM_MAXTREE_H
#define MM_MAXTREE_H

#include <velmora_mm/velmora_mm.h>

constexpr U32 MM_NO_ELEMENT = 0xFFFFFFFF;

inline U32 MM_HighestBit(U32 ulBits)
{
    return 31 ^ static_cast<U32>(__builtin_clz(ulBits));
}

inline U32 MM_LowestBit(U32 ulBits)
{
    return static_cast<U32>(__builtin_ctz(ulBits));
}

/* 16 numbers of 32 bits. */
class CMMWordNode
{
public:
    static constexpr U32 FANOUT_BIT = 4;
    static constexpr U32 WORDS = 16;

    U32 Get(U32 ulIdx) const { return aulElement[ulIdx]; }
    void Replace(U32 ulIdx, U32, U32 ulValue) { aulElement[ulIdx] = ulValue; }

    U32 Max() const
    {
        U32 ulLargest = 0;
        for (const U32 ulElement : aulElement)
            ulLargest = ulElement > ulLargest ? ulElement : ulLargest;
        return ulLargest;
    }

    /* Bit i is set when element i is at least ulLeast. */
    U32 AtLeast(U32 ulLeast) const
    {
        U32 ulMask = 0;
#pragma GCC unroll 16
        for (U32 ulAt = WORDS; ulAt > 0; --ulAt)
            ulMask = ulMask * 2 + (aulElement[ulAt - 1] >= ulLeast);
        return ulMask;
    }

private:
    U32 aulElement[WORDS];
};

/*
 * 32 numbers from 0 to 127. Element i is byte i / 8 of word i % 8, so that the answers of all comparisons, one bit
 * for each byte, fall into the order of the elements when word i's are shifted to bit i of each byte. The
 * highest bit of every byte is 0: there is room for the carry or borrow of a comparison.
 */
class CMMByteNode
{
public:
    static constexpr U32 FANOUT_BIT = 5;
    static constexpr U32 WORDS = 8;
    static constexpr U32 LARGEST = 127;

    U32 Get(U32 ulIdx) const { return aulWord[ulIdx % WORDS] >> Shift(ulIdx) & LARGEST; }
    void Replace(U32 ulIdx, U32 ulOld, U32 ulValue) { aulWord[ulIdx % WORDS] ^= (ulOld ^ ulValue) << Shift(ulIdx); }

    U32 Max() const
    {
        const U32 ulLeft = Larger(Larger(aulWord[0], aulWord[1]), Larger(aulWord[2], aulWord[3]));
        const U32 ulRight = Larger(Larger(aulWord[4], aulWord[5]), Larger(aulWord[6], aulWord[7]));
        U32 ulLargest = Larger(ulLeft, ulRight);
        ulLargest = Larger(ulLargest, ulLargest >> 16);
        return Larger(ulLargest, ulLargest >> 8) & LARGEST;
    }

    /* Bit i is set when element i is at least ulLeast (1 to 127). */
    U32 AtLeast(U32 ulLeast) const
    {
        const U32 ulCarry = (LARGEST + 1 - ulLeast) * 0x01010101u;
        U32 ulMask = 0;
#pragma GCC unroll 8
        for (U32 ulAt = 0; ulAt < WORDS; ++ulAt)
            ulMask |= ((aulWord[ulAt] + ulCarry) & TOP_BITS) >> (WORDS - 1 - ulAt);
        return ulMask;
    }

private:
    static constexpr U32 TOP_BITS = 0x80808080;

    static constexpr U32 Shift(U32 ulIdx)
    {
        return ulIdx / WORDS * 8;
    }

    /* The larger one of each pair of bytes. */
    static U32 Larger(U32 ulLeft, U32 ulRight)
    {
        const U32 ulMore = (ulLeft | TOP_BITS) - ulRight; /* by how much, where the highest bit stays */
        const U32 ulAtLeast = ulMore & TOP_BITS;
        return ulRight + (ulMore & (ulAtLeast - (ulAtLeast >> 7)));
    }

    U32 aulWord[WORDS];
};

template <class TNumbers> class CMMMaxTree
{
public:
    static constexpr U32 FANOUT = 1u << TNumbers::FANOUT_BIT;
    static constexpr U32 MAX_LEVELS = 6;

    /* Words of storage for ulCount elements (1 to FANOUT to the power of MAX_LEVELS). */
    static constexpr U32 StorageWords(U32 ulCount)
    {
        U32 ulNodes = 0;
        for (;;) {
            ulCount = Nodes(ulCount);
            ulNodes += ulCount;
            if (ulCount == 1)
                return ulNodes * U32(sizeof(TMMNode) / sizeof(U32));
        }
    }

    /* Sets every element to 0. pulStorage: StorageWords(ulCount) words that stay the tree's. */
    void Init(U32* pulStorage, U32 ulCount)
    {
        const U32 ulWords = StorageWords(ulCount);
        for (U32 ulWord = 0; ulWord < ulWords; ++ulWord)
            pulStorage[ulWord] = 0;
        auto* pstNode = reinterpret_cast<TMMNode*>(pulStorage);
        ulLevels = 0;
        ulMax = 0;
        do {
            ulCount = Nodes(ulCount);
            apstLevel[ulLevels++] = pstNode;
            pstNode += ulCount;
        } while (ulCount > 1);
    }

    U32 Get(U32 ulIdx) const { return apstLevel[0][ulIdx / FANOUT].clNumbers.Get(ulIdx % FANOUT); }

    /* Stores an element and mends the maxima above it, as far up as they change. */
    void Set(U32 ulIdx, U32 ulValue) { Replace(ulIdx, Get(ulIdx), ulValue); }

    /* The same where the element is known to be ulOld. */
    void Replace(U32 ulIdx, U32 ulOld, U32 ulValue)
    {
        for (U32 ulLevel = 0; ulValue != ulOld; ++ulLevel) {
            const U32 ulNode = ulIdx / FANOUT;
            TMMNode& stNode = apstLevel[ulLevel][ulNode];
            stNode.clNumbers.Replace(ulIdx % FANOUT, ulOld, ulValue);
            if (ulOld == 0 || ulValue == 0)
                stNode.ulUsed ^= 1u << ulIdx % FANOUT;
            const bool fTop = ulLevel + 1 == ulLevels;
            const U32 ulOldMax = fTop ? ulMax : apstLevel[ulLevel + 1][ulNode / FANOUT].clNumbers.Get(ulNode % FANOUT);
            if (ulOld < ulOldMax && ulValue < ulOldMax)
                return NoteSmaller(stNode, ulOld, ulValue);
            ulValue = NewMax(stNode, ulOldMax, ulOld, ulValue);
            if (fTop) {
                ulMax = ulValue;
                return;
            }
            ulOld = ulOldMax;
            ulIdx = ulNode;
        }
    }

    /* The largest element. */
    U32 Max() const { return ulMax; }

    /* The highest index whose element is at least ulLeast (1 or more); MM_NO_ELEMENT when there is none. */
    U32 FindLast(U32 ulLeast) const
    {
        if (ulMax < ulLeast)
            return MM_NO_ELEMENT;
        U32 ulIdx = 0;
        for (U32 ulLevel = ulLevels; ulLevel > 0;)
            ulIdx = ulIdx * FANOUT + MM_HighestBit(apstLevel[--ulLevel][ulIdx].clNumbers.AtLeast(ulLeast));
        return ulIdx;
    }

    /* The highest index below ulLimit whose element is not 0; MM_NO_ELEMENT when there is none. */
    U32 FindUsedBelow(U32 ulLimit) const
    {
        for (U32 ulLevel = 0; ulLevel < ulLevels && ulLimit > 0; ++ulLevel) {
            const U32 ulNode = (ulLimit - 1) / FANOUT;
            const U32 ulUsed = apstLevel[ulLevel][ulNode].ulUsed & ((2u << (ulLimit - 1) % FANOUT) - 1);
            if (ulUsed != 0)
                return LastUsedOf(ulLevel, ulNode * FANOUT + MM_HighestBit(ulUsed));
            ulLimit = ulNode;
        }
        return MM_NO_ELEMENT;
    }

    /* The lowest index above ulLimit, an element's, whose element is not 0; MM_NO_ELEMENT when there is none. */
    U32 FindUsedAbove(U32 ulLimit) const
    {
        for (U32 ulLevel = 0; ulLevel < ulLevels; ++ulLevel) {
            const U32 ulNode = ulLimit / FANOUT;
            const U32 ulUsed = apstLevel[ulLevel][ulNode].ulUsed & (0u - 2) << ulLimit % FANOUT;
            if (ulUsed != 0)
                return FirstUsedOf(ulLevel, ulNode * FANOUT + MM_LowestBit(ulUsed));
            ulLimit = ulNode;
        }
        return MM_NO_ELEMENT;
    }

private:
    struct TMMNode {
        TNumbers clNumbers;
        U32 ulUsed;   /* bit i is set when number i is not 0 */
        U32 ulSecond; /* the largest number but one (the same when there are several), or SECOND_UNKNOWN */
    };
    static constexpr U32 SECOND_UNKNOWN = 0xFFFFFFFF;

    static constexpr U32 Nodes(U32 ulCount) { return (ulCount + FANOUT - 1) / FANOUT; }

    /* A node's maximum, which was ulOldMax, after one of its numbers went from ulOld to ulValue, where one of the
     * two is not below it. Knowing the second number spares most searches: what was released last is often allocated
     * next. */
    static U32 NewMax(TMMNode& stNode, U32 ulOldMax, U32 ulOld, U32 ulValue)
    {
        const U32 ulSecond = stNode.ulSecond;
        if (ulOld < ulOldMax) {
            stNode.ulSecond = ulOldMax;
            return ulValue;
        }
        if (ulValue >= ulOldMax)
            return ulValue;
        if (ulSecond == SECOND_UNKNOWN)
            return stNode.clNumbers.Max();
        if (ulValue >= ulSecond)
            return ulValue;
        stNode.ulSecond = SECOND_UNKNOWN;
        return ulSecond;
    }

    /* A number below the node's maximum went to another one below it. */
    static void NoteSmaller(TMMNode& stNode, U32 ulOld, U32 ulValue)
    {
        if (stNode.ulSecond == SECOND_UNKNOWN)
            return;
        if (ulValue >= stNode.ulSecond)
            stNode.ulSecond = ulValue;
        else if (ulOld == stNode.ulSecond)
            stNode.ulSecond = SECOND_UNKNOWN;
    }

    /* From an element of a level, which is not 0, to the last leaf below it that is not 0. */
    U32 LastUsedOf(U32 ulLevel, U32 ulIdx) const
    {
        while (ulLevel > 0)
            ulIdx = ulIdx * FANOUT + MM_HighestBit(apstLevel[--ulLevel][ulIdx].ulUsed);
        return ulIdx;
    }

    /* The same to the first one. */
    U32 FirstUsedOf(U32 ulLevel, U32 ulIdx) const
    {
        while (ulLevel > 0)
            ulIdx = ulIdx * FANOUT + MM_LowestBit(apstLevel[--ulLevel][ulIdx].ulUsed);
        return ulIdx;
    }

    TMMNode* apstLevel[MAX_LEVELS];
    U32 ulLevels;
    U32 ulMax;
};

#endif
