// The safe layer: segments and blocks that keep what they promise, against the manager as it is.
//
//   - The bytes that were asked for are there. Segments whose block size is no power of two, or below 16 bytes, are neither
//     created nor used (Errc::BadBlockSize): the manager's arithmetic is wrong for them. What overflows is asked of the heap
//     in bytes; memory that the manager itself took from the heap is given back, since its size cannot be known.
//   - Nothing is released that this process does not hold. A Block is released once; one that was collected, whose owner map
//     says that it is somebody else's, whose segment went with a start of the library, or that came across a fork is not
//     (Errc::NotHeld, NoSuchSegment). Without an owner map the manager keeps no record that could be compared.
//   - No view reaches out of its block. (The processor maps whole pages: see Mapping.)
//   - Owners go with their map (Errc::BadOwner). ownerIds() gives IDs of which none contains another, so that collecting one
//     owner never takes the blocks of the next.
//   - What would leave a lock held, and with it end the controller, is refused: stacks with a lock (StackIsLocked), a release
//     that is not a stack's last (NotTopOfStack), a heap beside gaps that are smaller than its blocks (HeapUnsafe).
//
// What the manager cannot keep for anybody: a look and the command after it are two commands. A clean-up of an owner, a
// release through a stack or a start of the library by another process in between is not seen. So an owner is collected when
// whoever allocated for it has ended, a stack has one process, and one process starts the library.
//
// Calls throw Error; beside each stands one that takes a std::error_code and gives nothing instead. "No room" is no failure:
// allocate() gives nullopt. Names are one to four characters.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <velmora/raw.hpp>

namespace velmora {

// An owner's ID in an owner map; Nobody where there is no map.
enum class Owner : std::uint8_t {
    Nobody = 0 // not recorded: no clean-up takes the block
};

// A segment's place in the manager's table: 0 to 4 fixed, 5 to 48 float, 49 the heap.
enum class Handle : std::uint32_t {
    Heap = MM_HEAPHANDLE // the heap's
};

// IDs for an owner map of so many bits (1, 2, 4 or 8), as many as there can be (1, 2, 6 or 70) of which none has all the bits
// of another: a clean-up takes every block whose ID has all bits of the owner's. Empty for other widths.
std::vector<Owner> ownerIds(unsigned bits);

// How a segment gives memory.
enum class Discipline : std::uint8_t {
    Stack = MM_STACK,      // last in, first out
    Blocks = MM_LINKEDLIST // any block at any time
};

// Where a segment lies.
enum class Place : std::uint8_t {
    Fixed, // where the table of fixed segments says, by its name
    Float, // in free memory
    Heap   // all that is left, so it comes last
};

// What a segment should be.
struct SegmentOptions {
    std::string name;                // one to four characters
    std::uint32_t bytes = 0;         // usable, at least; 0 for Fixed and Heap, which have the size that they have
    std::uint32_t blockBytes = 4096; // a power of two, from 16 on (a stack: 4)
    std::uint8_t ownerBits = 0;      // owner map: 0 (none), 1, 2, 4 or 8 bits for each block
    Place place = Place::Float;      // where
    Discipline discipline = Discipline::Blocks; // how; a heap and a segment with owners have blocks
    bool managerOverflows = false;              // for programs on the raw layer: the manager overflows into the heap
};

// What a process that did not create the heap must be told about it: no command shows the heap's entry. It is believed; a
// wrong width of the map is answered with MM_EASSERT, a block size that is no power of two can cost bytes.
struct HeapFacts {
    std::uint32_t blockBytes = 4096; // as it was created
    std::uint8_t ownerBits = 0;      // as it was created
};

// Names a block for another process: what Block::detach() gives and Segment::adopt() takes. Plain data of 20 bytes, the same
// for programs of every word size.
struct BlockRecord {
    std::uint32_t segment = 0; // handle
    MM_TAddr address = 0;      // kernel virtual
    std::uint32_t bytes = 0;   // that were asked for
    std::uint32_t owner = 0;   // ID
    char name[4] = {};         // of the segment, not terminated
};
static_assert(sizeof(BlockRecord) == 20);

// When startUp() finds segments.
enum class Restart : std::uint8_t {
    Refuse,          // Errc::AlreadyStarted
    ForgetEverything // start all the same: every block of every process is lost to it
};

// Lays out the fixed segments and starts the library: for the one process that starts the controller. Afterwards there are
// no segments.
void startUp(Device& device, MM_TStartOption option = MM_SM_BKUP_OK, Restart restart = Restart::Refuse);
// The same; why not in error.
void startUp(Device& device, MM_TStartOption option, Restart restart, std::error_code& error);

class Block;

// A segment that this library can vouch for. Copies are the same segment; it keeps the device open.
// Threads: any number at once, but for overflowInto() and assigning, which are for one alone.
class Segment
{
public:
    // The segment of that name; nullopt when there is none. The heap is not found: see heap().
    // Throws Error with the reasons for which a segment is not used: BadBlockSize, StackIsLocked, StackOverflows.
    static std::optional<Segment> find(Device& device, std::string_view name);
    // The same; NoSuchSegment or another reason in error.
    static std::optional<Segment> find(Device& device, std::string_view name, std::error_code& error);

    // Creates a segment: with as many bytes to use as were asked for (the owner map and alignment come on top), in free memory
    // without gaps, a stack without a lock. A creation that the manager refuses (no memory, no handle, a name that exists)
    // throws its MM_EASSERT; the kernel log says why.
    static Segment create(Device& device, const SegmentOptions& options);
    // The same; nullopt and why in error.
    static std::optional<Segment> create(Device& device, const SegmentOptions& options, std::error_code& error);

    // The segment of that name if it is as described and has the bytes (else SegmentDiffers), created where there is none. Of
    // several processes that come at once one creates it. Not for the heap.
    static Segment openOrCreate(Device& device, const SegmentOptions& options);
    // The same; nullopt and why in error.
    static std::optional<Segment> openOrCreate(Device& device, const SegmentOptions& options, std::error_code& error);

    // The heap, which somebody else created so.
    static Segment heap(Device& device, const HeapFacts& facts);

    // Its name; of a heap that somebody else created "".
    const std::string& name() const noexcept;
    // Its handle.
    Handle handle() const noexcept;
    // True for the heap.
    bool isHeap() const noexcept { return handle() == Handle::Heap; }
    // Bytes of a block.
    std::uint32_t blockBytes() const noexcept;
    // Bits of an owner map's entry, 0 without a map.
    unsigned ownerBits() const noexcept;
    // Bytes of all its blocks. nullopt for a heap that this process did not create.
    std::optional<std::uint32_t> bytes() const noexcept;
    // How it gives memory.
    Discipline discipline() const noexcept;
    // A copy of the open device.
    Device device() const;

    // From now on what this segment has no room for comes from the heap, with all its bytes. The blocks are the heap's: for
    // owner where it has a map, so they are collected there.
    void overflowInto(const Segment& heap, Owner owner = Owner::Nobody);

    // Bytes for an owner; nullopt when there is no room. What was in the memory before is still there, but for its first bytes.
    std::optional<Block> allocate(std::uint32_t bytes, Owner owner = Owner::Nobody) const;
    // The same; Errc::NoRoom or another reason in error.
    std::optional<Block> allocate(std::uint32_t bytes, Owner owner, std::error_code& error) const;

    // Takes over a block that a process, this one or another, detached. It must lie in this segment, and where there is an
    // owner map be that owner's (NotHeld).
    Block adopt(const BlockRecord& record) const;
    // The same; nullopt and why in error.
    std::optional<Block> adopt(const BlockRecord& record, std::error_code& error) const;

    // Releases all blocks of an owner, and of every owner whose ID has all of its bits, whichever process allocated them: for
    // what a process left that ended. Blocks of this process among them are not held any more. What overflowed is in the heap.
    // In a heap with eight bits only odd IDs are taken (BadOwner): kernel code marks blocks for good with 254, which
    // contains all even ones.
    void collect(Owner owner) const;
    // The same; why not in error.
    void collect(Owner owner, std::error_code& error) const;

private:
    friend class Block;
    friend struct SegmentAccess;
    struct State;
    explicit Segment(std::shared_ptr<State> state) : state_(std::move(state)) {}

    static std::shared_ptr<State> open(Device& device, const MM_TMMSegInfoWire& entry);
    std::optional<Block> take(std::uint32_t bytes, Owner owner) const;
    std::optional<Block> takeHere(std::uint32_t bytes, Owner owner) const;

    std::shared_ptr<State> state_;
    std::shared_ptr<State> overflow_;
    Owner overflowOwner_ = Owner::Nobody;
};

// Memory that this process holds: released at the end of the object, unless it was released or detached before. A release
// that fails at the end of the object is not reported.
// Threads: one at a time for each block; different blocks go their own ways. A child of a fork holds none of them.
class Block
{
public:
    // The block moves; what was moved from holds nothing.
    Block(Block&& other) noexcept;
    // Releases what it held, then as above.
    Block& operator=(Block&& other) noexcept;
    // Releases.
    ~Block();

    // Kernel virtual address, the name of this memory for every process.
    MM_TAddr address() const noexcept { return record_.address; }
    // Bytes that were asked for.
    std::uint32_t size() const noexcept { return record_.bytes; }
    // Its owner.
    Owner owner() const noexcept { return static_cast<Owner>(record_.owner); }
    // Where it lies: the heap's handle when it overflowed.
    Handle segment() const noexcept { return static_cast<Handle>(record_.segment); }
    // All of that: names it for others, as detach() does.
    const BlockRecord& record() const noexcept { return record_; }
    // False after release(), detach(), a move, a clean-up of its owner by this process, and in a child of a fork.
    bool held() const noexcept;

    // A view of the whole block. Throws Error when it is not held, or the device refuses.
    Mapping map(Caching caching = Caching::Cached) const;
    // A view of some of its bytes; BadRange past its end.
    Mapping map(std::uint32_t offset, std::uint32_t bytes, Caching caching = Caching::Cached) const;
    // The whole block; nullopt and why in error.
    std::optional<Mapping> map(Caching caching, std::error_code& error) const;

    // Has the kernel fill it.
    void fill(std::byte value) const;
    // What a DMA engine takes. The block is contiguous there too.
    std::uint32_t physicalAddress() const;

    // Gives the memory back. Throws Error when this process does not hold it (then nothing is released, and the block is
    // held no longer) or a stack's later blocks come first (it stays held).
    void release();
    // The same; why not in error.
    void release(std::error_code& error);

    // Stops holding it without releasing: the memory stays allocated until somebody adopts it or collects its owner.
    BlockRecord detach();

private:
    friend class Segment;
    Block(std::shared_ptr<Segment::State> state, const BlockRecord& record, std::uint64_t ticket);
    void requireHeld(const char* call) const;

    std::shared_ptr<Segment::State> state_; // null: holds nothing
    BlockRecord record_;
    std::uint64_t ticket_ = 0; // which of the blocks that ever lay there
};

} // namespace velmora
