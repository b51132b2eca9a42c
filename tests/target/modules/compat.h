/*
 * compat.h - what the test modules ask of a kernel that kernels have under different names, 2.6.35 to current. Every
 * comparison with LINUX_VERSION_CODE of theirs stands here.
 */
#ifndef VELMORA_MM_TEST_COMPAT_H
#define VELMORA_MM_TEST_COMPAT_H

#include <linux/compiler.h>
#include <linux/fs.h>
#include <linux/highmem.h>
#include <linux/mm.h>
#include <linux/module.h>
#include <linux/proc_fs.h>
#include <linux/sched.h>
#include <linux/timer.h>
#include <linux/uaccess.h>
#include <linux/version.h>

#ifndef READ_ONCE
#define READ_ONCE(value) (*(const volatile __typeof__(value) *)&(value))
#define WRITE_ONCE(value, to) (*(volatile __typeof__(value) *)&(value) = (to))
#endif

/* TEST_PROC_FILE defines create_NAME(mode), which makes /proc/NAME; the writer may be NULL. */
#if LINUX_VERSION_CODE < KERNEL_VERSION(5, 6, 0)
#define TEST_PROC_OPS(name, reader, writer)                                                     \
	static const struct file_operations name = {                                            \
		.owner = THIS_MODULE, .read = reader, .write = writer, .llseek = default_llseek \
	}
#else
#define TEST_PROC_OPS(name, reader, writer) \
	static const struct proc_ops name = { .proc_read = reader, .proc_write = writer, .proc_lseek = default_llseek }
#endif
#define TEST_PROC_FILE(name, reader, writer)                                \
	TEST_PROC_OPS(name##_ops, reader, writer);                          \
	static bool create_##name(unsigned int mode)                        \
	{                                                                   \
		return proc_create(#name, mode, NULL, &name##_ops) != NULL; \
	}

/* TEST_TIMER defines a timer that calls a function without arguments; test_timer_prepare(timer) comes before its first use. */
#if LINUX_VERSION_CODE < KERNEL_VERSION(4, 15, 0)
#define TEST_TIMER(timer, function)                       \
	static struct timer_list timer;                   \
	static void timer##_expired(unsigned long unused) \
	{                                                 \
		function();                               \
	}
#define test_timer_prepare(timer) setup_timer(&timer, timer##_expired, 0)
#else
#define TEST_TIMER(timer, function)                            \
	static struct timer_list timer;                        \
	static void timer##_expired(struct timer_list *unused) \
	{                                                      \
		function();                                    \
	}
#define test_timer_prepare(timer) timer_setup(&timer, timer##_expired, 0)
#endif

#if LINUX_VERSION_CODE < KERNEL_VERSION(6, 2, 0)
#define test_timer_stop(timer) del_timer_sync(&timer)
#else
#define test_timer_stop(timer) timer_delete_sync(&timer)
#endif

#if LINUX_VERSION_CODE < KERNEL_VERSION(5, 8, 0)
#define test_mmap_lock(mm) down_read(&(mm)->mmap_sem)
#define test_mmap_unlock(mm) up_read(&(mm)->mmap_sem)
#define test_pmd(mm, address) pmd_offset(pud_offset(pgd_offset(mm, address), address), address)
#else
#define test_mmap_lock(mm) mmap_read_lock(mm)
#define test_mmap_unlock(mm) mmap_read_unlock(mm)
#define test_pmd(mm, address) pmd_off(mm, address)
#endif

/*
 * The page table entry of an address in its table. Old kernels' own call knows on which side of the hardware's table
 * the kernel's stands; later ones have it at the start of the page, and their calls are not all for ordinary memory.
 */
#if LINUX_VERSION_CODE < KERNEL_VERSION(5, 11, 0)
static inline u32 test_pte_value(pmd_t *table, unsigned long address)
{
	pte_t *entry = pte_offset_map(table, address);
	u32 value = pte_val(READ_ONCE(*entry));

	pte_unmap(entry);
	return value;
}
#else
static inline u32 test_pte_value(pmd_t *table, unsigned long address)
{
	pte_t *entries = kmap_local_page(pmd_page(*table));
	u32 value = pte_val(READ_ONCE(entries[pte_index(address)]));

	kunmap_local(entries);
	return value;
}
#endif

#endif
