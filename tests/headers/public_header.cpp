// The public headers as C++.
#include "kernel/mm/mm/MM.h"
#include "kernel/mm/mmi/MM_Interface.h"

U32 UsesTheManager(void);
U32 UsesTheManager(void)
{
    return MM_Malloc(HEAPHANDLE, 4096, 0);
}
