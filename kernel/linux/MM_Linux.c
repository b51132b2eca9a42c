/*
 * MM_Linux.c - the manager on Linux: its platform boundary made of kernel services, and its entries put into the
 * kernel's structures. Nothing is decided here.
 */
#include <linux/init.h>
#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/moduleparam.h>
#include <linux/string.h>
#include <linux/vmalloc.h>

#include "MM_Compat.h"

#include "../mm/mmi/MM_Interface.h"

/* Kernel log -------------------------------------------------------------------------------------- */

void MMP_Print(const char* pcFormat, ...)
{
    va_list stArguments;

    va_start(stArguments, pcFormat);
    vprintk(pcFormat, stArguments);
    va_end(stArguments);
}

/* Managed memory ---------------------------------------------------------------------------------- */

/* What the compiler calls for the manager's own records (MM_CxxRuntime.h). ARM kernels before 3.9 have a memset
 * that does not return its first argument, which compilers have come to rely on: the address is hidden from
 * the compiler, so that the one returned is our own. */
void* mmp_memset(void* pvTo, int iByte, size_t uBytes);
void* mmp_memset(void* pvTo, int iByte, size_t uBytes)
{
    void* pvStart = pvTo;

    __asm__("" : "+r"(pvStart));
    memset(pvTo, iByte, uBytes);
    return pvStart;
}

void MMP_MemSet(void* pvTo, U8 ubByte, U32 ulBytes)
{
    mmp_memset(pvTo, ubByte, ulBytes);
}

int MMP_StrNCmp(const U8* pubLeft, const U8* pubRight, U32 ulBytes)
{
    return strncmp((const char*)pubLeft, (const char*)pubRight, ulBytes);
}

/* Locks ------------------------------------------------------------------------------------------- */

static raw_spinlock_t astLock[MM_LOCK_NUM] = {
    [search_lock] = __RAW_SPIN_LOCK_INITIALIZER(astLock[search_lock]),
    [free_lock] = __RAW_SPIN_LOCK_INITIALIZER(astLock[free_lock]),
    [push_lock] = __RAW_SPIN_LOCK_INITIALIZER(astLock[push_lock]),
    [pop_lock] = __RAW_SPIN_LOCK_INITIALIZER(astLock[pop_lock]),
};

#ifdef MM_GUARDED
/* Interrupts come back as they were: the guarded build may be called with them off. Each word belongs to its lock's
 * holder. */
static unsigned long aulFlags[MM_LOCK_NUM];

void MMP_LockIrq(enum TMMLock enLock)
{
    unsigned long ulFlags;

    raw_spin_lock_irqsave(&astLock[enLock], ulFlags);
    aulFlags[enLock] = ulFlags;
}

void MMP_UnlockIrq(enum TMMLock enLock)
{
    raw_spin_unlock_irqrestore(&astLock[enLock], aulFlags[enLock]);
}

/* The device maps nothing but the managed area, and this lies elsewhere. */
void* MMP_TakeMemory(U32 ulBytes)
{
    void* pvMemory = vmalloc(ulBytes);

    if (pvMemory)
        memset(pvMemory, 0, ulBytes);
    return pvMemory;
}

void MMP_GiveMemory(void* pvMemory)
{
    vfree(pvMemory);
}
#else
void MMP_LockIrq(enum TMMLock enLock)
{
    raw_spin_lock_irq(&astLock[enLock]);
}

void MMP_UnlockIrq(enum TMMLock enLock)
{
    raw_spin_unlock_irq(&astLock[enLock]);
}
#endif

/* Memory of the calling process ------------------------------------------------------------------- */

BOOL MMP_AccessOk(U32 ulUser, U32 ulBytes)
{
    return mmc_access_ok(ulUser, ulBytes) != 0;
}

U32 MMP_CopyFromUser(void* pvTo, U32 ulUser, U32 ulBytes)
{
    return copy_from_user(pvTo, (const void __user*)ulUser, ulBytes);
}

U32 MMP_CopyToUser(U32 ulUser, const void* pvFrom, U32 ulBytes)
{
    return copy_to_user((void __user*)ulUser, pvFrom, ulBytes);
}

/* Physical memory and mapping --------------------------------------------------------------------- */

U32 MMP_PageOffset(void)
{
    return PAGE_OFFSET;
}

U32 MMP_PhysOffset(void)
{
    return PHYS_OFFSET;
}

U32 MMP_HighMemory(void)
{
    return (U32)high_memory;
}

BOOL MMP_PfnValid(U32 ulPfn)
{
    return pfn_valid(ulPfn) != 0;
}

void MMP_FlushCacheAll(void)
{
    flush_cache_all();
}

S32 MMP_RemapPfnRange(const TMMMapRequest* pstRequest, U32 ulPfn, U32 ulBytes, enum TMMProt enProt)
{
    struct vm_area_struct* pstVma = pstRequest->pvKernel;
    pgprot_t stProt = pstVma->vm_page_prot;

    if (enProt == MM_PROT_UNCACHED)
        stProt = pgprot_noncached(stProt);
    pstVma->vm_pgoff = pstRequest->ulPgOff;
    return remap_pfn_range(pstVma, pstRequest->ulStart, ulPfn, ulBytes, stProt);
}

/* The manager's entries in the kernel's structures ------------------------------------------------ */

static int mml_open(struct inode* pstInode, struct file* pstFile)
{
    return Velmora_MM_open();
}

static int mml_release(struct inode* pstInode, struct file* pstFile)
{
    return Velmora_MM_release();
}

static ssize_t mml_read(struct file* pstFile, char __user* pcTo, size_t uCount, loff_t* pllOff)
{
    return Velmora_MM_read();
}

static ssize_t mml_write(struct file* pstFile, const char __user* pcFrom, size_t uCount, loff_t* pllOff)
{
    return Velmora_MM_write();
}

static int mml_mmap(struct file* pstFile, struct vm_area_struct* pstVma)
{
    TMMMapRequest stRequest = {
        .ulPgOff = pstVma->vm_pgoff,
        .ulStart = pstVma->vm_start,
        .ulEnd = pstVma->vm_end,
        .fSync = (pstFile->f_flags & O_SYNC) != 0,
        .pvKernel = pstVma,
    };
    S32 slResult = Velmora_MM_mmap(&stRequest);

    pstVma->vm_pgoff = stRequest.ulPgOff;
    return slResult;
}

MMC_IOCTL_ENTRY(mml_ioctl, Velmora_MM_ioctl)

static const struct file_operations Velmora_MM_fops = {
    .owner = THIS_MODULE,
    .read = mml_read,
    .write = mml_write,
    .MMC_IOCTL_SLOT = mml_ioctl,
    .mmap = mml_mmap,
    .open = mml_open,
    .release = mml_release,
};

/* Device and proc file ---------------------------------------------------------------------------- */

S32 MMP_RegisterChrdev(const char* pcName)
{
    return register_chrdev(0, pcName, &Velmora_MM_fops);
}

void MMP_UnregisterChrdev(S32 slMajor, const char* pcName)
{
    unregister_chrdev(slMajor, pcName);
}

MMC_PROC_FILE(read_velmora_mm)

BOOL MMP_CreateProc(const char* pcName, U32 ulMode)
{
    return mmc_create_proc(pcName, ulMode);
}

void MMP_RemoveProc(const char* pcName)
{
    remove_proc_entry(pcName, NULL);
}

/* Module ------------------------------------------------------------------------------------------ */

static int __init mml_init(void)
{
    return printer_mm_init();
}

static void __exit mml_exit(void)
{
    printer_mm_exit();
}

module_param_string(bigphysarea, bigphysarea_info, BIGPHYSAREA_INFO_SIZE, 0);
MODULE_PARM_DESC(bigphysarea, "Given BigPhysArea");
MODULE_LICENSE("");

module_init(mml_init);
module_exit(mml_exit);
