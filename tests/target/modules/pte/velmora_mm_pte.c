/*
 * velmora_mm_pte - shows page table entries to the tests: a read of four bytes from /proc/velmora_mm_pte at the offset
 * of a user address of the reading process gives the kernel's own entry for it.
 */
#include "../compat.h"

static int read_entry(unsigned long address, u32 *value)
{
	pmd_t *table = test_pmd(current->mm, address);

	if (pmd_none(*table) || pmd_bad(*table))
		return -EINVAL;
	*value = test_pte_value(table, address);
	return pte_present(__pte(*value)) ? 0 : -EINVAL;
}

static ssize_t pte_read(struct file *file, char __user *to, size_t count, loff_t *offset)
{
	u32 value;
	int result;

	test_mmap_lock(current->mm);
	result = read_entry((unsigned long)*offset, &value);
	test_mmap_unlock(current->mm);
	if (result)
		return result;
	if (count < sizeof(value) || copy_to_user(to, &value, sizeof(value)))
		return -EFAULT;
	return sizeof(value);
}

TEST_PROC_FILE(velmora_mm_pte, pte_read, NULL)

static int __init pte_init(void)
{
	return create_velmora_mm_pte(0400) ? 0 : -ENOMEM;
}

static void __exit pte_exit(void)
{
	remove_proc_entry("velmora_mm_pte", NULL);
}

MODULE_LICENSE("GPL");
module_init(pte_init);
module_exit(pte_exit);
