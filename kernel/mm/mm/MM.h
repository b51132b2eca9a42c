/*
 * MM.h - the memory manager's records and the entries that other kernel code calls. C and C++.
 *
 * One contiguous area is cut into at most 50 segments; a segment is named by its handle, the index of
 * its entry in stSegTable: 0 to 4 fixed, 5 to 48 float, 49 (HEAPHANDLE, also HEAPHANDLE_ALIAS where an
 * entry says so) the heap. A segment hands out whole blocks. Addresses are kernel virtual addresses.
 *
 * Calling order: module load, MM_Entry, MM_LibEntry, MM_CreateSegment; then everything else.
 *
 * Failure: a failed check prints one "Assertion failed!" line on the kernel log and the entry returns
 * EASSERT (14), or all ones where the result is an address, unless its comment says otherwise. Nothing is
 * rolled back.
 *
 * Locking: allocation and release may be called from any context, for segments with ubSemaphore YES;
 * they take one spin lock each with interrupts off, and so does each release that a clean-up makes. Everything else
 * takes no lock and belongs on the control path, one call at a time.
 */
#ifndef MM_H
#define MM_H

#include <velmora_mm/velmora_mm.h>

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif
#ifndef NULL
#ifdef __cplusplus
#define NULL nullptr
#else
#define NULL ((void*)0)
#endif
#endif

/* Allocator of a segment: (handle, blocks, owner ID); address of the first block, 0 when nothing fits. */
typedef U8* (*TMMAllocRoutine)(U32, U32, U8);
/* Release routine of a segment: (handle, address, blocks); an error code. */
typedef U32 (*TMMFreeRoutine)(U32, U8*, U32);

/* One entry of the memory segment table (MST), laid out as TMMSegInfoWire.
 * In the heap's entry the four addresses refer to THeapAddrRange arrays, one element for each piece. */
typedef struct {
    TSegInfoFromApp stInfoFromApp;
    U8 ubBlkBit; /* log2 of the block size, rounded down; also the unit of all block arithmetic */
    U8 aubPad[3];
    U8* pubStartAddr;         /* first block */
    U8* pubEndAddr;           /* past the last block */
    U8* pubMapStartAddr;      /* owner map, 0 when there is none */
    U8* pubMapEndAddr;        /* past the owner map */
    U32 ulSemID;              /* read by nothing */
    U32 ulTotalBlkNum;        /* blocks */
    U32 ulTotalAllocBlkNum;   /* blocks */
    U32 ulTotalFreeBlkNum;    /* blocks; free plus allocated is the total */
    U32 ulLargestBlkSize;     /* longest free run, blocks */
    U32 ulRealAvailSize;      /* usable bytes */
    TMMAllocRoutine pfnAlloc; /* both set once the segment serves allocations */
    TMMFreeRoutine pfnFree;
} TMMSegInfo;

/* One row of the memory configuration table (MCT): a fixed segment. An empty row is named " ". */
typedef struct {
    U8 aubCFGID[4];   /* name, not terminated */
    U32 ulSize;       /* bytes */
    U8* pubStartAddr; /* 0 until placed */
} TMCTInfo;

/* Summary of a segment. */
typedef struct {
    U32 ulBlkSize;      /* bytes */
    U32 ulTotalSegsize; /* bytes */
    U8* pubStartSegAddr;
    U8* pubEndSegAddr;
} TMSTInfo;

/* A name found in the MCT. */
typedef struct {
    U8* pubStartAddr;
    U8* pubEndAddr;
    U32 ulMCTIDX;     /* row */
    U32 ulRetSegSize; /* bytes */
} TSegRange;

/* Header of a free stretch, in its own first bytes. Only the first three fields are ever written: a
 * block may be smaller than the record. Block sizes are the applications' choice, so a header may lie
 * at any byte address. */
typedef struct TMMBlkStr {
    struct TMMBlkStr* pstNext; /* next higher stretch, or 0 */
    struct TMMBlkStr* pstBack; /* next lower stretch, or 0 */
    U32 ulSize;                /* bytes in the free-memory list, blocks in a segment's list of free runs */
    U8 aubdata[52];
} __attribute__((packed, may_alias)) TMMBlkStr;

/* One pointer seen five ways. */
typedef union {
    TMMBlkStr* pstBlk;
    U16 auwyisi[2];
    U32 ulyisl;
    U8* pubyiscp;
    U16* puwyisp;
} TMMBcptr;

/* A stack segment: free memory lies between the two, the stack grows down from the segment's end. */
typedef struct {
    U8* pubStackTail; /* lowest address that the stack may reach */
    U8* pubStackHead; /* lowest address handed out */
} TStackStr;

/* One address for each piece of the heap; a start of 0xFFFFFFFF ends the list. */
typedef struct {
    U32 aulHeapAddr[MAX_PIECE_NUM];
} THeapAddrRange;

MM_LAYOUT(sizeof(void*) == 4);
MM_LAYOUT(sizeof(TMMSegInfo) == sizeof(TMMSegInfoWire));
MM_OFFSET(TMMSegInfo, ubBlkBit, 28);
MM_OFFSET(TMMSegInfo, pubStartAddr, 32);
MM_OFFSET(TMMSegInfo, pubEndAddr, 36);
MM_OFFSET(TMMSegInfo, pubMapStartAddr, 40);
MM_OFFSET(TMMSegInfo, pubMapEndAddr, 44);
MM_OFFSET(TMMSegInfo, ulSemID, 48);
MM_OFFSET(TMMSegInfo, ulTotalBlkNum, 52);
MM_OFFSET(TMMSegInfo, ulTotalAllocBlkNum, 56);
MM_OFFSET(TMMSegInfo, ulTotalFreeBlkNum, 60);
MM_OFFSET(TMMSegInfo, ulLargestBlkSize, 64);
MM_OFFSET(TMMSegInfo, ulRealAvailSize, 68);
MM_OFFSET(TMMSegInfo, pfnAlloc, 72);
MM_OFFSET(TMMSegInfo, pfnFree, 76);
MM_LAYOUT(sizeof(TMCTInfo) == sizeof(TMCTInfoWire));
MM_OFFSET(TMCTInfo, ulSize, 4);
MM_OFFSET(TMCTInfo, pubStartAddr, 8);
MM_LAYOUT(sizeof(TMSTInfo) == 16);
MM_OFFSET(TMSTInfo, ulTotalSegsize, 4);
MM_OFFSET(TMSTInfo, pubStartSegAddr, 8);
MM_OFFSET(TMSTInfo, pubEndSegAddr, 12);
MM_LAYOUT(sizeof(TSegRange) == 16);
MM_OFFSET(TSegRange, pubEndAddr, 4);
MM_OFFSET(TSegRange, ulMCTIDX, 8);
MM_OFFSET(TSegRange, ulRetSegSize, 12);
MM_LAYOUT(sizeof(TMMBlkStr) == HEAP_BLOCK_SIZE);
MM_OFFSET(TMMBlkStr, pstBack, 4);
MM_OFFSET(TMMBlkStr, ulSize, 8);
MM_OFFSET(TMMBlkStr, aubdata, 12);
MM_LAYOUT(sizeof(TMMBcptr) == 4);
MM_LAYOUT(sizeof(TStackStr) == 8);
MM_LAYOUT(sizeof(THeapAddrRange) == 20);

#ifdef __cplusplus
extern "C" {
#endif

/* Start-up ---------------------------------------------------------------------------------------- */

/* Lays out the default MCT over the managed area and puts it in use. enInitOption must be
 * MM_CONSTRUCT_DEFAULT_MCT. ENOERR, EASSERT, or EWRONGADDR when the "$MCT" row has no address. */
U32 MM_Entry(TMMInitOption enInitOption);

/* Starts the library afresh: forgets every segment, clears what the start option (SM_BKUP_OK to
 * SM_BKUP_FLASH) says, builds the free-memory list. pfnNVmWriteData is accepted and never called.
 * ENOERR or EASSERT; after a refused option the MST is empty all the same. */
U32 MM_LibEntry(TStartOption enStartOption, void (*pfnNVmWriteData)(void));

/* Builds the free-memory list of one node from the end of the fixed segments to the end of the area or to the
 * first MCT row, in table order, that starts above them. ENOERR or EASSERT. */
U32 MM_ConstructSegLinkedList(void);

/* Never called by the manager: rewrites the words that bound the managed area in a way that the rest does not
 * expect, and stores the default MCT at the MCT area. Always TRUE. */
BOOL MM_IsBrokenDramBackUp(void);

/* Creates the segment that the request in kernel memory describes. On success the request's hulHandle,
 * ulSegSize (bytes placed) and ulRetSegSize (usable bytes) are written; otherwise it is left
 * untouched. A handle taken by a creation that fails is not used again. ENOERR, EASSERT, EERR (a fixed
 * segment's name is missing from the MCT), EOUTOFRANGE (memory that changes between two tests). */
U32 MM_CreateSegment(TSegInfoFromApp* pstInfoFromApp);

/* Allocation -------------------------------------------------------------------------------------- */

/* Allocates at least ulReqBytes (1 or more) from a segment (0 to 49 or the alias) for owner ubMapID: 0 in
 * a segment without a map, 0 or 1 with one bit, 1 to 2^bits - 1 with more. The kernel virtual address; 0
 * when there is no room; 0xFFFFFFFF after a failed check. A segment with ubVM overflows into the heap:
 * the same number of blocks, in the heap's block size, owned by nobody. */
U32 MM_Malloc(U32 hulHandle, U32 ulReqBytes, U8 ubMapID);

/* As MM_Malloc, for a count of the segment's blocks. */
U32 MM_AllocBlock(U32 hulHandle, U32 ulReqBlkNo, U8 ubMapID);

/* Releases ulBytesNo (1 or more) at pubRlsAddr to a segment (0 to 49 or the alias). An address that
 * lies in the heap goes back to the heap whatever block-allocator segment is named. ENOERR, or EASSERT
 * when the request itself is bad; a release that the allocator refuses is on the kernel log only. */
U32 MM_Free(U32 hulHandle, U8* pubRlsAddr, U32 ulBytesNo);

/* As MM_Free, for a count of the segment's blocks. */
U32 MM_FreeBlock(U32 hulHandle, U8* pubRlsAddr, U32 ulBlkNo);

/* 1 when the segment (0 to 49, not checked) serves allocations, else 0. */
U8 MM_CheckSegInitCompleted(U32 hulHandle);

/* TRUE when the address lies in one of the heap's pieces, else 0; 0 before the heap exists. */
BOOL MM_CheckHeapArea(U8* pubAddr);

/* Claims ulReqBlk blocks at an address of the caller's choice inside one free run of a linked-list segment
 * (0 to 48, not checked); never the segment's first address. Takes no lock. ENOERR or EASSERT. */
U32 MM_ReallocBlock(U32 hulHandle, U8* pubReallocAddr, U32 ulReqBlk);

/* Owners ------------------------------------------------------------------------------------------ */

/* Releases the blocks of a segment (0 to 49 or the alias) whose map entries contain the ID: every bit of the ID,
 * shifted to the entry, is set in the entry's byte. So owner 1 takes owner 3's blocks as well, and an ID wider than the
 * entry goes by the bits of its neighbours. A run that reaches the map's start is not released. ENOERR, or EASSERT
 * for a handle out of range; a release that the allocator refuses is on the kernel log only. */
U32 MM_CollectGarbage(U32 hulHandle, U8 ubMapID);

/* Marks ulSize allocated heap blocks at ulBlkPtr as permanent: owner 254. */
void MM_SetPermanentBlk(U32 ulBlkPtr, U32 ulSize);
/* Releases ulSize permanent heap blocks at ulBlkPtr. */
void MM_ReleasePermanentBlk(U32 ulBlkPtr, U32 ulSize);
/* Releases every permanent heap block. */
void MM_RlsAllPermanentBlk(void);
/* Address of the first block made permanent since it was last released; 0 when none. */
U32 MM_GetPermanentStartBlk(void);
/* 1 when all ulSize heap blocks at ulBlkPtr are permanent, 0 when not (or the heap has no map), EASSERT
 * when they lie outside the map. */
U32 MM_CheckPermanentBlk(U32 ulBlkPtr, U32 ulSize);

/* Queries ----------------------------------------------------------------------------------------- */

/* Blocks of a segment (0 to 49 or the alias): all, free, longest free run. 14 for another handle. */
U32 MM_GetTotBlk(U32 hulHandle);
U32 MM_GetTotAvailBlk(U32 hulHandle);
U32 MM_GetLargestBlk(U32 hulHandle);
/* All blocks of a segment (0 to 49, no alias); 14 for another handle. */
U32 MM_GetInitTotBlk(U32 hulHandle);

/* First address of a segment; of the heap (49 or alias) the start of its biggest piece. Not checked. */
U8* MM_GetStartAddrOfSegment(U32 hulHandle);
/* End address of a segment; of the heap (49 or alias) the end of its biggest piece, all ones when it is
 * not a piece's start any more. Not checked. */
U32 MM_GetEndAddrOfSegment(U32 hulHandle);
/* End address of a segment (0 to 48). Not checked. */
U8* MM_GetRCBEnd(U32 hulHandle);

/* Summary of a segment (0 to 49 or the alias), in a record that the next call overwrites; the all-ones
 * pointer on failure. */
TMSTInfo* MM_ReadMST(U32 hulHandle);
/* Copies the entry of a segment (0 to 48): 0, or 255 for another index, with nothing written. */
U8 MM_GetMST(U32 ulIndex, TMMSegInfo* pstSegInfo);
/* Start address and size (bytes; may be null) of a name in the MCT; zeros for an unknown name, which is
 * also reported. */
void MM_ReadMCT(U8* aubCFGID, U32* pubStartAddr, U32* pubSegSize);
/* TRUE when the address lies in the segment (0 to 48, not checked), its end address included; else 0. */
BOOL MM_CheckSegment(U32 hulHandle, U32 ulAddr);
/* Physical address of a kernel virtual address; 14 for 0. The handle is ignored. */
U32 MM_GetPhysAddr(U32 hulHandle, U32 ulStart);
/* Usable and free bytes over all segments. */
void MM_GetTotalMemoryStatus(U32* pulTotal, U32* pulFree);
/* Usable and free bytes of the heap, zeros before it exists. */
void MM_GetCollationCopyMemoryStatus(U32* pulTotal, U32* pulFree);
/* 1: several jobs run at once, and allocations through HEAPHANDLE_ALIAS keep the reserve; any other
 * value: one job. */
void MM_RunningMultiJob_Notify(U32 ulValue);
/* Prints the MST on the kernel log: one entry (0 to 48, not checked), the heap's pieces (HEAPHANDLE), or
 * everything (MM_DISPLAY_ALL). */
void MM_DisplayMST(U32 ulSelector);
/* The same in the form of the trace, without header, the heap's rows with their maps: for HEAPHANDLE and
 * MM_DISPLAY_ALL, nothing for other selectors. What the allocators print when counters disagree. */
void MM_TraceMST(U32 ulSelector);

/* Memory configuration table ---------------------------------------------------------------------- */

/* Finds a name (4 bytes); ENOERR and the range filled, or EASSERT and the range untouched. */
U32 MM_ReadSegOnMCT(U8* aubSegID, TSegRange* pstSegRange);
/* Fills the first empty row; neither name, size (bytes) nor address is checked. ENOERR or EASSERT. */
U32 MM_AddSegment(U8* aubCFGID, U32 ulSize, U8* pubAddr);
/* Zeroes the named row's memory and empties the row. ENOERR or EASSERT. */
U32 MM_DeleteSegment(U8* aubCFGID);
/* Zeroes the named row's memory, or for "$ALL" that of every row but "$MCT", "$UEV" and "$RJL". Always
 * ENOERR. */
U32 MM_ClearSegment(U8* pubSegID);
/* Zeroes the memory of "$UEV". ENOERR, or EASSERT when it does not lie below the area's end. */
U32 MM_RestoreMCT(void);
/* Copies default row cfgid (0 to 4): 0, or 255 for another index, with nothing written. */
U8 MM_GetMCT(U32 cfgid, TMCTInfo* SegInfo);
/* Makes pointers 1 to 4 follow pointer 0 row by row. Always ENOERR. */
U32 MM_RearrangeMCT(TMCTInfo** pstTempMCT);
/* Always TRUE. */
BOOL MM_CheckSumMCT(void);
/* Runs a printer job language command ("FIXEDADD", "FIXEDDELETE", "CLEARSEGMENT") on the MCT. ENOERR,
 * also for an unknown word; EASSERT for a null command and for the name "$MCT". */
U32 MM_ExecPJL(U8* pubCommand, U8* aubCFGID, U32 ulSize, U8* pubAddr);

#ifdef __cplusplus
}
#endif
#endif
