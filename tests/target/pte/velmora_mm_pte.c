/*
 * velmora_mm_pte - shows page table entries to the tests: a read of four bytes from /proc/velmora_mm_pte at the offset
 * of a user address of the reading process gives the kernel's own entry for it.
 */
#include <linux/highmem.h>
#include <linux/mm.h>
#include <linux/module.h>
#include <linux/proc_fs.h>
#include <linux/sched.h>
#include <linux/uaccess.h>

static ssize_t pte_read(struct file *file, char __user *to, size_t count, loff_t *offset)
{
	spinlock_t *lock;
	pte_t *entry;
	u32 value;
	int result;

	mmap_read_lock(current->mm);
	result = follow_pte(current->mm, (unsigned long)*offset, &entry, &lock);
	if (result == 0) {
		value = pte_val(*entry);
		pte_unmap_unlock(entry, lock);
	}
	mmap_read_unlock(current->mm);
	if (result)
		return result;
	if (count < sizeof(value) || copy_to_user(to, &value, sizeof(value)))
		return -EFAULT;
	return sizeof(value);
}

static const struct proc_ops pte_ops = { .proc_read = pte_read, .proc_lseek = default_llseek };

static int __init pte_init(void)
{
	return proc_create("velmora_mm_pte", 0400, NULL, &pte_ops) ? 0 : -ENOMEM;
}

static void __exit pte_exit(void)
{
	remove_proc_entry("velmora_mm_pte", NULL);
}

MODULE_LICENSE("GPL");
module_init(pte_init);
module_exit(pte_exit);
