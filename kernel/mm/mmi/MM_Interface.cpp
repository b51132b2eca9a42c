/*
 * MM_Interface - the shell around the core: module load and unload, the fifteen control commands, mapping,
 * the proc file; the default MCT and the configuration that the core reads through the CM_IF_ accessors.
 */
#include "MM_Interface.h"
#include "../guard/MM_Guard.h"
#include "../mm/MM_Memory.h"

char bigphysarea_info[BIGPHYSAREA_INFO_SIZE];
U32 memstart, memend;
U32 *pubSegMemStartAddr, *pubSegMemEndAddr;
U32 ulFixedSegEndAddress;
U32 ulMCTStartAddr;
extern "C" S32 velmora_mm_major;
S32 velmora_mm_major;

namespace {

/* Kernel codes, as their negative values reach the caller. */
constexpr S32 KERNEL_EIO = 5, KERNEL_EAGAIN = 11, KERNEL_EFAULT = 14, KERNEL_EINVAL = 22, KERNEL_ENOSYS = 38;

constexpr U32 PAGE_BYTES = 1u << MMP_PAGE_SHIFT;

} // namespace

TMCTInfo stDefaultMCTTable[MAX_MCT_NUM] = {
    {{'$', 'M', 'C', 'T'}, FIXED_MCT_SIZE, nullptr}, {{'$', 'R', 'J', 'L'}, FIXED_RJL_SIZE, nullptr},
    {{'$', 'J', 'C', 'B'}, FIXED_JCB_SIZE, nullptr}, {{'$', 'U', 'E', 'V'}, FIXED_UEV_SIZE, nullptr},
    {{'$', 'F', 'I', 'L'}, FIXED_FIL_SIZE, nullptr},
};

/* Default MCT and configuration --------------------------------------------------------------------- */

U32 CM_ConstructDefaultMCT(U32, U32 ulMemEndAddr, U32 ulFIXEDSegStartAddr)
{
    for (TMCTInfo& stRow : stDefaultMCTTable) {
        if (MM_SameName(stRow.aubCFGID, " "))
            continue;
        if (stRow.ulSize % 4 != 0)
            MM_ASSERT(0, EASSERT);

        if (&stRow == &stDefaultMCTTable[0]) {
            stRow.pubStartAddr = MM_At(ulFIXEDSegStartAddr);
            ulFixedSegEndAddress = ulFIXEDSegStartAddr;
        } else if (stRow.pubStartAddr == nullptr) {
            /* INTENDED(last-row-past-the-end): tested before the row's own size is added. */
            if (ulFixedSegEndAddress > ulMemEndAddr) {
                MMP_Print("%s: Fixed Seg End addr(0x%x) is more than memory end addr(0x%x)\n", __func__,
                          ulFixedSegEndAddress, ulMemEndAddr);
                MM_ASSERT((ulFixedSegEndAddress <= ulMemEndAddr) && "The range of fixed segment is over the End address of memory", /* GCOVR_EXCL_BR_LINE: the test before is the same */
                          EASSERT);
            }
            stRow.pubStartAddr = MM_At(ulFixedSegEndAddress);
        }
        /* INTENDED(placed-row-counts): a row that has a place keeps it, and its size counts all the same. */
        ulFixedSegEndAddress += stRow.ulSize;

        if (MM_SameName(stRow.aubCFGID, "$MCT"))
            ulMCTStartAddr = MM_Addr(stRow.pubStartAddr);
    }
    return ENOERR;
}

TMCTInfo* CM_IF_GetDefaultMCT(void)
{
    return stDefaultMCTTable;
}

U32 CM_IF_ReadMCTStartAddr(void)
{
    /* INTENDED(fourteen-address): the error code is an address to the caller. */
    MM_ASSERT(ulMCTStartAddr && "The start address of MCT is NULL!!!!", EASSERT);
    return ulMCTStartAddr;
}

U32 CM_IF_ReadFixedSegStartAddr(void)
{
    return memstart;
}

U32 CM_IF_ReadFixedSegEndAddr(void)
{
    return ulFixedSegEndAddress;
}

void CM_IF_UpdateFixedSegEndAddr(U32 FixedSegEndAddr)
{
    ulFixedSegEndAddress = FixedSegEndAddr;
}

U32 CM_IF_RIPAvailBlk(void)
{
    return 0; /* no reserve in this build; the test of it stands in MM_AllocBlock */
}

U32 CM_IF_EndVar(void)
{
    return memstart;
}

U32 CM_IF_ReadRamBaseAddr(void)
{
    return 0;
}

U32 CM_IF_ReadRamSize(void)
{
    return memend - memstart;
}

void CM_ShowDEFMCT(void)
{
}

void CM_ShowMCT(void)
{
}

/* Load and unload ----------------------------------------------------------------------------------- */

namespace {

constexpr U32 AREA_MARGIN = 0x100000; /* INTENDED(area-margin): kept out of managed memory at each end */

bool IsSpace(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/* Value of a hexadecimal digit, or -1. */
S32 HexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    const char cLower = static_cast<char>(c | 0x20);
    return cLower >= 'a' && cLower <= 'f' ? cLower - 'a' + 10 : -1;
}

/* Reads what the scan format %8x reads: white space, then up to 8 characters of a hexadecimal number, an 0x in front
 * included, which is the number 0 when no digit follows. False when there is none. Kernels differ here (2.6.35 reads
 * past the width), so the manager reads for itself. */
bool ScanHex(const char*& pcText, U32* pulValue)
{
    while (IsSpace(*pcText))
        ++pcText;
    if (HexDigit(*pcText) < 0)
        return false;

    U32 ulValue = 0;
    U8 ubWidth = 8;
    if (pcText[0] == '0' && (pcText[1] | 0x20) == 'x') {
        pcText += 2;
        ubWidth -= 2;
    }
    for (; ubWidth > 0 && HexDigit(*pcText) >= 0; --ubWidth, ++pcText)
        ulValue = ulValue << 4 | static_cast<U32>(HexDigit(*pcText));
    *pulValue = ulValue;
    return true;
}

/* The scan format "%8x-%8x ": what does not match leaves its number as it is. */
void ScanArea(const char* pcText, U32* pulFirst, U32* pulSecond)
{
    if (ScanHex(pcText, pulFirst) && *pcText++ == '-')
        ScanHex(pcText, pulSecond);
}

} // namespace

S32 get_bigphysarea(const char* area_info)
{
    const U32 ulPageOffset = MMP_PageOffset();
    U32 a = 0;
    U32 b = 0;

    pubSegMemStartAddr = &memstart;
    pubSegMemEndAddr = &memend;
    ScanArea(area_info, &a, &b);
    b -= AREA_MARGIN;
    MMP_Print("****** A : [0x%X], B : [0x%X], PAGE_OFFSET : [0x%X] *****\n", a, b, ulPageOffset);
    if (a <= ulPageOffset || b <= ulPageOffset)
        return -1;
    MM_GUARD(MM_GuardArea(a + AREA_MARGIN, b), -1);

    memstart = a + AREA_MARGIN;
    memend = b;
    MMP_Print("bigphysares : 0x%08x ~ 0x%08x\n", memstart, memend);
    return 0;
}

S32 printer_mm_init(void)
{
    const S32 slArea = get_bigphysarea(bigphysarea_info);
    if (slArea < 0) {
        MMP_Print("%s: \nCan't get Big Memory Info, so can't install MM Driver !\n", __func__);
        return slArea;
    }
    const S32 slMajor = MMP_RegisterChrdev(VELMORA_MM_DEVICE_NAME);
    if (slMajor < 0) {
        MMP_Print("%s: \nMemory Manager Loading is failed.\n", __func__);
        return slMajor;
    }
    velmora_mm_major = slMajor;
    if (!MMP_CreateProc(VELMORA_MM_PROC_NAME, 0600)) {
        MMP_Print("\nCan't make a proc file!!!\n"); /* INTENDED(device-stays) */
        return -1;
    }
    return 0;
}

void printer_mm_exit(void)
{
    MMP_UnregisterChrdev(velmora_mm_major, VELMORA_MM_DEVICE_NAME);
    MMP_RemoveProc(VELMORA_MM_PROC_NAME);
    if constexpr (MM_Guarded)
        MM_GuardReset();
}

S32 read_velmora_mm(char* buf, char**, S32, S32, S32* eof, void*)
{
    buf[0] = '1';
    buf[1] = '\0';
    *eof = 1;
    return 1;
}

/* Control commands ---------------------------------------------------------------------------------- */

namespace {

/* Kernel copy of a command's record. */
union TMMCommandRecord {
    TLibEntryInfo stLibEntry;
    TSegInfoFromApp stCreate;
    TMallocInfo stMalloc;
    TFreeInfo stFree;
    TMemsetInfo stMemset;
    TDeleteSegmentInfo stDelete;
    TAddSegmentInfo stAdd;
    TClearSegmentInfo stClear;
    TMMInitOption initoption;
    TCollectGarbageInfo stCollect;
    TCheckSegmentInfo stCheck;
    TDisplayMSTInfo stDisplay;
    TQueryPhysAddrInfo stPhysAddr;
    TGetMSTInfo stGetMST;
    TGetMCTInfo stGetMCT;
};

enum EMMCopyBack { COPY_IN_ONLY, COPY_BACK };

struct TMMCommand {
    U8 ubBytes;
    EMMCopyBack enCopyBack;
    U32 (*pfnRun)(TMMCommandRecord& stRecord); /* the command's result */
};

U32 RunLibEntry(TMMCommandRecord& stRecord)
{
    stRecord.stLibEntry.status = static_cast<S32>(MM_LibEntry(stRecord.stLibEntry.enStartOption, nullptr));
    return static_cast<U32>(stRecord.stLibEntry.status);
}

U32 RunCreateSegment(TMMCommandRecord& stRecord)
{
    return MM_CreateSegment(&stRecord.stCreate);
}

U32 RunMalloc(TMMCommandRecord& stRecord)
{
    TMallocInfo& stInfo = stRecord.stMalloc;
    stInfo.pubStart = MM_Malloc(stInfo.hulHandle, stInfo.ulReqBytes, stInfo.ubMapID);
    if (stInfo.pubStart == 0)
        return EINVASEGSIZE;
    return stInfo.pubStart == MM_FAILED ? U32(EASSERT) : U32(ENOERR);
}

U32 RunFree(TMMCommandRecord& stRecord)
{
    return MM_Free(stRecord.stFree.hulHandle, MM_At(stRecord.stFree.pubRlsAddr), stRecord.stFree.ulBytesNo);
}

U32 RunMemset(TMMCommandRecord& stRecord)
{
    const TMemsetInfo& stInfo = stRecord.stMemset;
    if (stInfo.n != 0)
        MM_FillMemory(MM_At(stInfo.s), static_cast<U8>(stInfo.c), stInfo.n); /* INTENDED(fill-trusts) */
    MMP_Print("%s", "");
    return ENOERR;
}

/* INTENDED(delete-status): the record goes back without its status. */
U32 RunDeleteSegment(TMMCommandRecord& stRecord)
{
    MM_DeleteSegment(stRecord.stDelete.aubCFGID);
    return ENOERR;
}

U32 RunAddSegment(TMMCommandRecord&)
{
    return ENOERR; /* INTENDED(add-is-ignored) */
}

U32 RunClearSegment(TMMCommandRecord& stRecord)
{
    MM_ClearSegment(stRecord.stClear.aubCFGID);
    return ENOERR;
}

U32 RunEntry(TMMCommandRecord& stRecord)
{
    return MM_Entry(stRecord.initoption);
}

U32 RunCollectGarbage(TMMCommandRecord& stRecord)
{
    return MM_CollectGarbage(stRecord.stCollect.hulHandle, stRecord.stCollect.ubMapID);
}

U32 RunCheckSegment(TMMCommandRecord& stRecord)
{
    stRecord.stCheck.status = static_cast<U8>(MM_CheckSegment(stRecord.stCheck.hulHandle, stRecord.stCheck.ulAddr));
    return ENOERR;
}

U32 RunDisplayMST(TMMCommandRecord& stRecord)
{
    MM_DisplayMST(static_cast<U8>(stRecord.stDisplay.hulHandle));
    stRecord.stDisplay.status = 0;
    return ENOERR;
}

U32 RunQueryPhysAddr(TMMCommandRecord& stRecord)
{
    TQueryPhysAddrInfo& stInfo = stRecord.stPhysAddr;
    stInfo.ulPhysAddr = MM_GetPhysAddr(stInfo.hubHandle, stInfo.ulStart);
    return stInfo.ulPhysAddr == EASSERT ? U32(EASSERT) : U32(ENOERR);
}

U32 RunGetMST(TMMCommandRecord& stRecord)
{
    TGetMSTInfo& stInfo = stRecord.stGetMST;
    stInfo.status = MM_GetMST(stInfo.hubHandle, reinterpret_cast<TMMSegInfo*>(&stInfo.SegTable));
    return ENOERR;
}

U32 RunGetMCT(TMMCommandRecord& stRecord)
{
    TGetMCTInfo& stInfo = stRecord.stGetMCT;
    stInfo.status = MM_GetMCT(stInfo.cfgid, reinterpret_cast<TMCTInfo*>(&stInfo.SegTable));
    return ENOERR;
}

constexpr TMMCommand astCommand[MM_CMD_COUNT] = {
    /* MM_CMD_LIB_ENTRY */ {sizeof(TLibEntryInfo), COPY_BACK, RunLibEntry},
    /* MM_CMD_CREATE_SEGMENT */ {sizeof(TSegInfoFromApp), COPY_BACK, RunCreateSegment},
    /* MM_CMD_MALLOC */ {sizeof(TMallocInfo), COPY_BACK, RunMalloc},
    /* MM_CMD_FREE */ {sizeof(TFreeInfo), COPY_IN_ONLY, RunFree},
    /* MM_CMD_MEMSET */ {sizeof(TMemsetInfo), COPY_IN_ONLY, RunMemset},
    /* MM_CMD_DELETE_SEGMENT */ {sizeof(TDeleteSegmentInfo), COPY_BACK, RunDeleteSegment},
    /* MM_CMD_ADD_SEGMENT */ {sizeof(TAddSegmentInfo), COPY_IN_ONLY, RunAddSegment},
    /* MM_CMD_CLEAR_SEGMENT */ {sizeof(TClearSegmentInfo), COPY_IN_ONLY, RunClearSegment},
    /* MM_CMD_ENTRY */ {sizeof(TMMInitOption), COPY_IN_ONLY, RunEntry},
    /* MM_CMD_COLLECT_GARBAGE */ {sizeof(TCollectGarbageInfo), COPY_IN_ONLY, RunCollectGarbage},
    /* MM_CMD_CHECK_SEGMENT */ {sizeof(TCheckSegmentInfo), COPY_BACK, RunCheckSegment},
    /* MM_CMD_DISPLAY_MST */ {sizeof(TDisplayMSTInfo), COPY_BACK, RunDisplayMST},
    /* MM_CMD_QUERY_PHYS_ADDR */ {sizeof(TQueryPhysAddrInfo), COPY_BACK, RunQueryPhysAddr},
    /* MM_CMD_GET_MST */ {sizeof(TGetMSTInfo), COPY_BACK, RunGetMST},
    /* MM_CMD_GET_MCT */ {sizeof(TGetMCTInfo), COPY_BACK, RunGetMCT},
};

U32 Run(const TMMCommand& stCommand, [[maybe_unused]] U32 cmd, TMMCommandRecord& stRecord)
{
    MM_GUARD(MM_GuardCommand(cmd, &stRecord), EASSERT);
    return stCommand.pfnRun(stRecord);
}

} // namespace

S32 Velmora_MM_ioctl(U32 cmd, U32 arg)
{
    constexpr char acCopyFailed[] = "%s: From user buffer to kernel parameter copy is failed.\n";

    if (cmd - MM_CMD_FIRST >= MM_CMD_COUNT)
        return 0; /* INTENDED(unknown-command) */
    const TMMCommand& stCommand = astCommand[cmd - MM_CMD_FIRST];

    if (!MMP_AccessOk(arg, stCommand.ubBytes)) {
        MMP_Print("%s: Read access to user parameter buffer is failed.\n", __func__);
        return -KERNEL_EINVAL;
    }
    TMMCommandRecord stRecord;
    __builtin_memset(&stRecord, 0, sizeof(stRecord));
    if (MMP_CopyFromUser(&stRecord, arg, stCommand.ubBytes) != 0) {
        MMP_Print(acCopyFailed, __func__);
        return -KERNEL_EFAULT;
    }
    const U32 ulResult = Run(stCommand, cmd, stRecord);
    if (stCommand.enCopyBack == COPY_BACK && MMP_CopyToUser(arg, &stRecord, stCommand.ubBytes) != 0) {
        MMP_Print(acCopyFailed, __func__); /* what the command did stays done */
        return -KERNEL_EFAULT;
    }
    return static_cast<S32>(ulResult);
}

S32 Velmora_MM_open(void)
{
    if constexpr (MM_Guarded)
        MM_GuardOpened();
    return 0;
}

S32 Velmora_MM_release(void)
{
    if constexpr (MM_Guarded)
        MM_GuardReleased();
    return 0;
}

S32 Velmora_MM_read(void)
{
    return -KERNEL_ENOSYS;
}

S32 Velmora_MM_write(void)
{
    return -KERNEL_ENOSYS;
}

/* Mapping ------------------------------------------------------------------------------------------- */

BOOL valid_mmap_phys_addr_range(U32 pfn, U32 size)
{
    constexpr U32 ulPhysPages = 0x100000; /* pages of a 32-bit physical space */
    return pfn + size / PAGE_BYTES <= ulPhysPages;
}

BOOL valid_phys_addr_range(U32 addr, U32 size)
{
    return addr + size <= MM_PhysAddr(MMP_HighMemory());
}

S32 Velmora_MM_mmap(TMMMapRequest* pstRequest)
{
    const U32 ulPfn = MM_PhysAddr(pstRequest->ulPgOff * PAGE_BYTES) / PAGE_BYTES;
    if (!MMP_PfnValid(ulPfn))
        return -KERNEL_EIO;
    MM_GUARD(MM_GuardMapping(pstRequest->ulPgOff, pstRequest->ulEnd - pstRequest->ulStart), -KERNEL_EINVAL);
    pstRequest->ulPgOff = ulPfn;

    const U32 ulBytes = pstRequest->ulEnd - pstRequest->ulStart;
    if (!valid_mmap_phys_addr_range(ulPfn, ulBytes))
        return -KERNEL_EINVAL;

    const bool fUncached = pstRequest->fSync || ulPfn * PAGE_BYTES >= MM_PhysAddr(MMP_HighMemory());
    MMP_FlushCacheAll();
    if (MMP_RemapPfnRange(pstRequest, ulPfn, ulBytes, fUncached ? MM_PROT_UNCACHED : MM_PROT_CACHED) != 0)
        return -KERNEL_EAGAIN;
    return 0;
}
