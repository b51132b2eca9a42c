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
    static constexpr U32 FIRST_BLOCK = 32; /* the first word's numbers are no blocks: there is always a word below */

    static constexpr U32 StorageWords(U32 ulCount)
    {
        const U32 ulWords = CMMBlockBits::Words(ulCount);
        return CMMBlockBits::StorageWords(ulCount) + TMMShortTree::StorageWords(ulWords) +
               TMMLongTree::StorageWords(Groups(ulWords));
    }

    /* No run. ulCount: numbers from 0 on, FIRST_BLOCK and 1 more at the least. pulStorage: StorageWords(ulCount) words of
     * zeros that stay the tables'. The numbers below FIRST_BLOCK and the last one must stay allocated. */
    void Init(U32* pulStorage, U32 ulCount);

    /* The storage goes: no run, as in an object of zeros. */
    void Forget()
    {
        ulRuns = 0;
        ulLargestOfFew = 0;
        fAwake = false;
        astFew[0] = astFew[1] = {MM_NO_BLOCK, 0};
    }

    const CMMBlockBits& Bits() const { return clBits; }

    /* Size of the longest run, 0 without any. */
    U32 Largest() const
    {
        if (!fAwake)
            return ulLargestOfFew;
        const U32 ulLong = clLong.Max();
        return ulLong != 0 ? ulLong : clShort.Max();
    }

    /* The highest start of a run below a block, the lowest one from a block on (FIRST_BLOCK or above); MM_NO_BLOCK when there
     * is none. */
    U32 StartBelow(U32 ulBlk) const;
    U32 StartFrom(U32 ulBlk) const;
    /* Blocks of the run that starts there. */
    U32 SizeAt(U32 ulStart) const { return clBits.NextTaken(ulStart) - ulStart; }
    /* The run that starts there; none for MM_NO_BLOCK. */
    TMMRun RunAt(U32 ulStart) const { return {ulStart, ulStart == MM_NO_BLOCK ? 0 : SizeAt(ulStart)}; }

    /* A run, and its place in the short table. */
    struct TMMFound : TMMRun {
        U32 ulAt;
    };
    /* The highest run of at least ulBlkNum (1 or more) blocks, or none. */
    TMMFound Find(U32 ulBlkNum) const;

    /* The starts of the runs below and above a run or blocks. */
    struct TMMPlace {
        U32 ulLower, ulUpper;
    };
    TMMPlace PlaceOf(const TMMFound& stFound) const;

    /* Takes ulBlkNum blocks off the high end of a run that was found. */
    void CutEnd(const TMMFound& stFound, U32 ulBlkNum);
    /* Takes blocks out of the inside of a run; before and after them something may be left. */
    void CutInside(TMMRun stRun, TMMRun stTaken);
    /* Where blocks lie that were given back: the sizes of the runs that they touch, else 0; the start above an upper run that
     * they touch. */
    struct TMMGiven : TMMPlace {
        U32 ulLowerSize, ulUpperSize, ulPastUpper;
    };
    /* Gives blocks back, and tells the visitor where they lie; false with nothing changed unless all of them are
     * allocated. */
    template <class TVisit> bool Give(TMMRun stBlocks, TVisit fnGiven);

    /* True when the tables say what the bits say. */
    bool Agree() const;

private:
    using TMMShortTree = CMMMaxTree<CMMByteNode>;
    using TMMLongTree = CMMMaxTree<CMMWordNode>;
    static constexpr U32 LONG_RUN = CMMByteNode::LARGEST;
    static constexpr U32 GROUP_WORDS = 8; /* long runs are kept for every eight words */

    static constexpr U32 Groups(U32 ulWords) { return (ulWords + GROUP_WORDS - 1) / GROUP_WORDS; }

    static constexpr U32 MOST_FEW = 24; /* runs of the short table; from so many on the trees are asked */
    static constexpr U32 FEW_AGAIN = 12;

    /* Few runs: place in the short table of the last run that starts below a block, 0 when none does. */
    U32 FewBelow(U32 ulBlk) const
    {
        U32 ulAt = ulRuns;
        while (ulAt > 0 && astFew[ulAt].ulFirst >= ulBlk)
            --ulAt;
        return ulAt;
    }
    void RemoveFew(U32 ulAt);
    void CutFew(const TMMFound& stFound, U32 ulBlkNum);
    void InsertFew(U32 ulAt, TMMRun stRun);
    TMMGiven GiveFew(TMMRun stBlocks, U32 ulAt);
    void MeasureFew();
    TMMGiven FindGiven(TMMRun stBlocks) const;
    void GiveAwake(TMMRun stBlocks, const TMMGiven& stGiven);
    void Wake();
    void Sleep();

    /* The free blocks of a word, and the blocks that have a free one below. */
    struct TMMEdges {
        U32 ulFree, ulFreeBelow;
        U32 Starts() const { return ulFree & ~ulFreeBelow; }
    };
    TMMEdges EdgesOf(U32 ulWord) const;
    U32 StartsOf(U32 ulWord) const { return EdgesOf(ulWord).Starts(); }
    U32 StartBelow(U32 ulBlk, U32 ulStarts) const;
    U32 StartFrom(U32 ulBlk, U32 ulStarts) const;
    U32 LongestOfWord(U32 ulWord) const;
    U32 LastLongOfGroup(U32 ulGroup, U32 ulSize) const;
    U32 LongestOfGroup(U32 ulGroup) const;
    TMMFound FindLong(U32 ulBlkNum) const;
    TMMFound FindInWord(U32 ulWord, U32 ulBlkNum) const;
    void Enter(TMMRun stRun);
    void Leave(TMMRun stOld);

    CMMBlockBits clBits;
    U32 ulRuns;
    U32 ulLargestOfFew;
    bool fAwake;                 /* the trees are kept; otherwise the short table is, and the trees are empty */
    TMMRun astFew[MOST_FEW + 2]; /* from place 1 on, in order, with none before and behind */
    TMMShortTree clShort;        /* for each word: size of the longest run that starts in it, LONG_RUN at the most */
    TMMLongTree clLong;          /* for each group of words: the same, in full, if it is LONG_RUN or more; else 0 */
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
    Forget();
}

/* Few runs --------------------------------------------------------------------------------------------- */

inline void CMMFreeRuns::MeasureFew()
{
    ulLargestOfFew = 0;
    for (U32 ulAt = ulRuns; ulAt > 0; --ulAt)
        ulLargestOfFew = MM_Larger(astFew[ulAt].ulSize, ulLargestOfFew);
}

inline void CMMFreeRuns::InsertFew(U32 ulAt, TMMRun stRun)
{
    for (U32 ulTo = ++ulRuns + 1; ulTo > ulAt; --ulTo)
        astFew[ulTo] = astFew[ulTo - 1];
    astFew[ulAt] = stRun;
}

inline void CMMFreeRuns::RemoveFew(U32 ulAt)
{
    for (; ulAt <= ulRuns; ++ulAt)
        astFew[ulAt] = astFew[ulAt + 1];
    --ulRuns;
}

[[gnu::always_inline]] inline void CMMFreeRuns::CutFew(const TMMFound& stFound, U32 ulBlkNum)
{
    if (ulBlkNum == stFound.ulSize)
        RemoveFew(stFound.ulAt);
    else
        astFew[stFound.ulAt].ulSize -= ulBlkNum;
    if (stFound.ulSize == ulLargestOfFew)
        MeasureFew();
}

/* Blocks above the run at a place, or at the table's low end. */
[[gnu::always_inline]] inline CMMFreeRuns::TMMGiven CMMFreeRuns::GiveFew(TMMRun stBlocks, U32 ulAt)
{
    TMMRun& stLower = astFew[ulAt];
    TMMRun& stUpper = astFew[ulAt + 1];
    const bool fUpper = stUpper.ulFirst == stBlocks.End();
    TMMGiven stGiven = {{stLower.ulFirst, stUpper.ulFirst}, 0, 0, MM_NO_BLOCK};
    U32 ulSize = stBlocks.ulSize;

    if (fUpper) {
        stGiven.ulUpperSize = stUpper.ulSize;
        stGiven.ulPastUpper = astFew[ulAt + 2].ulFirst;
        ulSize += stUpper.ulSize;
    }
    if (stLower.End() == stBlocks.ulFirst) {
        stGiven.ulLowerSize = stLower.ulSize;
        ulSize += stLower.ulSize;
        stLower.ulSize = ulSize;
        if (fUpper)
            RemoveFew(ulAt + 1);
    } else if (fUpper) {
        stUpper = {stBlocks.ulFirst, ulSize};
    } else {
        InsertFew(ulAt + 1, stBlocks);
    }
    ulLargestOfFew = MM_Larger(ulSize, ulLargestOfFew);
    return stGiven;
}

[[gnu::noinline]] inline void CMMFreeRuns::Wake()
{
    fAwake = true;
    for (U32 ulAt = ulRuns; ulAt > 0; --ulAt)
        Enter(astFew[ulAt]);
}

[[gnu::noinline]] inline void CMMFreeRuns::Sleep()
{
    U32 ulBlk = FIRST_BLOCK;
    for (U32 ulAt = 1; ulAt <= ulRuns; ++ulAt) {
        astFew[ulAt] = RunAt(StartFrom(ulBlk));
        ulBlk = astFew[ulAt].End();
    }
    astFew[ulRuns + 1] = {MM_NO_BLOCK, 0};
    for (U32 ulAt = ulRuns; ulAt > 0; --ulAt) {
        clShort.Set(astFew[ulAt].ulFirst / 32, 0);
        clLong.Set(astFew[ulAt].ulFirst / 32 / GROUP_WORDS, 0);
    }
    fAwake = false;
    MeasureFew();
}

/* Runs of a word --------------------------------------------------------------------------------------- */

inline CMMFreeRuns::TMMEdges CMMFreeRuns::EdgesOf(U32 ulWord) const
{
    const U32 ulFree = clBits.FreeOf(ulWord);
    return {ulFree, ulFree << 1 | clBits.FreeOf(ulWord - 1) >> 31};
}

inline U32 CMMFreeRuns::LongestOfWord(U32 ulWord) const
{
    U32 ulLongest = 0;
    for (U32 ulStarts = StartsOf(ulWord); ulStarts != 0; ulStarts &= ulStarts - 1)
        ulLongest = MM_Larger(SizeAt(ulWord * 32 + MM_LowestBit(ulStarts)), ulLongest);
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
[[gnu::noinline]] inline U32 CMMFreeRuns::LongestOfGroup(U32 ulGroup) const
{
    const U32 ulFirst = ulGroup * GROUP_WORDS;
    U32 ulLongest = 0;
    for (U32 ulWord = MM_Smaller(ulFirst + GROUP_WORDS, clBits.WordCount()); ulWord > ulFirst; --ulWord)
        if (clShort.Get(ulWord - 1) == LONG_RUN)
            ulLongest = MM_Larger(LongestOfWord(ulWord - 1), ulLongest);
    return ulLongest;
}

/* Questions -------------------------------------------------------------------------------------------- */

inline U32 CMMFreeRuns::StartBelow(U32 ulBlk) const
{
    return fAwake ? StartBelow(ulBlk, StartsOf(ulBlk / 32)) : astFew[FewBelow(ulBlk)].ulFirst;
}

inline U32 CMMFreeRuns::StartFrom(U32 ulBlk) const
{
    return fAwake ? StartFrom(ulBlk, StartsOf(ulBlk / 32)) : astFew[FewBelow(ulBlk) + 1].ulFirst;
}

/* The same by the trees. ulStarts: those of the block's word. */
[[gnu::always_inline]] inline U32 CMMFreeRuns::StartBelow(U32 ulBlk, U32 ulStarts) const
{
    U32 ulWord = ulBlk / 32;
    ulStarts &= (1u << ulBlk % 32) - 1;
    if (ulStarts == 0) {
        ulWord = clShort.FindUsedBelow(ulWord);
        if (ulWord == MM_NO_ELEMENT)
            return MM_NO_BLOCK;
        ulStarts = StartsOf(ulWord);
    }
    return ulWord * 32 + MM_HighestBit(ulStarts);
}

[[gnu::always_inline]] inline U32 CMMFreeRuns::StartFrom(U32 ulBlk, U32 ulStarts) const
{
    U32 ulWord = ulBlk / 32;
    ulStarts &= 0xFFFFFFFF << ulBlk % 32;
    if (ulStarts == 0) {
        ulWord = clShort.FindUsedAbove(ulWord);
        if (ulWord == MM_NO_ELEMENT)
            return MM_NO_BLOCK;
        ulStarts = StartsOf(ulWord);
    }
    return ulWord * 32 + MM_LowestBit(ulStarts);
}

/* The highest run of a word that is long enough; there is one. */
inline CMMFreeRuns::TMMFound CMMFreeRuns::FindInWord(U32 ulWord, U32 ulBlkNum) const
{
    for (U32 ulStarts = StartsOf(ulWord); ulStarts != 0;) {
        const U32 ulBit = MM_HighestBit(ulStarts);
        const U32 ulSize = SizeAt(ulWord * 32 + ulBit);
        if (ulSize >= ulBlkNum)
            return {{ulWord * 32 + ulBit, ulSize}, 0};
        ulStarts ^= 1u << ulBit;
    }
    return {{MM_NO_BLOCK, 0}, 0};
}

[[gnu::noinline]] inline CMMFreeRuns::TMMFound CMMFreeRuns::FindLong(U32 ulBlkNum) const
{
    const U32 ulGroup = clLong.FindLast(ulBlkNum);
    if (ulGroup == MM_NO_ELEMENT)
        return {{MM_NO_BLOCK, 0}, 0};
    return FindInWord(LastLongOfGroup(ulGroup, ulBlkNum), ulBlkNum);
}

[[gnu::always_inline]] inline CMMFreeRuns::TMMFound CMMFreeRuns::Find(U32 ulBlkNum) const
{
    if (!fAwake) {
        for (U32 ulAt = ulRuns; ulAt > 0; --ulAt)
            if (astFew[ulAt].ulSize >= ulBlkNum)
                return {astFew[ulAt], ulAt};
        return {{MM_NO_BLOCK, 0}, 0};
    }
    if (ulBlkNum > LONG_RUN)
        return FindLong(ulBlkNum);
    const U32 ulWord = clShort.FindLast(ulBlkNum);
    if (ulWord == MM_NO_ELEMENT)
        return {{MM_NO_BLOCK, 0}, 0};
    return FindInWord(ulWord, ulBlkNum);
}

[[gnu::always_inline]] inline CMMFreeRuns::TMMPlace CMMFreeRuns::PlaceOf(const TMMFound& stFound) const
{
    if (!fAwake)
        return {astFew[stFound.ulAt - 1].ulFirst, astFew[stFound.ulAt + 1].ulFirst};
    return {StartBelow(stFound.ulFirst, StartsOf(stFound.ulFirst / 32)),
            StartFrom(stFound.End(), StartsOf(stFound.End() / 32))};
}

/* Changes ---------------------------------------------------------------------------------------------- */

/* A run is new or longer. */
[[gnu::always_inline]] inline void CMMFreeRuns::Enter(TMMRun stRun)
{
    const U32 ulWord = stRun.ulFirst / 32;
    const U32 ulLongest = clShort.Get(ulWord);
    if (MM_Smaller(stRun.ulSize, LONG_RUN) > ulLongest)
        clShort.Replace(ulWord, ulLongest, MM_Smaller(stRun.ulSize, LONG_RUN));
    if (stRun.ulSize >= LONG_RUN && stRun.ulSize > clLong.Get(ulWord / GROUP_WORDS))
        clLong.Set(ulWord / GROUP_WORDS, stRun.ulSize);
}

/* A run is gone or shorter; the bits say so already. */
[[gnu::always_inline]] inline void CMMFreeRuns::Leave(TMMRun stOld)
{
    const U32 ulWord = stOld.ulFirst / 32;
    const U32 ulGroup = ulWord / GROUP_WORDS;
    const U32 ulOld = MM_Smaller(stOld.ulSize, LONG_RUN);
    if (ulOld == clShort.Get(ulWord))
        clShort.Replace(ulWord, ulOld, MM_Smaller(LongestOfWord(ulWord), LONG_RUN));
    if (stOld.ulSize >= LONG_RUN && stOld.ulSize == clLong.Get(ulGroup))
        clLong.Set(ulGroup, LongestOfGroup(ulGroup));
}

[[gnu::always_inline]] inline void CMMFreeRuns::CutEnd(const TMMFound& stFound, U32 ulBlkNum)
{
    clBits.Take(stFound.End() - ulBlkNum, ulBlkNum);
    if (!fAwake)
        return CutFew(stFound, ulBlkNum);
    Leave(stFound);
    if (ulBlkNum == stFound.ulSize && --ulRuns < FEW_AGAIN)
        Sleep();
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
    if (ulRuns < FEW_AGAIN)
        Sleep();
}

template <class TVisit> [[gnu::always_inline]] inline bool CMMFreeRuns::Give(TMMRun stBlocks, TVisit fnGiven)
{
    if (!clBits.Give(stBlocks.ulFirst, stBlocks.ulSize))
        return false;
    if (!fAwake && ulRuns < MOST_FEW) {
        fnGiven(GiveFew(stBlocks, FewBelow(stBlocks.ulFirst)));
        return true;
    }
    if (!fAwake)
        Wake();
    const TMMGiven stGiven = FindGiven(stBlocks);
    fnGiven(stGiven);
    GiveAwake(stBlocks, stGiven);
    return true;
}

/* The bits have been changed already: a start below the blocks is none of them, and above them none is new. */
[[gnu::always_inline]] inline CMMFreeRuns::TMMGiven CMMFreeRuns::FindGiven(TMMRun stBlocks) const
{
    const U32 ulEnd = stBlocks.End();
    const TMMEdges stLow = EdgesOf(stBlocks.ulFirst / 32);
    const TMMEdges stHigh = EdgesOf(ulEnd / 32);
    const U32 ulLower = StartBelow(stBlocks.ulFirst, stLow.Starts());
    const U32 ulLowerSize = (stLow.ulFreeBelow >> stBlocks.ulFirst % 32 & 1) != 0 ? stBlocks.ulFirst - ulLower : 0;
    if ((stHigh.ulFree >> ulEnd % 32 & 1) == 0)
        return {{ulLower, StartFrom(ulEnd, stHigh.Starts())}, ulLowerSize, 0, MM_NO_BLOCK};
    const U32 ulUpperSize = SizeAt(ulEnd);
    const U32 ulPast = ulEnd + ulUpperSize;
    return {{ulLower, ulEnd}, ulLowerSize, ulUpperSize, StartFrom(ulPast, StartsOf(ulPast / 32))};
}

[[gnu::always_inline]] inline void CMMFreeRuns::GiveAwake(TMMRun stBlocks, const TMMGiven& stGiven)
{
    const bool fLower = stGiven.ulLowerSize != 0;
    const bool fUpper = stGiven.ulUpperSize != 0;
    Enter({stBlocks.ulFirst - stGiven.ulLowerSize, stGiven.ulLowerSize + stBlocks.ulSize + stGiven.ulUpperSize});
    if (fUpper)
        Leave({stGiven.ulUpper, stGiven.ulUpperSize});
    ulRuns += 1 - fLower - fUpper;
    if (ulRuns < FEW_AGAIN)
        Sleep();
}

inline bool CMMFreeRuns::Agree() const
{
    U32 ulCounted = 0;
    U32 ulLargest = 0;
    U32 ulLong = 0;
    for (U32 ulWord = FIRST_BLOCK / 32; ulWord < clBits.WordCount(); ++ulWord) {
        const U32 ulLongest = LongestOfWord(ulWord);
        for (U32 ulStarts = StartsOf(ulWord); ulStarts != 0; ulStarts &= ulStarts - 1, ++ulCounted) {
            const TMMRun stRun = RunAt(ulWord * 32 + MM_LowestBit(ulStarts));
            if (!fAwake && (ulCounted >= ulRuns || astFew[ulCounted + 1].ulFirst != stRun.ulFirst ||
                            astFew[ulCounted + 1].ulSize != stRun.ulSize))
                return false;
        }
        ulLargest = MM_Larger(ulLongest, ulLargest);
        ulLong = ulLongest >= LONG_RUN ? MM_Larger(ulLong, ulLongest) : ulLong;
        if (clShort.Get(ulWord) != (fAwake ? MM_Smaller(ulLongest, LONG_RUN) : 0))
            return false;
        if ((ulWord + 1) % GROUP_WORDS != 0 && ulWord + 1 != clBits.WordCount())
            continue;
        if (clLong.Get(ulWord / GROUP_WORDS) != (fAwake ? ulLong : 0))
            return false;
        ulLong = 0;
    }
    if (!fAwake && (astFew[0].ulFirst != MM_NO_BLOCK || astFew[ulRuns + 1].ulFirst != MM_NO_BLOCK))
        return false;
    return ulCounted == ulRuns && Largest() == ulLargest;
}

#endif
