// What Segment and Block are made of, for the units of the safe layer.
#pragma once

#include <optional>
#include <string>

#include <velmora/segment.hpp>
#include "lib/holdings.hpp"

namespace velmora {

// A segment as it was when it was found or created. Of a heap only name, handle, block size, owner bits and bytes.
struct Segment::State {
    Device device;
    detail::Holdings& holdings; // the device's
    MM_TMMSegInfoWire entry;
    std::optional<std::uint32_t> bytes;
    std::optional<Mapping> ownerMap; // once it was needed; under the holdings' mutex
    std::string nameText;

    bool isHeap() const { return handle() == Handle::Heap; }
    bool isStack() const { return entry.stInfoFromApp.ubSegDSType == MM_STACK; }
    Handle handle() const { return static_cast<Handle>(entry.stInfoFromApp.hulHandle); }
    std::uint32_t blockBytes() const { return entry.stInfoFromApp.ulBlkSize; }
    unsigned ownerBits() const { return entry.stInfoFromApp.ubMap; }
    const std::string& name() const { return nameText; }
    std::uint32_t blocksOf(std::uint32_t bytes) const { return (bytes - 1) / blockBytes() + 1; }

    // The entry at this moment. Throws NoSuchSegment when the handle is not this segment's any more.
    MM_TMMSegInfoWire now(const char* call);
    // The owner map's entry of the block that is so many blocks in. Under the holdings' mutex.
    unsigned ownerOf(std::uint32_t block);
    // Throws where the segment is gone, the block is none of its blocks (BadRange), or its owner map or the top of the stack
    // says that it is not allocated for its owner (NotHeld). Under the holdings' mutex.
    MM_TMMSegInfoWire requireAllocated(const char* call, const BlockRecord& record);
};

// A way in for what is not of the classes.
struct SegmentAccess {
    static Segment::State& state(const Segment& segment) { return *segment.state_; }
    static detail::Holdings& holdings(const Device& device) { return *device.holdings_; }
};

// Four characters, without the zeros behind a shorter name.
std::string nameOf(const MM_U8 (&id)[4]);

// Why an entry in use cannot be vouched for; none if it can.
std::error_code refusalOf(const MM_TMMSegInfoWire& entry);

inline bool isUsed(const MM_TMMSegInfoWire& entry)
{
    return entry.pfnAlloc != 0 && entry.pfnFree != 0;
}

// Runs a call and gives its result, or `otherwise` and why in error.
template <class Result, class Call> Result orElse(std::error_code& error, Result otherwise, Call call)
{
    try {
        error.clear();
        return call();
    } catch (const Error& refusal) {
        error = refusal.code();
    }
    return otherwise;
}

} // namespace velmora
