#include "controller/manager_state.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

#include "kernel/mm/guard/MM_Guard.h"
#include "kernel/mm/mm/MM_RunIndex.h"
#include "kernel/mm/mmi/MM_Interface.h"
#include "controller/session_text.h"
#include "host/machine.h"

extern "C" S32 velmora_mm_major;

namespace velmora::sim {

namespace {

template <class T> ManagerVariable entry(const char* name, T& variable, bool dumped)
{
    return {name, &variable, sizeof variable, dumped}; // NOLINT(bugprone-sizeof-expression): some are pointers
}

#define DUMPED(variable) entry(#variable, variable, true)
#define NOT_DUMPED(variable) entry(#variable, variable, false)

const ManagerVariable variables[] = {
    DUMPED(stSegTable),
    NOT_DUMPED(hulFixedHandle),
    NOT_DUMPED(hulFloatHandle),
    NOT_DUMPED(ulRunningMultiJob),
    DUMPED(ulPermanentBlkStartPtr),
    DUMPED(ulPermanentBlkCount),
    NOT_DUMPED(stMSTInfo),
    DUMPED(ulRamSize),
    NOT_DUMPED(pubMCTStartAddr),
    DUMPED(pstMCTTable),
    NOT_DUMPED(MCTTable),
    NOT_DUMPED(ulCheckSumField),
    DUMPED(pstSegBlkHead),
    DUMPED(pstSegBlkTail),
    NOT_DUMPED(pstHEAPBiggestBlk),
    DUMPED(stSegStartAddr),
    DUMPED(stSegEndAddr),
    DUMPED(stSegMapStartAddr),
    DUMPED(stSegMapEndAddr),
    DUMPED(astBlkHead),
    DUMPED(astBlkTail),
    DUMPED(astStackStr),
    DUMPED(stDefaultMCTTable),
    NOT_DUMPED(pubSegMemStartAddr),
    NOT_DUMPED(pubSegMemEndAddr),
    DUMPED(memstart),
    DUMPED(memend),
    DUMPED(ulFixedSegEndAddress),
    DUMPED(ulMCTStartAddr),
    NOT_DUMPED(bigphysarea_info),
    NOT_DUMPED(velmora_mm_major),
};

#undef DUMPED
#undef NOT_DUMPED

// The variables' bytes one after the other, before anybody has called the manager.
const std::vector<std::uint8_t> image = [] {
    std::vector<std::uint8_t> bytes;
    for (const ManagerVariable& variable : variables) {
        const auto* const place = static_cast<const std::uint8_t*>(variable.place);
        bytes.insert(bytes.end(), place, place + variable.bytes);
    }
    return bytes;
}();

constexpr unsigned kMaxNodes = 100000; // a list that is longer is taken for endless

[[gnu::format(printf, 2, 3)]] void append(std::string& text, const char* format, ...)
{
    char line[512];
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    text += line;
}

std::string name(const U8 (&id)[4])
{
    return "\"" + escaped(std::string(id, id + 4)) + "\"";
}

U32 addr(const void* pointer)
{
    return reinterpret_cast<U32>(pointer);
}

template <class Routine> U32 toAddress(Routine* routine)
{
    return reinterpret_cast<U32>(routine);
}

// One line a node from the head along the forward links; label is "free" or "run H".
void dumpList(std::string& text, const std::string& label, const TMMBlkStr* head)
{
    constexpr U32 headerBytes = offsetof(TMMBlkStr, aubdata);
    unsigned nodes = 0;
    for (const TMMBlkStr* node = head; node != nullptr; node = node->pstNext) {
        const bool inRam = addr(node) >= kPageOffset && Machine::exists(addr(node), headerBytes);
        if (!inRam || nodes++ == kMaxNodes) {
            append(text, "%s stop=0x%x\n", label.c_str(), addr(node));
            return;
        }
        append(text, "%s addr=0x%x size=0x%x next=0x%x back=0x%x\n", label.c_str(), addr(node), node->ulSize,
               addr(node->pstNext), addr(node->pstBack));
    }
}

std::string place(const U8* pointer, const THeapAddrRange& pieces)
{
    if (addr(pointer) == addr(&pieces))
        return "pieces";
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", addr(pointer));
    return text;
}

const char* routineName(TMMAllocRoutine routine)
{
    return routine == MM_AllocBlk ? "MM_AllocBlk" : routine == MM_Push ? "MM_Push" : "0";
}

const char* routineName(TMMFreeRoutine routine)
{
    return routine == MM_FreeBlk ? "MM_FreeBlk" : routine == MM_Pop ? "MM_Pop" : "0";
}

bool isShown(const TMMSegInfo& seg)
{
    constexpr U8 unnamed[4] = {};
    return (seg.pfnAlloc != nullptr && seg.pfnFree != nullptr) ||
           std::memcmp(seg.stInfoFromApp.aubSegID, unnamed, sizeof unnamed) != 0;
}

void dumpPieces(std::string& text)
{
    for (unsigned i = 0; i < MAX_PIECE_NUM && stSegStartAddr.aulHeapAddr[i] != MM_UNUSED_PIECE; ++i)
        append(text, "piece %u start=0x%x end=0x%x mapstart=0x%x mapend=0x%x\n", i, stSegStartAddr.aulHeapAddr[i],
               stSegEndAddr.aulHeapAddr[i], stSegMapStartAddr.aulHeapAddr[i], stSegMapEndAddr.aulHeapAddr[i]);
}

void dumpSegment(std::string& text, U32 handle)
{
    const TMMSegInfo& seg = stSegTable[handle];
    const TSegInfoFromApp& app = seg.stInfoFromApp;
    append(text, "seg %u id=%s type=%u ds=%u map=%u sem=%u segsize=0x%x blksize=0x%x handle=%u retsize=0x%x vm=%u",
           handle, name(app.aubSegID).c_str(), app.ubType, app.ubSegDSType, app.ubMap, app.ubSemaphore, app.ulSegSize,
           app.ulBlkSize, app.hulHandle, app.ulRetSegSize, app.ubVM);
    append(text, " blkbit=%u start=%s end=%s mapstart=%s mapend=%s", seg.ubBlkBit,
           place(seg.pubStartAddr, stSegStartAddr).c_str(), place(seg.pubEndAddr, stSegEndAddr).c_str(),
           place(seg.pubMapStartAddr, stSegMapStartAddr).c_str(), place(seg.pubMapEndAddr, stSegMapEndAddr).c_str());
    append(text, " total=0x%x alloc=0x%x free=0x%x largest=0x%x avail=0x%x pfnalloc=%s pfnfree=%s\n", seg.ulTotalBlkNum,
           seg.ulTotalAllocBlkNum, seg.ulTotalFreeBlkNum, seg.ulLargestBlkSize, seg.ulRealAvailSize,
           routineName(seg.pfnAlloc), routineName(seg.pfnFree));

    if (handle == HEAPHANDLE && addr(seg.pubStartAddr) == addr(&stSegStartAddr))
        dumpPieces(text);
    if (app.ubSegDSType == STACK) {
        append(text, "stack %u tail=0x%x head=0x%x\n", handle, addr(astStackStr[handle].pubStackTail),
               addr(astStackStr[handle].pubStackHead));
        return;
    }
    append(text, "runs %u head=0x%x tail=0x%x\n", handle, astBlkHead[handle].ulyisl, astBlkTail[handle].ulyisl);
    dumpList(text, "run " + std::to_string(handle), astBlkHead[handle].pstBlk);
}

} // namespace

std::span<const ManagerVariable> managerVariables()
{
    return variables;
}

void resetManagerState()
{
    const std::uint8_t* from = image.data();
    for (const ManagerVariable& variable : variables) {
        std::memcpy(variable.place, from, variable.bytes);
        from += variable.bytes;
    }
    MM_ResetRunIndexes();
    if constexpr (MM_Guarded)
        MM_GuardReset();
}

std::string dumpManagerState()
{
    std::string text;
    append(text, "mem start=0x%x end=0x%x ram=0x%x fixedend=0x%x mctstart=0x%x permptr=0x%x permcount=%u\n", memstart,
           memend, ulRamSize, ulFixedSegEndAddress, ulMCTStartAddr, ulPermanentBlkStartPtr, ulPermanentBlkCount);
    for (unsigned i = 0; i < MAX_MCT_NUM; ++i) {
        const TMCTInfo& row = pstMCTTable[i] != nullptr ? *pstMCTTable[i] : stDefaultMCTTable[i];
        append(text, "mct %u id=%s size=0x%x start=0x%x\n", i, name(row.aubCFGID).c_str(), row.ulSize,
               addr(row.pubStartAddr));
    }
    append(text, "freelist head=0x%x tail=0x%x\n", addr(pstSegBlkHead), addr(pstSegBlkTail));
    dumpList(text, "free", pstSegBlkHead);
    for (U32 handle = 0; handle < MAX_SEGTABLE_SIZE; ++handle)
        if (isShown(stSegTable[handle]))
            dumpSegment(text, handle);
    return text;
}

bool isManagerTable(U32 address)
{
    const void* const tables[] = {&stMSTInfo,    stDefaultMCTTable,  &stSegStartAddr,
                                  &stSegEndAddr, &stSegMapStartAddr, &stSegMapEndAddr};
    return std::any_of(std::begin(tables), std::end(tables), [=](const void* table) { return addr(table) == address; });
}

void hideRoutineAddresses(std::uint8_t* bytes, std::size_t count)
{
    const U32 routines[] = {toAddress(MM_AllocBlk), toAddress(MM_Push), toAddress(MM_FreeBlk), toAddress(MM_Pop)};
    for (std::size_t i = 0; i + sizeof(U32) <= count; i += sizeof(U32)) {
        U32 word;
        std::memcpy(&word, bytes + i, sizeof word);
        if (std::find(std::begin(routines), std::end(routines), word) != std::end(routines))
            std::memset(bytes + i, 0, sizeof word);
    }
}

} // namespace velmora::sim
