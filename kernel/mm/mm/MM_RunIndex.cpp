/*
 * MM_RunIndex - which segments have an index, in what state it is, and what its tables lie in. MM_RunIndex.h has the
 * states.
 */
#include "MM_RunIndex.h"

TMMRunIndex astRunIndex[MAX_SEGTABLE_SIZE];

namespace {

constexpr U32 POOL_WORDS =
    MM_Guarded ? 1 : 260000;        /* of all tables, below 1 MiB with the descriptors; 1 is room for none */
constexpr U32 SMALLEST_SHARE = 512; /* what a segment of many gets */
constexpr U32 HELD_BACK_WORDS = SMALLEST_SHARE * MAX_SEGTABLE_SIZE;
constexpr U8 MIN_BLK_BIT = 4; /* blocks that hold a run's header */

U32 aulPool[POOL_WORDS];
U32 ulPoolUsed;
bool fNoIndex; /* segments walk: zero-initialised, so that indexes are the rule */
static_assert(sizeof(aulPool) + MAX_SEGTABLE_SIZE * sizeof(TMMRunIndex) <= 1024 * 1024);

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

bool CanBeIndexed(U32 hulHandle, TMMSpan stSpan)
{
    const TMMSegInfo& stSeg = stSegTable[hulHandle];
    return !fNoIndex && stSeg.pfnAlloc == MM_AllocBlk && stSeg.ubBlkBit >= MIN_BLK_BIT && stSpan.ulStart < stSpan.ulEnd;
}

/* Begins anew from the list, asleep unless it is long. */
void Begin(TMMRunIndex& stIndex)
{
    stIndex.clTables.Clear();
    MM_SetIndexState(stIndex, INDEX_AWAKE);
    if (stIndex.enState == INDEX_AWAKE && stIndex.ulRuns <= WAKE_RUNS)
        MM_SetIndexState(stIndex, INDEX_ASLEEP);
}

} // namespace

/* States -------------------------------------------------------------------------------------------- */

void MM_SetIndexState(TMMRunIndex& stIndex, EMMIndexState enState)
{
    const TMMRunList stList{stIndex.hulHandle};
    bool fOrdinary = true;

    if (enState == INDEX_AWAKE) {
        fOrdinary = stIndex.clTables.Fill(stList, &stIndex.ulRuns);
        MM_NoteEnds(stIndex);
    } else if (enState == INDEX_ASLEEP) {
        fOrdinary = stIndex.clTables.Empty(stList);
    }
    stIndex.enState = fOrdinary ? enState : INDEX_NONE;
}

void MM_DropRunIndex(U32 hulHandle)
{
    MM_SetIndexState(astRunIndex[hulHandle], INDEX_NONE);
}

void MM_ResetRunIndexes(void)
{
    for (TMMRunIndex& stIndex : astRunIndex)
        MM_SetIndexState(stIndex, INDEX_NONE);
    ulPoolUsed = 0;
}

void MM_BuildRunIndex(U32 hulHandle)
{
    TMMRunIndex& stIndex = astRunIndex[hulHandle];
    const TMMSpan stSpan = BlockSpan(hulHandle);

    MM_SetIndexState(stIndex, INDEX_NONE);
    const bool fShared = DropSharers(hulHandle);
    if (fShared || !CanBeIndexed(hulHandle, stSpan))
        return;
    const U32 ulTaken =
        stIndex.clTables.Place(stSpan, stSegTable[hulHandle].ubBlkBit, aulPool + ulPoolUsed, ShareOfPool(hulHandle));
    if (ulTaken == 0)
        return;
    ulPoolUsed += ulTaken;
    stIndex.hulHandle = hulHandle;
    Begin(stIndex);
}

void MM_RefillRunIndex(U32 hulHandle)
{
    if (MM_HasRunIndex(hulHandle))
        Begin(astRunIndex[hulHandle]);
}

void MM_MemoryWritten(U32 ulAddr, U32 ulBytes)
{
    const U32 ulLast = ulAddr + (ulBytes - 1) < ulAddr ? 0xFFFFFFFF : ulAddr + (ulBytes - 1);

    for (U32 hulHandle = 0; hulHandle < MAX_SEGTABLE_SIZE && ulBytes > 0; ++hulHandle)
        if (MM_IsRunIndexAwake(hulHandle) &&
            astRunIndex[hulHandle].clTables.HoldHeaderIn(TMMRunList{hulHandle}, ulAddr, ulLast))
            MM_DropRunIndex(hulHandle);
}

void MM_RecheckRunIndexes(void)
{
    for (U32 hulHandle = 0; hulHandle < MAX_SEGTABLE_SIZE; ++hulHandle)
        if (!MM_RunIndexAgrees(hulHandle))
            MM_DropRunIndex(hulHandle);
}

/* Settings and queries ------------------------------------------------------------------------------ */

void MM_UseRunIndex(BOOL fUse)
{
    fNoIndex = !fUse;
}

BOOL MM_HasRunIndex(U32 hulHandle)
{
    return astRunIndex[hulHandle].enState != INDEX_NONE;
}

BOOL MM_IsRunIndexAwake(U32 hulHandle)
{
    return astRunIndex[hulHandle].enState == INDEX_AWAKE;
}

BOOL MM_RunIndexAgrees(U32 hulHandle)
{
    return !MM_IsRunIndexAwake(hulHandle) || astRunIndex[hulHandle].clTables.Agree(TMMRunList{hulHandle});
}
