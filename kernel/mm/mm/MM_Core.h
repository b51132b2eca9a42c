/*
 * MM_Core.h - what the core's units share, with the device interface and the simulated controller: addresses, the global tables, and the entries of
 * one unit that another one calls.
 */
#ifndef MM_CORE_H
#define MM_CORE_H

#include "../MM_Platform.h"
#include "MM.h"
#include "MM_Assert.h"

/* Bytes of the default fixed segments. */
enum {
    FIXED_MCT_SIZE = 4096,
    FIXED_RJL_SIZE = 4096,
    FIXED_JCB_SIZE = 65536,
    FIXED_UEV_SIZE = 1048576,
    FIXED_FIL_SIZE = 1048576
};

constexpr U32 MM_FAILED = 0xFFFFFFFF;       /* an address or count that could not be given */
constexpr U32 MM_UNUSED_PIECE = 0xFFFFFFFF; /* start of a heap piece that is not there */

/* Addresses ---------------------------------------------------------------------------------------- */

inline U32 MM_Addr(const volatile void* pvAddr)
{
    return reinterpret_cast<U32>(pvAddr);
}

template <class T = U8> inline T* MM_At(U32 ulAddr)
{
    return reinterpret_cast<T*>(ulAddr);
}

/* Physical address of an address of the kernel's linear map. */
inline U32 MM_PhysAddr(U32 ulAddr)
{
    return ulAddr - MMP_PageOffset() + MMP_PhysOffset();
}

/* log2 of 1 and more, rounded down. */
inline U8 MM_Log2(U32 ulNumber)
{
    return static_cast<U8>(31 ^ __builtin_clz(ulNumber));
}

/* Bytes of ulBlkNum blocks; wraps as 32-bit arithmetic does. */
inline U32 MM_BlkToBytes(U32 ulBlkNum, U8 ubBlkBit)
{
    return ulBlkNum << ubBlkBit;
}

inline int strncmp(const U8* pubLeft, const U8* pubRight, U32 ulBytes)
{
    return MMP_StrNCmp(pubLeft, pubRight, ulBytes);
}

/* Names are four bytes; a NUL ends the comparison. */
inline bool MM_SameName(const U8* aubName, const char* pcName)
{
    return MMP_StrNCmp(aubName, reinterpret_cast<const U8*>(pcName), 4) == 0;
}

/* The alias names the heap; every other handle names itself. */
inline U32 MM_RealHandle(U32 hulHandle)
{
    return hulHandle == HEAPHANDLE_ALIAS ? U32(HEAPHANDLE) : hulHandle;
}

/* Global tables -------------------------------------------------------------------------------------- */

/* Single instances, zero at load but for hulFloatHandle and the default MCT. Two more units hold state of their own:
 * the run indexes (MM_RunIndex.h), which say nothing that the lists do not, and the device interface (the module's
 * parameter and its major number). */

extern "C" {
extern TMMSegInfo stSegTable[MAX_SEGTABLE_SIZE]; /* the MST */
extern U32 hulFixedHandle;                       /* next fixed handle */
extern U32 hulFloatHandle;                       /* next float handle */
extern U32 ulRunningMultiJob;                    /* 1 while several jobs run */
extern U32 ulPermanentBlkStartPtr;               /* first permanent block, 0 when none */
extern U32 ulPermanentBlkCount;                  /* permanent blocks */
extern TMSTInfo stMSTInfo;                       /* what MM_ReadMST returns */
extern U32 ulRamSize;                            /* bytes, at most 512 MiB; the backup check's */
extern U32* pubMCTStartAddr;                     /* the MCT area */

extern TMCTInfo* pstMCTTable[MAX_MCT_NUM]; /* the MCT in use */
extern TMCTInfo MCTTable[MAX_MCT_NUM];     /* a spare MCT, never used */
extern U32 ulCheckSumField;                /* never used */

extern TMMBlkStr* pstSegBlkHead; /* free-memory list: stretches that no segment holds, sizes in bytes */
extern TMMBlkStr* pstSegBlkTail;
extern TMMBlkStr* pstHEAPBiggestBlk; /* the heap's biggest piece */
extern THeapAddrRange stSegStartAddr, stSegEndAddr, stSegMapStartAddr, stSegMapEndAddr;

extern TMMBcptr astBlkHead[MAX_SEGTABLE_SIZE]; /* free runs of each linked-list segment, sizes in blocks */
extern TMMBcptr astBlkTail[MAX_SEGTABLE_SIZE];
extern TStackStr astStackStr[MAX_SEGTABLE_SIZE];

/* Owned by the device interface. */
extern TMCTInfo stDefaultMCTTable[MAX_MCT_NUM];
extern U32 *pubSegMemStartAddr, *pubSegMemEndAddr; /* at memstart and memend once the module has loaded */
extern U32 memstart, memend;                       /* the managed area */
extern U32 ulFixedSegEndAddress;                   /* past the fixed segments */
extern U32 ulMCTStartAddr;                         /* address of the "$MCT" row, 0 before the layout */

/* Services of the device interface to the core ---------------------------------------------------- */

/* Lays out the default MCT rows from ulFIXEDSegStartAddr up. ulRamSize is ignored. ENOERR or EASSERT. */
U32 CM_ConstructDefaultMCT(U32 ulRamSize, U32 ulMemEndAddr, U32 ulFIXEDSegStartAddr);
TMCTInfo* CM_IF_GetDefaultMCT(void);
U32 CM_IF_ReadMCTStartAddr(void);      /* 14 before the layout */
U32 CM_IF_ReadFixedSegStartAddr(void); /* start of the managed area */
U32 CM_IF_ReadFixedSegEndAddr(void);   /* past the fixed segments */
void CM_IF_UpdateFixedSegEndAddr(U32 FixedSegEndAddr);
U32 CM_IF_RIPAvailBlk(void);     /* heap blocks kept while several jobs run: 0 */
U32 CM_IF_EndVar(void);          /* start of the managed area */
U32 CM_IF_ReadRamBaseAddr(void); /* 0 */
U32 CM_IF_ReadRamSize(void);     /* bytes of the managed area */
void CM_ShowDEFMCT(void);        /* empty display hooks */
void CM_ShowMCT(void);

/* Entries that one unit offers to the others --------------------------------------------------------- */

/* MM_MST: places the segment that the working record describes (handle chosen), initialises it and stores it.
 * ENOERR, EERR, EASSERT, EOUTOFRANGE. */
U32 MM_InstallSegment(TMMSegInfo* pstSegInfo);
/* Cuts ulNewSegSize bytes out of a free-memory node: at its front (FLOAT) or at pubAlignAddr (FLOATALIGN).
 * ENOERR or EASSERT. */
U32 MM_RearrangeSegList(U8 ubType, TMMBlkStr* pstSegBlk, U32 ulNewSegSize, U8* pubAlignAddr);

/* MM_InitSegment: makes a placed segment work and stores the record in the MST. ENOERR or EASSERT. */
U32 MM_SegInitial(TMMSegInfo* pstSegInfo);
/* log2 rounded down. 0 is reported and gives 14, which callers use as a shift. */
U8 MM_GetBlkBit(U32 ulBlkSize);
/* Zeroes a segment's owner map, piece by piece for the heap. */
void MM_ClearMapAll(U32 hulHandle);
/* Longest free run in blocks (0 to 49 or the alias); 14 for another handle. Stores nothing. */
U32 MM_FindNewLargestBlk(U32 hulHandle);

/* MM_AllocBlk: the allocators, as pfnAlloc declares them. */
U8* MM_AllocBlk(U32 hulHandle, U32 ulReqBlkNum, U8 ubMapID);
U8* MM_Push(U32 hulHandle, U32 ulReqBlkNum, U8 ubMapID);
/* Marks ulReqBlkNum blocks at pubBlkTmp as the owner's: ORs the ID into entries that must be 0. */
void MM_SetMap(U32 hulHandle, U8* pubBlkTmp, U32 ulReqBlkNum, U8 ubMapID);
/* Distance of a block from the end of its range, in blocks: the last block has 1. */
U32 MM_SearchMap(U8* pubCurrentAddr, U8* pubEndAddr, U8 ubBlkBit);
/* Index of the heap piece that holds the address; else of the first unused one; else 5. */
U8 MM_GetHeapBlkID(U8* pubReqAddr);

/* MM_FreeBlk: the release routines, ENOERR or EASSERT. A failed check leaves the lock held. */
U32 MM_FreeBlk(U32 hulHandle, U8* pubRlsAddr, U32 ulBlkNo);
U32 MM_Pop(U32 hulHandle, U8* pubRlsAddr, U32 ulBlkNo);
/* Erases the owner of ulBlkNo blocks; ENOERR or EASSERT, entries cleared before a failure stay cleared. */
U32 MM_ClearMap(U32 hulHandle, U8* pubRlsAddr, U32 ulBlkNo);
/* Releases every run of blocks of an owner that a differently marked block ends towards lower addresses. */
void MM_CleanUp(U32 hulHandle, U8 ubMapID);
}

#endif
