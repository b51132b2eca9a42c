/*
 * MM_Guard.h - the guarded build: a manager that survives its callers. Whatever commands they send and whatever they write
 * into memory that they have mapped, no block is handed out twice, none is lost, and nothing outside the managed area is
 * touched. docs/security.md says what holds, and which test holds it.
 *
 * The same source makes both builds. MM_GUARDED is defined for the guarded one; MM_Guarded says so to the core, which
 * uses it in two ways only: MM_GUARD(verb, value) leaves an entry where a rule is broken, and
 * "if constexpr (MM_Guarded)" hands an entry over to the guard. In the default build neither leaves any code
 * (tests/objects/same_default.sh). Each stands at an entry: of the device (MM_GuardCommand for all commands, open, release, mapping,
 * load and unload), of the calls by handle, of the allocators and release routines, of the nodes of the free-memory list.
 *
 * The truth lies in kernel memory that no mapping reaches: which blocks are allocated (MM_BlockBits.h), where the free runs
 * are (MM_FreeRuns.h), the list of free memory (MM_GuardCreate). The lists and owner maps in managed memory are
 * written as in the default build, for those who read them, and are never followed. Where they disagree with the truth,
 * they are made again from it.
 *
 * Locking: search_lock guards the blocks of all segments, allocation and release alike, whatever ubSemaphore says.
 */
#ifndef MM_GUARD_H
#define MM_GUARD_H

#include "../mm/MM_Core.h"

#ifdef MM_GUARDED
constexpr bool MM_Guarded = true;
#else
constexpr bool MM_Guarded = false;
#endif

/* In the guarded build: leaves the function with the value (none: void) unless the verb is true. The verb reports. */
#define MM_GUARD(verb, ...)         \
    do {                            \
        if constexpr (MM_Guarded) { \
            if (!(verb))            \
                return __VA_ARGS__; \
        }                           \
    } while (0)

/* Why something was refused or mended: the text of its line is in MM_GuardReport. */
enum EMMReason : U8 {
    NOT_ALLOCATED,   /* a release, a fill or a mark of blocks that are not allocated, not whole or not the segment's */
    NOTHING_ASKED,   /* an allocation of no blocks */
    WIDE_OWNER,      /* an owner that the map's entries cannot hold */
    CLAIM_OUTSIDE,   /* a claim that does not lie inside one free run */
    NOT_LAST_PUSHED, /* a pop of something else than what was pushed last, or of more than is there */
    BAD_HANDLE,      /* a handle or selector beyond its table */
    SMALL_HEAP_BLOCKS, /* an overflow that would give fewer bytes than were asked for */
    BAD_LAYOUT,        /* a segment whose sizes, block size, alignment or map cannot be laid out */
    NO_KERNEL_MEMORY,  /* no room for a segment's bits */
    NOT_STARTED,       /* a command before the ones that must come first */
    IN_USE,            /* a start while another descriptor is open or blocks are allocated */
    BAD_OPTION,        /* a start option that there is not */
    BAD_FILL,          /* a fill that leaves allocated blocks and fixed segments */
    BAD_MAPPING,       /* a mapping that leaves the managed area */
    BAD_AREA,          /* an area that is no stretch of RAM */
    BAD_ROW,           /* a fixed segment that leaves the area or overlaps another one */
    NEVER_CALLED,      /* an entry that breaks the tables */
    REBUILT,           /* a list or an owner map that disagreed with the blocks */
    REASON_NUM
};

/* Addresses from ulStart up to ulEnd. */
struct TMMFreeMemory {
    U32 ulStart, ulEnd;
};

extern "C" {
/* One line on the kernel log: the reason, the segment, an address, a count. Each reason's first lines are all
 * printed, later ones more and more seldom. Sleeps: no. */
void MM_GuardReport(EMMReason enReason, U32 hulHandle, U32 ulAddr, U32 ulCount);

/* Blocks (MM_GuardBlocks). Handles are 0 to 49 and refer to linked-list segments that were opened; others have no blocks. */

/* As MM_AllocBlk: the highest free run that is long enough, cut at its high end. Null when there is none, or for an owner
 * that the map cannot hold. */
U8* MM_GuardedAllocBlk(U32 hulHandle, U32 ulReqBlkNum, U8 ubMapID);
/* As MM_FreeBlk: ENOERR, or EASSERT with nothing changed unless the blocks are allocated, whole and the segment's. */
U32 MM_GuardedFreeBlk(U32 hulHandle, U8* pubRlsAddr, U32 ulBlkNo);
/* As MM_ReallocBlock: ENOERR, or EASSERT with nothing changed unless the blocks lie inside one free run. */
U32 MM_GuardedClaim(U32 hulHandle, U8* pubAddr, U32 ulBlkNum);
/* As MM_CleanUp: only allocated blocks go. */
void MM_GuardedCleanUp(U32 hulHandle, U8 ubMapID);
/* As MM_SetMap and MM_ClearMap together: allocated blocks get another owner. False when they are not allocated or the map
 * cannot hold it. */
bool MM_GuardedMark(U32 hulHandle, U32 ulAddr, U32 ulBlkNum, U8 ubMapID);
/* True when the blocks are allocated, whole and the segment's; reports otherwise. */
bool MM_GuardAllocated(U32 hulHandle, U32 ulAddr, U32 ulBlkNum);
/* Longest free run in blocks. */
U32 MM_GuardLargestRun(U32 hulHandle);
/* Free blocks of the heap's piece that begins at an address. */
U32 MM_GuardFreeInPiece(U32 ulStart);
/* Memory was written by a command: lists and maps that lay there are made again. */
void MM_GuardMend(U32 ulAddr, U32 ulBytes);
/* True when every byte is an allocated one of a segment. */
bool MM_GuardHeld(U32 ulAddr, U32 ulBytes);
/* True when any segment has blocks allocated. */
bool MM_GuardAnyAllocated(void);

/* Takes the bits of an initialised segment from the platform, all blocks free. False when there is no memory. */
bool MM_GuardOpen(U32 hulHandle);
/* Gives back the bits of a segment, or of all. May sleep. */
void MM_GuardClose(U32 hulHandle);
void MM_GuardCloseAll(void);
/* False when a segment's tables disagree with its bits: never, see MM_CHECK_RUN_INDEX. */
BOOL MM_GuardAgrees(U32 hulHandle);

/* Stacks (MM_GuardStack): as MM_Push and MM_Pop, nothing changed when refused. */
U8* MM_GuardedPush(U32 hulHandle, U32 ulReqBlkNum);
U32 MM_GuardedPop(U32 hulHandle, U8* pubRlsAddr, U32 ulBlkNo);
/* True when every byte was pushed on a stack. */
bool MM_GuardPushed(U32 ulAddr, U32 ulBytes);

/* Creation and start-up (MM_GuardCreate) */

/* A node of the free-memory list, from kernel memory. Of an address that is no node: zeros, and writes to it are lost. */
TMMBlkStr* MM_GuardNext(const TMMBlkStr* pstNode);
TMMBlkStr* MM_GuardBack(const TMMBlkStr* pstNode);
U32 MM_GuardSize(const TMMBlkStr* pstNode);
void MM_GuardSetNode(TMMBlkStr* pstNode, U32 ulOffset, U32 ulValue);

/* Runs a creation; when a rule refuses it, nothing is consumed. */
U32 MM_GuardedCreate(TSegInfoFromApp* pstInfoFromApp, U32 (*pfnCreate)(TSegInfoFromApp*));
/* A placed segment's layout before anything is written; of the heap, of all pieces. */
bool MM_GuardAccepts(const TMMSegInfo& stSegInfo);
/* MM_GuardOpen for the segment that is being created. */
bool MM_GuardEstablish(U32 hulHandle);

bool MM_GuardMayBuildMCT(TMMInitOption enInitOption);
/* The library starts, if it may: the free-memory list is forgotten, and the segments' bits are given back. */
bool MM_GuardStart(TStartOption enStartOption);
/* Memory that is free when no segment is there: behind the fixed segments, as far as the next one or the area's end. It starts at
 * 0 when there is none, or when there is a segment; otherwise the library has started. */
TMMFreeMemory MM_GuardFreeMemory(void);
/* The module goes, or a simulated machine is switched on: everything is forgotten and given back. */
void MM_GuardReset(void);
void MM_GuardOpened(void);
void MM_GuardReleased(void);

/* Rules on arguments (MM_GuardRules) */
bool MM_GuardBadHandle(U32 hulHandle); /* reports it; false */
inline bool MM_GuardHandle(U32 hulHandle)
{
    return hulHandle < MAX_SEGTABLE_SIZE || MM_GuardBadHandle(hulHandle); /* 0 to 49 */
}
bool MM_GuardSelector(U32 ulSelector); /* of the display */
bool MM_GuardHasMCT(void);
bool MM_GuardOverflow(U32 hulHandle, U32 ulReqBlkNo);
/* Before a command is run: whether it may be, by its record. */
bool MM_GuardCommand(U32 ulCmd, const void* pvRecord);
bool MM_GuardMapping(U32 ulPgOff, U32 ulBytes);
bool MM_GuardArea(U32 ulStart, U32 ulEnd);
bool MM_GuardRow(U32 ulStart, U32 ulBytes);
bool MM_GuardNever(void);
/* Lines are counted from the beginning. */
void MM_GuardForgetReports(void);
}

#endif
