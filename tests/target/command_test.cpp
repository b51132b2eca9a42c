// The fifteen commands over the real ioctl: good records, and every kind of bad user pointer.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sys/mman.h>

#include "board.hpp"
#include "harness.hpp"
#include "kernel_log.hpp"

using namespace target;

namespace {

const char kReadRefused[] = "Velmora_MM_ioctl: Read access to user parameter buffer is failed.";
const char kCopyFailed[] = "Velmora_MM_ioctl: From user buffer to kernel parameter copy is failed.";

struct Command {
    std::uint32_t number;
    std::uint32_t bytes;
    bool copiedBack;
};

constexpr Command kCommands[] = {
    {MM_CMD_LIB_ENTRY, sizeof(TLibEntryInfo), true},
    {MM_CMD_CREATE_SEGMENT, sizeof(TSegInfoFromApp), true},
    {MM_CMD_MALLOC, sizeof(TMallocInfo), true},
    {MM_CMD_FREE, sizeof(TFreeInfo), false},
    {MM_CMD_MEMSET, sizeof(TMemsetInfo), false},
    {MM_CMD_DELETE_SEGMENT, sizeof(TDeleteSegmentInfo), true},
    {MM_CMD_ADD_SEGMENT, sizeof(TAddSegmentInfo), false},
    {MM_CMD_CLEAR_SEGMENT, sizeof(TClearSegmentInfo), false},
    {MM_CMD_ENTRY, sizeof(TMMInitOption), false},
    {MM_CMD_COLLECT_GARBAGE, sizeof(TCollectGarbageInfo), false},
    {MM_CMD_CHECK_SEGMENT, sizeof(TCheckSegmentInfo), true},
    {MM_CMD_DISPLAY_MST, sizeof(TDisplayMSTInfo), true},
    {MM_CMD_QUERY_PHYS_ADDR, sizeof(TQueryPhysAddrInfo), true},
    {MM_CMD_GET_MST, sizeof(TGetMSTInfo), true},
    {MM_CMD_GET_MCT, sizeof(TGetMCTInfo), true},
};
static_assert(sizeof kCommands / sizeof *kCommands == MM_CMD_COUNT);

// Two pages of user memory with nothing behind them.
struct UserPages {
    UserPages()
    {
        start = static_cast<std::uint8_t*>(
            mmap(nullptr, 3 * kPageBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        munmap(start + 2 * kPageBytes, kPageBytes);
        std::memset(start, 0, 2 * kPageBytes);
    }
    ~UserPages() { munmap(start, 2 * kPageBytes); }
    std::uint32_t end() const
    {
        return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(start)) + 2 * kPageBytes;
    }

    std::uint8_t* start;
};

TSegInfoFromApp request(const char* name, std::uint32_t bytes, std::uint32_t blockBytes, std::uint8_t map,
                        std::uint8_t discipline = LINKEDLIST)
{
    TSegInfoFromApp info = {};
    std::memcpy(info.aubSegID, name, 4);
    info.ubType = FLOAT;
    info.ubSegDSType = discipline;
    info.ubMap = map;
    info.ubSemaphore = YES;
    info.ulSegSize = bytes;
    info.ulBlkSize = blockBytes;
    return info;
}

std::uint32_t createBand(const Descriptor& device)
{
    TSegInfoFromApp info = request("BAND", 0x100000, 4096, 8);
    CHECK_EQUAL(device.command(MM_CMD_CREATE_SEGMENT, info), 0);
    return info.hulHandle;
}

TMMSegInfoWire entryOf(const Descriptor& device, std::uint32_t handle)
{
    TGetMSTInfo info = {};
    info.hubHandle = static_cast<std::uint8_t>(handle);
    CHECK_EQUAL(device.command(MM_CMD_GET_MST, info), 0);
    CHECK_EQUAL(info.status, 0);
    return info.SegTable;
}

void answersForAll(std::uint32_t (*addressFor)(const Command&), int code, const char* message)
{
    needFreshManager();
    const Descriptor device;
    KernelLog log;
    for (const Command& command : kCommands) {
        CHECK_EQUAL(device.commandAt(command.number, addressFor(command)), code);
        CHECK_LOGGED(log.take(), Lines{message});
    }
}

} // namespace

TARGET_TEST(command_entry_builds_the_table_at_the_managed_start)
{
    needFreshManager();
    const Descriptor device;
    constexpr std::uint32_t sizes[] = {0x1000, 0x1000, 0x10000, 0x100000, 0x100000};
    std::uint32_t address = board().managedStart();
    for (std::uint8_t i = 0; i < 5; ++i) {
        TGetMCTInfo row = {};
        row.cfgid = i;
        CHECK_EQUAL(device.command(MM_CMD_GET_MCT, row), 0);
        CHECK_EQUAL(row.status, 0);
        CHECK_EQUAL(row.SegTable.ulSize, sizes[i]);
        CHECK_EQUAL(row.SegTable.pubStartAddr, address);
        address += sizes[i];
    }
    TGetMCTInfo beyond = {};
    beyond.cfgid = 5;
    CHECK_EQUAL(device.command(MM_CMD_GET_MCT, beyond), 0);
    CHECK_EQUAL(beyond.status, 255);
    TMMInitOption option = 1;
    CHECK_EQUAL(device.command(MM_CMD_ENTRY, option), EASSERT);
}

TARGET_TEST(command_lib_entry_writes_its_result_and_refuses_option_4)
{
    needFreshManager();
    const Descriptor device;
    TLibEntryInfo info = {SM_FM_MBR_OK, -1};
    CHECK_EQUAL(device.command(MM_CMD_LIB_ENTRY, info), EASSERT);
    CHECK_EQUAL(info.status, EASSERT);
    info = {SM_BKUP_OK, -1};
    CHECK_EQUAL(device.command(MM_CMD_LIB_ENTRY, info), 0);
    CHECK_EQUAL(info.status, 0);
}

TARGET_TEST(command_create_malloc_free_move_the_counters)
{
    needFreshManager();
    const Descriptor device;
    const std::uint32_t handle = createBand(device);
    CHECK_EQUAL(handle, 5u);
    const TMMSegInfoWire before = entryOf(device, handle);
    CHECK_EQUAL(before.ulTotalFreeBlkNum, before.ulTotalBlkNum);

    TMallocInfo info = {handle, 3 * 4096 - 1, 7, {}, 0};
    CHECK_EQUAL(device.command(MM_CMD_MALLOC, info), 0);
    CHECK_EQUAL(info.pubStart, before.pubEndAddr - 3 * 4096);
    CHECK_EQUAL(entryOf(device, handle).ulTotalAllocBlkNum, 3u);

    TFreeInfo release = {handle, info.pubStart, 3 * 4096};
    CHECK_EQUAL(device.command(MM_CMD_FREE, release), 0);
    CHECK_EQUAL(entryOf(device, handle).ulLargestBlkSize, before.ulTotalBlkNum);
}

TARGET_TEST(command_malloc_answers_4_without_room_and_14_for_a_bad_request)
{
    needFreshManager();
    const Descriptor device;
    const std::uint32_t handle = createBand(device);
    TMallocInfo info = {handle, 0x100001, 7, {}, 0xFFFFFFFF};
    CHECK_EQUAL(device.command(MM_CMD_MALLOC, info), EINVASEGSIZE);
    CHECK_EQUAL(info.pubStart, 0u);

    KernelLog log;
    info = {handle, 0, 7, {}, 0};
    CHECK_EQUAL(device.command(MM_CMD_MALLOC, info), EASSERT);
    CHECK_EQUAL(info.pubStart, 0xFFFFFFFFu);
    const Lines lines = log.take();
    CHECK_EQUAL(lines.size(), 1u);
    const std::string expected = "Assertion failed! ulReqBytes is less then 0 kernel/mm/mm/MM_Lib.cpp,MM_Malloc,line=";
    CHECK_EQUAL(lines[0].substr(0, expected.size()), expected);
}

TARGET_TEST(command_memset_fills_managed_memory_and_prints_the_empty_text)
{
    needFreshManager();
    const Descriptor device;
    const std::uint32_t handle = createBand(device);
    TMallocInfo info = {handle, 8192, 7, {}, 0};
    CHECK_EQUAL(device.command(MM_CMD_MALLOC, info), 0);
    const View view(device, info.pubStart, 8192);
    view[0] = 0;
    view[8191] = 0;
    KernelLog log;
    TMemsetInfo fill = {info.pubStart + 1, 0x1FF, 8190};
    CHECK_EQUAL(device.command(MM_CMD_MEMSET, fill), 0);
    CHECK_EQUAL(view[0], 0);
    CHECK_EQUAL(view[1], 0xFF);
    CHECK_EQUAL(view[8190], 0xFF);
    CHECK_EQUAL(view[8191], 0);
    fill.n = 0;
    fill.c = 0;
    CHECK_EQUAL(device.command(MM_CMD_MEMSET, fill), 0);
    CHECK_EQUAL(view[1], 0xFF);
    for (const std::string& line : log.take())
        CHECK_EQUAL(line, std::string());
}

TARGET_TEST(command_delete_add_clear_segment_answer_0)
{
    needFreshManager();
    const auto device = std::make_unique<Descriptor>();
    KernelLog log;
    TAddSegmentInfo add = {{'$', 'N', 'E', 'W'}, 4096, board().areaStart() + 0x1000000, 0x5A, {1, 2, 3}};
    CHECK_EQUAL(device->command(MM_CMD_ADD_SEGMENT, add), 0);
    CHECK_EQUAL(add.status, 0x5A);
    CHECK_LOGGED(log.take(), Lines());

    const View first(*device, board().managedStart() + 0x1000, 4096); // "$RJL"
    first[17] = 0x77;
    TClearSegmentInfo clear = {{'$', 'R', 'J', 'L'}, 0, 0, 0, {}};
    CHECK_EQUAL(device->command(MM_CMD_CLEAR_SEGMENT, clear), 0);
    CHECK_EQUAL(first[17], 0);

    TDeleteSegmentInfo unknown = {{'N', 'O', 'N', 'E'}, 0x5A};
    CHECK_EQUAL(device->command(MM_CMD_DELETE_SEGMENT, unknown), 0);
    CHECK_EQUAL(unknown.status, 0x5A);
    CHECK(log.take().size() > 0);

    TDeleteSegmentInfo known = {{'$', 'F', 'I', 'L'}, 0x5A};
    CHECK_EQUAL(device->command(MM_CMD_DELETE_SEGMENT, known), 0);
    CHECK_EQUAL(known.status, 0x5A);
}

TARGET_TEST(deleted_row_comes_back_with_a_new_load)
{
    needFreshManager();
    const auto nameOfLastRow = [] {
        const Descriptor device;
        TGetMCTInfo row = {};
        row.cfgid = 4;
        CHECK_EQUAL(device.command(MM_CMD_GET_MCT, row), 0);
        return std::string(reinterpret_cast<const char*>(row.SegTable.aubCFGID), 1);
    };
    CHECK_EQUAL(nameOfLastRow(), " ");
    needNoManager();
    needFreshManager();
    CHECK_EQUAL(nameOfLastRow(), "$");
}

TARGET_TEST(command_collect_garbage_releases_one_owner_only)
{
    needFreshManager();
    const Descriptor device;
    const std::uint32_t handle = createBand(device);
    for (const std::uint8_t owner : {std::uint8_t(1), std::uint8_t(2), std::uint8_t(1), std::uint8_t(2)}) {
        TMallocInfo info = {handle, 4096, owner, {}, 0};
        CHECK_EQUAL(device.command(MM_CMD_MALLOC, info), 0);
    }
    TCollectGarbageInfo collect = {handle, 1, {}};
    CHECK_EQUAL(device.command(MM_CMD_COLLECT_GARBAGE, collect), 0);
    CHECK_EQUAL(entryOf(device, handle).ulTotalAllocBlkNum, 2u);
    collect.hulHandle = 50;
    CHECK_EQUAL(device.command(MM_CMD_COLLECT_GARBAGE, collect), EASSERT);
}

TARGET_TEST(command_check_segment_includes_the_end_address)
{
    needFreshManager();
    const Descriptor device;
    const std::uint32_t handle = createBand(device);
    const TMMSegInfoWire entry = entryOf(device, handle);
    const auto inside = [&](std::uint32_t address) {
        TCheckSegmentInfo info = {handle, address, 0xEE, {}};
        CHECK_EQUAL(device.command(MM_CMD_CHECK_SEGMENT, info), 0);
        return static_cast<unsigned>(info.status);
    };
    CHECK_EQUAL(inside(entry.pubStartAddr), 1u);
    CHECK_EQUAL(inside(entry.pubStartAddr - 1), 0u);
    CHECK_EQUAL(inside(entry.pubEndAddr), 1u);
    CHECK_EQUAL(inside(entry.pubEndAddr + 1), 0u);
}

TARGET_TEST(command_display_prints_header_row_and_end)
{
    needFreshManager();
    const Descriptor device;
    const std::uint32_t handle = createBand(device);
    KernelLog log;
    TDisplayMSTInfo info = {0x100 + handle, 0xEE, {}}; // the low byte counts
    CHECK_EQUAL(device.command(MM_CMD_DISPLAY_MST, info), 0);
    CHECK_EQUAL(info.status, 0);
    const Lines lines = log.take();
    CHECK_EQUAL(lines.size(), 5u);
    CHECK(lines[1].find("Display MST") != std::string::npos);
    CHECK(lines[3].find("BAND") != std::string::npos);
}

TARGET_TEST(command_query_phys_addr_follows_this_kernel)
{
    needFreshManager();
    const Descriptor device;
    TQueryPhysAddrInfo info = {0xEE, {}, board().areaStart() + 0x123456, 0};
    CHECK_EQUAL(device.command(MM_CMD_QUERY_PHYS_ADDR, info), 0);
    CHECK_EQUAL(info.ulPhysAddr, board().areaPhys + 0x123456);
    info.ulStart = 0;
    CHECK_EQUAL(device.command(MM_CMD_QUERY_PHYS_ADDR, info), EASSERT);
    CHECK_EQUAL(info.ulPhysAddr, 14u);
}

TARGET_TEST(command_get_mst_answers_255_for_handle_49)
{
    needFreshManager();
    const Descriptor device;
    TGetMSTInfo info;
    std::memset(&info, 0xA5, sizeof info);
    info.hubHandle = 49;
    CHECK_EQUAL(device.command(MM_CMD_GET_MST, info), 0);
    CHECK_EQUAL(info.status, 255);
    CHECK_EQUAL(info.SegTable.ulTotalBlkNum, 0xA5A5A5A5u);
    CHECK_EQUAL(info.aubPad[0], 0xA5);
}

TARGET_TEST(unknown_commands_answer_0_and_read_nothing)
{
    needFreshManager();
    const Descriptor device;
    KernelLog log;
    for (const std::uint32_t number : {0x52FFu, 0x53FFu, 0u, 0xFFFFFFFFu, 0x80045300u})
        for (const std::uint32_t address : {0u, 8u, board().pageOffset, 0xFFFFFFFFu})
            CHECK_EQUAL(device.commandAt(number, address), 0);
    CHECK_LOGGED(log.take(), Lines());
}

TARGET_TEST(records_at_odd_addresses_and_across_mapped_pages_are_taken)
{
    needFreshManager();
    const Descriptor device;
    const UserPages pages;
    for (std::uint32_t offset = kPageBytes - 11; offset < kPageBytes; ++offset) {
        TQueryPhysAddrInfo info = {0, {}, board().areaStart() + offset, 0};
        std::memcpy(pages.start + offset, &info, sizeof info);
        CHECK_EQUAL(device.commandAt(MM_CMD_QUERY_PHYS_ADDR, pages.end() - 2 * kPageBytes + offset), 0);
        std::memcpy(&info, pages.start + offset, sizeof info);
        CHECK_EQUAL(info.ulPhysAddr, board().areaPhys + offset);
    }
}

TARGET_TEST(pointer_to_no_page_is_an_incomplete_copy)
{
    answersForAll([](const Command&) { return 8u; }, -EFAULT, kCopyFailed);
}

TARGET_TEST(pointer_whose_record_runs_into_a_missing_page_is_an_incomplete_copy)
{
    static const UserPages pages;
    answersForAll([](const Command& command) { return pages.end() - command.bytes + 1; }, -EFAULT, kCopyFailed);
}

TARGET_TEST(pointer_to_the_last_bytes_below_the_limit_is_an_incomplete_copy)
{
    unsigned char present;
    if (mincore(reinterpret_cast<void*>(board().userLimit() - kPageBytes), kPageBytes, &present) == 0)
        return; // the stack lies there in one run out of some thousands
    answersForAll([](const Command& command) { return board().userLimit() - command.bytes; }, -EFAULT, kCopyFailed);
}

TARGET_TEST(pointer_that_ends_above_the_limit_is_refused)
{
    answersForAll([](const Command& command) { return board().userLimit() - command.bytes + 1; }, -EINVAL,
                  kReadRefused);
}

TARGET_TEST(pointer_into_the_kernel_is_refused)
{
    answersForAll([](const Command&) { return board().pageOffset + 0x8000; }, -EINVAL, kReadRefused);
}

TARGET_TEST(pointer_into_the_managed_area_is_refused)
{
    answersForAll([](const Command&) { return board().managedStart(); }, -EINVAL, kReadRefused);
}

TARGET_TEST(pointer_whose_record_wraps_is_refused)
{
    answersForAll([](const Command& command) { return 0u - command.bytes; }, -EINVAL, kReadRefused);
    answersForAll([](const Command&) { return 0xFFFFFFFFu; }, -EINVAL, kReadRefused);
}

TARGET_TEST(read_only_record_fails_at_the_copy_back_and_leaves_the_command_done)
{
    needFreshManager();
    const Descriptor device;
    const std::uint32_t handle = createBand(device);
    const UserPages pages;
    const auto run = [&](std::uint32_t number, const void* record, std::size_t bytes) {
        mprotect(pages.start, kPageBytes, PROT_READ | PROT_WRITE);
        std::memcpy(pages.start, record, bytes);
        mprotect(pages.start, kPageBytes, PROT_READ);
        return device.commandAt(number, pages.end() - 2 * kPageBytes);
    };
    KernelLog log;
    const TMallocInfo info = {handle, 4096, 7, {}, 0};
    CHECK_EQUAL(run(MM_CMD_MALLOC, &info, sizeof info), -EFAULT);
    CHECK_LOGGED(log.take(), Lines{kCopyFailed});
    const TMMSegInfoWire entry = entryOf(device, handle);
    CHECK_EQUAL(entry.ulTotalAllocBlkNum, 1u);
    const TFreeInfo release = {handle, entry.pubEndAddr - 4096, 4096};
    CHECK_EQUAL(run(MM_CMD_FREE, &release, sizeof release), 0); // nothing to copy back
    CHECK_EQUAL(entryOf(device, handle).ulTotalAllocBlkNum, 0u);

    std::uint8_t zeros[sizeof(TGetMSTInfo)] = {};
    for (const Command& command : kCommands) {
        if (!command.copiedBack || command.number == MM_CMD_CREATE_SEGMENT || command.number == MM_CMD_MALLOC)
            continue;
        log.take();
        CHECK_EQUAL(run(command.number, zeros, command.bytes), -EFAULT);
        const Lines lines = log.take();
        CHECK(!lines.empty() && lines.back().ends_with(kCopyFailed));
    }
}

TARGET_TEST(stack_segments_push_and_pop_in_order)
{
    needFreshManager();
    const Descriptor device;
    TSegInfoFromApp stack = request("STCK", 0x10000, 1, 0, STACK);
    CHECK_EQUAL(device.command(MM_CMD_CREATE_SEGMENT, stack), 0);
    TMallocInfo first = {stack.hulHandle, 5, 0, {}, 0};
    KernelLog log;
    CHECK_EQUAL(device.command(MM_CMD_MALLOC, first), 0);
    char expected[64];
    std::snprintf(expected, sizeof expected, "\r\n[MM] H(%u) Push Bef (5) after(8)", stack.hulHandle);
    CHECK_LOGGED(log.take(), Lines{expected});
    TMallocInfo second = {stack.hulHandle, 4, 0, {}, 0};
    CHECK_EQUAL(device.command(MM_CMD_MALLOC, second), 0);
    CHECK_EQUAL(second.pubStart, first.pubStart - 4);
    TFreeInfo release = {stack.hulHandle, second.pubStart, 4};
    CHECK_EQUAL(device.command(MM_CMD_FREE, release), 0);
    release = {stack.hulHandle, first.pubStart, 5};
    CHECK_EQUAL(device.command(MM_CMD_FREE, release), 0);
    CHECK_EQUAL(entryOf(device, stack.hulHandle).ulTotalAllocBlkNum, 0u);
}
