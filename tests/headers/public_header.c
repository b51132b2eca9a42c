/* Other kernel code is C: the public headers have to compile as it. */
#include "kernel/mm/mm/MM.h"
#include "kernel/mm/mmi/MM_Interface.h"

U32 UsesTheManager(void);
U32 UsesTheManager(void)
{
    return MM_Malloc(HEAPHANDLE, 4096, 0);
}
