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
    return 31 - static_cast<U32>(__builtin_clz(ulBits));
}

/* 16 numbers of 32 bits. */
class CMMWordNode
{
public:
    static constexpr U32 FANOUT_BIT = 4;
    static constexpr U32 WORDS = 16;

    void Clear()
    {
        for (U32& ulElement : aulElement)
            ulElement = 0;
    }

    U32 Get(U32 ulIdx) const { return aulElement[ulIdx]; }
    void Put(U32 ulIdx, U32 ulValue) { aulElement[ulIdx] = ulValue; }

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
 * highest bit of every byte is always set: it takes the borrow of a comparison.
 */
class CMMByteNode
{
public:
    static constexpr U32 FANOUT_BIT = 5;
    static constexpr U32 WORDS = 8;
    static constexpr U32 LARGEST = 127;

    void Clear()
    {
        for (U32& ulWord : aulWord)
            ulWord = TOP_BITS;
    }

    U32 Get(U32 ulIdx) const { return aulWord[ulIdx % WORDS] >> Shift(ulIdx) & LARGEST; }

    void Put(U32 ulIdx, U32 ulValue)
    {
        U32& ulWord = aulWord[ulIdx % WORDS];
        ulWord = (ulWord & ~(LARGEST << Shift(ulIdx))) | ulValue << Shift(ulIdx);
    }

    U32 Max() const
    {
        const U32 ulLeft = Larger(Larger(aulWord[0], aulWord[1]), Larger(aulWord[2], aulWord[3]));
        const U32 ulRight = Larger(Larger(aulWord[4], aulWord[5]), Larger(aulWord[6], aulWord[7]));
        U32 ulLargest = Larger(ulLeft, ulRight);
        ulLargest = Larger(ulLargest, TOP_BITS | ulLargest >> 16);
        ulLargest = Larger(ulLargest, TOP_BITS | ulLargest >> 8);
        return ulLargest & LARGEST;
    }

    /* Bit i is set when element i is at least ulLeast (0 to 127). */
    U32 AtLeast(U32 ulLeast) const
    {
        const U32 ulLeasts = ulLeast * 0x01010101u;
        U32 ulMask = 0;
#pragma GCC unroll 8
        for (U32 ulAt = 0; ulAt < WORDS; ++ulAt)
            ulMask |= ((aulWord[ulAt] - ulLeasts) & TOP_BITS) >> (WORDS - 1 - ulAt);
        return ulMask;
    }

private:
    static constexpr U32 TOP_BITS = 0x80808080;

    static constexpr U32 Shift(U32 ulIdx) { return ulIdx / WORDS * 8; }

    /* The larger one of each pair of bytes. */
    static U32 Larger(U32 ulLeft, U32 ulRight)
    {
        const U32 ulAtLeast = (ulLeft - (ulRight ^ TOP_BITS)) & TOP_BITS;
        const U32 ulLefts = ulAtLeast - (ulAtLeast >> 7); /* 127 where the left one is at least the right one */
        return ulRight ^ ((ulLeft ^ ulRight) & ulLefts);
    }

    U32 aulWord[WORDS];
};

template <class TNode> class CMMMaxTree
{
public:
    static constexpr U32 FANOUT = 1u << TNode::FANOUT_BIT;
    static constexpr U32 MAX_LEVELS = 6;

    /* Words of storage for ulCount elements (1 to FANOUT to the power of MAX_LEVELS). */
    static constexpr U32 StorageWords(U32 ulCount)
    {
        U32 ulNodes = 0;
        for (;;) {
            ulCount = Nodes(ulCount);
            ulNodes += ulCount;
            if (ulCount == 1)
                return ulNodes * TNode::WORDS;
        }
    }

    /* Sets every element to 0. pulStorage: StorageWords(ulCount) words that stay the tree's. */
    void Init(U32* pulStorage, U32 ulCount)
    {
        auto* pstNode = reinterpret_cast<TNode*>(pulStorage);

        ulLevels = 0;
        ulMax = 0;
        do {
            ulCount = Nodes(ulCount);
            apstLevel[ulLevels++] = pstNode;
            for (U32 ulNode = 0; ulNode < ulCount; ++ulNode)
                (pstNode++)->Clear();
        } while (ulCount > 1);
    }

    U32 Get(U32 ulIdx) const { return apstLevel[0][ulIdx / FANOUT].Get(ulIdx % FANOUT); }

    /* Stores an element and mends the maxima above it, as far up as they change. */
    void Set(U32 ulIdx, U32 ulValue) { Replace(ulIdx, Get(ulIdx), ulValue); }

    /* The same where the element is known to be ulOld. */
    void Replace(U32 ulIdx, U32 ulOld, U32 ulValue)
    {
        for (U32 ulLevel = 0; ulValue != ulOld; ++ulLevel) {
            const U32 ulNode = ulIdx / FANOUT;
            TNode& stNode = apstLevel[ulLevel][ulNode];
            stNode.Put(ulIdx % FANOUT, ulValue);
            const bool fTop = ulLevel + 1 == ulLevels;
            const U32 ulAbove = fTop ? ulMax : apstLevel[ulLevel + 1][ulNode / FANOUT].Get(ulNode % FANOUT);
            if (ulValue < ulAbove) {
                if (ulOld != ulAbove)
                    return;
                ulValue = stNode.Max();
            }
            if (fTop) {
                ulMax = ulValue;
                return;
            }
            ulOld = ulAbove;
            ulIdx = ulNode;
        }
    }

    /* The largest element. */
    U32 Max() const { return ulMax; }

    /* The highest index whose element is at least ulLeast (1 or more); MM_NO_ELEMENT when there is none. */
    U32 FindLast(U32 ulLeast) const
    {
        return ulMax < ulLeast ? MM_NO_ELEMENT : Descend(ulLevels, 0, ulLeast);
    }

    /* The highest index below ulLimit whose element is at least ulLeast (1 or more); MM_NO_ELEMENT when there is none. */
    U32 FindLastBelow(U32 ulLimit, U32 ulLeast) const
    {
        /* Up: until the rest of a node holds an element that is large enough. */
        for (U32 ulLevel = 0; ulLevel < ulLevels && ulLimit > 0; ++ulLevel) {
            const U32 ulLast = ulLimit - 1;
            const U32 ulNode = ulLast / FANOUT;
            const U32 ulMask = apstLevel[ulLevel][ulNode].AtLeast(ulLeast) & ((2u << ulLast % FANOUT) - 1);
            if (ulMask != 0)
                return Descend(ulLevel, ulNode * FANOUT + MM_HighestBit(ulMask), ulLeast);
            ulLimit = ulNode;
        }
        return MM_NO_ELEMENT;
    }

private:
    static constexpr U32 Nodes(U32 ulCount) { return (ulCount + FANOUT - 1) / FANOUT; }

    /* From an element of a level to the last leaf below it that is large enough; there is one. */
    U32 Descend(U32 ulLevel, U32 ulIdx, U32 ulLeast) const
    {
        while (ulLevel > 0)
            ulIdx = ulIdx * FANOUT + MM_HighestBit(apstLevel[--ulLevel][ulIdx].AtLeast(ulLeast));
        return ulIdx;
    }

    TNode* apstLevel[MAX_LEVELS];
    U32 ulLevels;
    U32 ulMax;
};

#endif
