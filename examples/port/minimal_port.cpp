// The smallest port of the manager: the platform boundary (kernel/mm/MM_Platform.h) over a static array in an ordinary 32-bit
// process, with the manager's sources as they are. docs/porting.md goes through it.
//
// There is no user memory apart from the process's own, no interrupts, no device table and no MMU to program, so each entry
// is what such a system can honestly do: copy, count, refuse.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kernel/mm/mmi/MM_Interface.h"

namespace {

constexpr U32 kRamBytes = 8 << 20;
alignas(1 << 20) unsigned char ram[kRamBytes]; // physical memory from 0 on; its address is where the linear map starts

bool held[MM_LOCK_NUM];

U32 addressOf(const void* pointer)
{
    return reinterpret_cast<U32>(pointer);
}

template <class T> T* at(U32 address)
{
    return reinterpret_cast<T*>(address);
}

} // namespace

void MMP_Print(const char* pcFormat, ...)
{
    std::va_list arguments;
    va_start(arguments, pcFormat);
    std::vfprintf(stderr, pcFormat, arguments);
    va_end(arguments);
}

void MMP_MemSet(void* pvTo, U8 ubByte, U32 ulBytes)
{
    std::memset(pvTo, ubByte, ulBytes);
}

int MMP_StrNCmp(const U8* pubLeft, const U8* pubRight, U32 ulBytes)
{
    return std::strncmp(reinterpret_cast<const char*>(pubLeft), reinterpret_cast<const char*>(pubRight), ulBytes);
}

// One thread: a lock that is held stays held, and waiting for it would not end.
void MMP_LockIrq(TMMLock enLock)
{
    if (held[enLock]) {
        std::puts("a lock is held for ever");
        std::exit(3);
    }
    held[enLock] = true;
}

void MMP_UnlockIrq(TMMLock enLock)
{
    held[enLock] = false;
}

// Callers and manager share one address space.
BOOL MMP_AccessOk(U32 ulUser, U32 ulBytes)
{
    return ulUser + ulBytes >= ulUser;
}

U32 MMP_CopyFromUser(void* pvTo, U32 ulUser, U32 ulBytes)
{
    std::memcpy(pvTo, at<void>(ulUser), ulBytes);
    return 0;
}

U32 MMP_CopyToUser(U32 ulUser, const void* pvFrom, U32 ulBytes)
{
    std::memcpy(at<void>(ulUser), pvFrom, ulBytes);
    return 0;
}

// No device table: callers call Velmora_MM_ioctl themselves.
S32 MMP_RegisterChrdev(const char*)
{
    return 1;
}

void MMP_UnregisterChrdev(S32, const char*)
{
}

BOOL MMP_CreateProc(const char*, U32)
{
    return 1;
}

void MMP_RemoveProc(const char*)
{
}

U32 MMP_PageOffset(void)
{
    return addressOf(ram);
}

U32 MMP_PhysOffset(void)
{
    return 0;
}

U32 MMP_HighMemory(void)
{
    return addressOf(ram) + kRamBytes;
}

BOOL MMP_PfnValid(U32 ulPfn)
{
    return ulPfn < kRamBytes >> MMP_PAGE_SHIFT;
}

void MMP_FlushCacheAll(void)
{
}

S32 MMP_RemapPfnRange(const TMMMapRequest*, U32, U32, TMMProt)
{
    return -1; // nobody has an address space of his own
}

// Bring-up --------------------------------------------------------------------------------------------

namespace {

// One command of the device, on a record of the caller's.
template <class T> S32 command(U32 number, T& record)
{
    return Velmora_MM_ioctl(number, addressOf(&record));
}

U32 allocate(U32 handle, U32 bytes)
{
    TMallocInfo request{handle, bytes, 1, {}, 0};
    const S32 result = command(MM_CMD_MALLOC, request);
    std::printf("allocate %7u: %d", static_cast<unsigned>(bytes), static_cast<int>(result));
    if (result == ENOERR)
        std::printf(", physical 0x%06x", static_cast<unsigned>(request.pubStart - MMP_PageOffset()));
    std::puts("");
    return request.pubStart;
}

void release(U32 handle, U32 address, U32 bytes)
{
    TFreeInfo request{handle, address, bytes};
    std::printf("release  %7u: %d\n", static_cast<unsigned>(bytes), static_cast<int>(command(MM_CMD_FREE, request)));
}

} // namespace

int main()
{
    std::snprintf(bigphysarea_info, sizeof bigphysarea_info, "%08x-%08x",
                  static_cast<unsigned>(addressOf(ram) + (1 << 20)), static_cast<unsigned>(addressOf(ram) + kRamBytes));
    TMMInitOption option = MM_CONSTRUCT_DEFAULT_MCT;
    TLibEntryInfo start{SM_BKUP_OK, 0};
    std::printf("load: %d\n", static_cast<int>(printer_mm_init()));
    std::printf("table: %d\n", static_cast<int>(command(MM_CMD_ENTRY, option)));
    std::printf("start: %d\n", static_cast<int>(command(MM_CMD_LIB_ENTRY, start)));

    TSegInfoFromApp segment{{'P', 'A', 'G', 'E'}, FLOAT, LINKEDLIST, 8, YES, 0x100000, 0x1000, 0, 0, 0, {}};
    const S32 created = command(MM_CMD_CREATE_SEGMENT, segment);
    std::printf("create: %d, handle %u, %u bytes\n", static_cast<int>(created),
                static_cast<unsigned>(segment.hulHandle), static_cast<unsigned>(segment.ulRetSegSize));

    const U32 first = allocate(segment.hulHandle, 12288);
    const U32 second = allocate(segment.hulHandle, 100);
    release(segment.hulHandle, first, 12288);
    allocate(segment.hulHandle, 8192);
    release(segment.hulHandle, second, 100);
    allocate(segment.hulHandle, 1 << 20);
    return 0;
}
