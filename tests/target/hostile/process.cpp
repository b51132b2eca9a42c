#include "process.hpp"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "../harness.hpp"

namespace target::hostile {

namespace {

constexpr std::size_t kMostHeld = 200;
constexpr unsigned kFewestSteps = 200; // on a machine that is busy with other things too

std::uint32_t managedBytes()
{
    return board().managedEnd() - board().managedStart();
}

bool isAddress(std::uint32_t answer)
{
    return answer != 0 && answer != 0xFFFFFFFF;
}

} // namespace

HostileProcess::HostileProcess(std::uint32_t seed, Conduct conduct, Ledger& ledger, std::uint32_t segment)
    : random_(seed), conduct_(conduct), ledger_(ledger), segment_(segment)
{
    device_.emplace(random_.oneIn(3) ? O_SYNC : 0);
    const std::int64_t start = mapDevice(*device_, board().managedStart(), managedBytes());
    CHECK(start >= 0);
    view_ = reinterpret_cast<std::uint8_t*>(static_cast<std::uintptr_t>(start));
    heap_ = heapPieces(*device_);
    learn();
}

HostileProcess::~HostileProcess()
{
    munmap(view_, managedBytes());
}

void HostileProcess::run(Clock::time_point until)
{
    for (unsigned steps = 0; steps < kFewestSteps || Clock::now() < until; ++steps) {
        if (steps % 64 == 0 && device_)
            learn();
        step();
        ledger_.countStep();
    }
    if (conduct_ == Conduct::Wild || !device_)
        return; // what it holds stays behind
    while (!held_.empty())
        releaseHeld();
}

// What segments there are.
void HostileProcess::learn()
{
    entries_.clear();
    for (std::uint32_t handle = 0; handle < 16; ++handle)
        entries_.push_back(entryOf(*device_, handle));
}

std::uint32_t HostileProcess::anyHandle()
{
    switch (random_.below(8)) {
    case 0: return random_.odd();
    case 1: return random_.oneIn(2) ? HEAPHANDLE : HEAPHANDLE_ALIAS;
    default: return random_.below(14);
    }
}

const TMMSegInfoWire* HostileProcess::anyEntry()
{
    const TMMSegInfoWire& entry = entries_[random_.below(static_cast<std::uint32_t>(entries_.size()))];
    return entry.pfnFree != 0 && entry.ulTotalBlkNum != 0 ? &entry : nullptr;
}

std::uint32_t HostileProcess::anyAddress()
{
    if (!held_.empty() && random_.oneIn(3))
        return held_[random_.below(static_cast<std::uint32_t>(held_.size()))].address +
               (random_.oneIn(2) ? random_.odd() : 0);
    const TMMSegInfoWire* const entry = anyEntry();
    if (entry != nullptr && !random_.oneIn(4))
        return entry->pubStartAddr + (random_.below(entry->ulTotalBlkNum) << entry->ubBlkBit);
    return random_.oneIn(2) ? random_.odd() : board().managedStart() + random_.below(managedBytes());
}

// A record from ordinary memory, or from mapped memory that others write while the kernel reads it.
template <class Record> void HostileProcess::send(std::uint32_t number, Record& record)
{
    if (conduct_ != Conduct::Wild || !random_.oneIn(4)) {
        device_->command(number, record);
        return;
    }
    std::uint8_t* const place = view_ + random_.below(managedBytes() - sizeof record);
    std::memcpy(place, &record, sizeof record);
    device_->commandAt(number, static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(place)));
    std::memcpy(&record, place, sizeof record);
}

void HostileProcess::step()
{
    if (!device_ || random_.oneIn(conduct_ == Conduct::Wild ? 200 : 100000)) {
        reopen();
        return;
    }
    switch (random_.below(8)) {
    case 0:
    case 1:
    case 2: scribble(); break;
    case 3: conduct_ == Conduct::OwnBlocks ? allocateOwn() : allocateAny(); break;
    case 4: releaseHeld(); break;
    default: conduct_ == Conduct::OwnBlocks ? allocateOwn() : stepWildly(); break;
    }
}

void HostileProcess::stepWildly()
{
    const bool wild = conduct_ == Conduct::Wild;
    switch (random_.below(12)) {
    case 0: fillAny(); break;
    case 1: askAny(); break;
    case 2: mapAny(); break;
    case 3: wild ? createAny() : scribble(); break;
    case 4: wild ? changeRows() : askAny(); break;
    case 5:
        if (wild)
            collect(*device_, anyHandle(),
                    static_cast<std::uint8_t>(random_.oneIn(2) ? random_.any() : random_.below(4)));
        break;
    case 6: wild ? startAny() : fillAny(); break;
    case 7:
    case 8:
    case 9: allocateAny(); break;
    default: releaseWildly(); break;
    }
}

void HostileProcess::createAny()
{
    static constexpr const char* kFixed[] = {"$MCT", "$RJL", "$JCB", "$UEV", "$FIL"};
    static constexpr std::uint8_t kMaps[] = {0, 1, 2, 4, 8, 3};
    const char name[] = {'S', static_cast<char>('A' + random_.below(20)), 0};
    Shape shape{name, 64 + random_.below(0x40000), 16U << random_.below(9)};
    if (random_.oneIn(4))
        shape.bytes = random_.odd();
    if (random_.oneIn(4))
        shape.blockBytes = random_.odd();
    shape.type = static_cast<std::uint8_t>(random_.below(3));
    if (shape.type == FIXED)
        shape.name = random_.oneOf(kFixed);
    shape.map = random_.oneOf(kMaps);
    shape.discipline = random_.oneIn(4) ? STACK : LINKEDLIST;
    if (shape.type == FLOAT && shape.discipline == LINKEDLIST && random_.oneIn(8))
        shape.bytes = 0; // the heap; one that is a stack has no books that can be asked for
    shape.overflow = random_.oneIn(3);
    create(*device_, shape);
}

// Bytes of the blocks that a request of a segment has, wherever they were taken from: a request that overflows is counted in the
// segment's blocks.
std::uint32_t HostileProcess::heldBytes(std::uint32_t handle, std::uint32_t address, std::uint32_t bytes) const
{
    const auto bitOf = [](std::uint32_t blockBytes) { return 31U - static_cast<unsigned>(__builtin_clz(blockBytes)); };
    unsigned heapBit = 0;
    bool inHeap = false;
    for (const Piece& piece : heap_) {
        heapBit = bitOf(piece.blockBytes);
        inHeap = inHeap || (address >= piece.start && address < piece.end);
    }
    const bool ofHeap = handle == HEAPHANDLE || handle == HEAPHANDLE_ALIAS;
    const unsigned askedBit = ofHeap ? heapBit : handle < entries_.size() ? entries_[handle].ubBlkBit : 0;
    const std::uint32_t blocks = (bytes >> askedBit) + ((bytes & ((1U << askedBit) - 1)) != 0);
    return blocks << (inHeap ? heapBit : askedBit);
}

void HostileProcess::allocateAny()
{
    TMallocInfo info = {anyHandle(),
                        random_.oneIn(8) ? random_.odd() : 1 + random_.below(3000),
                        static_cast<std::uint8_t>(random_.oneIn(3) ? random_.any() : random_.below(3)),
                        {},
                        0};
    if (conduct_ == Conduct::Wild) {
        send(MM_CMD_MALLOC, info);
        if (isAddress(info.pubStart) && held_.size() < kMostHeld)
            held_.push_back({info.hulHandle, info.pubStart, info.ulReqBytes, 0});
        return;
    }
    if (held_.size() >= kMostHeld)
        return;
    Ledger::Held ledger(ledger_);
    device_->command(MM_CMD_MALLOC, info);
    if (!isAddress(info.pubStart))
        return;
    const std::uint32_t held = heldBytes(info.hulHandle, info.pubStart, info.ulReqBytes);
    CHECK(held >= info.ulReqBytes);
    ledger.take(info.pubStart, held);
    held_.push_back({info.hulHandle, info.pubStart, info.ulReqBytes, held});
}

void HostileProcess::allocateOwn()
{
    if (held_.size() >= 20) {
        releaseHeld();
        return;
    }
    const std::uint32_t bytes = 1 + random_.below(2 * kPageBytes);
    Ledger::Held ledger(ledger_);
    const std::uint32_t address = allocate(*device_, segment_, bytes, 1);
    CHECK(isAddress(address)); // there is room for all
    const std::uint32_t held = heldBytes(segment_, address, bytes);
    ledger.take(address, held);
    held_.push_back({segment_, address, bytes, held});
}

void HostileProcess::releaseHeld()
{
    if (held_.empty())
        return;
    const auto block =
        held_.begin() + static_cast<std::ptrdiff_t>(random_.below(static_cast<std::uint32_t>(held_.size())));
    if (conduct_ == Conduct::Wild) {
        release(*device_, block->handle, block->address, block->bytes); // it may have become somebody else's
    } else {
        Ledger::Held ledger(ledger_);
        const int answer = release(*device_, block->handle, block->address, block->bytes);
        if (conduct_ == Conduct::OwnBlocks)
            CHECK_EQUAL(answer, 0);
        if (answer == 0)
            ledger.give(block->address, block->held);
    }
    *block = held_.back();
    held_.pop_back();
}

void HostileProcess::releaseWildly()
{
    TFreeInfo info = {anyHandle(), anyAddress(), random_.oneIn(2) ? random_.odd() : 1 + random_.below(300)};
    if (conduct_ == Conduct::Wild) {
        send(MM_CMD_FREE, info);
        return;
    }
    Ledger::Held ledger(ledger_);
    if (device_->command(MM_CMD_FREE, info) == 0)
        ledger.give(info.pubRlsAddr, heldBytes(info.hulHandle, info.pubRlsAddr, info.ulBytesNo));
}

void HostileProcess::fillAny()
{
    TMemsetInfo info = {anyAddress(), static_cast<std::int32_t>(random_.any()),
                        random_.oneIn(2) ? random_.below(10000) : random_.odd()};
    send(MM_CMD_MEMSET, info);
}

void HostileProcess::askAny()
{
    TCheckSegmentInfo check = {anyHandle(), anyAddress(), 0, {}};
    send(MM_CMD_CHECK_SEGMENT, check);
    TQueryPhysAddrInfo phys = {0, {}, random_.odd(), 0};
    send(MM_CMD_QUERY_PHYS_ADDR, phys);
    TGetMSTInfo mst = {};
    mst.hubHandle = static_cast<std::uint8_t>(random_.any());
    send(MM_CMD_GET_MST, mst);
    TGetMCTInfo mct = {};
    mct.cfgid = static_cast<std::uint8_t>(random_.any());
    send(MM_CMD_GET_MCT, mct);
    if (random_.oneIn(8)) {
        TDisplayMSTInfo display = {random_.below(256), 0, {}};
        send(MM_CMD_DISPLAY_MST, display);
    }
    if (random_.oneIn(4))
        device_->commandAt(MM_CMD_FIRST + random_.below(17), random_.odd());
    char byte = 0;
    [[maybe_unused]] const ssize_t got =
        random_.oneIn(2) ? read(device_->number(), &byte, 1) : write(device_->number(), &byte, 1);
}

void HostileProcess::startAny()
{
    if (random_.oneIn(2)) {
        TMMInitOption option = random_.oneIn(4) ? random_.odd() : 0;
        send(MM_CMD_ENTRY, option);
    } else {
        TLibEntryInfo start = {random_.below(6), 0};
        send(MM_CMD_LIB_ENTRY, start);
    }
}

void HostileProcess::changeRows()
{
    static constexpr const char* kNames[] = {"$RJL", "$JCB", "$UEV", "$ALL", "NONE"};
    TClearSegmentInfo clear = {};
    std::memcpy(clear.aubCFGID, random_.oneOf(kNames), sizeof clear.aubCFGID);
    send(MM_CMD_CLEAR_SEGMENT, clear);
    send(MM_CMD_ADD_SEGMENT, clear);
    if (random_.oneIn(40)) {
        TDeleteSegmentInfo row = {};
        std::memcpy(row.aubCFGID, random_.oneOf(kNames), sizeof row.aubCFGID);
        send(MM_CMD_DELETE_SEGMENT, row);
    }
}

// Any page, any length, private or shared: what is granted lies in the managed area, so it can be written.
void HostileProcess::mapAny()
{
    const std::uint32_t address = anyAddress() & ~(kPageBytes - 1);
    const std::uint32_t bytes = random_.oneIn(8) ? random_.odd() & 0x0FFFFFFF : 1 + random_.below(64 * kPageBytes);
    const std::int64_t start = mapDevice(*device_, address, bytes);
    if (start < 0)
        return;
    const std::uint32_t pages = (bytes + kPageBytes - 1) & ~(kPageBytes - 1);
    CHECK(address >= board().managedStart() && pages <= board().managedEnd() - address);
    auto* const mapped = reinterpret_cast<std::uint8_t*>(static_cast<std::uintptr_t>(start));
    mapped[random_.below(pages)] = static_cast<std::uint8_t>(random_.any());
    void* const moved = mremap(mapped, pages, pages * (1 + random_.below(2)), MREMAP_MAYMOVE);
    munmap(moved == MAP_FAILED ? mapped : moved, pages);
}

// Without the device for a moment: somebody may be alone then. Mappings stay.
void HostileProcess::reopen()
{
    if (device_) {
        device_.reset();
        return;
    }
    device_.emplace(random_.oneIn(3) ? O_SYNC : 0);
}

// Words where headers and owner maps lie, and anywhere.
void HostileProcess::scribble()
{
    for (unsigned writes = 1 + random_.below(16); writes > 0; --writes) {
        std::uint32_t address = board().managedStart() + random_.below(managedBytes() - 16);
        const TMMSegInfoWire* const entry = anyEntry();
        if (entry != nullptr && !random_.oneIn(8)) {
            address =
                entry->pubStartAddr + (random_.below(entry->ulTotalBlkNum) << entry->ubBlkBit) + 4 * random_.below(3);
            if (entry->pubMapStartAddr != 0 && random_.oneIn(2))
                address = entry->pubMapStartAddr + random_.below(entry->pubMapEndAddr - entry->pubMapStartAddr);
        }
        const std::uint32_t values[] = {0,
                                        1,
                                        0xFFFFFFFF,
                                        0x80000000,
                                        board().managedStart(),
                                        board().managedEnd(),
                                        12,
                                        board().pageOffset,
                                        address,
                                        random_.any(),
                                        random_.any()};
        const std::uint32_t value = random_.oneOf(values);
        if (address < board().managedStart() || address > board().managedEnd() - 4)
            continue;
        if (address % 4 == 0)
            *reinterpret_cast<volatile std::uint32_t*>(view(address)) = value;
        else
            *static_cast<volatile std::uint8_t*>(view(address)) = static_cast<std::uint8_t>(value);
    }
}

} // namespace target::hostile
