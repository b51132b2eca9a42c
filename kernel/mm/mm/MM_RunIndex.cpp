/*
 * MM_RunIndex - the index over the free runs of a segment. MM_RunIndex.h says how it works and when it is dropped.
 */
#include "MM_RunIndex.h"

#include "MM_List.h"

TMMRunIndex astRunIndex[MAX_SEGTABLE_SIZE];

namespace {

constexpr U32 POOL_WORDS = 260000;      /* of all tables; with the descriptors below 1 MiB */
constexpr U32 SMALLEST_SHARE = 512;     /* what a segment of many gets */
constexpr U32 HELD_BACK_WORDS = SMALLEST_SHARE * MAX_SEGTABLE_SIZE;
constexpr U32 NODE_BYTES = 12;          /* what a run's header takes */
constexpr U8 MIN_BLK_BIT = 4;           /* blocks that hold a header */
constexpr U8 CHUNK_BLK_BIT = 3;         /* a chunk has 8 blocks, four runs at the most, where there is room */

U32 aulPool[POOL_WORDS];
U32 ulPoolUsed;
bool fNoIndex; /* segments walk: zero-initialised, so that indexes are the rule */
static_assert(sizeof(aulPool) + MAX_SEGTABLE_SIZE * sizeof(TMMRunIndex) <= 1024 * 1024);

struct TMMSpan {
    U32 ulStart, ulEnd;
};

/* Addresses of a segment's blocks; of the heap, from the first piece's to the last one's, with what lies between. */
TMMSpan BlockSpan(U32 hulHandle)
{
    if (hulHandle != HEAPHANDLE)
        return {MM_Addr(stSegTable[hulHandle].pubStartAddr), MM_Addr(stSegTable[hulHandle].pubEndAddr)};
    TMMSpan stSpan = {MM_PieceAddr(PIECE_START, 0), 0};
    for (U8 ubIdx = 0; MM_IsPiece(ubIdx); ++ubIdx)
        stSpan.ulEnd = MM_PieceAddr(PIECE_END, ubIdx);
    return stSpan;
}

/* Memory that a segment holds, owner map included; of the heap, one of its pieces. Empty beyond the last one. */
TMMSpan HeldSpan(U32 hulHandle, U8 ubIdx)
{
    if (hulHandle == HEAPHANDLE) {
        const U32 ulMapStart = MM_PieceAddr(PIECE_MAP_START, ubIdx);
        return {ulMapStart != MM_UNUSED_PIECE ? ulMapStart : MM_PieceAddr(PIECE_START, ubIdx), MM_PieceAddr(PIECE_END, ubIdx)};
    }
    const TMMSegInfo& stSeg = stSegTable[hulHandle];
    const U32 ulStart = MM_Addr(stSeg.pubMapStartAddr != nullptr ? stSeg.pubMapStartAddr : stSeg.pubStartAddr);
    return ubIdx == 0 ? TMMSpan{ulStart, MM_Addr(stSeg.pubEndAddr)} : TMMSpan{0, 0};
}

bool ShareMemory(U32 hulLeft, U32 hulRight)
{
    for (U8 ubLeft = 0; ubLeft < MAX_PIECE_NUM; ++ubLeft)
        for (U8 ubRight = 0; ubRight < MAX_PIECE_NUM; ++ubRight) {
            const TMMSpan stLeft = HeldSpan(hulLeft, ubLeft);
            const TMMSpan stRight = HeldSpan(hulRight, ubRight);
            if (stLeft.ulStart < stRight.ulEnd && stRight.ulStart < stLeft.ulEnd)
                return true;
        }
    return false;
}

/* Drops the indexes of segments that share memory with this one; true when there was any such segment. */
bool DropSharers(U32 hulHandle)
{
    bool fShared = false;
    for (U32 hulOther = 0; hulOther < MAX_SEGTABLE_SIZE; ++hulOther) {
        if (hulOther == hulHandle || !MM_CheckSegInitCompleted(hulOther) || !ShareMemory(hulHandle, hulOther))
            continue;
        MM_DropRunIndex(hulOther);
        fShared = true;
    }
    return fShared;
}

U32 ChunkOf(const TMMRunIndex& stIndex, U32 ulAddr)
{
    return (ulAddr - stIndex.ulStart) >> stIndex.ubChunkBit;
}

/* True when the address of a run, or null, lies in the chunk. */
bool IsInChunk(const TMMRunIndex& stIndex, const TMMBlkStr* pstRun, U32 ulChunk)
{
    return pstRun != nullptr && MM_Addr(pstRun) >= stIndex.ulStart && ChunkOf(stIndex, MM_Addr(pstRun)) == ulChunk;
}

/* Visits the runs of an ordinary list in order: inside the span, ascending, apart, linked both ways, head to tail.
 * False at the first thing that is otherwise; reads nothing outside the span. */
template <class TVisit> bool VisitRuns(U32 hulHandle, const TMMRunIndex& stIndex, TVisit fnVisit)
{
    const TMMRunList stList{hulHandle};
    TMMBlkStr* pstBack = nullptr;
    U32 ulFree = stIndex.ulStart; /* no run starts below */

    for (TMMBlkStr* pstRun = stList.Head(); pstRun != nullptr; pstRun = MM_Next(pstRun)) {
        const U32 ulAddr = MM_Addr(pstRun);
        if (ulAddr < ulFree || ulAddr >= stIndex.ulEnd || stIndex.ulEnd - ulAddr < NODE_BYTES)
            return false;
        const U32 ulSize = MM_Size(pstRun);
        if (ulSize == 0 || ulSize > (stIndex.ulEnd - ulAddr) >> stIndex.ubBlkBit || MM_Back(pstRun) != pstBack)
            return false;
        fnVisit(pstRun, ulSize);
        ulFree = ulAddr + MM_BlkToBytes(ulSize, stIndex.ubBlkBit);
        pstBack = pstRun;
    }
    return stList.Tail() == pstBack;
}

void NoteEnds(U32 hulHandle, TMMRunIndex& stIndex)
{
    stIndex.pstHead = astBlkHead[hulHandle].pstBlk;
    stIndex.pstTail = astBlkTail[hulHandle].pstBlk;
}

/* Enters a run that is new or longer. */
void PutRun(TMMRunIndex& stIndex, const TMMBlkStr* pstRun, U32 ulSize)
{
    const U32 ulChunk = ChunkOf(stIndex, MM_Addr(pstRun));
    if (MM_Addr(pstRun) > stIndex.pulTop[ulChunk])
        stIndex.pulTop[ulChunk] = MM_Addr(pstRun);
    if (ulSize > stIndex.clLongest.Get(ulChunk))
        stIndex.clLongest.Set(ulChunk, ulSize);
}

/* Fills the empty tables from the list. */
void Wake(U32 hulHandle, TMMRunIndex& stIndex)
{
    stIndex.ulRuns = 0;
    stIndex.fAwake = true;
    NoteEnds(hulHandle, stIndex);
    stIndex.fKept = VisitRuns(hulHandle, stIndex, [&](TMMBlkStr* pstRun, U32 ulSize) {
        PutRun(stIndex, pstRun, ulSize);
        ++stIndex.ulRuns;
    });
}

/* Empties the tables, which know the runs of the list. */
void Sleep(U32 hulHandle, TMMRunIndex& stIndex)
{
    stIndex.fAwake = false;
    stIndex.fKept = VisitRuns(hulHandle, stIndex, [&](TMMBlkStr* pstRun, U32) {
        const U32 ulChunk = ChunkOf(stIndex, MM_Addr(pstRun));
        stIndex.pulTop[ulChunk] = 0;
        stIndex.clLongest.Set(ulChunk, 0);
    });
}

void EmptyTables(TMMRunIndex& stIndex)
{
    stIndex.clLongest.Init(stIndex.pulTop + stIndex.ulChunks, stIndex.ulChunks);
    for (U32 ulChunk = 0; ulChunk < stIndex.ulChunks; ++ulChunk)
        stIndex.pulTop[ulChunk] = 0;
}

/* Begins anew from the list, asleep unless it is long. */
void Begin(U32 hulHandle, TMMRunIndex& stIndex)
{
    EmptyTables(stIndex);
    Wake(hulHandle, stIndex);
    if (stIndex.fKept && stIndex.ulRuns <= WAKE_RUNS)
        Sleep(hulHandle, stIndex);
}

/* Words of the pool that a segment may take. The heap comes last and may have all that is left; another segment
 * half of what is not held back, so that the last one of many still gets some. */
U32 ShareOfPool(U32 hulHandle)
{
    const U32 ulLeft = POOL_WORDS - ulPoolUsed;
    if (hulHandle == HEAPHANDLE)
        return ulLeft;
    const U32 ulHalf = ulLeft > HELD_BACK_WORDS ? (ulLeft - HELD_BACK_WORDS) / 2 : 0;
    if (ulHalf > SMALLEST_SHARE)
        return ulHalf;
    return ulLeft < SMALLEST_SHARE ? ulLeft : SMALLEST_SHARE;
}

/* Chooses the smallest chunk for which there is room in the segment's share, and takes the tables. */
bool TakeTables(U32 hulHandle, TMMRunIndex& stIndex)
{
    const U32 ulShare = ShareOfPool(hulHandle);

    for (stIndex.ubChunkBit = static_cast<U8>(stIndex.ubBlkBit + CHUNK_BLK_BIT); stIndex.ubChunkBit < 32; ++stIndex.ubChunkBit) {
        stIndex.ulChunks = ((stIndex.ulEnd - stIndex.ulStart - 1) >> stIndex.ubChunkBit) + 1;
        if (stIndex.ulChunks > POOL_WORDS)
            continue;
        const U32 ulWords = stIndex.ulChunks + CMMMaxTree::StorageWords(stIndex.ulChunks);
        if (ulWords > ulShare)
            continue;
        stIndex.pulTop = aulPool + ulPoolUsed;
        ulPoolUsed += ulWords;
        return true;
    }
    return false;
}

/* Finds the length of the longest run of a chunk from the list. */
void MeasureChunk(TMMRunIndex& stIndex, U32 ulChunk)
{
    U32 ulLongest = 0;
    for (TMMBlkStr* pstRun = MM_At<TMMBlkStr>(stIndex.pulTop[ulChunk]); IsInChunk(stIndex, pstRun, ulChunk); pstRun = MM_Back(pstRun))
        if (MM_Size(pstRun) > ulLongest)
            ulLongest = MM_Size(pstRun);
    stIndex.clLongest.Set(ulChunk, ulLongest);
}

TMMNeighbours NeighboursOf(const TMMRunIndex& stIndex, U32 ulAddr)
{
    const U32 ulChunk = ChunkOf(stIndex, ulAddr);
    TMMBlkStr* pstTop = MM_At<TMMBlkStr>(stIndex.pulTop[ulChunk]);

    if (MM_Addr(pstTop) > ulAddr) {
        TMMBlkStr* pstUpper = pstTop;
        TMMBlkStr* pstLower = MM_Back(pstUpper);
        while (IsInChunk(stIndex, pstLower, ulChunk) && MM_Addr(pstLower) > ulAddr) {
            pstUpper = pstLower;
            pstLower = MM_Back(pstUpper);
        }
        return {pstLower, pstUpper};
    }
    if (pstTop == nullptr) {
        const U32 ulBelow = stIndex.clLongest.FindLastBelow(ulChunk, 1);
        if (ulBelow != CMMMaxTree::NONE)
            pstTop = MM_At<TMMBlkStr>(stIndex.pulTop[ulBelow]);
    }
    return {pstTop, pstTop == nullptr ? const_cast<TMMBlkStr*>(stIndex.pstHead) : MM_Next(pstTop)};
}

} // namespace

void MM_UseRunIndex(BOOL fUse)
{
    fNoIndex = !fUse;
}

void MM_ResetRunIndexes(void)
{
    for (TMMRunIndex& stIndex : astRunIndex)
        stIndex.fKept = false;
    ulPoolUsed = 0;
}

void MM_BuildRunIndex(U32 hulHandle)
{
    TMMRunIndex& stIndex = astRunIndex[hulHandle];
    const TMMSegInfo& stSeg = stSegTable[hulHandle];
    const TMMSpan stSpan = BlockSpan(hulHandle);

    stIndex.fKept = false;
    const bool fShared = DropSharers(hulHandle);
    if (fNoIndex || fShared || stSeg.pfnAlloc != MM_AllocBlk || stSeg.ubBlkBit < MIN_BLK_BIT || stSpan.ulStart >= stSpan.ulEnd)
        return;
    stIndex.ubBlkBit = stSeg.ubBlkBit;
    stIndex.ulStart = stSpan.ulStart;
    stIndex.ulEnd = stSpan.ulEnd;
    if (TakeTables(hulHandle, stIndex))
        Begin(hulHandle, stIndex);
}

void MM_RefillRunIndex(U32 hulHandle)
{
    TMMRunIndex& stIndex = astRunIndex[hulHandle];
    if (stIndex.fKept)
        Begin(hulHandle, stIndex);
}

void MM_DropRunIndex(U32 hulHandle)
{
    astRunIndex[hulHandle].fKept = false;
}

BOOL MM_HasRunIndex(U32 hulHandle)
{
    return astRunIndex[hulHandle].fKept;
}

BOOL MM_RunIndexAgrees(U32 hulHandle)
{
    const TMMRunIndex& stIndex = astRunIndex[hulHandle];
    if (!stIndex.fKept || !stIndex.fAwake)
        return TRUE;

    /* Runs come in order, so each chunk's are seen together; chunks between them must be empty. */
    bool fAgrees = true;
    U32 ulChunk = 0;
    U32 ulTop = 0;
    U32 ulLongest = 0;
    const auto fnCloseChunk = [&] {
        fAgrees = fAgrees && stIndex.pulTop[ulChunk] == ulTop && stIndex.clLongest.Get(ulChunk) == ulLongest;
        ulTop = ulLongest = 0;
        ++ulChunk;
    };
    U32 ulLargest = 0;
    const bool fOrdinary = VisitRuns(hulHandle, stIndex, [&](TMMBlkStr* pstRun, U32 ulSize) {
        while (ulChunk < ChunkOf(stIndex, MM_Addr(pstRun)))
            fnCloseChunk();
        ulTop = MM_Addr(pstRun);
        ulLongest = ulSize > ulLongest ? ulSize : ulLongest;
        ulLargest = ulSize > ulLargest ? ulSize : ulLargest;
    });
    while (fOrdinary && ulChunk < stIndex.ulChunks)
        fnCloseChunk();
    return fOrdinary && fAgrees && stIndex.clLongest.Max() == ulLargest;
}

void MM_MemoryWritten(U32 ulAddr, U32 ulBytes)
{
    const U32 ulLast = ulAddr + (ulBytes - 1) < ulAddr ? 0xFFFFFFFF : ulAddr + (ulBytes - 1);

    for (U32 hulHandle = 0; hulHandle < MAX_SEGTABLE_SIZE && ulBytes > 0; ++hulHandle) {
        TMMRunIndex& stIndex = astRunIndex[hulHandle];
        if (!stIndex.fKept || !stIndex.fAwake || ulAddr >= stIndex.ulEnd || ulLast < stIndex.ulStart)
            continue;
        const TMMBlkStr* pstRun = NeighboursOf(stIndex, ulLast < stIndex.ulEnd ? ulLast : stIndex.ulEnd - 1).pstLower;
        if (pstRun != nullptr && MM_Addr(pstRun) + NODE_BYTES > ulAddr)
            stIndex.fKept = false;
    }
}

void MM_RecheckRunIndexes(void)
{
    for (U32 hulHandle = 0; hulHandle < MAX_SEGTABLE_SIZE; ++hulHandle)
        if (!MM_RunIndexAgrees(hulHandle))
            MM_DropRunIndex(hulHandle);
}

TMMBlkStr* MM_IndexedRun(TMMRunIndex& stIndex, U32 ulReqBlkNum)
{
    const U32 ulChunk = stIndex.clLongest.FindLast(ulReqBlkNum);
    if (ulChunk == CMMMaxTree::NONE)
        return nullptr;

    TMMBlkStr* pstRun = MM_At<TMMBlkStr>(stIndex.pulTop[ulChunk]);
    for (; IsInChunk(stIndex, pstRun, ulChunk); pstRun = MM_Back(pstRun))
        if (MM_Size(pstRun) >= ulReqBlkNum)
            return pstRun;
    stIndex.fKept = false;
    return nullptr;
}

TMMNeighbours MM_IndexedNeighbours(TMMRunIndex& stIndex, U32 ulAddr, U32 ulBlkNo)
{
    const TMMNeighbours stNeighbours = NeighboursOf(stIndex, ulAddr);
    const U32 ulLimit = stNeighbours.pstUpper == nullptr ? stIndex.ulEnd : MM_Addr(stNeighbours.pstUpper);

    const bool fApart = stNeighbours.pstLower == nullptr || MM_Addr(stNeighbours.pstLower) == ulAddr ||
                        MM_RunEnd(stNeighbours.pstLower, stIndex.ubBlkBit) <= ulAddr;
    if (!fApart || ulLimit <= ulAddr || ulBlkNo > (ulLimit - ulAddr) >> stIndex.ubBlkBit)
        stIndex.fKept = false;
    return stNeighbours;
}

void MM_IndexRunAdded(U32 hulHandle, TMMBlkStr* pstRun)
{
    TMMRunIndex& stIndex = astRunIndex[hulHandle];
    if (!stIndex.fKept)
        return;
    ++stIndex.ulRuns;
    if (!stIndex.fAwake) {
        if (stIndex.ulRuns > WAKE_RUNS)
            Wake(hulHandle, stIndex);
        return;
    }
    PutRun(stIndex, pstRun, MM_Size(pstRun));
    NoteEnds(hulHandle, stIndex);
}

void MM_IndexRunGrown(U32 hulHandle, TMMBlkStr* pstRun)
{
    TMMRunIndex& stIndex = astRunIndex[hulHandle];
    if (!stIndex.fKept || !stIndex.fAwake)
        return;
    PutRun(stIndex, pstRun, MM_Size(pstRun));
    NoteEnds(hulHandle, stIndex);
}

void MM_IndexRunShrunk(U32 hulHandle, TMMBlkStr* pstRun, U32 ulOldSize)
{
    TMMRunIndex& stIndex = astRunIndex[hulHandle];
    if (!stIndex.fKept || !stIndex.fAwake)
        return;
    const U32 ulChunk = ChunkOf(stIndex, MM_Addr(pstRun));
    if (ulOldSize == stIndex.clLongest.Get(ulChunk))
        MeasureChunk(stIndex, ulChunk);
}

void MM_IndexRunRemoved(U32 hulHandle, const TMMBlkStr* pstRun, U32 ulOldSize, TMMBlkStr* pstLower)
{
    TMMRunIndex& stIndex = astRunIndex[hulHandle];
    if (!stIndex.fKept)
        return;
    --stIndex.ulRuns;
    if (!stIndex.fAwake)
        return;
    const U32 ulChunk = ChunkOf(stIndex, MM_Addr(pstRun));
    if (stIndex.pulTop[ulChunk] == MM_Addr(pstRun))
        stIndex.pulTop[ulChunk] = IsInChunk(stIndex, pstLower, ulChunk) ? MM_Addr(pstLower) : 0;
    if (ulOldSize == stIndex.clLongest.Get(ulChunk))
        MeasureChunk(stIndex, ulChunk);
    NoteEnds(hulHandle, stIndex);
    if (stIndex.ulRuns < SLEEP_RUNS)
        Sleep(hulHandle, stIndex);
}
