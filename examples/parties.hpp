// The three applications of a printer controller, each with its own descriptor of the memory manager's device.
//
//   JobHandler       starts the manager, sizes the segments, keeps the job ticket, gives everything back
//   RasterProcessor  puts each page's raster into memory, band by band, owned by the page
//   CollationCopy    reads the bands back through mappings and writes the copies
//
// Bands come from the segment "PAGE", and from the heap what does not fit there. Both have an owner map, and each band is its
// page's from the command on that allocates it: whichever party dies, and wherever, the others find what it held by the owner.
//
// The manager can overflow by itself (Layout::overflows): it takes the same number of blocks from the heap, in the heap's block
// size (at least as large, or a band would not fit), for nobody. Then the job notes which bands lie there and gives those back
// one by one, and a raster processor that dies before it has told of a band leaves it to the next start of the library.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <velmora/device.hpp>
#include "netpbm.hpp"

namespace printjob {

struct Layout {
    std::uint32_t pageSegmentBytes = 32u << 20;
    std::uint32_t blockBytes = 4096;     // of the segment "PAGE"
    std::uint32_t heapBlockBytes = 8192; // not below blockBytes
    std::uint32_t bandBytes = 256u << 10;
    bool overflows = false; // what does not fit into "PAGE" is left to the manager
};

struct Band {
    TAddr address;
    std::uint32_t bytes;
    bool inHeap;
};

// A page in the controller's memory.
struct StoredPage {
    unsigned number; // from 1
    std::uint8_t owner;
    RasterHeader header;
    std::vector<Band> bands;

    std::uint32_t heapBands() const;
};

// The document does not fit into memory.
struct OutOfMemory : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Owner ID of a page. Clean-up by owner also takes blocks whose ID has more bits set than the owner's, so the IDs in use
// have four bits each: none contains another. From page 71 on pages share IDs, which does no harm to a job
// that gives all its pages back together.
std::uint8_t ownerOfPage(unsigned number);

class JobHandler
{
public:
    JobHandler(std::unique_ptr<velmora::Channel> channel, const Layout& layout);

    // Starts the manager and creates "$JCB", "PAGE" and the heap. A guarded manager starts only when nothing is allocated: what
    // a job handling that died has left is given back first, as soon as its parties are gone.
    void start();

    std::uint32_t pageSegment() const { return pageSegment_; }
    TAddr ticket() const { return ticket_; }

    void writeTicket(unsigned copies, unsigned pages);

    // Bytes that the pages hold in the segment "PAGE" at this moment.
    std::uint64_t pageSegmentUse();

    // Releases everything that the pages hold, and the ticket. Bands go by the pages' owners, whether the pages know of them or
    // not; those that overflowed have no owner and go one by one.
    void giveBack(const std::vector<StoredPage>& pages);

    // True when every block of "$JCB" and "PAGE" is free.
    bool segmentsAreFree();

    // Bytes that the heap has room for. No command tells, so its longest free stretches are allocated one after another
    // and given back: for a heap that nobody else uses at that moment.
    std::uint64_t heapRoom();

    // Has the manager print its segment table on the kernel log.
    void display() { device_.display(MM_DISPLAY_ALL); }

private:
    void startLibrary();
    void giveBackWhatIsLeft();
    Band takeLongestOfHeap(std::uint32_t blocksBelow);

    velmora::Device device_;
    Layout layout_;
    std::uint32_t ticketSegment_ = 0;
    std::uint32_t pageSegment_ = 0;
    std::uint32_t heapBytes_ = 0; // usable
    TAddr ticket_ = 0;
};

class RasterProcessor
{
public:
    RasterProcessor(std::unique_ptr<velmora::Channel> channel, const Layout& layout, std::uint32_t pageSegment);

    // Puts a raster file into memory. What was stored before a failure is in the page, so that it can be given back.
    // taken: hears of each band before it is filled.
    void store(
        const std::filesystem::path& raster, StoredPage& page,
        const std::function<void(const Band&)>& taken = [](const Band&) {});

private:
    Band allocateBand(const StoredPage& page, std::uint32_t bytes);
    bool segmentHasRoom(std::uint32_t bytes);

    velmora::Device device_;
    Layout layout_;
    std::uint32_t pageSegment_;
};

class CollationCopy
{
public:
    CollationCopy(std::unique_ptr<velmora::Channel> channel, TAddr ticket);

    // Copies that the job ticket asks for.
    unsigned copies();

    // Reads a page back and writes it as a netpbm file.
    void write(const StoredPage& page, const std::filesystem::path& file);

private:
    velmora::Device device_;
    TAddr ticket_;
};

} // namespace printjob
