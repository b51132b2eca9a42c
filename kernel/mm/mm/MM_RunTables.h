/*
 * MM_RunTables.h - the tables of a run index: where in a list of free runs the highest one of a size lies, which runs
 * are next to a place, and how long the longest run is.
 *
 * The address range of the list is cut into chunks of a power-of-two number of blocks. For each chunk a table holds the
 * run that starts highest in it and the size of the longest run that starts in it, in a byte; a tree of maxima over the
 * bytes leads to the highest chunk with a run that is long enough. From there on the list itself is read, at most one
 * chunk's worth of it, eight for a long run. Sizes that a byte cannot hold stand in a second such tree, of whole words over groups of chunks.
 *
 * The tables are right as long as they hear of every change to the list, once it is made; each kind of change is a verb
 * below. When that may be relied on is MM_RunIndex's business: the tables know no segment, no state and no lock, and
 * own no storage.
 */
#ifndef MM_RUNTABLES_H
#define MM_RUNTABLES_H

#include "MM_List.h"
#include "MM_MaxTree.h"

/* Addresses from ulStart up to ulEnd. */
struct TMMSpan {
    U32 ulStart, ulEnd;
};

/* The free runs on either side of a place. */
struct TMMNeighbours {
    TMMBlkStr* pstLower; /* the highest run that starts at or below it, or null */
    TMMBlkStr* pstUpper; /* the lowest run that starts above it, or null */
};

/* In place of a run: the tables do not know, and the list is to be asked. */
inline TMMBlkStr* MM_UnknownRun()
{
    return MM_At<TMMBlkStr>(0xFFFFFFFF);
}

class CMMRunTables
{
public:
    /* Cuts a span of blocks, which is not empty, into the smallest chunks (CHUNK_BLK_BIT at the least) whose tables
     * take at most ulWords words, and takes them from pulStorage. The words taken; 0 when no chunk is large enough. */
    U32 Place(TMMSpan stSpan, U8 ubBlkBit, U32* pulStorage, U32 ulWords);

    /* Empties placed tables, whatever they hold; a write to each of their words. */
    void Clear();
    /* Fills empty tables with a list's runs; counts the runs. False when the list is no ordinary one: inside the span,
     * ascending, not overlapping, linked both ways, head to tail. Then the tables say nothing. */
    bool Fill(TMMRunList stList, U32* pulRuns);
    /* Empties tables that agree with a list, by that list. False when the list is no ordinary one. */
    bool Empty(TMMRunList stList);
    /* True when the list is ordinary and the tables hold its runs and nothing else. */
    bool Agree(TMMRunList stList) const;

    /* Size of the longest run in blocks, 0 without any. */
    U32 Largest() const
    {
        const U32 ulLong = clLong.Max();
        return ulLong != 0 ? ulLong : clShort.Max();
    }

    /* The highest run of at least ulReqBlkNum blocks (any run for 0), null when there is none. Not known: requests beyond
     * MAX_REQUEST, which the walk compares as signed numbers; a chunk that does not hold what the tables say. */
    TMMBlkStr* Find(U32 ulReqBlkNum) const;
    static constexpr U32 MAX_REQUEST = 0x7FFFFFFF;

    /* The neighbours of ulBlkNo blocks at an address of the span. Not known, with an unknown lower one: blocks that are no
     * piece of allocated memory between two runs. A run that starts exactly at ulAddr is known, as the lower one. */
    TMMNeighbours Neighbours(TMMRunList stList, U32 ulAddr, U32 ulBlkNo) const;

    /* True when a run's header lies, in whole or in part, in [ulFirst, ulLast]. */
    bool HoldHeaderIn(TMMRunList stList, U32 ulFirst, U32 ulLast) const;

    /* A run is new. */
    void Added(const TMMBlkStr* pstRun);
    /* A run is longer than before. */
    void Grown(const TMMBlkStr* pstRun);
    /* A run is shorter than its old size. */
    void Shrunk(const TMMBlkStr* pstRun, U32 ulOldSize);
    /* A run of that size is gone; pstLower is the run that now lies below its place, or null. */
    void Removed(const TMMBlkStr* pstRun, U32 ulOldSize, TMMBlkStr* pstLower);
    /* The run of that size at pstOld begins lower than before, at pstRun, and is longer. */
    void Moved(TMMBlkStr* pstRun, const TMMBlkStr* pstOld, U32 ulOldSize);

private:
    using TMMShortTree = CMMMaxTree<CMMByteNode>;
    using TMMLongTree = CMMMaxTree<CMMWordNode>;
    static constexpr U32 LONG_RUN = CMMByteNode::LARGEST;
    static constexpr U8 CHUNK_BLK_BIT = 5; /* a chunk has 32 blocks, 16 runs at the most, where there is room */
    static constexpr U32 GROUP_CHUNKS =
        8; /* long runs are kept for every eight chunks: that is one where there is room */

    template <class TVisit> bool VisitRuns(TMMRunList stList, TVisit fnVisit) const;
    TMMNeighbours Around(TMMRunList stList, U32 ulAddr) const;
    U32 Groups() const { return (ulChunks + GROUP_CHUNKS - 1) / GROUP_CHUNKS; }
    U32 ChunkOf(U32 ulAddr) const { return (ulAddr - stSpan.ulStart) >> ubChunkBit; }
    bool IsInChunk(const TMMBlkStr* pstRun, U32 ulChunk) const { return ChunkOf(MM_Addr(pstRun)) == ulChunk; }
    U32 LongestOfChunk(U32 ulChunk) const;
    U32 LongestOfGroup(U32 ulGroup) const;
    U32 LastLongOfGroup(U32 ulGroup, U32 ulSize) const;
    void Enter(const TMMBlkStr* pstRun, U32 ulSize);
    void Leave(U32 ulChunk, U32 ulOldSize);

    U8 ubChunkBit; /* log2 of a chunk's bytes */
    U8 ubBlkBit;
    TMMSpan stSpan;
    U32 ulChunks;
    U32* pulTop;          /* for each chunk: the run that starts highest in it, 0 when none does */
    TMMShortTree clShort; /* for each chunk: size of the longest run that starts in it, blocks, LONG_RUN at the most */
    TMMLongTree clLong;   /* for each group of chunks: the same, in full, if it is LONG_RUN or more; else 0 */
};

#endif
