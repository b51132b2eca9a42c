/*
 * MM_RunIndex - the index over the free runs of a segment. MM_RunIndex.h says how it works and when it is dropped.
 */
#include "MM_RunIndex.h"

TMMRunIndex astRunIndex[MAX_SEGTABLE_SIZE];

namespace {

constexpr U32 POOL_WORDS = 260000;  /* of all tables; with the descriptors below 1 MiB */
constexpr U32 SMALLEST_SHARE = 512; /* what a segment of many gets */
constexpr U32 HELD_BACK_WORDS = SMALLEST_SHARE * MAX_SEGTABLE_SIZE;
constexpr U32 NODE_BYTES = 12;  /* what a run's header takes */
constexpr U8 MIN_BLK_BIT = 4;   /* blocks that hold one */
constexpr U8 CHUNK_BLK_BIT = 5; /* a chunk has 32 blocks, 16 runs at the most, where there is room */
constexpr U32 GROUP_CHUNKS = 8; /* long runs are kept for every eight chunks: that is one where there is room */

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
        return {ulMapStart != MM_UNUSED_PIECE ? ulMapStart : MM_PieceAddr(PIECE_START, ubIdx),
                MM_PieceAddr(PIECE_END, ubIdx)};
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

/* True when the address of a run, or null, lies in the chunk. What lies below the segment comes out above its last chunk. */
bool IsInChunk(const TMMRunIndex& stIndex, const TMMBlkStr* pstRun, U32 ulChunk)
{
    return ChunkOf(stIndex, MM_Addr(pstRun)) == ulChunk;
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

/* A size as the table of the chunks has it. */
U32 ShortSize(U32 ulSize)
{
    return ulSize < LONG_RUN ? ulSize : LONG_RUN;
}

/* Enters a run that is new or longer. */
inline void PutRun(TMMRunIndex& stIndex, const TMMBlkStr* pstRun, U32 ulSize)
{
    const U32 ulChunk = ChunkOf(stIndex, MM_Addr(pstRun));
    if (MM_Addr(pstRun) > stIndex.pulTop[ulChunk])
        stIndex.pulTop[ulChunk] = MM_Addr(pstRun);
    const U32 ulLongest = stIndex.clShort.Get(ulChunk);
    if (ShortSize(ulSize) > ulLongest)
        stIndex.clShort.Replace(ulChunk, ulLongest, ShortSize(ulSize));
    if (ulSize >= LONG_RUN && ulSize > stIndex.clLong.Get(ulChunk / GROUP_CHUNKS))
        stIndex.clLong.Set(ulChunk / GROUP_CHUNKS, ulSize);
}

/* Empties the tables, which know the runs of the list. */
void Sleep(U32 hulHandle, TMMRunIndex& stIndex)
{
    const bool fOrdinary = VisitRuns(hulHandle, stIndex, [&](TMMBlkStr* pstRun, U32) {
        const U32 ulChunk = ChunkOf(stIndex, MM_Addr(pstRun));
        stIndex.pulTop[ulChunk] = 0;
        stIndex.clShort.Set(ulChunk, 0);
        stIndex.clLong.Set(ulChunk / GROUP_CHUNKS, 0);
    });
    stIndex.enState = fOrdinary ? INDEX_ASLEEP : INDEX_NONE;
}

U32 Groups(const TMMRunIndex& stIndex)
{
    return (stIndex.ulChunks + GROUP_CHUNKS - 1) / GROUP_CHUNKS;
}

void EmptyTables(TMMRunIndex& stIndex)
{
    U32* const pulShort = stIndex.pulTop + stIndex.ulChunks;
    stIndex.clShort.Init(pulShort, stIndex.ulChunks);
    stIndex.clLong.Init(pulShort + TMMShortTree::StorageWords(stIndex.ulChunks), Groups(stIndex));
    for (U32 ulChunk = 0; ulChunk < stIndex.ulChunks; ++ulChunk)
        stIndex.pulTop[ulChunk] = 0;
}

/* Begins anew from the list, asleep unless it is long. */
void Begin(U32 hulHandle, TMMRunIndex& stIndex)
{
    EmptyTables(stIndex);
    MM_WakeRunIndex(hulHandle, stIndex);
    if (stIndex.enState == INDEX_AWAKE && stIndex.ulRuns <= WAKE_RUNS)
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

    for (stIndex.ubChunkBit = static_cast<U8>(stIndex.ubBlkBit + CHUNK_BLK_BIT); stIndex.ubChunkBit < 32;
         ++stIndex.ubChunkBit) {
        stIndex.ulChunks = ((stIndex.ulEnd - stIndex.ulStart - 1) >> stIndex.ubChunkBit) + 1;
        if (stIndex.ulChunks > POOL_WORDS)
            continue;
        const U32 ulWords = stIndex.ulChunks + TMMShortTree::StorageWords(stIndex.ulChunks) +
                            TMMLongTree::StorageWords(Groups(stIndex));
        if (ulWords > ulShare)
            continue;
        stIndex.pulTop = aulPool + ulPoolUsed;
        ulPoolUsed += ulWords;
        return true;
    }
    return false;
}

/* Size of the longest run that starts in a chunk, from the list. */
U32 LongestOfChunk(const TMMRunIndex& stIndex, U32 ulChunk)
{
    U32 ulLongest = 0;
    for (TMMBlkStr* pstRun = MM_At<TMMBlkStr>(stIndex.pulTop[ulChunk]); IsInChunk(stIndex, pstRun, ulChunk);
         pstRun = MM_Back(pstRun))
        if (MM_Size(pstRun) > ulLongest)
            ulLongest = MM_Size(pstRun);
    return ulLongest;
}

/* The highest chunk of a group that has a run of at least ulSize blocks, LONG_RUN or more; MM_NO_ELEMENT when none has. */
U32 LastLongOfGroup(const TMMRunIndex& stIndex, U32 ulGroup, U32 ulSize)
{
    const U32 ulFirst = ulGroup * GROUP_CHUNKS;
    const U32 ulPast = ulFirst + GROUP_CHUNKS < stIndex.ulChunks ? ulFirst + GROUP_CHUNKS : stIndex.ulChunks;
    for (U32 ulChunk = ulPast; ulChunk > ulFirst; --ulChunk)
        if (stIndex.clShort.Get(ulChunk - 1) == LONG_RUN && LongestOfChunk(stIndex, ulChunk - 1) >= ulSize)
            return ulChunk - 1;
    return MM_NO_ELEMENT;
}

/* Size of the longest run that starts in a group, if it is a long one; else 0. */
U32 LongestOfGroup(const TMMRunIndex& stIndex, U32 ulGroup)
{
    U32 ulLongest = 0;
    for (U32 ulChunk; (ulChunk = LastLongOfGroup(stIndex, ulGroup, ulLongest + 1)) != MM_NO_ELEMENT;)
        ulLongest = LongestOfChunk(stIndex, ulChunk);
    return ulLongest;
}

/* Mends the tables after a chunk lost a run of this size, or the run became shorter. */
inline void LoseRun(TMMRunIndex& stIndex, U32 ulChunk, U32 ulOldSize)
{
    const U32 ulGroup = ulChunk / GROUP_CHUNKS;
    if (ShortSize(ulOldSize) == stIndex.clShort.Get(ulChunk))
        stIndex.clShort.Replace(ulChunk, ShortSize(ulOldSize), ShortSize(LongestOfChunk(stIndex, ulChunk)));
    if (ulOldSize >= LONG_RUN && ulOldSize == stIndex.clLong.Get(ulGroup))
        stIndex.clLong.Set(ulGroup, LongestOfGroup(stIndex, ulGroup));
}

/* Mends the tables after a run was taken out. */
void TakeRun(TMMRunIndex& stIndex, const TMMBlkStr* pstRun, U32 ulOldSize, TMMBlkStr* pstLower)
{
    const U32 ulChunk = ChunkOf(stIndex, MM_Addr(pstRun));
    if (stIndex.pulTop[ulChunk] == MM_Addr(pstRun))
        stIndex.pulTop[ulChunk] = IsInChunk(stIndex, pstLower, ulChunk) ? MM_Addr(pstLower) : 0;
    LoseRun(stIndex, ulChunk, ulOldSize);
}

inline TMMNeighbours NeighboursOf(const TMMRunIndex& stIndex, U32 ulAddr)
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
        const U32 ulBelow = stIndex.clShort.FindUsedBelow(ulChunk);
        if (ulBelow != MM_NO_ELEMENT)
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
        stIndex.enState = INDEX_NONE;
    ulPoolUsed = 0;
}

void MM_BuildRunIndex(U32 hulHandle)
{
    TMMRunIndex& stIndex = astRunIndex[hulHandle];
    const TMMSegInfo& stSeg = stSegTable[hulHandle];
    const TMMSpan stSpan = BlockSpan(hulHandle);

    stIndex.enState = INDEX_NONE;
    const bool fShared = DropSharers(hulHandle);
    if (fNoIndex || fShared || stSeg.pfnAlloc != MM_AllocBlk || stSeg.ubBlkBit < MIN_BLK_BIT ||
        stSpan.ulStart >= stSpan.ulEnd)
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
    if (stIndex.enState != INDEX_NONE)
        Begin(hulHandle, stIndex);
}

void MM_DropRunIndex(U32 hulHandle)
{
    astRunIndex[hulHandle].enState = INDEX_NONE;
}

BOOL MM_HasRunIndex(U32 hulHandle)
{
    return astRunIndex[hulHandle].enState != INDEX_NONE;
}

BOOL MM_RunIndexAgrees(U32 hulHandle)
{
    const TMMRunIndex& stIndex = astRunIndex[hulHandle];
    if (stIndex.enState != INDEX_AWAKE)
        return TRUE;

    /* Runs come in order, so each chunk's are seen together; chunks and groups between them must be empty. */
    bool fAgrees = true;
    U32 ulChunk = 0;
    U32 ulTop = 0;
    U32 ulLongest = 0;
    U32 ulLongestOfGroup = 0;
    const auto fnCloseChunk = [&] {
        fAgrees = fAgrees && stIndex.pulTop[ulChunk] == ulTop && stIndex.clShort.Get(ulChunk) == ShortSize(ulLongest);
        if (ulLongest >= LONG_RUN && ulLongest > ulLongestOfGroup)
            ulLongestOfGroup = ulLongest;
        ulTop = ulLongest = 0;
        if (++ulChunk % GROUP_CHUNKS == 0 || ulChunk == stIndex.ulChunks) {
            fAgrees = fAgrees && stIndex.clLong.Get((ulChunk - 1) / GROUP_CHUNKS) == ulLongestOfGroup;
            ulLongestOfGroup = 0;
        }
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
    return fOrdinary && fAgrees && MM_IndexedLargest(stIndex) == ulLargest;
}

void MM_MemoryWritten(U32 ulAddr, U32 ulBytes)
{
    const U32 ulLast = ulAddr + (ulBytes - 1) < ulAddr ? 0xFFFFFFFF : ulAddr + (ulBytes - 1);

    for (U32 hulHandle = 0; hulHandle < MAX_SEGTABLE_SIZE && ulBytes > 0; ++hulHandle) {
        TMMRunIndex& stIndex = astRunIndex[hulHandle];
        if (stIndex.enState != INDEX_AWAKE || ulAddr >= stIndex.ulEnd || ulLast < stIndex.ulStart)
            continue;
        const TMMBlkStr* pstRun = NeighboursOf(stIndex, ulLast < stIndex.ulEnd ? ulLast : stIndex.ulEnd - 1).pstLower;
        if (pstRun != nullptr && MM_Addr(pstRun) + NODE_BYTES > ulAddr)
            stIndex.enState = INDEX_NONE;
    }
}

void MM_RecheckRunIndexes(void)
{
    for (U32 hulHandle = 0; hulHandle < MAX_SEGTABLE_SIZE; ++hulHandle)
        if (!MM_RunIndexAgrees(hulHandle))
            MM_DropRunIndex(hulHandle);
}

void MM_WakeRunIndex(U32 hulHandle, TMMRunIndex& stIndex)
{
    stIndex.ulRuns = 0;
    NoteEnds(hulHandle, stIndex);
    const bool fOrdinary = VisitRuns(hulHandle, stIndex, [&](TMMBlkStr* pstRun, U32 ulSize) {
        PutRun(stIndex, pstRun, ulSize);
        ++stIndex.ulRuns;
    });
    stIndex.enState = fOrdinary ? INDEX_AWAKE : INDEX_NONE;
}

TMMBlkStr* MM_IndexedRun(TMMRunIndex& stIndex, U32 ulReqBlkNum)
{
    U32 ulChunk = 0;
    if (ulReqBlkNum <= LONG_RUN) {
        ulChunk = stIndex.clShort.FindLast(ulReqBlkNum);
        if (ulChunk == MM_NO_ELEMENT)
            return nullptr;
    } else {
        const U32 ulGroup = stIndex.clLong.FindLast(ulReqBlkNum);
        if (ulGroup == MM_NO_ELEMENT)
            return nullptr;
        ulChunk = LastLongOfGroup(stIndex, ulGroup, ulReqBlkNum);
    }

    if (ulChunk != MM_NO_ELEMENT)
        for (TMMBlkStr* pstRun = MM_At<TMMBlkStr>(stIndex.pulTop[ulChunk]); IsInChunk(stIndex, pstRun, ulChunk);
             pstRun = MM_Back(pstRun))
            if (MM_Size(pstRun) >= ulReqBlkNum)
                return pstRun;
    stIndex.enState = INDEX_NONE;
    return nullptr;
}

TMMNeighbours MM_IndexedNeighbours(TMMRunIndex& stIndex, U32 ulAddr, U32 ulBlkNo)
{
    const TMMNeighbours stNeighbours = NeighboursOf(stIndex, ulAddr);
    const U32 ulLimit = stNeighbours.pstUpper == nullptr ? stIndex.ulEnd : MM_Addr(stNeighbours.pstUpper);

    const bool fApart = stNeighbours.pstLower == nullptr || MM_Addr(stNeighbours.pstLower) == ulAddr ||
                        MM_RunEnd(stNeighbours.pstLower, stIndex.ubBlkBit) <= ulAddr;
    if (!fApart || ulLimit <= ulAddr || ulBlkNo > (ulLimit - ulAddr) >> stIndex.ubBlkBit)
        stIndex.enState = INDEX_NONE;
    return stNeighbours;
}

void MM_EnterRun(U32 hulHandle, TMMRunIndex& stIndex, const TMMBlkStr* pstRun)
{
    PutRun(stIndex, pstRun, MM_Size(pstRun));
    NoteEnds(hulHandle, stIndex);
}

void MM_ShortenRun(TMMRunIndex& stIndex, const TMMBlkStr* pstRun, U32 ulOldSize)
{
    LoseRun(stIndex, ChunkOf(stIndex, MM_Addr(pstRun)), ulOldSize);
}

void MM_RemoveRun(U32 hulHandle, TMMRunIndex& stIndex, const TMMBlkStr* pstRun, U32 ulOldSize, TMMBlkStr* pstLower)
{
    TakeRun(stIndex, pstRun, ulOldSize, pstLower);
    NoteEnds(hulHandle, stIndex);
    if (stIndex.ulRuns < SLEEP_RUNS)
        Sleep(hulHandle, stIndex);
}

void MM_MoveRun(U32 hulHandle, TMMRunIndex& stIndex, TMMBlkStr* pstRun, const TMMBlkStr* pstOld, U32 ulOldSize)
{
    PutRun(stIndex, pstRun, MM_Size(pstRun)); /* first: in one chunk the shorter run's going then changes no maximum */
    TakeRun(stIndex, pstOld, ulOldSize, pstRun);
    NoteEnds(hulHandle, stIndex);
}
