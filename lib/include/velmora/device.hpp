// Client library of the control device "Velmora_MM".
//
//   velmora::Device device(velmora::openNode());           // simulated: see controller/device.h
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
// "no such entry" are values. A Device may be used by one thread at a time; open one for each party.
//
// The wire header's names without MM_ are there for programs that like them, as above. This header needs none: a program
// that defines VELMORA_MM_PREFIXED_NAMES and one that does not link the same library.
#pragma once

#if __cplusplus < 202002L
#error "<velmora/device.hpp> is C++20: compile with -std=c++20"
#endif

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>

#include <velmora_mm/velmora_mm.h>

namespace velmora {

// Name of a result: a code of the manager ("EASSERT" for 14) or, below 0, of the kernel ("ENOTTY" for -25). The number
// where there is no name.
std::string codeName(int result);

// Name of a device command ("MM_CMD_MALLOC"), or its number.
std::string commandName(std::uint32_t number);

class Error : public std::runtime_error
{
public:
    // command: the device command or call that failed. result: a code of the manager (above 0) or a negative kernel
    // code, -EINVAL for example. The manager's and the kernel's codes share numbers and nothing else.
    Error(const std::string& command, int result);

    int result() const { return result_; }

protected:
    Error(int result, const std::string& sentence) : std::runtime_error(sentence), result_(result) {}

private:
    int result_;
};

// The controller behind a socket is gone, or its answer cannot be understood: what() is its report where it left one.
// Every further call of the same channel fails so.
class ConnectionError : public Error
{
public:
    // result: a negative kernel code, -EPIPE.
    ConnectionError(int result, const std::string& sentence) : Error(result, sentence) {}
};

enum class Caching { Cached, Uncached };

// One open descriptor of the device, however it is reached.
class Channel
{
public:
    virtual ~Channel() = default;

    // Runs a command on a record of the caller; what the kernel returned, negative codes included.
    virtual int command(std::uint32_t number, void* record, std::size_t bytes) = 0;

    // Maps bytes of memory at a page-aligned kernel virtual address; throws Error when refused.
    virtual void* map(MM_TAddr address, std::size_t bytes, Caching caching) = 0;
    virtual void unmap(void* start, std::size_t bytes) = 0;
};

// A view of managed memory in this process; unmaps itself. It may outlive the Device that made it: the descriptor stays
// open until its last view is gone.
class Mapping
{
public:
    Mapping(std::shared_ptr<Channel> channel, MM_TAddr address, std::size_t bytes, Caching caching);
    Mapping(Mapping&& other) noexcept;
    Mapping& operator=(Mapping&& other) noexcept;
    ~Mapping();

    std::span<std::byte> bytes() const { return bytes_; }

private:
    std::shared_ptr<Channel> channel_;
    void* start_;             // page-aligned
    std::size_t mappedBytes_; // from start_
    std::span<std::byte> bytes_;
};

// What a segment should be. The heap is a Float segment of 0 bytes.
struct SegmentRequest {
    std::string name; // up to four characters
    std::uint32_t bytes = 0;
    std::uint32_t blockBytes = 4096;
    std::uint8_t mapBits = 0; // 0, 1, 2, 4 or 8 owner bits for each block
    std::uint8_t type = MM_FLOAT;
    std::uint8_t discipline = MM_LINKEDLIST;
    bool locked = true;           // safe to use from several contexts
    bool overflowsToHeap = false; // what does not fit is taken from the heap, in the heap's blocks, owned by nobody
};

class Device
{
public:
    explicit Device(std::unique_ptr<Channel> channel) : channel_(std::move(channel)) {}

    // Start-up, in this order.
    void buildTable();                              // MM_CMD_ENTRY
    void startLibrary(MM_TStartOption startOption); // MM_CMD_LIB_ENTRY: forgets every segment

    // The request as the manager gave it back: handle, bytes placed, usable bytes.
    MM_TSegInfoFromApp createSegment(const SegmentRequest& request); // MM_CMD_CREATE_SEGMENT

    // At least bytes from a segment for an owner; nullopt when there is no room. A clean-up takes the blocks of its owner and
    // of every owner whose ID has all of its bits: 1 those of 3 and 5 as well.
    std::optional<MM_TAddr> allocate(std::uint32_t handle, std::uint32_t bytes,
                                     std::uint8_t owner = 0);                  // MM_CMD_MALLOC
    void release(std::uint32_t handle, MM_TAddr address, std::uint32_t bytes); // MM_CMD_FREE
    void collectGarbage(std::uint32_t handle, std::uint8_t owner);             // MM_CMD_COLLECT_GARBAGE
    void fill(MM_TAddr address, std::uint8_t byte, std::uint32_t bytes);       // MM_CMD_MEMSET

    // Fixed segments, by a name of up to four characters. The manager reports success whatever happened.
    void deleteFixedSegment(const std::string& name);                                     // MM_CMD_DELETE_SEGMENT
    void addFixedSegment(const std::string& name, std::uint32_t bytes, MM_TAddr address); // MM_CMD_ADD_SEGMENT: ignored
    void clearFixedSegment(const std::string& name);                                      // MM_CMD_CLEAR_SEGMENT

    // True when the address lies in the segment (handles 0 to 48) or is its end.
    bool contains(std::uint32_t handle, MM_TAddr address);         // MM_CMD_CHECK_SEGMENT
    void display(std::uint8_t selector = MM_DISPLAY_ALL);          // MM_CMD_DISPLAY_MST, on the kernel log
    std::uint32_t physicalAddress(MM_TAddr address);               // MM_CMD_QUERY_PHYS_ADDR
    std::optional<MM_TMMSegInfoWire> segment(std::uint8_t handle); // MM_CMD_GET_MST; nullopt for the heap and beyond
    std::optional<MM_TMCTInfoWire> tableRow(std::uint8_t row);     // MM_CMD_GET_MCT; nullopt above 4

    Mapping map(MM_TAddr address, std::size_t bytes, Caching caching = Caching::Cached)
    {
        return {channel_, address, bytes, caching};
    }

private:
    template <class Record> int run(std::uint32_t number, Record& record);
    template <class Record> void runOrThrow(std::uint32_t number, Record& record);

    std::shared_ptr<Channel> channel_; // its views hold it as well
};

// Opens the device: a node by its path, or the device of a simulated controller by "unix:SOCKET" ("unix:" alone: where a
// controller listens unless it is told otherwise). Without a path: what $VELMORA_MM_DEVICE says in the same words, else
// /dev/Velmora_MM. Throws std::system_error when it cannot be opened; what() says why in a sentence.
//
// A channel may be used by several threads; commands run one at a time. It is not for both sides of a fork: the child
// opens its own.
std::unique_ptr<Channel> openNode(const std::string& path = {});

} // namespace velmora
