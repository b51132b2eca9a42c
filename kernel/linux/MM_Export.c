/*
 * MM_Export.c - the entries of mm/MM.h that other kernel code may call: allocation, owners, queries. Which may be
 * called from where is said there.
 */
#include <linux/module.h>

#include "../mm/mm/MM.h"

/* Allocation */
EXPORT_SYMBOL(MM_Malloc);
EXPORT_SYMBOL(MM_AllocBlock);
EXPORT_SYMBOL(MM_Free);
EXPORT_SYMBOL(MM_FreeBlock);
EXPORT_SYMBOL(MM_CheckSegInitCompleted);
EXPORT_SYMBOL(MM_CheckHeapArea);
EXPORT_SYMBOL(MM_ReallocBlock);

/* Owners */
EXPORT_SYMBOL(MM_CollectGarbage);
EXPORT_SYMBOL(MM_SetPermanentBlk);
EXPORT_SYMBOL(MM_ReleasePermanentBlk);
EXPORT_SYMBOL(MM_RlsAllPermanentBlk);
EXPORT_SYMBOL(MM_GetPermanentStartBlk);
EXPORT_SYMBOL(MM_CheckPermanentBlk);

/* Queries */
EXPORT_SYMBOL(MM_GetTotBlk);
EXPORT_SYMBOL(MM_GetTotAvailBlk);
EXPORT_SYMBOL(MM_GetLargestBlk);
EXPORT_SYMBOL(MM_GetInitTotBlk);
EXPORT_SYMBOL(MM_GetStartAddrOfSegment);
EXPORT_SYMBOL(MM_GetEndAddrOfSegment);
EXPORT_SYMBOL(MM_GetRCBEnd);
EXPORT_SYMBOL(MM_ReadMST);
EXPORT_SYMBOL(MM_GetMST);
EXPORT_SYMBOL(MM_ReadMCT);
EXPORT_SYMBOL(MM_CheckSegment);
EXPORT_SYMBOL(MM_GetPhysAddr);
EXPORT_SYMBOL(MM_GetTotalMemoryStatus);
EXPORT_SYMBOL(MM_GetCollationCopyMemoryStatus);
EXPORT_SYMBOL(MM_RunningMultiJob_Notify);
EXPORT_SYMBOL(MM_DisplayMST);
EXPORT_SYMBOL(MM_TraceMST);
