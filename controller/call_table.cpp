#include "controller/call_table.h"

#include <algorithm>
#include <type_traits>
#include <utility>

#include "kernel/mm/mm/MM_Core.h"
#include "kernel/mm/mmi/MM_Interface.h"

namespace velmora::sim {

namespace {

// A 32-bit word as an argument: a pointer takes it as an address, a number as its low bits.
template <class T> T fromWord(U32 word)
{
    if constexpr (std::is_pointer_v<T>)
        return reinterpret_cast<T>(word);
    else
        return static_cast<T>(word);
}

template <class T> U32 toWord(T value)
{
    if constexpr (std::is_pointer_v<T>)
        return reinterpret_cast<U32>(value);
    else
        return static_cast<U32>(value);
}

template <auto function> struct Caller;

template <class R, class... A, R (*function)(A...)> struct Caller<function> {
    static constexpr unsigned arguments = sizeof...(A);
    static constexpr bool returnsNothing = std::is_void_v<R>;

    static U32 invoke(const U32* words) { return invoke(words, std::index_sequence_for<A...>()); }

private:
    template <std::size_t... i> static U32 invoke([[maybe_unused]] const U32* words, std::index_sequence<i...>)
    {
        if constexpr (returnsNothing) {
            function(fromWord<A>(words[i])...);
            return 0;
        } else {
            return toWord(function(fromWord<A>(words[i])...));
        }
    }
};

#define CALLABLE(function)                                                                                          \
    CallableFunction                                                                                                \
    {                                                                                                               \
#function, Caller < function> ::arguments, Caller < function> ::returnsNothing, Caller < function> ::invoke \
    }

const CallableFunction callableFunctions[] = {
    CALLABLE(CM_ConstructDefaultMCT),
    CALLABLE(CM_IF_EndVar),
    CALLABLE(CM_IF_GetDefaultMCT),
    CALLABLE(CM_IF_RIPAvailBlk),
    CALLABLE(CM_IF_ReadFixedSegEndAddr),
    CALLABLE(CM_IF_ReadFixedSegStartAddr),
    CALLABLE(CM_IF_ReadMCTStartAddr),
    CALLABLE(CM_IF_ReadRamBaseAddr),
    CALLABLE(CM_IF_ReadRamSize),
    CALLABLE(CM_IF_UpdateFixedSegEndAddr),
    CALLABLE(CM_ShowDEFMCT),
    CALLABLE(CM_ShowMCT),
    CALLABLE(MM_AddSegment),
    CALLABLE(MM_AllocBlk),
    CALLABLE(MM_AllocBlock),
    CALLABLE(MM_CheckHeapArea),
    CALLABLE(MM_CheckPermanentBlk),
    CALLABLE(MM_CheckSegInitCompleted),
    CALLABLE(MM_CheckSegment),
    CALLABLE(MM_CheckSumMCT),
    CALLABLE(MM_CleanUp),
    CALLABLE(MM_ClearMap),
    CALLABLE(MM_ClearMapAll),
    CALLABLE(MM_ClearSegment),
    CALLABLE(MM_CollectGarbage),
    CALLABLE(MM_ConstructSegLinkedList),
    CALLABLE(MM_CreateSegment),
    CALLABLE(MM_DeleteSegment),
    CALLABLE(MM_DisplayMST),
    CALLABLE(MM_Entry),
    CALLABLE(MM_ExecPJL),
    CALLABLE(MM_FindNewLargestBlk),
    CALLABLE(MM_Free),
    CALLABLE(MM_FreeBlk),
    CALLABLE(MM_FreeBlock),
    CALLABLE(MM_GetBlkBit),
    CALLABLE(MM_GetCollationCopyMemoryStatus),
    CALLABLE(MM_GetEndAddrOfSegment),
    CALLABLE(MM_GetHeapBlkID),
    CALLABLE(MM_GetInitTotBlk),
    CALLABLE(MM_GetLargestBlk),
    CALLABLE(MM_GetMCT),
    CALLABLE(MM_GetMST),
    CALLABLE(MM_GetPermanentStartBlk),
    CALLABLE(MM_GetPhysAddr),
    CALLABLE(MM_GetRCBEnd),
    CALLABLE(MM_GetStartAddrOfSegment),
    CALLABLE(MM_GetTotAvailBlk),
    CALLABLE(MM_GetTotBlk),
    CALLABLE(MM_GetTotalMemoryStatus),
    CALLABLE(MM_InstallSegment),
    CALLABLE(MM_IsBrokenDramBackUp),
    CALLABLE(MM_LibEntry),
    CALLABLE(MM_Malloc),
    CALLABLE(MM_Pop),
    CALLABLE(MM_Push),
    CALLABLE(MM_ReadMCT),
    CALLABLE(MM_ReadMST),
    CALLABLE(MM_ReadSegOnMCT),
    CALLABLE(MM_ReallocBlock),
    CALLABLE(MM_RearrangeMCT),
    CALLABLE(MM_RearrangeSegList),
    CALLABLE(MM_ReleasePermanentBlk),
    CALLABLE(MM_RestoreMCT),
    CALLABLE(MM_RlsAllPermanentBlk),
    CALLABLE(MM_RunningMultiJob_Notify),
    CALLABLE(MM_SearchMap),
    CALLABLE(MM_SegInitial),
    CALLABLE(MM_SetMap),
    CALLABLE(MM_SetPermanentBlk),
    CALLABLE(MM_TraceMST),
    CALLABLE(get_bigphysarea),
    CALLABLE(printer_mm_exit),
    CALLABLE(printer_mm_init),
    CALLABLE(read_velmora_mm),
    CALLABLE(valid_mmap_phys_addr_range),
    CALLABLE(valid_phys_addr_range),
};

} // namespace

const CallableFunction* findFunction(std::string_view name)
{
    const auto* const found = std::find_if(std::begin(callableFunctions), std::end(callableFunctions),
                                           [=](const CallableFunction& function) { return function.name == name; });
    return found == std::end(callableFunctions) ? nullptr : found;
}

} // namespace velmora::sim
