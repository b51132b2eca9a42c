/* A program whose own names are the ones that the wire header offers without a prefix: X11 has some of them. */
typedef int BOOL;
typedef struct {
    long U32;
} U8, S32, TAddr;
#define YES 1
#define NO 0
#define FIXED "fixed"
#define STACK (not an expression)
#define FLOAT float
enum { ENOERR = 77, EASSERT, SM_BKUP_OK, HEAPHANDLE, MAX_MCT_NUM };
struct TFreeInfo;

#define VELMORA_MM_PREFIXED_NAMES
#include <velmora_mm/velmora_mm.h>

MM_U32 UsesPrefixedNames(const MM_TFreeInfo* request);
MM_U32 UsesPrefixedNames(const MM_TFreeInfo* request)
{
    const BOOL own = YES;
    const MM_BOOL theirs = MM_YES;
    MM_TSegInfoFromApp segment = {{'B', 'L', 'K', '0'}, MM_FLOAT, MM_LINKEDLIST, 8, MM_YES, 65536, 4096, 0, 0, 0, {0}};
    const MM_TAddr address = request->pubRlsAddr;
    segment.ubType = own == theirs && ENOERR != 0 ? (MM_U8)MM_FIXED : (MM_U8)MM_STACK;
    return address + segment.ulBlkSize + MM_ENOERR + MM_CMD_FREE + MM_HEAPHANDLE;
}
