// The raw layer: the fifteen commands of the device "Velmora_MM" and its mapping, one call each, and nothing between the
// caller and the manager. Each comment says what the manager really does. <velmora/segment.hpp> is the layer above, which
// keeps what its names say; both may be used side by side, on the same Device.
//
//   velmora::Device device(velmora::openNode());           // simulated: see controller/device.h, <velmora/controller.hpp>
//   device.buildTable();
//   device.startLibrary(SM_BKUP_OK);
//   auto bands = device.createSegment({.name = "BAND", .bytes = 8 << 20, .blockBytes = 4096, .mapBits = 8});
//   if (auto address = device.allocate(bands.hulHandle, 65536, 1)) {
//       velmora::Mapping view = device.map(*address, 65536); // unmaps itself
//       ...
//   }
//
// Addresses (MM_TAddr) are kernel virtual addresses of the managed area, 32 bits wide in every program; sizes are bytes.
// A call that the manager or the device refuses throws velmora::Error, which says what was answered; "no room" and
// "no such entry" are values.
//
// The wire header's names without MM_ are there for programs that like them, as above. This header needs none: a program
// that defines VELMORA_MM_PREFIXED_NAMES and one that does not link the same library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <system_error>

#include <velmora/error.hpp>
#include <velmora_mm/velmora_mm.h>

namespace velmora {

namespace detail {
struct Holdings;
}

// How a mapping goes through the processor's cache. Cached is fast, and what a device (DMA) reads or writes must be flushed
// or invalidated by whoever starts it; Uncached is slow and the device sees the same bytes. One block mapped both ways at a
// time is undefined on the processor: choose one for each use.
enum class Caching {
    Cached,  // as the kernel proposes it
    Uncached // as a descriptor with O_SYNC maps
};

// One open descriptor of the device, however it is reached. Threads: any number at once, except for its end.
class Channel
{
public:
    virtual ~Channel() = default;

    // Runs a command on a record of the caller; what the kernel returned, negative codes included.
    virtual int command(std::uint32_t number, void* record, std::size_t bytes) = 0;

    // Maps bytes of memory at a page-aligned kernel virtual address; throws Error when refused. The device checks that the
    // pages are RAM, and nothing else: any of it can be mapped.
    virtual void* map(MM_TAddr address, std::size_t bytes, Caching caching) = 0;
    // Takes back what map() gave, whole.
    virtual void unmap(void* start, std::size_t bytes) = 0;
};

// A view of managed memory in this process; unmaps itself. It may outlive the Device that made it: the descriptor stays
// open until its last view is gone. It does not hold the memory: a block that is released while it is mapped is somebody
// else's the next moment, under the same view.
//
// The processor maps whole pages of 4096 bytes: beside bytes() the rest of the first and the last page is mapped too.
//
// Threads: one at a time for the object; the bytes are shared memory and need what shared memory needs.
class Mapping
{
public:
    // Maps bytes at an address, which need not begin a page. Throws Error when the device refuses.
    Mapping(std::shared_ptr<Channel> channel, MM_TAddr address, std::size_t bytes, Caching caching);
    // The view moves; what was moved from has none.
    Mapping(Mapping&& other) noexcept;
    // The two views change places.
    Mapping& operator=(Mapping&& other) noexcept;
    // Unmaps.
    ~Mapping();

    // The bytes that were asked for.
    std::span<std::byte> bytes() const { return bytes_; }

private:
    std::shared_ptr<Channel> channel_;
    void* start_;             // page-aligned
    std::size_t mappedBytes_; // from start_
    std::span<std::byte> bytes_;
};

// What a segment should be, in the manager's words. The heap is a Float segment of 0 bytes.
struct SegmentRequest {
    std::string name; // up to four characters
    std::uint32_t bytes =
        0; // with the owner map, which lies in front of the blocks; placed: rounded up to a multiple of 4
    // Of a block. A size that is no power of two is divided by as it is and multiplied as the power of two below it: blocks
    // of 3000 bytes lie 2048 apart, and their last one may reach out of the segment. Sizes below 16 leave no room for what
    // the manager writes into a free block (12 bytes): it writes into the next one.
    std::uint32_t blockBytes = 4096;
    std::uint8_t mapBits = 0;                // 0, 1, 2, 4 or 8 owner bits for each block
    std::uint8_t type = MM_FLOAT;            // MM_FIXED, MM_FLOAT, MM_FLOATALIGN: begins at a multiple of blockBytes
    std::uint8_t discipline = MM_LINKEDLIST; // or MM_STACK
    bool locked = true;           // against other kernel code; a failed release leaves the lock held for ever
    bool overflowsToHeap = false; // what does not fit is taken from the heap: see Device::allocate()
};

// The device's commands. Threads: any number may call at once, and the kernel runs one command at a time; assigning to the
// object is for one thread alone. Copies are the same open device.
class Device
{
public:
    // Takes over an open channel.
    explicit Device(std::unique_ptr<Channel> channel);

    // MM_CMD_ENTRY: lays out the fixed segments. Comes first, once; a second time it keeps places and counts sizes again.
    void buildTable();
    // MM_CMD_LIB_ENTRY: forgets every segment, everybody's. Handles, addresses and mappings of all processes stay usable
    // and mean memory that is given out anew. MM_SM_BKUP_NG clears "$UEV", MM_SM_AJL_CLR "$JCB"; options above 3 are
    // refused after the segments have been forgotten.
    void startLibrary(MM_TStartOption startOption);

    // MM_CMD_CREATE_SEGMENT: the request as the manager gave it back: handle, bytes placed, usable bytes (ulRetSegSize, less
    // than asked for where the owner map or alignment took some). A creation that fails may use up its handle: 44 float ones
    // between two starts. The heap takes all that is left, so it comes last; of what no segment has, pieces smaller than its
    // blocks make it unsound.
    MM_TSegInfoFromApp createSegment(const SegmentRequest& request);

    // MM_CMD_MALLOC: as many blocks as bytes / blockBytes, rounded up, for an owner; nullopt when there is no room. That is
    // at least bytes only where blockBytes is a power of two and the blocks are the segment's own: what overflows gets the
    // same number of the heap's blocks, however small they are, owned by nobody. Memory comes with what was in it.
    // Owners: 0 without a map; 0 or 1 with one bit; 1 to 2^bits - 1 with more.
    std::optional<MM_TAddr> allocate(std::uint32_t handle, std::uint32_t bytes, std::uint8_t owner = 0);
    // MM_CMD_FREE: believes handle, address and bytes, whoever holds the memory, and says yes whatever became of it. What
    // lies in the heap goes to the heap, counted in blocks of the handle's size, but not through a stack. A wrong address or
    // a second release leaves a locked segment's lock held: the next release in any such segment never returns.
    void release(std::uint32_t handle, MM_TAddr address, std::uint32_t bytes);
    // MM_CMD_COLLECT_GARBAGE: releases the blocks of an owner, and of every owner whose ID has all of its bits: 1 those of 3
    // and 5 as well, 0 everything, free blocks included. An ID wider than the map's entries is compared with neighbours.
    // Nothing happens without a map, nor to what overflowed into the heap.
    void collectGarbage(std::uint32_t handle, std::uint8_t owner);
    // MM_CMD_MEMSET: fills wherever it is told; a controller does not survive an address without memory.
    void fill(MM_TAddr address, std::uint8_t byte, std::uint32_t bytes);

    // MM_CMD_DELETE_SEGMENT: clears a row's memory, then empties the row, by a name of up to four characters. The segment,
    // if one was created, stays in use. Success is reported whatever happened.
    void deleteFixedSegment(const std::string& name);
    // MM_CMD_ADD_SEGMENT: accepted and ignored.
    void addFixedSegment(const std::string& name, std::uint32_t bytes, MM_TAddr address);
    // MM_CMD_CLEAR_SEGMENT: fills a row's memory with zeros, in use or not; "$ALL" means all but "$MCT", "$UEV" and "$RJL".
    // Success is reported whatever happened.
    void clearFixedSegment(const std::string& name);

    // MM_CMD_CHECK_SEGMENT: true when the address lies in the segment or is its end, which may be the heap's first block.
    // Handles 0 to 48: for the heap the answer means nothing, and above it the manager reads past its table.
    bool contains(std::uint32_t handle, MM_TAddr address);
    // MM_CMD_DISPLAY_MST: prints the segment table on the kernel log. A handle, or MM_DISPLAY_ALL; rows of the heap
    // only once it exists.
    void display(std::uint8_t selector = MM_DISPLAY_ALL);
    // MM_CMD_QUERY_PHYS_ADDR: the address that a DMA engine takes; computed, not checked.
    std::uint32_t physicalAddress(MM_TAddr address);
    // MM_CMD_GET_MST: a segment's entry, all zeros where there is none; nullopt for the heap and beyond.
    std::optional<MM_TMMSegInfoWire> segment(std::uint8_t handle);
    // MM_CMD_GET_MCT: a row of the table of fixed segments; nullopt above 4.
    std::optional<MM_TMCTInfoWire> tableRow(std::uint8_t row);

    // Any command on a record of the caller's: what ioctl would give, negative kernel codes included. Throws nothing but
    // ConnectionError.
    int command(std::uint32_t number, void* record, std::size_t bytes)
    {
        return channel_->command(number, record, bytes);
    }

    // Maps memory, any of it: no check but that it exists.
    Mapping map(MM_TAddr address, std::size_t bytes, Caching caching = Caching::Cached)
    {
        return {channel_, address, bytes, caching};
    }

private:
    friend class Segment;
    friend struct SegmentAccess;
    template <class Record> int run(std::uint32_t number, Record& record);
    template <class Record> void runOrThrow(std::uint32_t number, Record& record);

    std::shared_ptr<Channel> channel_;           // its views hold it as well
    std::shared_ptr<detail::Holdings> holdings_; // what the safe layer holds through this device
};

// Opens the device: a node by its path, or the device of a simulated controller by "unix:SOCKET" ("unix:" alone: where a
// controller listens unless it is told otherwise). Without a path: what $VELMORA_MM_DEVICE says in the same words, else
// /dev/Velmora_MM. Throws std::system_error when it cannot be opened; what() says why in a sentence.
//
// A channel may be used by several threads; commands run one at a time. It is not for both sides of a fork: the child
// opens its own.
std::unique_ptr<Channel> openNode(const std::string& path = {});
// The same without an exception: null, and why in error.
std::unique_ptr<Channel> openNode(const std::string& path, std::error_code& error) noexcept;

} // namespace velmora
