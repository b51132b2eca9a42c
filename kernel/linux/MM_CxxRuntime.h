/*
 * MM_CxxRuntime.h - read before every C++ source of the module: what the compiler itself calls. The other helpers
 * go by their usual names, which kernels export.
 */
extern "C" void* memset(void*, int, __SIZE_TYPE__) __asm__("mmp_memset");
