/*
 * MM_CxxRuntime.h - read before every C++ source of the module: memset, which the compiler calls for the manager's own
 * records, is the glue's (MM_Linux.c says why). An assembler's name, since the calls are the compiler's. Its other
 * helpers go by their usual names, which kernels export.
 */
__asm__("memset = mmp_memset");
