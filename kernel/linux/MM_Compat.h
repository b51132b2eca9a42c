/*
 * MM_Compat.h - the differences between kernels, 2.6.35 to current, and nothing else. Every comparison with
 * LINUX_VERSION_CODE stands here.
 */
#ifndef MM_COMPAT_H
#define MM_COMPAT_H

#include <linux/fs.h>
#include <linux/mm.h>
#include <linux/mutex.h>
#include <linux/proc_fs.h>
#include <linux/spinlock.h>
#include <linux/uaccess.h>
#include <linux/version.h>
#include <asm/cacheflush.h>
#include <asm/memory.h>

#if LINUX_VERSION_CODE < KERNEL_VERSION(5, 0, 0)
#define mmc_access_ok(ulUser, ulBytes) access_ok(VERIFY_READ, (void __user*)(ulUser), ulBytes)
#else
#define mmc_access_ok(ulUser, ulBytes) access_ok((void __user*)(ulUser), ulBytes)
#endif

/* Control entry: the ioctl slot is called under the kernel's global lock. The kernels that came after it have
 * no such lock, so one mutex held for the whole command stands in for it. */
#if LINUX_VERSION_CODE < KERNEL_VERSION(2, 6, 36)
#define MMC_IOCTL_ENTRY(function, run)                                                                         \
    static int function(struct inode* pstInode, struct file* pstFile, unsigned int uiCmd, unsigned long ulArg) \
    {                                                                                                          \
        return run(uiCmd, ulArg);                                                                              \
    }
#define MMC_IOCTL_SLOT ioctl
#else
#define MMC_IOCTL_ENTRY(function, run)                                                  \
    static DEFINE_MUTEX(function##_mutex);                                              \
    static long function(struct file* pstFile, unsigned int uiCmd, unsigned long ulArg) \
    {                                                                                   \
        long lResult;                                                                   \
                                                                                        \
        mutex_lock(&function##_mutex);                                                  \
        lResult = run(uiCmd, ulArg);                                                    \
        mutex_unlock(&function##_mutex);                                                \
        return lResult;                                                                 \
    }
#define MMC_IOCTL_SLOT unlocked_ioctl
#endif

/* Proc file: one reader that fills a buffer with the whole, short content and returns its length. Old kernels
 * hand it a page and cut out what was asked for; for the others that cutting is done here.
 * MMC_PROC_FILE defines mmc_create_proc(name, mode). */
#if LINUX_VERSION_CODE < KERNEL_VERSION(3, 10, 0)
#define MMC_PROC_FILE(reader)                                                                                 \
    static int mmc_proc_read(char* pcPage, char** ppcStart, off_t lOff, int iCount, int* piEof, void* pvData) \
    {                                                                                                         \
        return reader(pcPage, ppcStart, lOff, iCount, piEof, pvData);                                         \
    }                                                                                                         \
    static bool mmc_create_proc(const char* pcName, unsigned int uiMode)                                      \
    {                                                                                                         \
        struct proc_dir_entry* pstEntry = create_proc_entry(pcName, uiMode, NULL);                            \
                                                                                                              \
        if (pstEntry)                                                                                         \
            pstEntry->read_proc = mmc_proc_read;                                                              \
        return pstEntry != NULL;                                                                              \
    }
#else
#if LINUX_VERSION_CODE < KERNEL_VERSION(5, 6, 0)
#define MMC_PROC_OPS                                     \
    static const struct file_operations mmc_proc_ops = { \
        .owner = THIS_MODULE, .read = mmc_proc_read, .llseek = default_llseek};
#else
#define MMC_PROC_OPS \
    static const struct proc_ops mmc_proc_ops = {.proc_read = mmc_proc_read, .proc_lseek = default_llseek};
#endif
#define MMC_PROC_FILE(reader)                                                                              \
    static ssize_t mmc_proc_read(struct file* pstFile, char __user* pcUser, size_t uCount, loff_t* pllOff) \
    {                                                                                                      \
        char acContent[16];                                                                                \
        char* pcStart = NULL;                                                                              \
        int iEof = 0;                                                                                      \
        int iLength = reader(acContent, &pcStart, 0, sizeof(acContent), &iEof, NULL);                      \
                                                                                                           \
        return simple_read_from_buffer(pcUser, uCount, pllOff, acContent, iLength);                        \
    }                                                                                                      \
    MMC_PROC_OPS                                                                                           \
    static bool mmc_create_proc(const char* pcName, unsigned int uiMode)                                   \
    {                                                                                                      \
        return proc_create(pcName, uiMode, NULL, &mmc_proc_ops) != NULL;                                   \
    }
#endif

#endif
