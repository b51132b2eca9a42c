/*
 * declarations.h - what 2.6.35 declares of what this project's kernel sources use, and no more, not taken from its tree:
 * enough to see that the branches for such a kernel are C and fit those declarations. It stands in
 * for every kernel header.
 */
#ifndef OLD_KERNEL_DECLARATIONS_H
#define OLD_KERNEL_DECLARATIONS_H

#include <stdarg.h>

#define KERNEL_VERSION(a, b, c) (((a) << 16) + ((b) << 8) + (c))
#define LINUX_VERSION_CODE KERNEL_VERSION(2, 6, 35)

#define NULL ((void *)0)
#define __init
#define __exit
#define __user
#define inline inline __attribute__((unused))
#define EIO 5
#define ENOMEM 12
#define EFAULT 14
#define EINVAL 22
typedef unsigned int u32;
typedef u32 phys_addr_t;
typedef unsigned int size_t;
typedef int ssize_t;
typedef long off_t;
typedef long long loff_t;
typedef unsigned short mode_t, umode_t;
typedef int pid_t;
typedef _Bool bool;
enum { false = 0, true = 1 };

/* Text and messages */
#define KERN_ERR "<3>"
int printk(const char *format, ...) __attribute__((format(printf, 1, 2)));
int vprintk(const char *format, va_list arguments);
#define pr_err(format, ...) printk(KERN_ERR format, ##__VA_ARGS__)
int scnprintf(char *to, size_t bytes, const char *format, ...) __attribute__((format(printf, 3, 4)));
int strcmp(const char *left, const char *right);
int strncmp(const char *left, const char *right, size_t bytes);
void *memset(void *to, int byte, size_t bytes);

/* Modules */
struct module;
#define THIS_MODULE ((struct module *)0)
#define EXPORT_SYMBOL(name) extern __typeof__(name) name
#define MODULE_LICENSE(text) extern const char module_licence[sizeof(text)]
#define MODULE_PARM_DESC(name, text) extern const char name##_description[sizeof(text)]
#define module_param(name, type, mode) static void *const name##_parameter __attribute__((unused)) = &name
#define module_param_string(name, text, bytes, mode) static void *const name##_text __attribute__((unused)) = text
#define module_init(function) int init_module(void) __attribute__((alias(#function)))
#define module_exit(function) void cleanup_module(void) __attribute__((alias(#function)))

/* Devices and files */
struct inode;
struct vm_area_struct;
struct file {
	unsigned int f_flags;
};
#define O_SYNC 04010000
struct file_operations {
	struct module *owner;
	loff_t (*llseek)(struct file *, loff_t, int);
	ssize_t (*read)(struct file *, char __user *, size_t, loff_t *);
	ssize_t (*write)(struct file *, const char __user *, size_t, loff_t *);
	int (*ioctl)(struct inode *, struct file *, unsigned int, unsigned long);
	int (*mmap)(struct file *, struct vm_area_struct *);
	int (*open)(struct inode *, struct file *);
	int (*release)(struct inode *, struct file *);
};
int register_chrdev(unsigned int major, const char *name, const struct file_operations *operations);
void unregister_chrdev(unsigned int major, const char *name);
loff_t default_llseek(struct file *file, loff_t offset, int origin);
ssize_t simple_read_from_buffer(void __user *to, size_t count, loff_t *offset, const void *from, size_t available);
typedef int(read_proc_t)(char *page, char **start, off_t offset, int count, int *eof, void *data);
struct proc_dir_entry {
	read_proc_t *read_proc;
};
struct proc_dir_entry *create_proc_entry(const char *name, mode_t mode, struct proc_dir_entry *parent);
struct proc_dir_entry *proc_create(const char *name, mode_t mode, struct proc_dir_entry *parent,
				   const struct file_operations *operations);
void remove_proc_entry(const char *name, struct proc_dir_entry *parent);

/* User memory */
#define VERIFY_READ 0
#define access_ok(type, address, bytes) ((void)(type), (unsigned long)(address) + (bytes) != 0)
unsigned long copy_from_user(void *to, const void __user *from, unsigned long bytes);
unsigned long copy_to_user(void __user *to, const void *from, unsigned long bytes);

/* Memory and page tables */
#define PAGE_OFFSET 0x94000000UL
#define PHYS_OFFSET 0x00000000UL
#define __pa(address) ((unsigned long)(address)-PAGE_OFFSET + PHYS_OFFSET)
extern void *high_memory;
int pfn_valid(unsigned long pfn);
void flush_cache_all(void);
typedef struct {
	unsigned long pgprot;
} pgprot_t;
pgprot_t pgprot_noncached(pgprot_t protection);
struct vm_area_struct {
	unsigned long vm_start, vm_end, vm_pgoff;
	pgprot_t vm_page_prot;
};
int remap_pfn_range(struct vm_area_struct *area, unsigned long address, unsigned long pfn, unsigned long bytes,
		    pgprot_t protection);
struct rw_semaphore {
	int count;
};
void down_read(struct rw_semaphore *semaphore);
void up_read(struct rw_semaphore *semaphore);
struct mm_struct {
	struct rw_semaphore mmap_sem;
};
typedef unsigned long pte_t, pmd_t;
typedef pmd_t pgd_t[2], pud_t[2];
pgd_t *pgd_offset(struct mm_struct *memory, unsigned long address);
pud_t *pud_offset(pgd_t *directory, unsigned long address);
pmd_t *pmd_offset(pud_t *directory, unsigned long address);
int pmd_none(pmd_t entry);
int pmd_bad(pmd_t entry);
pte_t *pte_offset_map(pmd_t *table, unsigned long address);
#define pte_unmap(entry) ((void)(entry))
#define pte_val(entry) (entry)
#define __pte(value) (value)
#define pte_present(entry) ((entry)&1)

/* Locks, tasks, timers */
typedef struct {
	unsigned int slock;
} raw_spinlock_t;
#define __RAW_SPIN_LOCK_INITIALIZER(name) \
	{                                 \
		.slock = 0                \
	}
void raw_spin_lock_irq(raw_spinlock_t *lock);
void raw_spin_unlock_irq(raw_spinlock_t *lock);
typedef struct {
	int counter;
} atomic_t;
#define ATOMIC_INIT(value) \
	{                  \
		(value)    \
	}
int atomic_read(const atomic_t *value);
void atomic_inc(atomic_t *value);
struct task_struct {
	pid_t tgid;
	struct mm_struct *mm;
};
extern struct task_struct *current;
struct task_struct *kthread_run(int (*work)(void *), void *data, const char *name, ...);
int kthread_should_stop(void);
int kthread_stop(struct task_struct *task);
int cond_resched(void);
void msleep(unsigned int milliseconds);
long IS_ERR(const void *pointer);
long PTR_ERR(const void *pointer);
extern unsigned long volatile jiffies;
struct timer_list {
	void (*function)(unsigned long);
};
void setup_timer(struct timer_list *timer, void (*function)(unsigned long), unsigned long data);
int mod_timer(struct timer_list *timer, unsigned long expires);
int del_timer_sync(struct timer_list *timer);

/* Probes */
struct pt_regs {
	long uregs[18];
};
#define ARM_pc uregs[15]
#define ARM_lr uregs[14]
#define ARM_r0 uregs[0]
struct kprobe {
	const char *symbol_name;
	int (*pre_handler)(struct kprobe *, struct pt_regs *);
	void (*post_handler)(struct kprobe *, struct pt_regs *, unsigned long flags);
};
int register_kprobe(struct kprobe *probe);
void unregister_kprobe(struct kprobe *probe);

/* Memory before the page allocator */
#define PFN_PHYS(pfn) ((phys_addr_t)(pfn) << 12)
typedef struct bootmem_data {
	unsigned long node_min_pfn, node_low_pfn;
} bootmem_data_t;
struct pglist_data {
	bootmem_data_t *bdata;
};
extern struct pglist_data contig_page_data;
#define NODE_DATA(node) (&contig_page_data)
#define BOOTMEM_EXCLUSIVE 1
int reserve_bootmem(unsigned long address, unsigned long bytes, int flags);

#endif
