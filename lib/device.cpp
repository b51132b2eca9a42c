#include <velmora/raw.hpp>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "lib/holdings.hpp"

namespace velmora {

namespace {

constexpr std::size_t kPageBytes = 4096;

void setName(std::uint8_t (&id)[4], const std::string& name)
{
    if (name.empty() || name.size() > sizeof id)
        throw std::invalid_argument("a segment name has one to four characters: '" + name + "'");
    std::copy(name.begin(), name.end(), id);
}

} // namespace

Mapping::Mapping(std::shared_ptr<Channel> channel, MM_TAddr address, std::size_t bytes, Caching caching)
    : channel_(std::move(channel))
{
    const std::size_t before = address % kPageBytes;
    mappedBytes_ = (before + bytes + kPageBytes - 1) / kPageBytes * kPageBytes;
    start_ = channel_->map(address - static_cast<MM_TAddr>(before), mappedBytes_, caching);
    bytes_ = {static_cast<std::byte*>(start_) + before, bytes};
}

Mapping::Mapping(Mapping&& other) noexcept
    : channel_(std::move(other.channel_)), start_(std::exchange(other.start_, nullptr)),
      mappedBytes_(other.mappedBytes_), bytes_(std::exchange(other.bytes_, {}))
{
}

Mapping& Mapping::operator=(Mapping&& other) noexcept
{
    std::swap(channel_, other.channel_);
    std::swap(start_, other.start_);
    std::swap(mappedBytes_, other.mappedBytes_);
    std::swap(bytes_, other.bytes_);
    return *this;
}

Mapping::~Mapping()
{
    if (start_ != nullptr)
        channel_->unmap(start_, mappedBytes_);
}

Device::Device(std::unique_ptr<Channel> channel)
    : channel_(std::move(channel)), holdings_(std::make_shared<detail::Holdings>())
{
}

template <class Record> int Device::run(std::uint32_t number, Record& record)
{
    const int result = channel_->command(number, &record, sizeof record);
    if (result < 0)
        throw Error(commandName(number), result);
    return result;
}

template <class Record> void Device::runOrThrow(std::uint32_t number, Record& record)
{
    if (const int result = run(number, record))
        throw Error(commandName(number), result);
}

void Device::buildTable()
{
    MM_TMMInitOption option = MM_CONSTRUCT_DEFAULT_MCT;
    runOrThrow(MM_CMD_ENTRY, option);
}

void Device::startLibrary(MM_TStartOption startOption)
{
    MM_TLibEntryInfo info{startOption, 0};
    runOrThrow(MM_CMD_LIB_ENTRY, info);
}

MM_TSegInfoFromApp Device::createSegment(const SegmentRequest& request)
{
    MM_TSegInfoFromApp info{};
    setName(info.aubSegID, request.name);
    info.ubType = request.type;
    info.ubSegDSType = request.discipline;
    info.ubMap = request.mapBits;
    info.ubSemaphore = request.locked ? MM_YES : MM_NO;
    info.ulSegSize = request.bytes;
    info.ulBlkSize = request.blockBytes;
    info.ubVM = request.overflowsToHeap ? 1 : 0;
    runOrThrow(MM_CMD_CREATE_SEGMENT, info);
    return info;
}

std::optional<MM_TAddr> Device::allocate(std::uint32_t handle, std::uint32_t bytes, std::uint8_t owner)
{
    MM_TMallocInfo info{handle, bytes, owner, {}, 0};
    const int result = run(MM_CMD_MALLOC, info);
    if (result == MM_EINVASEGSIZE)
        return std::nullopt;
    if (result != MM_ENOERR)
        throw Error("MM_CMD_MALLOC", result);
    return info.pubStart;
}

void Device::release(std::uint32_t handle, MM_TAddr address, std::uint32_t bytes)
{
    MM_TFreeInfo info{handle, address, bytes};
    runOrThrow(MM_CMD_FREE, info);
}

void Device::collectGarbage(std::uint32_t handle, std::uint8_t owner)
{
    MM_TCollectGarbageInfo info{handle, owner, {}};
    runOrThrow(MM_CMD_COLLECT_GARBAGE, info);
}

void Device::fill(MM_TAddr address, std::uint8_t byte, std::uint32_t bytes)
{
    MM_TMemsetInfo info{address, byte, bytes};
    runOrThrow(MM_CMD_MEMSET, info);
}

void Device::deleteFixedSegment(const std::string& name)
{
    MM_TDeleteSegmentInfo info{};
    setName(info.aubCFGID, name);
    runOrThrow(MM_CMD_DELETE_SEGMENT, info);
}

void Device::addFixedSegment(const std::string& name, std::uint32_t bytes, MM_TAddr address)
{
    MM_TAddSegmentInfo info{};
    setName(info.aubCFGID, name);
    info.ulSize = bytes;
    info.pubAddr = address;
    runOrThrow(MM_CMD_ADD_SEGMENT, info);
}

void Device::clearFixedSegment(const std::string& name)
{
    MM_TClearSegmentInfo info{};
    setName(info.aubCFGID, name);
    runOrThrow(MM_CMD_CLEAR_SEGMENT, info);
}

bool Device::contains(std::uint32_t handle, MM_TAddr address)
{
    MM_TCheckSegmentInfo info{handle, address, 0, {}};
    runOrThrow(MM_CMD_CHECK_SEGMENT, info);
    return info.status != 0;
}

void Device::display(std::uint8_t selector)
{
    MM_TDisplayMSTInfo info{selector, 0, {}};
    runOrThrow(MM_CMD_DISPLAY_MST, info);
}

std::uint32_t Device::physicalAddress(MM_TAddr address)
{
    MM_TQueryPhysAddrInfo info{0, {}, address, 0};
    runOrThrow(MM_CMD_QUERY_PHYS_ADDR, info);
    return info.ulPhysAddr;
}

std::optional<MM_TMMSegInfoWire> Device::segment(std::uint8_t handle)
{
    MM_TGetMSTInfo info{};
    info.hubHandle = handle;
    runOrThrow(MM_CMD_GET_MST, info);
    return info.status == 0 ? std::optional(info.SegTable) : std::nullopt;
}

std::optional<MM_TMCTInfoWire> Device::tableRow(std::uint8_t row)
{
    MM_TGetMCTInfo info{};
    info.cfgid = row;
    runOrThrow(MM_CMD_GET_MCT, info);
    return info.status == 0 ? std::optional(info.SegTable) : std::nullopt;
}

} // namespace velmora
