/*
 * MM_RunIndex.h - for each segment, whether its free runs are found through tables or by walking the list. Both give
 * the same answers; the tables (MM_RunTables.h) give them in a few steps.
 *
 * The list is the truth. An index has one of three states, and one function changes it (MM_SetIndexState):
 *
 *   state         tables                  questions are answered by
 *   INDEX_NONE    none                    walking the list, until the segment is initialised again
 *   INDEX_ASLEEP  placed, nothing in them walking the list: of a few runs it is faster than any index; runs are counted
 *   INDEX_AWAKE   agree with the list     the tables
 *
 *   from    to       when
 *   any     asleep   MM_BuildRunIndex, of a list of up to WAKE_RUNS runs; MM_RefillRunIndex the same, but not from none
 *   any     awake    the same, of more runs
 *   asleep  awake    MM_RunAdded, more than WAKE_RUNS runs
 *   awake   asleep   MM_RunRemoved, fewer than SLEEP_RUNS runs
 *   awake   none     MM_OpenRunIndex, the list's ends were moved by others
 *                    an allocator or release routine asked and the tables did not know: a request beyond MAX_REQUEST,
 *                    a release that overlaps a free run or passes the span's end, a chunk that holds something else
 *                    MM_MemoryWritten, a header was overwritten (fills, clears, owner entries outside the map)
 *                    MM_RecheckRunIndexes, a list that does not agree any more
 *   any     none     filling or emptying the tables, when the list is no ordinary one (MM_RunTables.h)
 *                    MM_BuildRunIndex, first of all, and at last where a segment cannot be indexed: blocks below 16
 *                    bytes, where the headers of neighbouring runs share bytes; stacks; memory shared with another
 *                    segment, which then loses its own as well; no room in the pool; MM_UseRunIndex(FALSE)
 *                    MM_DropRunIndex, MM_ResetRunIndexes
 *
 * The tables are a megabyte in all, shared by the segments in the order of their creation.
 *
 * Locking: an index belongs to its segment and is changed under whatever guards that segment's list. Fills, clears,
 * creation and start-up look at every index without a lock, as they write memory without one: they are the control path's
 * (MM.h), and where they meet an allocation on another processor, the list is as open to it as the index.
 */
#ifndef MM_RUNINDEX_H
#define MM_RUNINDEX_H

#include "MM_Memory.h"
#include "MM_RunTables.h"

extern "C" {
/* FALSE: segments that are initialised from now on walk their lists. TRUE is the state at load. */
void MM_UseRunIndex(BOOL fUse);

/* Gives back all tables: the library starts afresh. */
void MM_ResetRunIndexes(void);

/* Gives an initialised segment new tables and fills them from its list. A segment that cannot be indexed has no index
 * afterwards, nor have segments whose memory it shares. */
void MM_BuildRunIndex(U32 hulHandle);

/* Begins anew from a segment's list after that was changed by other means. Nothing for a segment without an index. */
void MM_RefillRunIndex(U32 hulHandle);

/* The segment walks its list from now on. */
void MM_DropRunIndex(U32 hulHandle);

/* True while a segment's index is kept, asleep or awake; the second, while it is awake. */
BOOL MM_HasRunIndex(U32 hulHandle);
BOOL MM_IsRunIndexAwake(U32 hulHandle);

/* False when an index that is awake and its list disagree in anything. */
BOOL MM_RunIndexAgrees(U32 hulHandle);
}

/* Builds with MM_CHECK_RUN_INDEX (the sanitizers' and the fuzzer's) stop where an index and its list disagree after an
 * operation. */
inline void MM_CheckRunIndex([[maybe_unused]] U32 hulHandle)
{
#ifdef MM_CHECK_RUN_INDEX
    if (!MM_RunIndexAgrees(hulHandle))
        __builtin_trap();
#endif
}

/* The index itself --------------------------------------------------------------------------------- */

enum EMMIndexState : U8 { INDEX_NONE, INDEX_ASLEEP, INDEX_AWAKE };

constexpr U32 WAKE_RUNS = 24;
constexpr U32 SLEEP_RUNS = 12;

struct TMMRunIndex {
    EMMIndexState enState;
    U32 hulHandle; /* of its segment, once it has been built */
    U32 ulRuns;    /* free runs */
    /* The list's ends when the index last saw it, awake: a list with others is not its list. */
    const TMMBlkStr* pstHead;
    const TMMBlkStr* pstTail;
    CMMRunTables clTables;
};

extern TMMRunIndex astRunIndex[MAX_SEGTABLE_SIZE];

/* Enters a state: fills the tables, empties them, or leaves them be. A list that is no ordinary one ends at
 * INDEX_NONE. */
void MM_SetIndexState(TMMRunIndex& stIndex, EMMIndexState enState);

inline bool MM_KnowsEnds(const TMMRunIndex& stIndex, U32 hulHandle)
{
    return stIndex.pstHead == astBlkHead[hulHandle].pstBlk && stIndex.pstTail == astBlkTail[hulHandle].pstBlk;
}

inline void MM_NoteEnds(TMMRunIndex& stIndex)
{
    stIndex.pstHead = astBlkHead[stIndex.hulHandle].pstBlk;
    stIndex.pstTail = astBlkTail[stIndex.hulHandle].pstBlk;
}

/* The segment's index for an operation that changes its list. Awake, its tables may be asked. */
inline TMMRunIndex& MM_OpenRunIndex(U32 hulHandle)
{
    TMMRunIndex& stIndex = astRunIndex[hulHandle];
    if (stIndex.enState == INDEX_AWAKE && !MM_KnowsEnds(stIndex, hulHandle))
        MM_SetIndexState(stIndex, INDEX_NONE);
    return stIndex;
}

/* Size of a list's longest run in blocks, 0 without any. A query: it walks where the ends were moved, and changes no
 * state. */
inline U32 MM_LargestRun(U32 hulHandle)
{
    const TMMRunIndex& stIndex = astRunIndex[hulHandle];
    if (stIndex.enState == INDEX_AWAKE && MM_KnowsEnds(stIndex, hulHandle))
        return stIndex.clTables.Largest();
    return MM_LargestSize(astBlkHead[hulHandle].pstBlk);
}

/* What happened to the list of an opened index, once it has happened. The arguments are those of the tables' verb of
 * the same name; an index that sleeps only counts its runs. */

inline void MM_RunAdded(TMMRunIndex& stIndex, const TMMBlkStr* pstRun)
{
    ++stIndex.ulRuns;
    if (stIndex.enState == INDEX_AWAKE) {
        stIndex.clTables.Added(pstRun);
        MM_NoteEnds(stIndex);
    } else if (stIndex.enState == INDEX_ASLEEP && stIndex.ulRuns > WAKE_RUNS) {
        MM_SetIndexState(stIndex, INDEX_AWAKE);
    }
}

inline void MM_RunGrown(TMMRunIndex& stIndex, const TMMBlkStr* pstRun)
{
    if (stIndex.enState == INDEX_AWAKE) {
        stIndex.clTables.Grown(pstRun);
        MM_NoteEnds(stIndex);
    }
}

inline void MM_RunShrunk(TMMRunIndex& stIndex, const TMMBlkStr* pstRun, U32 ulOldSize)
{
    if (stIndex.enState == INDEX_AWAKE)
        stIndex.clTables.Shrunk(pstRun, ulOldSize);
}

inline void MM_RunRemoved(TMMRunIndex& stIndex, const TMMBlkStr* pstRun, U32 ulOldSize, TMMBlkStr* pstLower)
{
    --stIndex.ulRuns;
    if (stIndex.enState == INDEX_AWAKE) {
        stIndex.clTables.Removed(pstRun, ulOldSize, pstLower);
        MM_NoteEnds(stIndex);
        if (stIndex.ulRuns < SLEEP_RUNS)
            MM_SetIndexState(stIndex, INDEX_ASLEEP);
    }
}

inline void MM_RunMoved(TMMRunIndex& stIndex, TMMBlkStr* pstRun, const TMMBlkStr* pstOld, U32 ulOldSize)
{
    if (stIndex.enState == INDEX_AWAKE) {
        stIndex.clTables.Moved(pstRun, pstOld, ulOldSize);
        MM_NoteEnds(stIndex);
    }
}

#endif
