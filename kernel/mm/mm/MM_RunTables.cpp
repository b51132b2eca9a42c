/*
 * MM_RunTables - the tables of a run index. MM_RunTables.h says what they hold.
 */
#include "MM_RunTables.h"

namespace {

constexpr U32 NODE_BYTES = 12; /* what a run's header takes */

U32 Smaller(U32 ulLeft, U32 ulRight)
{
    return ulLeft < ulRight ? ulLeft : ulRight;
}

U32 Larger(U32 ulLeft, U32 ulRight)
{
    return ulLeft > ulRight ? ulLeft : ulRight;
}

} // namespace

/* Tables and list ----------------------------------------------------------------------------------- */

U32 CMMRunTables::Place(TMMSpan stNewSpan, U8 ubNewBlkBit, U32* pulStorage, U32 ulWords)
{
    stSpan = stNewSpan;
    ubBlkBit = ubNewBlkBit;
    pulTop = pulStorage;
    for (ubChunkBit = static_cast<U8>(ubBlkBit + CHUNK_BLK_BIT); ubChunkBit < 32; ++ubChunkBit) {
        ulChunks = ChunkOf(stSpan.ulEnd - 1) + 1;
        if (ulChunks > ulWords)
            continue;
        const U32 ulTaken = ulChunks + TMMShortTree::StorageWords(ulChunks) + TMMLongTree::StorageWords(Groups());
        if (ulTaken <= ulWords)
            return ulTaken;
    }
    return 0;
}

void CMMRunTables::Clear()
{
    U32* const pulShort = pulTop + ulChunks;
    clShort.Init(pulShort, ulChunks);
    clLong.Init(pulShort + TMMShortTree::StorageWords(ulChunks), Groups());
    for (U32 ulChunk = 0; ulChunk < ulChunks; ++ulChunk)
        pulTop[ulChunk] = 0;
}

/* Visits the runs of an ordinary list in order. False at the first thing that is otherwise; reads nothing outside the
 * span. */
template <class TVisit> bool CMMRunTables::VisitRuns(TMMRunList stList, TVisit fnVisit) const
{
    TMMBlkStr* pstBack = nullptr;
    U32 ulFree = stSpan.ulStart; /* no run starts below */

    for (TMMBlkStr* pstRun = stList.Head(); pstRun != nullptr; pstRun = MM_Next(pstRun)) {
        const U32 ulAddr = MM_Addr(pstRun);
        if (ulAddr < ulFree || ulAddr >= stSpan.ulEnd || stSpan.ulEnd - ulAddr < NODE_BYTES)
            return false;
        const U32 ulSize = MM_Size(pstRun);
        if (ulSize == 0 || ulSize > (stSpan.ulEnd - ulAddr) >> ubBlkBit || MM_Back(pstRun) != pstBack)
            return false;
        fnVisit(pstRun, ulSize);
        ulFree = ulAddr + MM_BlkToBytes(ulSize, ubBlkBit);
        pstBack = pstRun;
    }
    return stList.Tail() == pstBack;
}

bool CMMRunTables::Fill(TMMRunList stList, U32* pulRuns)
{
    U32 ulRuns = 0;
    const bool fOrdinary = VisitRuns(stList, [&](const TMMBlkStr* pstRun, U32 ulSize) {
        Enter(pstRun, ulSize);
        ++ulRuns;
    });
    *pulRuns = ulRuns;
    return fOrdinary;
}

bool CMMRunTables::Empty(TMMRunList stList)
{
    return VisitRuns(stList, [&](const TMMBlkStr* pstRun, U32) {
        const U32 ulChunk = ChunkOf(MM_Addr(pstRun));
        pulTop[ulChunk] = 0;
        clShort.Set(ulChunk, 0);
        clLong.Set(ulChunk / GROUP_CHUNKS, 0);
    });
}

bool CMMRunTables::Agree(TMMRunList stList) const
{
    /* Runs come in order, so each chunk's are seen together; chunks and groups between them must be empty. */
    bool fAgree = true;
    U32 ulChunk = 0;
    U32 ulTop = 0;
    U32 ulLongest = 0;
    U32 ulLongestOfGroup = 0;
    const auto fnCloseChunk = [&] {
        fAgree = fAgree && pulTop[ulChunk] == ulTop && clShort.Get(ulChunk) == Smaller(ulLongest, LONG_RUN);
        if (ulLongest >= LONG_RUN)
            ulLongestOfGroup = Larger(ulLongest, ulLongestOfGroup);
        ulTop = ulLongest = 0;
        if (++ulChunk % GROUP_CHUNKS == 0 || ulChunk == ulChunks) {
            fAgree = fAgree && clLong.Get((ulChunk - 1) / GROUP_CHUNKS) == ulLongestOfGroup;
            ulLongestOfGroup = 0;
        }
    };
    U32 ulLargest = 0;
    const bool fOrdinary = VisitRuns(stList, [&](const TMMBlkStr* pstRun, U32 ulSize) {
        while (ulChunk < ChunkOf(MM_Addr(pstRun)))
            fnCloseChunk();
        ulTop = MM_Addr(pstRun);
        ulLongest = Larger(ulSize, ulLongest);
        ulLargest = Larger(ulSize, ulLargest);
    });
    while (fOrdinary && ulChunk < ulChunks)
        fnCloseChunk();
    return fOrdinary && fAgree &&
           Largest() == ulLargest; /* GCOVR_EXCL_BR_LINE: the maximum of numbers that agree does */
}

/* Questions ----------------------------------------------------------------------------------------- */

/* Size of the longest run that starts in a chunk, from the list. */
U32 CMMRunTables::LongestOfChunk(U32 ulChunk) const
{
    U32 ulLongest = 0;
    for (TMMBlkStr* pstRun = MM_At<TMMBlkStr>(pulTop[ulChunk]); IsInChunk(pstRun, ulChunk); pstRun = MM_Back(pstRun))
        if (MM_Size(pstRun) > ulLongest)
            ulLongest = MM_Size(pstRun);
    return ulLongest;
}

/* The highest chunk of a group that has a run of at least ulSize blocks, LONG_RUN or more; MM_NO_ELEMENT when none
 * has. */
U32 CMMRunTables::LastLongOfGroup(U32 ulGroup, U32 ulSize) const
{
    const U32 ulFirst = ulGroup * GROUP_CHUNKS;
    for (U32 ulChunk = Smaller(ulFirst + GROUP_CHUNKS, ulChunks); ulChunk > ulFirst; --ulChunk)
        if (clShort.Get(ulChunk - 1) == LONG_RUN && LongestOfChunk(ulChunk - 1) >= ulSize)
            return ulChunk - 1;
    return MM_NO_ELEMENT;
}

/* Size of the longest run that starts in a group, if it is a long one; else 0. */
U32 CMMRunTables::LongestOfGroup(U32 ulGroup) const
{
    U32 ulLongest = 0;
    for (U32 ulChunk; (ulChunk = LastLongOfGroup(ulGroup, ulLongest + 1)) != MM_NO_ELEMENT;)
        ulLongest = LongestOfChunk(ulChunk);
    return ulLongest;
}

TMMBlkStr* CMMRunTables::Find(U32 ulReqBlkNum) const
{
    U32 ulChunk = 0;
    if (ulReqBlkNum - 1 >= MAX_REQUEST)
        return ulReqBlkNum == 0 ? Find(1) : MM_UnknownRun();
    if (ulReqBlkNum <= LONG_RUN) {
        ulChunk = clShort.FindLast(ulReqBlkNum);
        if (ulChunk == MM_NO_ELEMENT)
            return nullptr;
    } else {
        const U32 ulGroup = clLong.FindLast(ulReqBlkNum);
        if (ulGroup == MM_NO_ELEMENT)
            return nullptr;
        ulChunk = LastLongOfGroup(ulGroup, ulReqBlkNum);
        if (ulChunk == MM_NO_ELEMENT)
            return MM_UnknownRun();
    }
    for (TMMBlkStr* pstRun = MM_At<TMMBlkStr>(pulTop[ulChunk]); IsInChunk(pstRun, ulChunk); pstRun = MM_Back(pstRun))
        if (MM_Size(pstRun) >= ulReqBlkNum)
            return pstRun;
    return MM_UnknownRun();
}

/* The neighbours of an address of the span. */
inline TMMNeighbours CMMRunTables::Around(TMMRunList stList, U32 ulAddr) const
{
    const U32 ulChunk = ChunkOf(ulAddr);
    TMMBlkStr* pstTop = MM_At<TMMBlkStr>(pulTop[ulChunk]);

    if (MM_Addr(pstTop) > ulAddr) {
        TMMBlkStr* pstUpper = pstTop;
        TMMBlkStr* pstLower = MM_Back(pstUpper);
        while (IsInChunk(pstLower, ulChunk) && MM_Addr(pstLower) > ulAddr) {
            pstUpper = pstLower;
            pstLower = MM_Back(pstUpper);
        }
        return {pstLower, pstUpper};
    }
    if (pstTop == nullptr) {
        const U32 ulBelow = clShort.FindUsedBelow(ulChunk);
        if (ulBelow != MM_NO_ELEMENT)
            pstTop = MM_At<TMMBlkStr>(pulTop[ulBelow]);
    }
    return {pstTop, pstTop == nullptr ? stList.Head() : MM_Next(pstTop)};
}

TMMNeighbours CMMRunTables::Neighbours(TMMRunList stList, U32 ulAddr, U32 ulBlkNo) const
{
    const TMMNeighbours stAround = Around(stList, ulAddr);
    const TMMBlkStr* const pstLower = stAround.pstLower;
    const U32 ulLimit = stAround.pstUpper == nullptr ? stSpan.ulEnd : MM_Addr(stAround.pstUpper);

    const bool fApart = pstLower == nullptr || MM_Addr(pstLower) == ulAddr || MM_RunEnd(pstLower, ubBlkBit) <= ulAddr;
    const bool fRoom =
        ulAddr < ulLimit && ulBlkNo <= (ulLimit - ulAddr) >> ubBlkBit; /* GCOVR_EXCL_BR_LINE: an address of the span */
    return fApart && fRoom ? stAround : TMMNeighbours{MM_UnknownRun(), nullptr};
}

bool CMMRunTables::HoldHeaderIn(TMMRunList stList, U32 ulFirst, U32 ulLast) const
{
    if (ulFirst >= stSpan.ulEnd || ulLast < stSpan.ulStart)
        return false;
    const TMMBlkStr* const pstRun = Around(stList, Smaller(ulLast, stSpan.ulEnd - 1)).pstLower;
    return pstRun != nullptr && MM_Addr(pstRun) + NODE_BYTES > ulFirst;
}

/* Changes ------------------------------------------------------------------------------------------- */

/* Enters a run that is new or longer. */
inline void CMMRunTables::Enter(const TMMBlkStr* pstRun, U32 ulSize)
{
    const U32 ulChunk = ChunkOf(MM_Addr(pstRun));
    if (MM_Addr(pstRun) > pulTop[ulChunk])
        pulTop[ulChunk] = MM_Addr(pstRun);
    const U32 ulLongest = clShort.Get(ulChunk);
    if (Smaller(ulSize, LONG_RUN) > ulLongest)
        clShort.Replace(ulChunk, ulLongest, Smaller(ulSize, LONG_RUN));
    if (ulSize >= LONG_RUN && ulSize > clLong.Get(ulChunk / GROUP_CHUNKS))
        clLong.Set(ulChunk / GROUP_CHUNKS, ulSize);
}

/* A chunk lost a run of this size, or the run became shorter. */
inline void CMMRunTables::Leave(U32 ulChunk, U32 ulOldSize)
{
    const U32 ulGroup = ulChunk / GROUP_CHUNKS;
    const U32 ulOld = Smaller(ulOldSize, LONG_RUN);
    if (ulOld == clShort.Get(ulChunk))
        clShort.Replace(ulChunk, ulOld, Smaller(LongestOfChunk(ulChunk), LONG_RUN));
    if (ulOldSize >= LONG_RUN && ulOldSize == clLong.Get(ulGroup))
        clLong.Set(ulGroup, LongestOfGroup(ulGroup));
}

void CMMRunTables::Added(const TMMBlkStr* pstRun)
{
    Enter(pstRun, MM_Size(pstRun));
}

void CMMRunTables::Grown(const TMMBlkStr* pstRun)
{
    Enter(pstRun, MM_Size(pstRun));
}

void CMMRunTables::Shrunk(const TMMBlkStr* pstRun, U32 ulOldSize)
{
    Leave(ChunkOf(MM_Addr(pstRun)), ulOldSize);
}

void CMMRunTables::Removed(const TMMBlkStr* pstRun, U32 ulOldSize, TMMBlkStr* pstLower)
{
    const U32 ulChunk = ChunkOf(MM_Addr(pstRun));
    if (pulTop[ulChunk] == MM_Addr(pstRun))
        pulTop[ulChunk] = IsInChunk(pstLower, ulChunk) ? MM_Addr(pstLower) : 0;
    Leave(ulChunk, ulOldSize);
}

void CMMRunTables::Moved(TMMBlkStr* pstRun, const TMMBlkStr* pstOld, U32 ulOldSize)
{
    Added(pstRun); /* first: in one chunk the shorter run's going then changes no maximum */
    Removed(pstOld, ulOldSize, pstRun);
}
