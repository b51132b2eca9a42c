// Real mappings of managed memory: which page, which memory type, which bytes, seen by whom.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include "board.hpp"
#include "harness.hpp"
#include "kernel_log.hpp"

using namespace target;

namespace {

std::uint32_t pageOf(std::uint32_t address)
{
    return (address - board().pageOffset + board().physOffset) / kPageBytes;
}

} // namespace

TARGET_TEST(mapping_at_several_offsets_is_the_physical_page_of_the_address)
{
    needManager();
    const Descriptor device;
    for (const std::uint32_t address :
         {board().managedStart(), board().managedStart() + kPageBytes, board().managedStart() + 0x1234000,
          board().managedEnd() - kPageBytes, board().areaStart(), board().areaEnd() - kPageBytes}) {
        const View view(device, address, kPageBytes);
        CHECK(view[0] == view[0]); // the page is in
        CHECK_EQUAL(physicalPage(view.start()), pageOf(address));
    }
}

TARGET_TEST(mapping_of_many_pages_is_contiguous)
{
    needManager();
    const Descriptor device;
    const std::uint32_t bytes = board().managedEnd() - board().managedStart();
    const View view(device, board().managedStart(), bytes);
    for (std::uint32_t offset = 0; offset < bytes; offset += 0x111000)
        CHECK_EQUAL(physicalPage(static_cast<std::uint8_t*>(view.start()) + offset),
                    pageOf(board().managedStart() + offset));
}

TARGET_TEST(mapping_is_cached_without_o_sync_and_uncached_with_it)
{
    needManager();
    const Descriptor plain;
    const Descriptor synchronous(O_SYNC);
    const View cached(plain, board().managedStart(), kPageBytes);
    const View uncached(synchronous, board().managedStart(), kPageBytes);
    volatile int ordinary = 0; // any page of this program
    CHECK(memoryType(cached.start()) != 0);
    CHECK_EQUAL(memoryType(cached.start()), memoryType(const_cast<int*>(&ordinary)));
    CHECK_EQUAL(memoryType(uncached.start()), 0u);
    cached[100] = 0x3C;
    CHECK_EQUAL(uncached[100], 0x3C);
    uncached[100] = 0xC3;
    CHECK_EQUAL(cached[100], 0xC3);
}

// O_SYNC is two bits on Linux since 2.6.33, O_DSYNC being one of them: either makes a mapping uncached.
TARGET_TEST(mapping_is_uncached_with_o_dsync_alone)
{
    needManager();
    const Descriptor device(O_DSYNC);
    const View view(device, board().managedStart(), kPageBytes);
    CHECK_EQUAL(memoryType(view.start()), 0u);
}

TARGET_TEST(mapping_shows_the_same_bytes_to_two_processes)
{
    needManager();
    int there[2], back[2];
    CHECK_EQUAL(pipe(there), 0);
    CHECK_EQUAL(pipe(back), 0);
    const int other = startProcess([&] {
        const Descriptor device;
        const View view(device, board().managedStart() + 0x200000, 0x10000);
        char token;
        CHECK_EQUAL(read(there[0], &token, 1), 1);
        for (unsigned i = 0; i < 0x10000; ++i)
            CHECK_EQUAL(static_cast<unsigned>(view[i]), (i * 7 + 3) & 0xFF);
        for (unsigned i = 0; i < 0x10000; ++i)
            view[i] = static_cast<std::uint8_t>(i * 11 + 5);
        CHECK_EQUAL(write(back[1], &token, 1), 1);
    });
    const Descriptor device;
    const View view(device, board().managedStart() + 0x200000, 0x10000);
    for (unsigned i = 0; i < 0x10000; ++i)
        view[i] = static_cast<std::uint8_t>(i * 7 + 3);
    char token = 'x';
    CHECK_EQUAL(write(there[1], &token, 1), 1);
    waitForProcess(other);
    CHECK_EQUAL(read(back[0], &token, 1), 1);
    for (unsigned i = 0; i < 0x10000; ++i)
        CHECK_EQUAL(static_cast<unsigned>(view[i]), (i * 11 + 5) & 0xFF);
    for (const int end : {there[0], there[1], back[0], back[1]})
        close(end);
}

TARGET_TEST(mapping_is_what_the_commands_write)
{
    needFreshManager();
    const Descriptor device;
    const View view(device, board().managedStart() + 0x300000, 2 * kPageBytes);
    TMemsetInfo fill = {board().managedStart() + 0x300000 + 10, 0x42, kPageBytes};
    CHECK_EQUAL(device.command(MM_CMD_MEMSET, fill), 0);
    CHECK_EQUAL(view[10], 0x42);
    CHECK_EQUAL(view[10 + kPageBytes - 1], 0x42);
}

TARGET_TEST(mapping_beyond_ram_answers_eio)
{
    needManager();
    const Descriptor device;
    for (const std::uint32_t address :
         {board().highMemory(), board().highMemory() + 0x1000000, board().pageOffset - kPageBytes, 0u})
        CHECK_EQUAL(mapDevice(device, address, kPageBytes), -EIO);
}

// The range is beyond RAM as well on this board: the kernel has to take its first page for one of its own.
TARGET_TEST(mapping_past_the_last_physical_page_answers_einval)
{
    const std::uint32_t lastPage = board().pageOffset - board().physOffset - kPageBytes;
    needManager();
    const Descriptor device;
    CHECK_EQUAL(mapDevice(device, lastPage, 2 * kPageBytes), -EIO);
    const FixedAnswer valid("pfn_valid", 1);
    KernelLog log;
    CHECK_EQUAL(mapDevice(device, lastPage, 2 * kPageBytes), -EINVAL);
    CHECK_LOGGED(log.take(), Lines());
}

// Kernels before 4.17 make it, but for those of their stable releases that refuse as well.
TARGET_TEST(mapping_that_reaches_beyond_file_offsets_is_refused_by_the_kernel)
{
    needManager();
    const Descriptor device;
    const std::uint32_t offset = board().highMemory() - kPageBytes;
    const std::uint32_t bytes = 0 - offset + kPageBytes;
    const std::int64_t result = mapDevice(device, offset, bytes);
    if (kernelIsBefore(4, 17) && result > 0)
        CHECK_EQUAL(munmap(reinterpret_cast<void*>(static_cast<std::uintptr_t>(result)), bytes), 0);
    else
        CHECK_EQUAL(result, -EOVERFLOW);
}

TARGET_TEST(mapping_that_the_kernel_cannot_make_answers_eagain)
{
    needManager();
    const Descriptor device;
    {
        const FixedAnswer refused("remap_pfn_range", -ENOMEM);
        KernelLog log;
        CHECK_EQUAL(mapDevice(device, board().managedStart(), 4 * kPageBytes), -EAGAIN);
        CHECK_LOGGED(log.take(), Lines());
    }
    const View view(device, board().managedStart(), 4 * kPageBytes);
    CHECK_EQUAL(physicalPage(view.start()), pageOf(board().managedStart()));
}

TARGET_TEST(mapping_of_ordinary_ram_is_not_refused)
{
    needManager();
    const Descriptor device;
    const View view(device, board().pageOffset + 0x8000, kPageBytes);
    CHECK_EQUAL(physicalPage(view.start()), pageOf(board().pageOffset + 0x8000));
}

TARGET_TEST(private_writable_mapping_is_allowed_when_whole)
{
    needManager();
    const Descriptor device;
    void* const start = mmap(nullptr, 2 * kPageBytes, PROT_READ, MAP_PRIVATE, device.number(),
                             static_cast<off_t>(board().managedStart()));
    CHECK(start != MAP_FAILED);
    munmap(start, 2 * kPageBytes);
}

TARGET_TEST(mapping_outlives_its_descriptor_and_holds_the_module)
{
    needManager();
    {
        std::int64_t address;
        {
            const Descriptor device;
            address = mapDevice(device, board().managedStart() + 0x400000, kPageBytes);
        }
        CHECK(address > 0);
        auto* const bytes = reinterpret_cast<volatile std::uint8_t*>(static_cast<std::uintptr_t>(address));
        bytes[1] = 0x99;
        CHECK_EQUAL(bytes[1], 0x99);
        CHECK_EQUAL(unloadModule(kModuleName), -EAGAIN);
        munmap(const_cast<std::uint8_t*>(bytes), kPageBytes);
    }
    CHECK_EQUAL(unloadModule(kModuleName), 0);
}

TARGET_TEST(contents_of_the_area_survive_a_reload)
{
    needManager();
    {
        const Descriptor device;
        const View view(device, board().managedStart() + 0x500000, kPageBytes);
        for (unsigned i = 0; i < kPageBytes; ++i)
            view[i] = static_cast<std::uint8_t>(i);
    }
    needNoManager();
    needManager();
    const Descriptor device;
    const View view(device, board().managedStart() + 0x500000, kPageBytes);
    for (unsigned i = 0; i < kPageBytes; ++i)
        CHECK_EQUAL(static_cast<unsigned>(view[i]), i & 0xFF);
}

TARGET_TEST(area_is_left_alone_by_a_kernel_short_of_memory)
{
    constexpr std::uint32_t kStride = 8 * kPageBytes;
    needManager();
    const Descriptor device;
    const View view(device, board().areaStart(), board().areaBytes);
    for (std::uint32_t offset = 0; offset < board().areaBytes; offset += kStride)
        *reinterpret_cast<volatile std::uint32_t*>(static_cast<std::uint8_t*>(view.start()) + offset + 64) =
            offset ^ 0x5A5A5A5A;
    struct sysinfo memory = {};
    CHECK_EQUAL(sysinfo(&memory), 0);
    const std::size_t muchBytes = std::min<std::size_t>(64 << 20, memory.freeram / 2 * memory.mem_unit);
    auto* const much = static_cast<volatile std::uint8_t*>(
        mmap(nullptr, muchBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    CHECK(much != MAP_FAILED);
    for (std::size_t i = 0; i < muchBytes; i += kPageBytes)
        much[i + 64] = 1;
    munmap(const_cast<std::uint8_t*>(much), muchBytes);
    for (std::uint32_t offset = 0; offset < board().areaBytes; offset += kStride)
        CHECK_EQUAL(*reinterpret_cast<volatile std::uint32_t*>(static_cast<std::uint8_t*>(view.start()) + offset + 64),
                    offset ^ 0x5A5A5A5A);
}
