// Several parties at once: processes through ioctl, kernel code through the exported entries, a client that dies.
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <set>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "board.hpp"
#include "harness.hpp"
#include "kernel_log.hpp"

using namespace target;

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint32_t kBlockBytes = 4096;

std::uint32_t createSegment(const Descriptor& device, const char* name, std::uint32_t bytes, std::uint8_t map,
                            std::uint8_t discipline = LINKEDLIST)
{
    TSegInfoFromApp info = {};
    std::memcpy(info.aubSegID, name, 4);
    info.ubType = FLOAT;
    info.ubSegDSType = discipline;
    info.ubMap = map;
    info.ubSemaphore = YES;
    info.ulSegSize = bytes;
    info.ulBlkSize = kBlockBytes;
    CHECK_EQUAL(device.command(MM_CMD_CREATE_SEGMENT, info), 0);
    return info.hulHandle;
}

TMMSegInfoWire entryOf(const Descriptor& device, std::uint32_t handle)
{
    TGetMSTInfo info = {};
    info.hubHandle = static_cast<std::uint8_t>(handle);
    CHECK_EQUAL(device.command(MM_CMD_GET_MST, info), 0);
    return info.SegTable;
}

void checkAllFree(const Descriptor& device, std::uint32_t handle)
{
    const TMMSegInfoWire entry = entryOf(device, handle);
    CHECK_EQUAL(entry.ulTotalAllocBlkNum, 0u);
    CHECK_EQUAL(entry.ulTotalFreeBlkNum, entry.ulTotalBlkNum);
    CHECK_EQUAL(entry.ulLargestBlkSize, entry.ulTotalBlkNum);
}

// Owner of each block by the map of a segment with 8 bits for each block: the last block has the last byte.
std::uint8_t ownerOf(const TMMSegInfoWire& entry, const View& segment, std::uint32_t viewStart, std::uint32_t address)
{
    const std::uint32_t distance = (entry.pubEndAddr - address) / kBlockBytes;
    return segment[entry.pubMapEndAddr - distance - viewStart];
}

// Allocates and releases, with a pattern of its own in every block that it holds.
void allocateAndRelease(std::uint32_t handle, std::uint8_t owner, Clock::time_point until)
{
    const Descriptor device;
    std::map<std::uint32_t, std::uint32_t> held;
    std::uint32_t random = owner * 2654435761u;
    unsigned rounds = 0;
    const auto next = [&] { return random = random * 1664525 + 1013904223; };
    while (Clock::now() < until) {
        ++rounds;
        if (held.size() < 12 && next() >> 31) {
            TMallocInfo info = {handle, (1 + (next() >> 28) % 5) * kBlockBytes, owner, {}, 0};
            const int result = device.command(MM_CMD_MALLOC, info);
            if (result == EINVASEGSIZE)
                continue;
            CHECK_EQUAL(result, 0);
            const View view(device, info.pubStart, info.ulReqBytes);
            for (std::uint32_t i = 0; i < info.ulReqBytes; i += 256)
                view[i] = owner;
            CHECK(held.emplace(info.pubStart, info.ulReqBytes).second);
        } else if (!held.empty()) {
            const auto [address, bytes] = *held.begin();
            {
                const View view(device, address, bytes);
                for (std::uint32_t i = 0; i < bytes; i += 256)
                    CHECK_EQUAL(static_cast<unsigned>(view[i]), static_cast<unsigned>(owner));
            }
            TFreeInfo info = {handle, address, bytes};
            CHECK_EQUAL(device.command(MM_CMD_FREE, info), 0);
            held.erase(held.begin());
        }
    }
    CHECK(rounds > 100);
    for (const auto& [address, bytes] : held) {
        TFreeInfo info = {handle, address, bytes};
        CHECK_EQUAL(device.command(MM_CMD_FREE, info), 0);
    }
}

void query(std::uint32_t handle, Clock::time_point until)
{
    const Descriptor device;
    const TMMSegInfoWire first = entryOf(device, handle);
    for (unsigned rounds = 0; Clock::now() < until; ++rounds) {
        const TMMSegInfoWire entry = entryOf(device, handle);
        CHECK_EQUAL(entry.ulTotalBlkNum, first.ulTotalBlkNum);
        CHECK_EQUAL(entry.ulTotalFreeBlkNum + entry.ulTotalAllocBlkNum, first.ulTotalBlkNum);
        CHECK(entry.ulLargestBlkSize <= entry.ulTotalFreeBlkNum);
        TCheckSegmentInfo info = {handle, entry.pubStartAddr + rounds % 4096, 0, {}};
        CHECK_EQUAL(device.command(MM_CMD_CHECK_SEGMENT, info), 0);
        CHECK_EQUAL(info.status, 1);
    }
}

// The second module's control file: a word starts work in its thread and its timer, reading tells how far it is.
class Peer
{
public:
    explicit Peer(std::uint32_t handle)
    {
        const int result = loadModule("/lib/velmora_mm_peer.ko", "handle=" + std::to_string(handle));
        if (result != 0)
            throw Failure("the second module cannot be loaded: " + std::to_string(result));
    }
    ~Peer() { unloadModule("velmora_mm_peer"); }

    void order(const char* word)
    {
        const int file = open("/proc/velmora_mm_peer", O_WRONLY | O_CLOEXEC);
        CHECK(file >= 0);
        const ssize_t wanted = static_cast<ssize_t>(std::strlen(word));
        const ssize_t written = write(file, word, std::strlen(word));
        close(file);
        CHECK_EQUAL(written, wanted);
    }
    std::string report() const { return readFile("/proc/velmora_mm_peer"); }
    unsigned number(const std::string& name) const
    {
        const std::string text = report();
        const std::size_t at = text.find(name + "=");
        if (at == text.npos)
            throw Failure("the second module does not report " + name);
        return static_cast<unsigned>(std::stoul(text.substr(at + name.size() + 1), nullptr, 0));
    }
    void waitUntilIdle() const
    {
        for (int i = 0; i < 1000 && number("busy") != 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        CHECK_EQUAL(number("busy"), 0u);
    }
};

} // namespace

TARGET_TEST(two_processes_allocate_and_release_while_a_third_queries)
{
    needFreshManager();
    const Descriptor device;
    const std::uint32_t handle = createSegment(device, "BAND", 64 * kBlockBytes, 8);
    const auto until = Clock::now() + std::chrono::milliseconds(2500);
    KernelLog log;
    const int processes[] = {startProcess([&] { allocateAndRelease(handle, 1, until); }),
                             startProcess([&] { allocateAndRelease(handle, 2, until); }),
                             startProcess([&] { query(handle, until); })};
    for (const int process : processes)
        waitForProcess(process);
    checkAllFree(device, handle);
    CHECK_LOGGED(log.take(), Lines());
}

TARGET_TEST(blocks_of_a_killed_client_are_collected_by_another)
{
    needFreshManager();
    const Descriptor device;
    const std::uint32_t handle = createSegment(device, "BAND", 64 * kBlockBytes, 8);
    TMallocInfo mine = {handle, 3 * kBlockBytes, 9, {}, 0};
    CHECK_EQUAL(device.command(MM_CMD_MALLOC, mine), 0);
    const int client = startProcess([&] {
        const Descriptor own;
        for (;;) {
            TMallocInfo info = {handle, kBlockBytes, 7, {}, 0};
            if (own.command(MM_CMD_MALLOC, info) != 0)
                pause();
        }
    });
    while (entryOf(device, handle).ulTotalFreeBlkNum != 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    kill(client, SIGKILL);
    waitpid(client, nullptr, 0);

    const int cleaner = startProcess([&] {
        const Descriptor own;
        TCollectGarbageInfo info = {handle, 7, {}};
        CHECK_EQUAL(own.command(MM_CMD_COLLECT_GARBAGE, info), 0);
    });
    waitForProcess(cleaner);
    CHECK_EQUAL(entryOf(device, handle).ulTotalAllocBlkNum, 3u);
    TFreeInfo release = {handle, mine.pubStart, mine.ulReqBytes};
    CHECK_EQUAL(device.command(MM_CMD_FREE, release), 0);
    checkAllFree(device, handle);
}

TARGET_TEST(client_killed_inside_commands_leaves_the_device_usable)
{
    needFreshManager();
    const Descriptor device;
    for (int round = 0; round < 20; ++round) {
        const int client = startProcess([] {
            const Descriptor own;
            for (;;) {
                TGetMSTInfo info = {};
                own.command(MM_CMD_GET_MST, info);
            }
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        kill(client, SIGKILL);
        waitpid(client, nullptr, 0);
    }
    TQueryPhysAddrInfo info = {0, {}, board().managedStart(), 0};
    CHECK_EQUAL(device.command(MM_CMD_QUERY_PHYS_ADDR, info), 0);
}

// Allocations take one lock and releases another, so the parties first all allocate, then all release.
TARGET_TEST(kernel_thread_and_timer_allocate_and_release_against_user_space)
{
    needFreshManager();
    const Descriptor device;
    const std::uint32_t handle = createSegment(device, "PEER", 0x200000, 8);
    const TMMSegInfoWire entry = entryOf(device, handle);
    Peer peer(handle);
    KernelLog log;
    for (int round = 0; round < 3; ++round) {
        std::set<std::uint32_t> mine;
        peer.order("allocate");
        while (peer.number("busy") != 0 || mine.size() < 100) {
            if (mine.size() >= 180)
                break;
            TMallocInfo info = {handle, kBlockBytes, 1, {}, 0};
            CHECK_EQUAL(device.command(MM_CMD_MALLOC, info), 0);
            CHECK(mine.insert(info.pubStart).second);
        }
        peer.waitUntilIdle();
        const unsigned byThread = peer.number("thread"), byTimer = peer.number("timer");
        CHECK(byThread > 0);
        CHECK(byTimer > 0);
        CHECK_EQUAL(peer.number("failed"), 0u);
        CHECK_EQUAL(entryOf(device, handle).ulTotalAllocBlkNum, mine.size() + byThread + byTimer);
        CHECK_EQUAL(peer.number("allocated"), mine.size() + byThread + byTimer); // the exported query sees the same
        {
            const std::uint32_t first = entry.pubMapStartAddr / kPageBytes * kPageBytes;
            const View view(device, first, (entry.pubEndAddr - first + kPageBytes - 1) / kPageBytes * kPageBytes);
            std::map<unsigned, unsigned> blocks;
            for (std::uint32_t address = entry.pubStartAddr; address < entry.pubEndAddr; address += kBlockBytes)
                ++blocks[ownerOf(entry, view, first, address)];
            CHECK_EQUAL(blocks[1], mine.size());
            CHECK_EQUAL(blocks[2], byThread);
            CHECK_EQUAL(blocks[3], byTimer);
        }
        peer.order("release");
        for (const std::uint32_t address : mine) {
            TFreeInfo info = {handle, address, kBlockBytes};
            CHECK_EQUAL(device.command(MM_CMD_FREE, info), 0);
        }
        peer.waitUntilIdle();
        CHECK_EQUAL(peer.number("failed"), 0u);
        checkAllFree(device, handle);
    }
    CHECK_LOGGED(log.take(), Lines());
}

TARGET_TEST(kernel_thread_and_timer_push_against_user_space)
{
    needFreshManager();
    const Descriptor device;
    const std::uint32_t handle = createSegment(device, "STCK", 0x200000, 0, STACK);
    std::set<std::uint32_t> mine;
    {
        Peer peer(handle);
        peer.order("allocate");
        while ((peer.number("busy") != 0 || mine.size() < 50) && mine.size() < 180) {
            TMallocInfo info = {handle, kBlockBytes, 0, {}, 0};
            CHECK_EQUAL(device.command(MM_CMD_MALLOC, info), 0);
            CHECK(mine.insert(info.pubStart).second ||
                  true); // the top is read after the lock is released, so two may see one
        }
        peer.waitUntilIdle();
        CHECK_EQUAL(peer.number("failed"), 0u);
        const TMMSegInfoWire entry = entryOf(device, handle);
        CHECK_EQUAL(entry.ulTotalFreeBlkNum + entry.ulTotalAllocBlkNum, entry.ulTotalBlkNum);
        CHECK(entry.ulTotalAllocBlkNum >= mine.size());
        CHECK_EQUAL(entry.ulLargestBlkSize, entry.ulTotalFreeBlkNum);
    }
}

TARGET_TEST(module_cannot_be_unloaded_while_another_uses_its_entries)
{
    needManager();
    {
        Peer peer(5);
        CHECK_EQUAL(unloadModule(kModuleName), -EWOULDBLOCK);
    }
    CHECK_EQUAL(unloadModule(kModuleName), 0);
}

TARGET_TEST(exported_queries_and_owner_calls_answer_kernel_code)
{
    needFreshManager();
    const Descriptor device;
    const std::uint32_t band = createSegment(device, "BAND", 0x100000, 8);
    createSegment(device, "HEAP", 0, 8);
    Peer peer(band);
    KernelLog log;
    peer.order("survey");
    CHECK_EQUAL(peer.number("failed"), 0u);
    CHECK_LOGGED(log.take(), Lines());
}
