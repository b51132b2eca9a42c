/*
 * MM_Platform.h - everything that the manager asks of a kernel. Nothing else of any system is
 * included or called above this line; a port implements this file and calls the entries that
 * mmi/MM_Interface.h lists.
 *
 * Beside the functions below the compiler itself may call memcpy, memset, memmove and memcmp for the
 * manager's own records, and the integer division helpers of the ABI.
 *
 * "Sleeps: no" means that the entry is called with a spin lock held or may be, so it must not sleep.
 */
#ifndef MM_PLATFORM_H
#define MM_PLATFORM_H

#include <velmora_mm/velmora_mm.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Kernel log -------------------------------------------------------------------------------------- */

/* One message, printf formats, handed to the kernel whole: zero bytes from %c included, no level added. What its log
 * keeps is the kernel's affair: before Linux 3.5 a message ends there at its first zero byte.
 * Sleeps: no. Fails: never. Callers: every unit. */
void MMP_Print(const char* pcFormat, ...) __attribute__((format(printf, 1, 2)));

/* Managed memory ---------------------------------------------------------------------------------- */

/* Fills ulBytes (0 is nothing) from a kernel virtual address with ubByte. The address is as trustworthy
 * as the caller's: a bad one faults as any store does. Sleeps: no. Callers: MCT rows, owner maps,
 * MM_CMD_MEMSET. */
void MMP_MemSet(void* pvTo, U8 ubByte, U32 ulBytes);

/* Compares at most ulBytes bytes, stopping at a difference or a NUL; below, equal to or above 0.
 * Sleeps: no. Callers: names and job-language words. */
int MMP_StrNCmp(const U8* pubLeft, const U8* pubRight, U32 ulBytes);

/* Announces an access of ulBytes at an address of managed memory. An MMU does this job for a real kernel,
 * where the call vanishes; the simulated machine checks the address first, so that it can
 * name the first byte that does not exist. */
#ifdef MMP_CHECKED_ACCESS
void MMP_Touch(const void* pvAddr, U32 ulBytes);
#else
static inline void MMP_Touch(const void* pvAddr, U32 ulBytes)
{
    (void)pvAddr;
    (void)ulBytes;
}
#endif

/* Kernel memory ----------------------------------------------------------------------------------- */

/* Zeroed memory of the kernel's own, outside of managed memory and of everything that the device maps, at an address that
 * is a multiple of 4: ulBytes (1 or more). Null when there is none. May sleep. Callers: the guarded build, at creation. */
void* MMP_TakeMemory(U32 ulBytes);
/* Gives it back. May sleep. Fails: never. Callers: the guarded build, at library start and module unload. */
void MMP_GiveMemory(void* pvMemory);

/* Locks ------------------------------------------------------------------------------------------- */

/* The manager's spin locks: block search, block release, stack push, stack pop. */
enum TMMLock { search_lock, free_lock, push_lock, pop_lock, MM_LOCK_NUM };

/* Takes a lock and turns local interrupts off until it is released. No lock is taken while another is
 * held. Sleeps: no, nor does the release. Fails: never; waits for ever on a lock that is never released. Callers: the
 * allocators and release routines. */
void MMP_LockIrq(enum TMMLock enLock);
void MMP_UnlockIrq(enum TMMLock enLock);

/* Memory of the calling process ------------------------------------------------------------------- */

/* TRUE when [ulUser, ulUser + ulBytes) does not wrap and ends at or below the task's address limit.
 * Says nothing about pages being mapped. Sleeps: no. Caller: Velmora_MM_ioctl, in process context. */
BOOL MMP_AccessOk(U32 ulUser, U32 ulBytes);

/* Copy between a kernel record and user memory; each returns the bytes that were NOT copied, 0 on
 * success. May sleep; never called under a lock. */
U32 MMP_CopyFromUser(void* pvTo, U32 ulUser, U32 ulBytes);
U32 MMP_CopyToUser(U32 ulUser, const void* pvFrom, U32 ulBytes);

/* Device and proc file ---------------------------------------------------------------------------- */

/* Registers minors 0 to 255 of a new character device whose operations are the Velmora_MM_ entries of
 * mmi/MM_Interface.h, called one command at a time. The major number (above 0), or a negative
 * kernel code. May sleep. Caller: printer_mm_init. */
S32 MMP_RegisterChrdev(const char* pcName);
/* Takes it back. May sleep. Fails: never. Caller: printer_mm_exit. */
void MMP_UnregisterChrdev(S32 slMajor, const char* pcName);

/* Creates a read-only file at the top of the proc tree, permissions ulMode, read through
 * read_velmora_mm. FALSE when the kernel gives no entry. May sleep. Caller: printer_mm_init. */
BOOL MMP_CreateProc(const char* pcName, U32 ulMode);
/* Removes it. May sleep. Fails: never. Caller: printer_mm_exit. */
void MMP_RemoveProc(const char* pcName);

/* Physical memory and mapping --------------------------------------------------------------------- */

#define MMP_PAGE_SHIFT 12 /* pages of 4096 bytes */

/* First kernel virtual address of the linear map, and the physical address that it maps.
 * The product's kernel: 0x94000000 and 0. Constant while the module is loaded. Sleeps: no. Fails: never. Callers: every
 * unit. */
U32 MMP_PageOffset(void);
U32 MMP_PhysOffset(void);

/* Kernel virtual address at which the linear map ends. Sleeps: no. Fails: never. Callers: the mapping entries. */
U32 MMP_HighMemory(void);

/* TRUE when the physical page number is a page of RAM. Sleeps: no. Caller: Velmora_MM_mmap. */
BOOL MMP_PfnValid(U32 ulPfn);

/* Writes back and invalidates the whole data cache, where the processor needs that for an alias of a
 * mapped page. May sleep. Fails: never. Caller: Velmora_MM_mmap, in process context. */
void MMP_FlushCacheAll(void);

/* A request to map the device, as the kernel hands it to Velmora_MM_mmap. */
typedef struct {
    U32 ulPgOff;    /* page offset of the request: the kernel virtual address in pages; out: physical page */
    U32 ulStart;    /* first user address of the new mapping */
    U32 ulEnd;      /* past its last byte */
    BOOL fSync;     /* the descriptor was opened with O_SYNC */
    void* pvKernel; /* the kernel's own request, untouched by the manager */
} TMMMapRequest;

enum TMMProt { MM_PROT_CACHED, MM_PROT_UNCACHED };

/* Maps ulBytes of physical memory from page ulPfn at the request's start: with the protection that the
 * kernel proposed, or with the same made uncached. 0, or any other value when refused. May sleep. */
S32 MMP_RemapPfnRange(const TMMMapRequest* pstRequest, U32 ulPfn, U32 ulBytes, enum TMMProt enProt);

#ifdef __cplusplus
}
#endif
#endif
