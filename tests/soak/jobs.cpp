#include "jobs.h"

#include <algorithm>
#include <cstddef>
#include <stdexcept>

#include "kernel/mm/guard/MM_Guard.h"
#include "kernel/mm/mm/MM_Heap.h"
#include "kernel/mm/mm/MM_Lock.h"

namespace velmora::soak {

using namespace velmora::guard;

namespace {

constexpr Shape kShapes[Printer::kSegments] = {
    {"PAGE", 12 << 20, 4096, 8}, {"LIST", 2 << 20, 64, 8}, {"HEAP", 0, 4096, 8}};
constexpr unsigned kBands = 0, kLists = 1, kHeap = 2;
constexpr unsigned kMostJobs = 12; // at a time; others wait in front of the printer

// Owners of which none has all bits of another: four bits of eight.
constexpr U8 kOwners[] = {0x0F, 0x33, 0x55, 0x3C, 0x5A, 0x66, 0x69, 0x96, 0x99, 0xA5, 0xC3, 0xCC};
static_assert(std::size(kOwners) == kMostJobs);

void check(bool holds, const char* what)
{
    if (!holds)
        throw std::runtime_error(what);
}

// Whether memory is allocated; the default build keeps no record that tells.
bool isAllocated(U32 address, U32 bytes)
{
    if constexpr (MM_Guarded)
        return MM_GuardHeld(address, bytes);
    return true;
}

} // namespace

const char* Printer::segmentName(unsigned segment)
{
    return kShapes[segment].name;
}

Printer::Printer(std::uint32_t seed) : random_(seed), scribbles_(seed)
{
    sim::bootController();
    check(enter() == ENOERR && startLibrary() == ENOERR, "the library does not start");
    check(create({"REST", 104 << 20, 4096}) == ENOERR, "a segment is refused"); // for something else
    for (unsigned i = 0; i < kSegments; ++i)
        check(create(kShapes[i], &handles_[i]) == ENOERR, "a segment is refused");
    events_.push({0, 0});
}

void Printer::playUntil(std::uint64_t time)
{
    while (!events_.empty() && events_.top().time < time) {
        const Event event = events_.top();
        events_.pop();
        now_ = event.time;
        if (event.job == 0)
            arrive(event.time);
        else
            proceed(event.time, event.job);
        if (MM_Guarded)
            scribble();
    }
    machine().takeLog();
}

// Few at night and at the weekend, one every quarter minute in the office's hours. Documents of one page are the most frequent.
void Printer::arrive(std::uint64_t now)
{
    if (!open_)
        return;
    const unsigned hour = now / kHour % 24;
    const bool office = hour >= 8 && hour < 18 && now / kHour / 24 < 5;
    events_.push({now + (office ? 1000 : 60000) + below(office ? 26000 : 1800000), 0});
    if (jobs_.size() >= kMostJobs)
        return;
    Job job;
    job.pages = oneIn(2) ? 1 + below(3) : oneIn(8) ? 1 + below(300) : 1 + below(30);
    job.copies = oneIn(4) ? 1 + below(20) : 1;
    job.collated = job.copies > 1 && oneIn(2);
    if (oneIn(10)) {
        job.endsAt = 1 + below(job.pages);
        job.dies = oneIn(2);
    }
    for (const U8 owner : kOwners)
        if (std::none_of(jobs_.begin(), jobs_.end(),
                         [owner](const auto& other) { return other.second.owner == owner; }))
            job.owner = owner;
    jobs_[++lastJob_] = job;
    events_.push({now + 100, lastJob_});
    ++counts_.jobs;
}

// The next page of a job, or its end.
void Printer::proceed(std::uint64_t now, unsigned number)
{
    Job& job = jobs_.at(number);
    if (job.drawn == job.pages || (job.endsAt != 0 && job.drawn + 1 >= job.endsAt)) {
        end(number, job);
        return;
    }
    if (!drawPage(number, job)) {
        if (++job.tries < 50) {
            events_.push({now + 3000 + below(3000), number});
            return;
        }
        ++counts_.givenUp;
        job.endsAt = 1;
        job.dies = false;
        end(number, job);
        return;
    }
    job.tries = 0;
    ++job.drawn;
    ++counts_.pages;
    events_.push({now + printed(number, job), number});
}

// A page is drawn with a list of many small blocks, which go when its bands are there; some stay as
// long as the page, like fonts.
bool Printer::drawPage(unsigned number, Job& job)
{
    std::vector<U32> lists, bands;
    bool room = true;
    for (U32 items = 5 + below(60); room && items > 0; --items) {
        const U32 address = take(number, kLists, 32 + below(oneIn(10) ? 20000 : 1500));
        room = address != 0;
        if (room)
            lists.push_back(address);
    }
    const U32 bandBytes = 20000 + below(oneIn(5) ? 400000 : 90000); // as pages compress
    for (unsigned band = 0; room && band < 8; ++band) {
        const U32 bytes = bandBytes / 2 + below(bandBytes);
        U32 address = take(number, kBands, bytes);
        if (address == 0)
            address = take(number, kHeap, bytes);
        room = address != 0;
        if (room)
            bands.push_back(address);
    }
    for (U32 fonts = below(8); room && fonts > 0 && !lists.empty(); --fonts) {
        const auto font = lists.begin() + static_cast<std::ptrdiff_t>(below(static_cast<U32>(lists.size())));
        bands.push_back(*font);
        lists.erase(font);
    }
    giveAll(number, lists);
    if (room)
        job.kept.push_back(std::move(bands));
    else
        giveAll(number, bands);
    return room;
}

// How long the printing of the page takes. Of a collated job all pages stay until the last copy, as far as there is room.
std::uint64_t Printer::printed(unsigned number, Job& job)
{
    const std::size_t kept = job.collated ? 40 : 2;
    while (job.kept.size() > kept) {
        giveAll(number, job.kept.front());
        job.kept.erase(job.kept.begin());
    }
    return 400 + 1000ULL * (job.collated ? 1 : job.copies);
}

void Printer::end(unsigned number, Job& job)
{
    if (job.endsAt == 0 || !job.dies) {
        counts_.cancelled += job.endsAt != 0;
        for (std::vector<U32>& page : job.kept)
            giveAll(number, page);
    } else {
        collectLost(number, job.owner);
    }
    jobs_.erase(number);
}

// Allocates for a job; 0 when there is no room.
U32 Printer::take(unsigned number, unsigned segment, U32 bytes)
{
    const U32 address = allocate(handles_[segment], bytes, jobs_.at(number).owner);
    check(address != MM_FAILED, "an allocation is refused");
    if (address == 0) {
        ++counts_.noRoom;
        return 0;
    }
    const U32 unit = kShapes[segment].blockBytes;
    const U32 held = (bytes + unit - 1) / unit * unit;
    const auto above = held_.lower_bound(address);
    check((above == held_.end() || above->first - address >= held) &&
              (above == held_.begin() || std::prev(above)->first + std::prev(above)->second.held <= address),
          "a block is given twice");
    held_[address] = {handles_[segment], bytes, held, number};
    ++counts_.allocations;
    return address;
}

// A block that was collected by an overwritten owner is refused, which is seen by the bits; any other must be released.
void Printer::give(unsigned number, U32 address)
{
    const auto block = held_.find(address);
    if (block == held_.end() || block->second.job != number) {
        check(MM_Guarded, "a block has gone");
        ++counts_.refused;
        return;
    }
    check(release(block->second.handle, address, block->second.bytes) == ENOERR, "a release is refused");
    held_.erase(block);
    ++counts_.releases;
}

void Printer::giveAll(unsigned number, std::vector<U32>& addresses)
{
    for (const U32 address : addresses)
        give(number, address);
    addresses.clear();
}

// The party is gone, with it what it knew; another one collects for its owner. That takes all of its blocks and no other, as long as
// nobody overwrites owners.
void Printer::collectLost(unsigned number, U8 owner)
{
    ++counts_.killed;
    for (const U32 handle : handles_) {
        U32 expected = stSegTable[handle].ulTotalFreeBlkNum;
        for (const auto& [address, block] : held_)
            if (block.job == number && block.handle == handle)
                expected += block.held >> stSegTable[handle].ubBlkBit;
        check(collect(handle, owner) == ENOERR, "a clean-up is refused");
        check(MM_Guarded || stSegTable[handle].ulTotalFreeBlkNum == expected,
              "a clean-up took something else than the owner's");
    }
    std::erase_if(held_, [number](const auto& block) { return block.second.job == number; });
    // What is left of another one's block that lost a part is found when everything is released.
    std::erase_if(held_, [](const auto& block) { return !isAllocated(block.first, block.second.held); });
}

// Words in free memory, where lists lie; now and then an owner, which says that any block is another one's.
void Printer::scribble()
{
    const auto below = [this](U32 limit) {
        return static_cast<U32>(scribbles_() % limit);
    }; // both builds play the same weeks
    const TMMSegInfo& seg = stSegTable[handles_[below(2)]];
    for (unsigned words = 1 + below(8); words > 0; --words) {
        const U32 address = MM_Addr(seg.pubStartAddr) + (below(seg.ulTotalBlkNum) << seg.ubBlkBit);
        const U32 value = below(2) == 0 ? below(16) : static_cast<U32>(scribbles_());
        if (isAllocated(address, 1))
            continue;
        std::memcpy(MM_At(address + 4 * below(3)), &value, sizeof value);
        ++counts_.scribbles;
    }
    if (below(50) == 0) {
        seg.pubMapStartAddr[below(static_cast<U32>(seg.pubMapEndAddr - seg.pubMapStartAddr))] =
            kOwners[below(kMostJobs)];
        ++counts_.scribbles;
    }
}

// What is left free is allocated, and then all of it is released at once: nothing else was allocated, and nothing was lost.
void Printer::releaseEverything(U32 handle)
{
    const TMMSegInfo& seg = stSegTable[handle];
    while (seg.ulTotalFreeBlkNum != 0)
        check(allocate(handle, seg.ulLargestBlkSize << seg.ubBlkBit, 1) != 0, "free blocks cannot be allocated");
    const auto all = [&](U32 start, U32 end) {
        check(release(handle, start, (end - start) >> seg.ubBlkBit << seg.ubBlkBit) == ENOERR,
              "not everything is allocated");
    };
    if (handle != HEAPHANDLE)
        all(MM_Addr(seg.pubStartAddr), MM_Addr(seg.pubEndAddr));
    for (U8 piece = 0; handle == HEAPHANDLE && MM_IsPiece(piece); ++piece)
        all(MM_PieceAddr(PIECE_START, piece), MM_PieceAddr(PIECE_END, piece));
}

void Printer::closeDown()
{
    open_ = false;
    while (!jobs_.empty())
        playUntil(now_ + kHour);
    check(held_.empty(), "a job has ended and left a block");
    for (const U32 handle : handles_) {
        if (MM_Guarded)
            releaseEverything(handle);
        const TMMSegInfo& seg = stSegTable[handle];
        check(MM_CountersAgree(handle) && seg.ulTotalFreeBlkNum == seg.ulTotalBlkNum, "blocks were lost");
        check(handle == HEAPHANDLE || seg.ulLargestBlkSize == seg.ulTotalBlkNum, "free memory is not one run");
    }
}

} // namespace velmora::soak
