/*
 * MM_Interface.h - the entries that a kernel calls: module load and unload, the file operations of the control
 * device "Velmora_MM", the proc file. The platform connects them to its own structures; none of
 * them takes one. C and C++.
 */
#ifndef MM_INTERFACE_H
#define MM_INTERFACE_H

#include "../MM_Platform.h"

#define BIGPHYSAREA_INFO_SIZE 18 /* 17 characters and the terminating zero */

#ifdef __cplusplus
extern "C" {
#endif

/* Text of the module parameter "bigphysarea": "START-END", hexadecimal kernel virtual addresses. */
extern char bigphysarea_info[BIGPHYSAREA_INFO_SIZE];

/* The managed area: one mebibyte inside the text's bounds at each end. Kernel virtual addresses, 0
 * before a successful load. */
extern U32 memstart, memend;

/* Module load: 0, or a negative value after which the module is not loaded. Nothing of the manager's
 * tables is built. */
S32 printer_mm_init(void);
/* Module unload; only after a load that succeeded. Nothing of the manager's tables is cleared. */
void printer_mm_exit(void);

/* Takes the managed area from the parameter's text: 0, or -1 when a bound is not above the start of the linear
 * map; memstart and memend are then unchanged. */
S32 get_bigphysarea(const char* area_info);

/* File operations. One command at a time: the platform keeps calls of Velmora_MM_ioctl apart. */
S32 Velmora_MM_open(void);    /* 0 */
S32 Velmora_MM_release(void); /* 0 */
S32 Velmora_MM_read(void);    /* -38, whatever is asked */
S32 Velmora_MM_write(void);   /* -38, whatever is given */
/* Runs a command on the record at the user address arg: 0, a code of the manager (above 0), -22 when the
 * range is not accessible, -14 when a copy stops part-way. An unknown command is 0. */
S32 Velmora_MM_ioctl(U32 cmd, U32 arg);
/* Maps memory of the device: 0, -5 (no such page), -22 (beyond the physical space), -11 (refused). */
S32 Velmora_MM_mmap(TMMMapRequest* pstRequest);

/* 1 when pfn plus the pages of size (bytes) stay in the 32-bit physical space, else 0. */
BOOL valid_mmap_phys_addr_range(U32 pfn, U32 size);
/* 1 when [addr, addr + size), physical, ends at or below the end of the linear map, else 0. Never called. */
BOOL valid_phys_addr_range(U32 addr, U32 size);

/* Proc read: the character 1 and a NUL at buf, *eof 1; the count of characters, 1. The rest is ignored. */
S32 read_velmora_mm(char* buf, char** start, S32 off, S32 count, S32* eof, void* data);

#ifdef __cplusplus
}
#endif
#endif
