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

/* By hand: what kernels offer for it differs, and not all of it is for ordinary memory. */
static int read_entry(unsigned long address, u32 *value)
{
	pmd_t *table = pmd_off(current->mm, address);
	pte_t *entries;

	if (pmd_none(*table) || pmd_bad(*table))
		return -EINVAL;
	entries = kmap_local_page(pmd_page(*table));
	*value = pte_val(READ_ONCE(entries[pte_index(address)]));
	kunmap_local(entries);
	return pte_present(__pte(*value)) ? 0 : -EINVAL;
}

static ssize_t pte_read(struct file *file, char __user *to, size_t count, loff_t *offset)
{
	u32 value;
	int result;

	mmap_read_lock(current->mm);
	result = read_entry((unsigned long)*offset, &value);
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
