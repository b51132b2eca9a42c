// The platform boundary on the simulated machine: each entry of MM_Platform.h, in its order.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host/machine.h"

using velmora::sim::machine;

void MMP_Print(const char* pcFormat, ...)
{
    std::va_list arguments;
    va_start(arguments, pcFormat);
    char text[2048];
    const int length = std::vsnprintf(text, sizeof text, pcFormat, arguments);
    va_end(arguments);
    machine().print(std::string(text, static_cast<std::size_t>(length)));
}

void MMP_MemSet(void* pvTo, U8 ubByte, U32 ulBytes)
{
    machine().touch(reinterpret_cast<U32>(pvTo), ulBytes);
    std::memset(pvTo, ubByte, ulBytes);
}

// Byte by byte: an address that does not exist is met at its first byte.
int MMP_StrNCmp(const U8* pubLeft, const U8* pubRight, U32 ulBytes)
{
    for (U32 i = 0; i < ulBytes; ++i) {
        if (pubLeft[i] != pubRight[i])
            return pubLeft[i] < pubRight[i] ? -1 : 1;
        if (pubLeft[i] == 0)
            break;
    }
    return 0;
}

#ifdef MMP_CHECKED_ACCESS
void MMP_Touch(const void* pvAddr, U32 ulBytes)
{
    machine().touch(reinterpret_cast<U32>(pvAddr), ulBytes);
}
#endif

// Not in the simulated RAM: no mapping of the device reaches this process's own memory.
void* MMP_TakeMemory(U32 ulBytes)
{
    return machine().takeMemory() ? std::calloc(ulBytes, 1) : nullptr;
}

void MMP_GiveMemory(void* pvMemory)
{
    std::free(pvMemory);
    machine().giveMemory();
}

void MMP_LockIrq(TMMLock enLock)
{
    machine().lock(enLock);
}

void MMP_UnlockIrq(TMMLock enLock)
{
    machine().unlock(enLock);
}

BOOL MMP_AccessOk(U32 ulUser, U32 ulBytes)
{
    using velmora::sim::kUserLimit;
    return !machine().fails(velmora::sim::KernelService::AccessOk) && ulUser <= kUserLimit &&
           ulBytes <= kUserLimit - ulUser;
}

U32 MMP_CopyFromUser(void* pvTo, U32 ulUser, U32 ulBytes)
{
    return machine().copyFromUser(pvTo, ulUser, ulBytes);
}

U32 MMP_CopyToUser(U32 ulUser, const void* pvFrom, U32 ulBytes)
{
    return machine().copyToUser(ulUser, pvFrom, ulBytes);
}

S32 MMP_RegisterChrdev(const char* pcName)
{
    return machine().registerDevice(pcName);
}

void MMP_UnregisterChrdev(S32 slMajor, const char* pcName)
{
    machine().unregisterDevice(slMajor, pcName);
}

BOOL MMP_CreateProc(const char* pcName, U32 ulMode)
{
    return machine().createProcEntry(pcName, ulMode);
}

void MMP_RemoveProc(const char* pcName)
{
    machine().removeProcEntry(pcName);
}

U32 MMP_PageOffset(void)
{
    return velmora::sim::kPageOffset;
}

U32 MMP_PhysOffset(void)
{
    return 0;
}

U32 MMP_HighMemory(void)
{
    return velmora::sim::Machine::highMemory();
}

BOOL MMP_PfnValid(U32 ulPfn)
{
    if (machine().fails(velmora::sim::KernelService::PageIsRam))
        return 0;
    return machine().faults.everyPageIsRam || ulPfn < velmora::sim::Machine::ramBytes() >> MMP_PAGE_SHIFT;
}

void MMP_FlushCacheAll(void)
{
    machine().flushCache();
}

S32 MMP_RemapPfnRange(const TMMMapRequest* pstRequest, U32 ulPfn, U32 ulBytes, TMMProt enProt)
{
    return machine().remap(*pstRequest, ulPfn, ulBytes, enProt);
}
