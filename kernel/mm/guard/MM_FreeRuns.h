/*
 * MM_FreeRuns.h - the free runs of a segment in kernel memory: the bits of its blocks, and for each word of bits the size
 * of the longest run that starts there, under trees of maxima, so that the highest run of a size is found in a few
 * steps. MM_RunTables.h finds the same runs, over lists in managed memory; here nothing but these tables is ever read.
 *
 * Few runs stand in a short table instead, in order: looking through it is faster than any tree. The trees are filled when
 * there are more, and emptied when there are few again.
 *
 * A block is a number. Stretches of memory that are apart have a block between them that is never free.
 */
#ifndef MM_FREERUNS_H
#define MM_FREERUNS_H

#include "../mm/MM_MaxTree.h"
#include "MM_BlockBits.h"

/* ulSize blocks from ulFirst on. MM_NO_BLOCK and 0: none. */
struct TMMRun {
    U32 ulFirst, ulSize;
    bool Is() const { return ulSize != 0; }
    U32 End() const { return ulFirst + ulSize; }
};

class CMMFreeRuns
{
public:
    static constexpr U32 StorageWords(U32 ulCount)
    {
        const U32 ulWords = CMMBlockBits::Words(ulCount);
        return CMMBlockBits::StorageWords(ulCount) + TMMShortTree::StorageWords(ulWords) +
               TMMLongTree::StorageWords(Groups(ulWords));
    }

    /* No run. pulStorage: StorageWords(ulCount) words of zeros that stay the tables'. The last block must stay
     * allocated. */
    void Init(U32* pulStorage, U32 ulCount);

    const CMMBlockBits& Bits() const { return clBits; }

    /* Size of the longest run, 0 without any. */
    U32 Largest() const
    {
        if (!fAwake)
            return LargestOfFew();
        const U32 ulLong = clLong.Max();
        return ulLong != 0 ? ulLong : clShort.Max();
    }

    /* The highest run of at least ulBlkNum (1 or more) blocks. */
    TMMRun Find(U32 ulBlkNum) const;
    /* The run that begins at a free block whose lower neighbour is none. */
    TMMRun RunAt(U32 ulFirst) const { return {ulFirst, clBits.NextTaken(ulFirst) - ulFirst}; }
    /* The run that ends below a block, wherever that is; the next run from a block on. */
    TMMRun RunBelow(U32 ulBlk) const
    {
        const U32 ulLast = clBits.LastFree(ulBlk);
        if (ulLast == MM_NO_BLOCK)
            return {MM_NO_BLOCK, 0};
        const U32 ulFirst = clBits.LastTaken(ulLast) + 1;
        return {ulFirst, ulLast + 1 - ulFirst};
    }
    TMMRun RunFrom(U32 ulBlk) const
    {
        const U32 ulFirst = clBits.NextFree(ulBlk);
        return ulFirst == MM_NO_BLOCK ? TMMRun{MM_NO_BLOCK, 0} : RunAt(ulFirst);
    }

    /* The runs below and above blocks that are allocated, or none. */
    void Around(TMMRun stBlocks, TMMRun* pstLower, TMMRun* pstUpper) const
    {
        if (fAwake) {
            *pstLower = RunBelow(stBlocks.ulFirst);
            *pstUpper = RunFrom(stBlocks.End());
            return;
        }
        const U32 ulAt = FirstAbove(stBlocks.ulFirst);
        *pstLower = ulAt > 0 ? astFew[ulAt - 1] : TMMRun{MM_NO_BLOCK, 0};
        *pstUpper = ulAt < ulRuns ? astFew[ulAt] : TMMRun{MM_NO_BLOCK, 0};
    }

    /* The runs below and above a run. */
    void Beside(TMMRun stRun, TMMRun* pstLower, TMMRun* pstUpper) const
    {
        if (fAwake)
            return Around(stRun, pstLower, pstUpper);
        const U32 ulAt = FirstAbove(stRun.ulFirst);
        *pstLower = ulAt > 1 ? astFew[ulAt - 2] : TMMRun{MM_NO_BLOCK, 0};
        *pstUpper = ulAt < ulRuns ? astFew[ulAt] : TMMRun{MM_NO_BLOCK, 0};
    }

    /* Takes ulBlkNum blocks off the high end of a run. */
    void CutEnd(TMMRun stRun, U32 ulBlkNum);
    /* Takes blocks out of the inside of a run; before and after them something may be left. */
    void CutInside(TMMRun stRun, TMMRun stTaken);
    /* Gives allocated blocks back; stLower and stUpper are the runs that they touch, or none. */
    void Give(TMMRun stBlocks, TMMRun stLower, TMMRun stUpper);

    /* True when the trees say what the bits say. */
    bool Agree() const;

private:
    using TMMShortTree = CMMMaxTree<CMMByteNode>;
    using TMMLongTree = CMMMaxTree<CMMWordNode>;
    static constexpr U32 LONG_RUN = CMMByteNode::LARGEST;
    static constexpr U32 GROUP_WORDS = 8; /* long runs are kept for every eight words */

    static constexpr U32 Groups(U32 ulWords) { return (ulWords + GROUP_WORDS - 1) / GROUP_WORDS; }

    static constexpr U32 MOST_FEW = 24; /* runs of the short table; from so many on the trees are asked */
    static constexpr U32 FEW_AGAIN = 12;

    /* Place in the short table of the first run above a block. */
    U32 FirstAbove(U32 ulBlk) const
    {
        U32 ulAt = ulRuns;
        while (ulAt > 0 && astFew[ulAt - 1].ulFirst > ulBlk)
            --ulAt;
        return ulAt;
    }
    U32 LargestOfFew() const
    {
        U32 ulLargest = 0;
        for (U32 ulAt = 0; ulAt < ulRuns; ++ulAt)
            ulLargest = astFew[ulAt].ulSize > ulLargest ? astFew[ulAt].ulSize : ulLargest;
        return ulLargest;
    }
    void InsertFew(U32 ulAt, TMMRun stRun);
    void RemoveFew(U32 ulAt);
    void GiveFew(TMMRun stBlocks, bool fLower, bool fUpper);
    void Wake();
    void SleepIfFew();

    U32 StartingIn(U32 ulWord) const;
    TMMRun TopRun(U32 ulWord, U32 ulFree) const;
    U32 LongestOfWord(U32 ulWord) const;
    U32 LastLongOfGroup(U32 ulGroup, U32 ulSize) const;
    U32 LongestOfGroup(U32 ulGroup) const;
    void Enter(TMMRun stRun);
    void Leave(TMMRun stOld);

    CMMBlockBits clBits;
    U32 ulRuns;
    bool fAwake; /* the trees are kept; otherwise the short table is, and the trees are empty */
    TMMRun astFew[MOST_FEW];
    TMMShortTree clShort; /* for each word: size of the longest run that starts in it, LONG_RUN at the most */
    TMMLongTree clLong;   /* for each group of words: the same, in full, if it is LONG_RUN or more; else 0 */
};

inline U32 MM_Smaller(U32 ulLeft, U32 ulRight)
{
    return ulLeft < ulRight ? ulLeft : ulRight;
}

inline U32 MM_Larger(U32 ulLeft, U32 ulRight)
{
    return ulLeft > ulRight ? ulLeft : ulRight;
}

inline void CMMFreeRuns::Init(U32* pulStorage, U32 ulCount)
{
    const U32 ulWords = CMMBlockBits::Words(ulCount);
    clBits.Init(pulStorage, ulCount);
    pulStorage += CMMBlockBits::StorageWords(ulCount);
    clShort.Init(pulStorage, ulWords);
    clLong.Init(pulStorage + TMMShortTree::StorageWords(ulWords), Groups(ulWords));
    ulRuns = 0;
    fAwake = false;
}

/* Few runs --------------------------------------------------------------------------------------------- */

inline void CMMFreeRuns::InsertFew(U32 ulAt, TMMRun stRun)
{
    for (U32 ulTo = ulRuns++; ulTo > ulAt; --ulTo)
        astFew[ulTo] = astFew[ulTo - 1];
    astFew[ulAt] = stRun;
}

inline void CMMFreeRuns::RemoveFew(U32 ulAt)
{
    for (--ulRuns; ulAt < ulRuns; ++ulAt)
        astFew[ulAt] = astFew[ulAt + 1];
}

/* Blocks are given back that touch the runs below and above them, or not. */
inline void CMMFreeRuns::GiveFew(TMMRun stBlocks, bool fLower, bool fUpper)
{
    const U32 ulAt = FirstAbove(stBlocks.ulFirst);
    if (fLower && fUpper) {
        astFew[ulAt - 1].ulSize += stBlocks.ulSize + astFew[ulAt].ulSize;
        RemoveFew(ulAt);
    } else if (fLower) {
        astFew[ulAt - 1].ulSize += stBlocks.ulSize;
    } else if (fUpper) {
        astFew[ulAt] = {stBlocks.ulFirst, stBlocks.ulSize + astFew[ulAt].ulSize};
    } else {
        InsertFew(ulAt, stBlocks);
    }
}

inline void CMMFreeRuns::Wake()
{
    fAwake = true;
    for (U32 ulAt = 0; ulAt < ulRuns; ++ulAt)
        Enter(astFew[ulAt]);
}

inline void CMMFreeRuns::SleepIfFew()
{
    if (ulRuns >= FEW_AGAIN)
        return;
    U32 ulAt = 0;
    for (TMMRun stRun = RunFrom(0); stRun.Is(); stRun = RunFrom(stRun.End())) {
        clShort.Set(stRun.ulFirst / 32, 0);
        clLong.Set(stRun.ulFirst / 32 / GROUP_WORDS, 0);
        astFew[ulAt++] = stRun;
    }
    fAwake = false;
}

/* Runs of a word --------------------------------------------------------------------------------------- */

/* The free blocks of a word, less those of a run that began in the word below. */
inline U32 CMMFreeRuns::StartingIn(U32 ulWord) const
{
    const U32 ulFree = clBits.FreeOf(ulWord);
    if (ulWord == 0 || (ulFree & 1) == 0 || clBits.FreeOf(ulWord - 1) >> 31 == 0)
        return ulFree;
    return ulFree & (ulFree + 1); /* the lowest ones vanish */
}

/* The highest run in a word of which these blocks (not 0) are free. It may reach into the words above. */
inline TMMRun CMMFreeRuns::TopRun(U32 ulWord, U32 ulFree) const
{
    const U32 ulLast = MM_HighestBit(ulFree);
    const U32 ulBelow = ~ulFree & ((1u << ulLast) - 1);
    const U32 ulFirst = ulBelow == 0 ? 0 : MM_HighestBit(ulBelow) + 1;
    if (ulLast == 31)
        return {ulWord * 32 + ulFirst, clBits.NextTaken(ulWord * 32 + 31) - (ulWord * 32 + ulFirst)};
    return {ulWord * 32 + ulFirst, ulLast + 1 - ulFirst};
}

inline U32 CMMFreeRuns::LongestOfWord(U32 ulWord) const
{
    U32 ulFree = StartingIn(ulWord);
    if (ulFree == 0)
        return 0;
    U32 ulLongest = 0;
    if (ulFree >> 31 != 0) {
        const TMMRun stTop = TopRun(ulWord, ulFree);
        ulLongest = stTop.ulSize;
        ulFree &= (1u << stTop.ulFirst % 32) - 1;
    }
    /* Of every run as many blocks vanish as the longest has so far. */
    for (U32 ulLess = 0; ulLess < ulLongest && ulFree != 0; ++ulLess)
        ulFree &= ulFree >> 1;
    for (; ulFree != 0; ulFree &= ulFree >> 1)
        ++ulLongest;
    return ulLongest;
}

/* The highest word of a group that has a run of at least ulSize blocks, LONG_RUN or more; MM_NO_ELEMENT when none has. */
inline U32 CMMFreeRuns::LastLongOfGroup(U32 ulGroup, U32 ulSize) const
{
    const U32 ulFirst = ulGroup * GROUP_WORDS;
    for (U32 ulWord = MM_Smaller(ulFirst + GROUP_WORDS, clBits.WordCount()); ulWord > ulFirst; --ulWord)
        if (clShort.Get(ulWord - 1) == LONG_RUN && LongestOfWord(ulWord - 1) >= ulSize)
            return ulWord - 1;
    return MM_NO_ELEMENT;
}

/* Size of the longest run that starts in a group, if it is a long one; else 0. */
inline U32 CMMFreeRuns::LongestOfGroup(U32 ulGroup) const
{
    U32 ulLongest = 0;
    for (U32 ulWord; (ulWord = LastLongOfGroup(ulGroup, ulLongest + 1)) != MM_NO_ELEMENT;)
        ulLongest = LongestOfWord(ulWord);
    return ulLongest;
}

inline TMMRun CMMFreeRuns::Find(U32 ulBlkNum) const
{
    for (U32 ulAt = fAwake ? 0 : ulRuns; ulAt > 0; --ulAt)
        if (astFew[ulAt - 1].ulSize >= ulBlkNum)
            return astFew[ulAt - 1];
    if (!fAwake)
        return {MM_NO_BLOCK, 0};
    U32 ulWord = 0;
    if (ulBlkNum <= LONG_RUN) {
        ulWord = clShort.FindLast(ulBlkNum);
    } else {
        const U32 ulGroup = clLong.FindLast(ulBlkNum);
        ulWord = ulGroup == MM_NO_ELEMENT ? ulGroup : LastLongOfGroup(ulGroup, ulBlkNum);
    }
    if (ulWord == MM_NO_ELEMENT)
        return {MM_NO_BLOCK, 0};
    for (U32 ulFree = StartingIn(ulWord); ulFree != 0;) {
        const TMMRun stRun = TopRun(ulWord, ulFree);
        if (stRun.ulSize >= ulBlkNum)
            return stRun;
        ulFree &= (1u << stRun.ulFirst % 32) - 1;
    }
    return {MM_NO_BLOCK, 0};
}

/* Changes ---------------------------------------------------------------------------------------------- */

/* A run is new or longer. */
inline void CMMFreeRuns::Enter(TMMRun stRun)
{
    const U32 ulWord = stRun.ulFirst / 32;
    const U32 ulLongest = clShort.Get(ulWord);
    if (MM_Smaller(stRun.ulSize, LONG_RUN) > ulLongest)
        clShort.Replace(ulWord, ulLongest, MM_Smaller(stRun.ulSize, LONG_RUN));
    if (stRun.ulSize >= LONG_RUN && stRun.ulSize > clLong.Get(ulWord / GROUP_WORDS))
        clLong.Set(ulWord / GROUP_WORDS, stRun.ulSize);
}

/* A run is gone or shorter; the bits say so already. */
inline void CMMFreeRuns::Leave(TMMRun stOld)
{
    const U32 ulWord = stOld.ulFirst / 32;
    const U32 ulGroup = ulWord / GROUP_WORDS;
    const U32 ulOld = MM_Smaller(stOld.ulSize, LONG_RUN);
    if (ulOld == clShort.Get(ulWord))
        clShort.Replace(ulWord, ulOld, MM_Smaller(LongestOfWord(ulWord), LONG_RUN));
    if (stOld.ulSize >= LONG_RUN && stOld.ulSize == clLong.Get(ulGroup))
        clLong.Set(ulGroup, LongestOfGroup(ulGroup));
}

inline void CMMFreeRuns::CutEnd(TMMRun stRun, U32 ulBlkNum)
{
    clBits.Take(stRun.End() - ulBlkNum, ulBlkNum);
    const bool fGone = ulBlkNum == stRun.ulSize;
    if (!fAwake) {
        const U32 ulAt = FirstAbove(stRun.ulFirst) - 1;
        if (fGone)
            RemoveFew(ulAt);
        else
            astFew[ulAt].ulSize -= ulBlkNum;
        return;
    }
    Leave(stRun);
    ulRuns -= fGone;
    if (fGone)
        SleepIfFew();
}

inline void CMMFreeRuns::CutInside(TMMRun stRun, TMMRun stTaken)
{
    if (!fAwake)
        Wake();
    clBits.Take(stTaken.ulFirst, stTaken.ulSize);
    Leave(stRun);
    ulRuns -= stTaken.ulFirst == stRun.ulFirst;
    if (stTaken.End() < stRun.End()) {
        Enter({stTaken.End(), stRun.End() - stTaken.End()});
        ++ulRuns;
    }
    SleepIfFew();
}

inline void CMMFreeRuns::Give(TMMRun stBlocks, TMMRun stLower, TMMRun stUpper)
{
    clBits.Give(stBlocks.ulFirst, stBlocks.ulSize);
    if (!fAwake && (ulRuns < MOST_FEW || stLower.Is() || stUpper.Is()))
        return GiveFew(stBlocks, stLower.Is(), stUpper.Is());
    if (!fAwake)
        Wake();
    Enter({stLower.Is() ? stLower.ulFirst : stBlocks.ulFirst, stLower.ulSize + stBlocks.ulSize + stUpper.ulSize});
    ulRuns += 1 - stLower.Is() - stUpper.Is();
    if (stUpper.Is())
        Leave(stUpper);
    if (stLower.Is() && stUpper.Is())
        SleepIfFew();
}

inline bool CMMFreeRuns::Agree() const
{
    U32 ulCounted = 0;
    for (TMMRun stRun = RunFrom(0); stRun.Is(); stRun = RunFrom(stRun.End()), ++ulCounted)
        if (!fAwake && (ulCounted >= ulRuns || astFew[ulCounted].ulFirst != stRun.ulFirst ||
                        astFew[ulCounted].ulSize != stRun.ulSize))
            return false;
    if (ulCounted != ulRuns || !fAwake)
        return ulCounted == ulRuns && clShort.Max() == 0 && clLong.Max() == 0;
    U32 ulLargest = 0;
    for (U32 ulGroup = 0; ulGroup < Groups(clBits.WordCount()); ++ulGroup) {
        U32 ulLong = 0;
        const U32 ulPast = MM_Smaller((ulGroup + 1) * GROUP_WORDS, clBits.WordCount());
        for (U32 ulWord = ulGroup * GROUP_WORDS; ulWord < ulPast; ++ulWord) {
            const U32 ulLongest = LongestOfWord(ulWord);
            if (clShort.Get(ulWord) != MM_Smaller(ulLongest, LONG_RUN))
                return false;
            ulLong = ulLongest >= LONG_RUN ? MM_Larger(ulLong, ulLongest) : ulLong;
            ulLargest = MM_Larger(ulLargest, ulLongest);
        }
        if (clLong.Get(ulGroup) != ulLong)
            return false;
    }
    return Largest() == ulLargest;
}

#endif
