/*
 * velmora_mm_fence - fills the mebibyte at each end of the reserved area, which the manager leaves alone, and tells which of its
 * bytes are no longer as they were: /proc/velmora_mm_fence reads "changed=NUMBER first=ADDRESS".
 *
 *   start=ADDRESS end=ADDRESS     the reserved area, kernel virtual addresses
 */
#include <linux/kernel.h>
#include <linux/string.h>

#include "../compat.h"

enum { FENCE_BYTES = 0x100000, FILLED = 0x5A };

static unsigned long start, end;
module_param(start, ulong, 0);
module_param(end, ulong, 0);

static unsigned int changed_in(const unsigned char *from, const unsigned char **first)
{
	unsigned int changed = 0, i;

	for (i = 0; i < FENCE_BYTES; i++) {
		if (READ_ONCE(from[i]) == FILLED)
			continue;
		if (*first == NULL)
			*first = from + i;
		changed++;
	}
	return changed;
}

static ssize_t fence_read(struct file *file, char __user *to, size_t count, loff_t *offset)
{
	const unsigned char *first = NULL;
	unsigned int changed = changed_in((const unsigned char *)start, &first);
	char text[64];
	int length;

	changed += changed_in((const unsigned char *)end - FENCE_BYTES, &first);
	length = scnprintf(text, sizeof(text), "changed=%u first=0x%lx\n", changed, (unsigned long)first);
	return simple_read_from_buffer(to, count, offset, text, length);
}

TEST_PROC_FILE(velmora_mm_fence, fence_read, NULL)

static int __init fence_init(void)
{
	if (start == 0 || end < start || end - start < 2 * FENCE_BYTES)
		return -EINVAL;
	memset((void *)start, FILLED, FENCE_BYTES);
	memset((void *)(end - FENCE_BYTES), FILLED, FENCE_BYTES);
	return create_velmora_mm_fence(0400) ? 0 : -ENOMEM;
}

static void __exit fence_exit(void)
{
	remove_proc_entry("velmora_mm_fence", NULL);
}

MODULE_LICENSE("GPL");
module_init(fence_init);
module_exit(fence_exit);
