// The workloads in the form that measure.hpp takes.
#pragma once

#include <cstdint>
#include <memory>
#include <numeric>
#include <optional>
#include <random>
#include <type_traits>
#include <vector>

#include "controller/device.h"
#include "kernel/mm/mmi/MM_Interface.h"
#include "contenders.hpp"
#include "sequence.hpp"

namespace bench {

// Churn and comb.
template <class Contender> class SequenceWork
{
public:
    static constexpr bool kLocks = Contender::locks;
    static constexpr bool kWalks = std::is_same_v<Contender, Velmora<Search::Walk>>;

    explicit SequenceWork(const Sequence& sequence) : sequence_(sequence), slots_(sequence.slots) {}
    SequenceWork(const SequenceWork&) = delete;
    ~SequenceWork() { clear(); }

    std::size_t operations() const { return sequence_.ops.size(); }
    bool allocates(std::size_t i) const { return sequence_.ops[i].units != 0; }
    std::uint64_t failed() const { return failed_; }
    void run(std::size_t i) { perform(contender_, sequence_.ops[i]); }

    void prepare()
    {
        clear();
        if constexpr (kWalks) {
            if (!built_) {
                Velmora<Search::Index> fast;
                build(fast);
                built_.emplace(Built{fast.state(), slots_, sizes_});
            }
            contender_.start(sequence_.areaUnits);
            contender_.restore(built_->state);
            slots_ = built_->slots;
            sizes_ = built_->sizes;
        } else {
            build(contender_);
        }
        failed_ = 0;
    }

    std::optional<double> largestRunRatio()
    {
        if (!Contender::fixedArea)
            return std::nullopt;
        const double freeBytes = static_cast<double>(sequence_.areaUnits - sequence_.liveUnits()) * kUnit;
        return static_cast<double>(contender_.largestBytes()) / freeBytes;
    }

    const Contender& contender() const { return contender_; }

private:
    struct Built {
        ListState state;
        std::vector<void*> slots;
        std::vector<std::uint32_t> sizes;
    };

    template <class C> void perform(C& contender, const Op& op)
    {
        void*& held = slots_[op.slot];
        if (op.units != 0) {
            held = contender.allocate(op.units);
            size(op.slot) = op.units;
            failed_ += held == nullptr;
        } else if (held != nullptr) {
            contender.release(held, size(op.slot));
            held = nullptr;
        }
    }

    std::uint32_t& size(std::uint32_t slot) { return sizes_[slot]; }

    template <class C> void build(C& contender)
    {
        contender.start(sequence_.areaUnits);
        for (const Op& op : sequence_.build)
            perform(contender, op);
    }

    void clear()
    {
        if constexpr (!Contender::fixedArea)
            for (std::uint32_t slot = 0; slot < slots_.size(); ++slot)
                if (slots_[slot] != nullptr)
                    contender_.release(slots_[slot], size(slot));
        std::fill(slots_.begin(), slots_.end(), nullptr);
    }

    const Sequence& sequence_;
    Contender contender_;
    std::vector<void*> slots_;
    std::vector<std::uint32_t> sizes_ = std::vector<std::uint32_t>(sequence_.slots);
    std::uint64_t failed_ = 0;
    std::optional<Built> built_;
};

// The print job. The manager has its three segments, owner maps and overflow as in the job; the others take the same
// bytes from one place, those with a fixed area from one as large as page segment and heap together.
inline std::vector<U32> createSegments(const PrintJob& job, Search search)
{
    startLibrary(search);
    std::vector<U32> handles;
    for (const PrintJob::Segment& segment : job.segments)
        handles.push_back(createSegment(segment.name.c_str(), segment.bytes, segment.blockBytes,
                                        static_cast<U8>(segment.mapBits), LINKEDLIST, static_cast<U8>(segment.type),
                                        segment.overflows));
    return handles;
}

template <class Contender> class PrintJobWork
{
public:
    static constexpr bool kLocks = false;

    explicit PrintJobWork(const PrintJob& job) : job_(job), slots_(job.slots) {}
    PrintJobWork(const PrintJobWork&) = delete;

    std::size_t operations() const { return job_.steps.size(); }
    bool allocates(std::size_t i) const { return job_.steps[i].allocates; }
    std::uint64_t failed() const { return failed_; }

    void run(std::size_t i)
    {
        const PrintJob::Step& step = job_.steps[i];
        if (step.allocates) {
            slots_[step.slot] = contender_.allocate(unitsOf(step.bytes));
            failed_ += slots_[step.slot] == nullptr;
        } else {
            contender_.release(slots_[step.slot], unitsOf(step.bytes));
        }
    }

    void prepare()
    {
        if constexpr (std::is_same_v<Contender, BoostTree>) {
            createSegments(job_, Search::Walk);
            const U8* const start = stSegTable[FIRST_FLOAT_HANDLE].pubStartAddr;
            contender_.startOver(const_cast<U8*>(start), bytes_ = areaBytes());
        } else {
            contender_.start(0);
        }
        failed_ = 0;
    }

    std::optional<double> largestRunRatio()
    {
        if constexpr (Contender::fixedArea)
            return static_cast<double>(contender_.largestBytes()) / bytes_;
        return std::nullopt;
    }

private:
    static std::uint32_t unitsOf(std::uint32_t bytes) { return (bytes + kUnit - 1) / kUnit; }
    static std::uint32_t areaBytes()
    {
        return stSegTable[FIRST_FLOAT_HANDLE].ulRealAvailSize + stSegTable[HEAPHANDLE].ulRealAvailSize;
    }

    const PrintJob& job_;
    Contender contender_;
    std::vector<void*> slots_;
    std::uint32_t bytes_ = 1;
    std::uint64_t failed_ = 0;
};

template <Search search> class PrintJobWork<Velmora<search>>
{
public:
    static constexpr bool kLocks = true;

    explicit PrintJobWork(const PrintJob& job) : slots_(job.slots)
    {
        const std::vector<U32> handles = createSegments(job, search);
        for (const PrintJob::Step& step : job.steps) {
            const auto segment =
                static_cast<std::size_t>(std::find(handles.begin(), handles.end(), step.segment) - handles.begin());
            const U32 blockBytes = job.segments.at(segment).blockBytes;
            calls_.push_back(
                {step.allocates, step.slot, step.segment, (step.bytes + blockBytes - 1) / blockBytes, step.owner});
        }
    }

    std::size_t operations() const { return calls_.size(); }
    bool allocates(std::size_t i) const { return calls_[i].allocates; }
    std::uint64_t failed() const { return failed_; }

    void run(std::size_t i)
    {
        const Call& call = calls_[i];
        if (call.allocates) {
            slots_[call.slot] = MM_AllocBlock(call.handle, call.blocks, call.owner);
            failed_ += slots_[call.slot] == 0;
        } else {
            MM_FreeBlock(call.handle, MM_At(slots_[call.slot]), call.blocks);
        }
    }

    void prepare() { failed_ = 0; } // everything was given back

    std::optional<double> largestRunRatio()
    {
        double largest = 0;
        double free = 0;
        for (const U32 handle : {U32(FIRST_FLOAT_HANDLE), U32(HEAPHANDLE)}) {
            const double blockBytes = stSegTable[handle].stInfoFromApp.ulBlkSize;
            largest = std::max(largest, MM_GetLargestBlk(handle) * blockBytes);
            free += MM_GetTotAvailBlk(handle) * blockBytes;
        }
        return largest / free;
    }

private:
    struct Call {
        bool allocates;
        std::uint32_t slot;
        U32 handle, blocks;
        U8 owner;
    };
    std::vector<Call> calls_;
    std::vector<U32> slots_;
    std::uint64_t failed_ = 0;
};

// Clean-up: an owner's runs, each beside a run of another one. One operation gives all of them back. The manager finds
// them in the owner map; with the others the owner keeps a list and releases one by one.
inline constexpr std::uint32_t kCleanUpRunUnits = 16;
inline constexpr U8 kOwner = 1;
inline constexpr U8 kOtherOwner = 2;

template <class Contender> class CleanUpWork
{
public:
    static constexpr bool kLocks = Contender::locks;

    CleanUpWork(std::uint32_t runs, std::size_t operations)
        : runs_(runs), operations_(operations), owned_(runs), others_(runs)
    {
    }
    CleanUpWork(const CleanUpWork&) = delete;
    ~CleanUpWork() { clear(); }

    std::size_t operations() const { return operations_; }
    bool allocates(std::size_t) const { return false; }
    std::uint64_t failed() const { return failed_; }

    void prepare()
    {
        clear();
        contender_.start(2 * runs_ * kCleanUpRunUnits + runs_); // some of it for headers inside the area
        for (std::uint32_t i = 0; i < runs_; ++i) {
            owned_[i] = contender_.allocate(kCleanUpRunUnits);
            others_[i] = contender_.allocate(kCleanUpRunUnits);
        }
        fresh_ = true;
        failed_ = 0;
    }

    void before(std::size_t)
    {
        for (std::uint32_t i = 0; i < runs_ && !fresh_; ++i) {
            owned_[i] = contender_.allocate(kCleanUpRunUnits);
            failed_ += owned_[i] == nullptr;
        }
        fresh_ = false;
    }

    void run(std::size_t)
    {
        for (void* const memory : owned_)
            contender_.release(memory, kCleanUpRunUnits);
        cleaned_ = true;
    }

    std::optional<double> largestRunRatio() { return std::nullopt; }

private:
    void clear()
    {
        if constexpr (!Contender::fixedArea)
            for (std::uint32_t i = 0; i < runs_; ++i) {
                if (others_[i] != nullptr)
                    contender_.release(others_[i], kCleanUpRunUnits);
                if (!cleaned_ && owned_[i] != nullptr)
                    contender_.release(owned_[i], kCleanUpRunUnits);
            }
        cleaned_ = false;
    }

    std::uint32_t runs_;
    std::size_t operations_;
    Contender contender_;
    std::vector<void*> owned_, others_;
    bool fresh_ = false;
    bool cleaned_ = false;
    std::uint64_t failed_ = 0;
};

template <Search search> class CleanUpWork<Velmora<search>>
{
public:
    static constexpr bool kLocks = true;

    CleanUpWork(std::uint32_t runs, std::size_t operations) : runs_(runs), operations_(operations) {}

    std::size_t operations() const { return operations_; }
    bool allocates(std::size_t) const { return false; }
    std::uint64_t failed() const { return failed_; }

    void prepare()
    {
        startLibrary(search);
        handle_ = createSegment("BNCH", 3 * runs_ * kCleanUpRunUnits * kUnit, kUnit, 8, LINKEDLIST);
        for (std::uint32_t i = 0; i < runs_; ++i) {
            allocate(kOwner);
            allocate(kOtherOwner);
        }
        fresh_ = true;
        failed_ = 0;
    }

    void before(std::size_t)
    {
        for (std::uint32_t i = 0; i < runs_ && !fresh_; ++i)
            allocate(kOwner);
        fresh_ = false;
    }

    void run(std::size_t) { MM_CollectGarbage(handle_, kOwner); }

    std::optional<double> largestRunRatio() { return std::nullopt; }

private:
    void allocate(U8 owner) { failed_ += MM_AllocBlock(handle_, kCleanUpRunUnits, owner) == 0; }

    std::uint32_t runs_;
    std::size_t operations_;
    U32 handle_ = 0;
    bool fresh_ = false;
    std::uint64_t failed_ = 0;
};

// The command path: the same allocations and releases called directly, as commands of the device on a record in user
// memory, and through the client library, which opens the simulated machine's device.
enum class Path { Direct, Command, Library };

class DeviceWork
{
public:
    static constexpr bool kLocks = true;

    DeviceWork(Search search, U8 discipline, Path path, std::size_t operations)
        : search_(search), discipline_(discipline), path_(path), bytes_(operations), device_(velmora::sim::openDevice())
    {
        std::mt19937 random(1);
        for (std::size_t i = 0; i < operations; i += 2)
            bytes_[i] = bytes_[i + 1] = std::uniform_int_distribution<U32>(1, 65536)(random);
    }

    std::size_t operations() const { return bytes_.size(); }
    bool allocates(std::size_t i) const { return i % 2 == 0; }
    std::uint64_t failed() const { return failed_; }

    void prepare()
    {
        startLibrary(search_);
        handle_ = createSegment("BNCH", 8u << 20, 4096, discipline_ == STACK ? 0 : 8, discipline_);
        owner_ = discipline_ == STACK ? 0 : 1;
        failed_ = 0;
    }

    void run(std::size_t i)
    {
        switch (path_) {
        case Path::Direct:
            if (allocates(i))
                address_ = MM_Malloc(handle_, bytes_[i], owner_);
            else
                MM_Free(handle_, MM_At(address_), bytes_[i]);
            break;
        case Path::Command:
            if (allocates(i)) {
                auto& record = *MM_At<TMallocInfo>(velmora::sim::kScratch);
                record = {handle_, bytes_[i], owner_, {}, 0};
                failed_ += Velmora_MM_ioctl(MM_CMD_MALLOC, velmora::sim::kScratch) != ENOERR;
                address_ = record.pubStart;
            } else {
                *MM_At<TFreeInfo>(velmora::sim::kScratch) = {handle_, address_, bytes_[i]};
                failed_ += Velmora_MM_ioctl(MM_CMD_FREE, velmora::sim::kScratch) != ENOERR;
            }
            break;
        case Path::Library:
            if (allocates(i))
                address_ = device_.allocate(handle_, bytes_[i], owner_).value();
            else
                device_.release(handle_, address_, bytes_[i]);
            break;
        }
    }

    std::optional<double> largestRunRatio() { return std::nullopt; }

private:
    Search search_;
    U8 discipline_;
    Path path_;
    std::vector<U32> bytes_;
    velmora::Device device_;
    U32 handle_ = 0;
    U8 owner_ = 0;
    U32 address_ = 0;
    std::uint64_t failed_ = 0;
};

} // namespace bench
