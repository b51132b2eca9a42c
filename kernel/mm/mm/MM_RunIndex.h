/*
 * MM_RunIndex.h - an index over a segment's free runs, so that allocation and release need not walk the list.
 *
 * The segment's address range is cut into chunks of a power-of-two number of blocks. For each chunk a static
 * table holds the run that starts highest in it and the size of the longest run that starts in it, in a byte;
 * a tree of maxima over the bytes leads to the highest chunk with a run that is long enough. From there on the
 * list itself is read, at most one chunk's worth of it. Sizes that a byte cannot hold stand in a second such tree,
 * of whole words over groups of chunks. The tables are a megabyte in all, shared by the segments in the order of
 * their creation: a chunk is 32 blocks where there is room, more in large segments of small blocks.
 *
 * A list of a few runs is walked faster than any index is kept, so an index sleeps, its tables empty, until its segment
 * has more than WAKE_RUNS free runs, and again when they are fewer than SLEEP_RUNS.
 *
 * The list is the truth. The index is kept only while a segment does ordinary things; whatever it is not
 * made for drops it, and the segment walks its list until it is initialised again:
 *   - blocks below 16 bytes, where the headers of neighbouring runs share bytes;
 *   - a release that overlaps a free run or reaches past its range;
 *   - a claim at a chosen address that leaves links behind that do not agree (MM_ReallocBlock);
 *   - a header that is overwritten, as far as the manager sees it (fills, clears, owner entries outside
 *     the map, other segments laid over this one);
 *   - a list whose ends were moved by others, a chunk that does not hold what the index says.
 *
 * Locking: as the run lists themselves; an index belongs to its segment.
 */
#ifndef MM_RUNINDEX_H
#define MM_RUNINDEX_H

#include "MM_Heap.h"
#include "MM_List.h"
#include "MM_MaxTree.h"

extern "C" {
/* FALSE: segments that are initialised from now on walk their lists. TRUE is the state at load. */
void MM_UseRunIndex(BOOL fUse);

/* Gives back all tables: the library starts afresh. */
void MM_ResetRunIndexes(void);

/* Gives an initialised segment new tables and fills them from its list. A segment that cannot be indexed has no index
 * afterwards, nor have segments whose memory it shares. */
void MM_BuildRunIndex(U32 hulHandle);

/* Fills a segment's tables anew after its list was changed by other means; drops the index when the list is no
 * ordinary one. Nothing for a segment without an index. */
void MM_RefillRunIndex(U32 hulHandle);

/* The segment walks its list from now on. */
void MM_DropRunIndex(U32 hulHandle);

/* True while a segment's index is kept, asleep or awake. */
BOOL MM_HasRunIndex(U32 hulHandle);

/* True when a kept index and the list agree in everything. */
BOOL MM_RunIndexAgrees(U32 hulHandle);

/* Somebody wrote ulBytes at ulAddr other than through a run list: drops the indexes of the segments that have a run's
 * header there. */
void MM_MemoryWritten(U32 ulAddr, U32 ulBytes);

/* Drops every index that does not agree with its list: after control operations that write free memory. */
void MM_RecheckRunIndexes(void);
}

/* Debug builds (MM_CHECK_RUN_INDEX) stop where an index and its list disagree after an operation. */
inline void MM_CheckRunIndex([[maybe_unused]] U32 hulHandle)
{
#ifdef MM_CHECK_RUN_INDEX
    if (!MM_RunIndexAgrees(hulHandle))
        __builtin_trap();
#endif
}

/* Owner entries were written from byte ulFirst up to byte ulLast of a map: what lay outside the map was other memory. */
inline void MM_MapWritten(const TMMRange& stRange, U32 ulFirst, U32 ulLast)
{
    if (ulFirst < MM_Addr(stRange.pubMapStartAddr) || ulLast >= MM_Addr(stRange.pubMapEndAddr))
        MM_MemoryWritten(ulFirst, ulLast - ulFirst + 1);
}

/* Fills memory that may hold anything, free runs included. */
inline void MM_FillMemory(U8* pubAddr, U8 ubByte, U32 ulBytes)
{
    MM_MemoryWritten(MM_Addr(pubAddr), ulBytes);
    MMP_MemSet(pubAddr, ubByte, ulBytes);
}

/* The index itself --------------------------------------------------------------------------------- */

using TMMShortTree = CMMMaxTree<CMMByteNode>;
using TMMLongTree = CMMMaxTree<CMMWordNode>;
constexpr U32 LONG_RUN = CMMByteNode::LARGEST;

enum EMMIndexState : U8 {
    INDEX_NONE, /* the segment walks its list until it is initialised again */
    INDEX_ASLEEP,
    INDEX_AWAKE /* the tables are filled and used */
};

struct TMMRunIndex {
    EMMIndexState enState;
    U8 ubChunkBit; /* log2 of a chunk's bytes */
    U8 ubBlkBit;
    U32 ulStart; /* first address of the segment's blocks, of its lowest piece for the heap */
    U32 ulEnd;   /* past the last one */
    U32 ulChunks;
    U32 ulRuns; /* free runs */
    const TMMBlkStr*
        pstHead; /* the list's ends when the index last saw it, awake: a list with others is not its list */
    const TMMBlkStr* pstTail;
    U32* pulTop;          /* for each chunk: the run that starts highest in it, 0 when none does */
    TMMShortTree clShort; /* for each chunk: size of the longest run that starts in it, blocks, LONG_RUN at the most */
    TMMLongTree clLong;   /* for each group of chunks: the same, in full, if it is LONG_RUN or more; else 0 */
};

constexpr U32 WAKE_RUNS = 24;
constexpr U32 SLEEP_RUNS = 12;

extern TMMRunIndex astRunIndex[MAX_SEGTABLE_SIZE];

/* The segment's index when it may be asked: kept, awake, and the list's ends are those that it knows. Null
 * otherwise: the list is walked. */
inline TMMRunIndex* MM_AwakeRunIndex(U32 hulHandle)
{
    TMMRunIndex& stIndex = astRunIndex[hulHandle];
    if (stIndex.enState != INDEX_AWAKE)
        return nullptr;
    if (stIndex.pstHead == astBlkHead[hulHandle].pstBlk && stIndex.pstTail == astBlkTail[hulHandle].pstBlk)
        return &stIndex;
    stIndex.enState = INDEX_NONE;
    return nullptr;
}

/* Size of the longest run, 0 without any. */
inline U32 MM_IndexedLargest(const TMMRunIndex& stIndex)
{
    const U32 ulLong = stIndex.clLong.Max();
    return ulLong != 0 ? ulLong : stIndex.clShort.Max();
}

/* Blocks that the next allocation can get in one piece: of a list the longest run, of a stack all that is left. */
inline U32 MM_LargestFree(U32 hulHandle)
{
    if (stSegTable[hulHandle].stInfoFromApp.ubSegDSType == STACK) {
        const TStackStr& stStack = astStackStr[hulHandle];
        return (MM_Addr(stStack.pubStackHead) - MM_Addr(stStack.pubStackTail)) >> stSegTable[hulHandle].ubBlkBit;
    }
    if (const TMMRunIndex* const pstIndex = MM_AwakeRunIndex(hulHandle))
        return MM_IndexedLargest(*pstIndex);
    return MM_LargestSize(astBlkHead[hulHandle].pstBlk);
}

/* Larger requests, and those of 0 blocks, are the walk's: it compares as signed numbers. */
constexpr U32 MAX_INDEXED_REQUEST = 0x7FFFFFFF;

/* The highest run of at least ulReqBlkNum blocks (1 to MAX_INDEXED_REQUEST), null when there is none. When the index is
 * found wrong it is dropped, and the result says nothing. */
TMMBlkStr* MM_IndexedRun(TMMRunIndex& stIndex, U32 ulReqBlkNum);

/* The free runs on either side of a place. */
struct TMMNeighbours {
    TMMBlkStr* pstLower; /* the highest run that starts at or below it, or null */
    TMMBlkStr* pstUpper; /* the lowest run that starts above it, or null */
};

/* The neighbours of ulBlkNo blocks at ulAddr. The index is dropped, and the result says nothing, when the blocks are
 * no piece of allocated memory between two runs (a run that starts exactly at ulAddr is left to the caller). */
TMMNeighbours MM_IndexedNeighbours(TMMRunIndex& stIndex, U32 ulAddr, U32 ulBlkNo);

/* What the index does about a changed list; for an index that is awake. */
void MM_EnterRun(U32 hulHandle, TMMRunIndex& stIndex, const TMMBlkStr* pstRun);
void MM_ShortenRun(TMMRunIndex& stIndex, const TMMBlkStr* pstRun, U32 ulOldSize);
void MM_RemoveRun(U32 hulHandle, TMMRunIndex& stIndex, const TMMBlkStr* pstRun, U32 ulOldSize, TMMBlkStr* pstLower);
void MM_MoveRun(U32 hulHandle, TMMRunIndex& stIndex, TMMBlkStr* pstRun, const TMMBlkStr* pstOld, U32 ulOldSize);
/* Fills an index that sleeps. */
void MM_WakeRunIndex(U32 hulHandle, TMMRunIndex& stIndex);

/* The list was changed; a segment whose index sleeps only counts its runs. */

/* A run is new. */
inline void MM_IndexRunAdded(U32 hulHandle, TMMBlkStr* pstRun)
{
    TMMRunIndex& stIndex = astRunIndex[hulHandle];
    ++stIndex.ulRuns;
    if (stIndex.enState == INDEX_AWAKE)
        MM_EnterRun(hulHandle, stIndex, pstRun);
    else if (stIndex.enState == INDEX_ASLEEP && stIndex.ulRuns > WAKE_RUNS)
        MM_WakeRunIndex(hulHandle, stIndex);
}

/* A run is longer. */
inline void MM_IndexRunGrown(U32 hulHandle, TMMBlkStr* pstRun)
{
    TMMRunIndex& stIndex = astRunIndex[hulHandle];
    if (stIndex.enState == INDEX_AWAKE)
        MM_EnterRun(hulHandle, stIndex, pstRun);
}

/* A run is shorter than its old size. */
inline void MM_IndexRunShrunk(U32 hulHandle, const TMMBlkStr* pstRun, U32 ulOldSize)
{
    TMMRunIndex& stIndex = astRunIndex[hulHandle];
    if (stIndex.enState == INDEX_AWAKE)
        MM_ShortenRun(stIndex, pstRun, ulOldSize);
}

/* A run was taken out (pstLower: the run that now lies below its place, or null). */
inline void MM_IndexRunRemoved(U32 hulHandle, const TMMBlkStr* pstRun, U32 ulOldSize, TMMBlkStr* pstLower)
{
    TMMRunIndex& stIndex = astRunIndex[hulHandle];
    --stIndex.ulRuns;
    if (stIndex.enState == INDEX_AWAKE)
        MM_RemoveRun(hulHandle, stIndex, pstRun, ulOldSize, pstLower);
}

/* The run at pstOld begins lower than before, at pstRun, and is longer. */
inline void MM_IndexRunMoved(U32 hulHandle, TMMBlkStr* pstRun, const TMMBlkStr* pstOld, U32 ulOldSize)
{
    TMMRunIndex& stIndex = astRunIndex[hulHandle];
    if (stIndex.enState == INDEX_AWAKE)
        MM_MoveRun(hulHandle, stIndex, pstRun, pstOld, ulOldSize);
}

#endif
