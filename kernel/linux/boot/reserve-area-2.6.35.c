/*
 * reserve-area-2.6.35.c - an example for the board's file of an ARM kernel of that age, not part of the module: keeps a
 * stretch of RAM from the page allocator, in the linear map, for velmora_mm. Before 2.6.36 ARM boards have no
 * reserve hook of their own: arch/arm/mm/mmu.c, reserve_node_zero(), is the place to call this from; from 2.6.36 on
 * the board names velmora_mm_reserve in its MACHINE_START entry.
 *
 * 144 MiB at physical 16 MiB; with PAGE_OFFSET 0x94000000 and RAM from 0 the module is then loaded with
 * bigphysarea=95000000-9e000000. An initial RAM disk that the boot loader places in the stretch is dropped.
 */
#include <linux/init.h>
#include <linux/kernel.h>
#include <linux/version.h>

#define VELMORA_MM_AREA_START 0x01000000
#define VELMORA_MM_AREA_BYTES 0x09000000
#define VELMORA_MM_AREA_END (VELMORA_MM_AREA_START + VELMORA_MM_AREA_BYTES)

/* Whether the area is RAM. A kernel that reserves what is none stops here, before it can show a message. */
static int __init velmora_mm_is_ram(unsigned long first, unsigned long end)
{
	if (VELMORA_MM_AREA_START >= first && VELMORA_MM_AREA_END <= end)
		return 1;
	printk(KERN_ERR "velmora_mm: nothing is reserved: RAM is 0x%08lx-0x%08lx, the area 0x%08x-0x%08x\n", first, end,
	       VELMORA_MM_AREA_START, VELMORA_MM_AREA_END);
	return 0;
}

#if LINUX_VERSION_CODE < KERNEL_VERSION(2, 6, 36)
#include <linux/bootmem.h>
#include <linux/mmzone.h>
#include <linux/pfn.h>

void __init velmora_mm_reserve(void)
{
	bootmem_data_t *ram = NODE_DATA(0)->bdata;

	if (!velmora_mm_is_ram(PFN_PHYS(ram->node_min_pfn), PFN_PHYS(ram->node_low_pfn)))
		return;
	if (reserve_bootmem(VELMORA_MM_AREA_START, VELMORA_MM_AREA_BYTES, BOOTMEM_EXCLUSIVE) != 0)
		printk(KERN_ERR "velmora_mm: the area is not free\n");
}
#else
#include <linux/memblock.h>

#include <asm/memory.h>

void __init velmora_mm_reserve(void)
{
	if (!velmora_mm_is_ram(PHYS_OFFSET, memblock_end_of_DRAM()))
		return;
	if (memblock_is_region_reserved(VELMORA_MM_AREA_START, VELMORA_MM_AREA_BYTES) ||
	    memblock_reserve(VELMORA_MM_AREA_START, VELMORA_MM_AREA_BYTES) != 0)
		printk(KERN_ERR "velmora_mm: the area is not free\n");
}
#endif
