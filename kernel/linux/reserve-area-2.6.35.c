/*
 * reserve-area-2.6.35.c - an example for the board's file of an ARM kernel of that age, not part of the module: keeps a
 * stretch of RAM from the page allocator, in the linear map, for velmora_mm. Before 2.6.36 ARM boards have no
 * reserve hook of their own: arch/arm/mm/mmu.c, reserve_node_zero(), is the place to call this from; from 2.6.36 on
 * the board names velmora_mm_reserve in its MACHINE_START entry.
 *
 * 144 MiB at physical 16 MiB; with PAGE_OFFSET 0x94000000 and RAM from 0 the module is then loaded with
 * bigphysarea=95000000-9e000000.
 */
#include <linux/init.h>
#include <linux/kernel.h>
#include <linux/version.h>

#define VELMORA_MM_AREA_START 0x01000000
#define VELMORA_MM_AREA_BYTES 0x09000000

#if LINUX_VERSION_CODE < KERNEL_VERSION(2, 6, 36)
#include <linux/bootmem.h>

void __init velmora_mm_reserve(void)
{
	if (reserve_bootmem(VELMORA_MM_AREA_START, VELMORA_MM_AREA_BYTES, BOOTMEM_EXCLUSIVE) != 0)
		printk(KERN_ERR "velmora_mm: the area is not free\n");
}
#else
#include <linux/memblock.h>

void __init velmora_mm_reserve(void)
{
	if (memblock_reserve(VELMORA_MM_AREA_START, VELMORA_MM_AREA_BYTES) != 0)
		printk(KERN_ERR "velmora_mm: the area is not free\n");
}
#endif
