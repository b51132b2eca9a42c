// The contenders, each with the same four calls:
//
//   start(area)              empty, over an area of so many units where it shares out a fixed one
//   allocate(units)          memory, or null when there is no room
//   release(memory, units)
//   largestBytes()           the longest run that can be allocated now; fixed areas only
#pragma once

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <malloc.h>
#include <memory_resource>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/interprocess/mem_algo/rbtree_best_fit.hpp>
#include <boost/interprocess/sync/mutex_family.hpp>

#include "host/machine.h"
#include "kernel/mm/mm/MM_Core.h"
#include "kernel/mm/mm/MM_List.h"
#include "kernel/mm/mm/MM_RunIndex.h"
#include "sequence.hpp"

extern "C" {
void* mi_malloc(std::size_t bytes);
void mi_free(void* memory);
}

namespace bench {

// The manager: one segment in the controller's memory. Every operation takes the segment's lock.

enum class Search { Index, Walk };

inline void expect(bool condition, const char* what)
{
    if (condition)
        return;
    std::string text = what;
    for (const std::string& message : velmora::sim::machine().takeLog())
        text += "\n  kernel log: " + message;
    throw std::runtime_error(text);
}

// Starts the library afresh: no segment.
inline void startLibrary(Search search)
{
    if constexpr (MM_Guarded) { // does not start while blocks are allocated: here they are forgotten
        for (TMMSegInfo& segment : stSegTable)
            segment = {};
        MM_GuardReset();
    }
    MM_UseRunIndex(search == Search::Index);
    expect(MM_LibEntry(SM_BKUP_OK, nullptr) == ENOERR, "the library does not start");
}

inline U32 createSegment(const char* name, U32 bytes, U32 blockBytes, U8 mapBits, U8 discipline, U8 type = FLOATALIGN,
                         bool overflows = false)
{
    TSegInfoFromApp info{};
    std::memcpy(info.aubSegID, name, std::strlen(name));
    info.ubType = type;
    info.ubSegDSType = discipline;
    info.ubMap = mapBits;
    info.ubSemaphore = YES;
    info.ulSegSize = bytes;
    info.ulBlkSize = blockBytes;
    info.ubVM = overflows;
    expect(MM_CreateSegment(&info) == ENOERR, "a segment is not created");
    return info.hulHandle;
}

inline U8* bytePointer(void* memory)
{
    return static_cast<U8*>(memory);
}

// A segment and its list of free runs.
struct ListState {
    TMMSegInfo segment;
    std::vector<std::pair<TMMBlkStr*, TMMNode>> runs;
};

template <Search search> class Velmora
{
public:
    static constexpr bool fixedArea = true;
    static constexpr bool locks = true;

    void start(std::uint32_t areaUnits)
    {
        startLibrary(search);
        handle_ = createSegment("BNCH", areaUnits * kUnit, kUnit, 0, LINKEDLIST);
    }

    void* allocate(std::uint32_t units) { return reinterpret_cast<void*>(MM_AllocBlock(handle_, units, 0)); }
    void release(void* memory, std::uint32_t units) { MM_FreeBlock(handle_, bytePointer(memory), units); }
    std::uint64_t largestBytes() const { return std::uint64_t(MM_GetLargestBlk(handle_)) * kUnit; }
    bool indexed() const { return MM_HasRunIndex(handle_); }

    // A segment that walks can be put into the state that one with an index has reached: getting there by walking
    // takes minutes.
    ListState state() const
    {
        ListState state{stSegTable[handle_], {}};
        for (TMMBlkStr* run = astBlkHead[handle_].pstBlk; run != nullptr; run = run->pstNext)
            state.runs.emplace_back(run, MM_ReadNode(run));
        return state;
    }

    void restore(const ListState& state)
    {
        expect(!indexed(), "an index and a list that it did not see");
        stSegTable[handle_] = state.segment;
        for (const auto& [run, node] : state.runs)
            MM_WriteNode(run, node);
        astBlkHead[handle_].pstBlk = state.runs.empty() ? nullptr : state.runs.front().first;
        astBlkTail[handle_].pstBlk = state.runs.empty() ? nullptr : state.runs.back().first;
    }

private:
    U32 handle_ = 0;
};

// Best fit in a red-black tree by size. It gets the same bytes as the manager's segment, and keeps its headers in them.
class BoostTree
{
public:
    static constexpr bool fixedArea = true;
    static constexpr bool locks = false;

    void start(std::uint32_t areaUnits)
    {
        startLibrary(Search::Walk);
        const U32 handle = createSegment("BNCH", areaUnits * kUnit, kUnit, 0, LINKEDLIST);
        startOver(stSegTable[handle].pubStartAddr, areaUnits * kUnit);
    }

    void startOver(void* area, std::uint32_t bytes)
    {
        bytes_ = bytes;
        tree_ = new (area) Tree(bytes, 0);
    }

    void* allocate(std::uint32_t units) { return tree_->allocate(units * kUnit); }
    void release(void* memory, std::uint32_t) { tree_->deallocate(memory); }

    std::uint64_t largestBytes()
    {
        std::uint32_t fits = 0;
        for (std::uint32_t low = 1, high = bytes_; low <= high;) {
            const std::uint32_t middle = low + (high - low) / 2;
            if (void* const memory = tree_->allocate(middle)) {
                tree_->deallocate(memory);
                fits = middle;
                low = middle + 1;
            } else {
                high = middle - 1;
            }
        }
        return fits;
    }

private:
    using Tree = boost::interprocess::rbtree_best_fit<boost::interprocess::null_mutex_family>;
    Tree* tree_ = nullptr;
    std::uint32_t bytes_ = 0;
};

// The general-purpose ones take what they need from the system.
struct SystemArea {
    static constexpr bool fixedArea = false;
    static constexpr bool locks = false;
    void start(std::uint32_t) {}
    std::uint64_t largestBytes() { return 0; }
};

struct Glibc : SystemArea {
    Glibc()
    {
        const std::size_t before = mallinfo2().uordblks;
        void* volatile const memory = std::malloc(64 * kUnit); // more than its caches for one thread keep
        expect(mallinfo2().uordblks > before, "malloc is not the C library's");
        std::free(memory);
    }
    void* allocate(std::uint32_t units) { return std::malloc(units * kUnit); }
    void release(void* memory, std::uint32_t) { std::free(memory); }
    ~Glibc() { malloc_trim(0); }
};

struct Mimalloc : SystemArea {
    void* allocate(std::uint32_t units) { return mi_malloc(units * kUnit); }
    void release(void* memory, std::uint32_t) { mi_free(memory); }
};

class Jemalloc : public SystemArea
{
public:
    Jemalloc()
    {
        void* const library = dlopen("libjemalloc.so.2", RTLD_NOW | RTLD_NOLOAD);
        malloc_ = reinterpret_cast<decltype(malloc_)>(dlsym(library, "malloc"));
        free_ = reinterpret_cast<decltype(free_)>(dlsym(library, "free"));
        expect(malloc_ != nullptr && malloc_ != &std::malloc, "jemalloc is not there, or is everyone's malloc");
    }
    void* allocate(std::uint32_t units) { return malloc_(units * kUnit); }
    void release(void* memory, std::uint32_t) { free_(memory); }

private:
    void* (*malloc_)(std::size_t) = nullptr;
    void (*free_)(void*) = nullptr;
};

class PmrPool : public SystemArea
{
public:
    void start(std::uint32_t) { pool_.emplace(std::pmr::new_delete_resource()); }
    void* allocate(std::uint32_t units) { return pool_->allocate(units * kUnit); }
    void release(void* memory, std::uint32_t units) { pool_->deallocate(memory, units * kUnit); }

private:
    std::optional<std::pmr::unsynchronized_pool_resource> pool_;
};

} // namespace bench
