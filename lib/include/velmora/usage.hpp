// Who has how much: the manager's table and owner maps, read while others go on working. Each function is a picture of one
// moment only where its comment says so. Threads: any number at once.
//
// The heap. No command shows its entry, and its lists and maps lie where no command says: a process knows of the heap what
// it asked for when it created it, and what it allocated there itself. The one other source is the kernel log, for those
// who may read it: Device::display(MM_HEAPHANDLE) prints a row for each piece, and heapPieces() reads such rows.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <system_error>
#include <vector>

#include <velmora/segment.hpp>

namespace velmora {

// A segment as the manager's table has it: one moment.
struct SegmentUsage {
    std::string name;              // up to four characters
    Handle handle{};               // 0 to 48
    Place place = Place::Float;    // Fixed or Float
    Discipline discipline{};       // how it gives memory
    std::uint32_t blockBytes = 0;  // as it was created
    std::uint32_t blockStride = 0; // from one block to the next: the power of two at or below blockBytes
    unsigned ownerBits = 0;        // 0: no owner map
    bool locked = false;           // runs under a lock
    bool managerOverflows = false; // what does not fit is taken from the heap
    MM_TAddr start = 0;            // of its blocks; the owner map lies before them
    MM_TAddr end = 0;              // past them
    std::uint32_t blocks = 0;      // all
    std::uint32_t freeBlocks = 0;  // of them
    std::uint32_t longestRun = 0;  // of free blocks that follow each other
    std::error_code usable;        // why Segment::find() refuses it; none where it does not
};

// What an owner has in a segment.
struct OwnerUsage {
    Owner owner{};            // Nobody: allocated, and recorded for nobody
    std::uint32_t blocks = 0; // of the segment's
    // Memberwise.
    bool operator==(const OwnerUsage&) const = default;
};

// Blocks of one owner that follow each other.
struct OwnedRun {
    Owner owner{};            // whose
    MM_TAddr start = 0;       // of the first
    std::uint32_t blocks = 0; // how many
    // Memberwise.
    bool operator==(const OwnedRun&) const = default;
};

// Free blocks that follow each other.
struct FreeRun {
    MM_TAddr start = 0;       // of the first
    std::uint32_t blocks = 0; // how many
    // Memberwise.
    bool operator==(const FreeRun&) const = default;
};

// How cut up the free memory of a segment is.
struct Fragmentation {
    std::uint32_t freeBytes = 0;    // in whole blocks
    std::uint32_t longestBytes = 0; // the most that one allocation can get
    double ratio = 0;               // 0: free memory is in one piece, or there is none; towards 1: in many small ones
};

// A piece of the heap, as the kernel log shows it.
struct HeapPiece {
    MM_TAddr start = 0;           // of its blocks
    MM_TAddr end = 0;             // past them
    std::uint32_t blockBytes = 0; // of the heap
    std::uint32_t blocks = 0;     // all of the piece
    std::uint32_t freeBlocks = 0; // of them
    std::uint32_t longestRun = 0; // of free blocks that follow each other, anywhere in the heap
};

// Every segment but the heap, in the order of the handles; each of them is one moment.
std::vector<SegmentUsage> segments(Device& device);

// Blocks of each owner ID, in the order of the IDs; owners without blocks are left out. Read from the owner map through a
// mapping. Throws Error with NotKnown for a segment without a map and for the heap.
std::vector<OwnerUsage> owners(const Segment& segment);
// The same; empty and why in error.
std::vector<OwnerUsage> owners(const Segment& segment, std::error_code& error);

// Where those blocks lie, in the order of their addresses; neighbours of one owner are one run. As owners().
std::vector<OwnedRun> ownedRuns(const Segment& segment);
// The same; empty and why in error.
std::vector<OwnedRun> ownedRuns(const Segment& segment, std::error_code& error);

// The free runs, in the order of their addresses. Known from the owner map where every allocated block has an owner; without
// it for stacks, and for segments that are wholly free or full. Otherwise, and for the heap, throws Error with NotKnown: the
// list of free runs itself can only be followed by the manager.
std::vector<FreeRun> freeRuns(const Segment& segment);
// The same; empty and why in error.
std::vector<FreeRun> freeRuns(const Segment& segment, std::error_code& error);

// One moment. Throws Error with NotKnown for the heap.
Fragmentation fragmentation(const Segment& segment);
// The same; why not in error.
Fragmentation fragmentation(const Segment& segment, std::error_code& error);

// The heap's pieces as the newest display of the heap, or of everything, in these kernel messages has them; empty when there
// is none. One moment, the display's.
std::vector<HeapPiece> heapPieces(std::span<const std::string> kernelLog);

} // namespace velmora
