#include "device.hpp"

#include <algorithm>
#include <array>
#include <utility>

namespace velmora {

namespace {

constexpr std::array<const char*, 24> kCodeNames = {
    "ENOERR",      "EINVAOPT",     "EOUTOFRANGE", "EWRONGADDR", "EINVASEGSIZE", "EOUTOFFIXED",
    "EOUTOFFLOAT", "EINVASEGTYPE", "ENOSEGLIST",  "ENOMCT",     "EERR",         "ENOSEGBLOCK",
    "ENOSEGBLK",   "ENOSIZE",      "EASSERT",     "EINITSEM",   "EFREESEM",     "EPSEM",
    "EVSEM",       "EOPEN",        "ECLOSE",      "ENULL",      "ESEGMENT",     "EINVAARG"};

constexpr std::array<const char*, MM_CMD_COUNT> kCommandNames = {
    "MM_CMD_LIB_ENTRY",       "MM_CMD_CREATE_SEGMENT",  "MM_CMD_MALLOC",        "MM_CMD_FREE",
    "MM_CMD_MEMSET",          "MM_CMD_DELETE_SEGMENT",  "MM_CMD_ADD_SEGMENT",   "MM_CMD_CLEAR_SEGMENT",
    "MM_CMD_ENTRY",           "MM_CMD_COLLECT_GARBAGE", "MM_CMD_CHECK_SEGMENT", "MM_CMD_DISPLAY_MST",
    "MM_CMD_QUERY_PHYS_ADDR", "MM_CMD_GET_MST",         "MM_CMD_GET_MCT"};

constexpr std::size_t kPageBytes = 4096;

std::string describe(const std::string& command, int result)
{
    std::string text = command + ": the manager answered " + codeName(result);
    if (result == EASSERT)
        text += "; the kernel log names the check that failed";
    if (result == EINVASEGSIZE)
        text += "; there is no room";
    return text;
}

void setName(std::uint8_t (&id)[4], const std::string& name)
{
    if (name.empty() || name.size() > sizeof id)
        throw std::invalid_argument("a segment name has one to four characters: '" + name + "'");
    std::copy(name.begin(), name.end(), id);
}

} // namespace

std::string codeName(int result)
{
    if (result == -22)
        return "-22 (bad user buffer)";
    if (result == -14)
        return "-14 (incomplete copy)";
    const std::string number = std::to_string(result);
    return result >= 0 && result < static_cast<int>(kCodeNames.size())
               ? number + " (" + kCodeNames[static_cast<std::size_t>(result)] + ")"
               : number;
}

std::string commandName(std::uint32_t number)
{
    const std::uint32_t index = number - MM_CMD_FIRST;
    return index < kCommandNames.size() ? kCommandNames[index] : std::to_string(number);
}

Error::Error(const std::string& command, int result) : std::runtime_error(describe(command, result)), result_(result)
{
}

Mapping::Mapping(Channel& channel, TAddr address, std::size_t bytes, Caching caching) : channel_(&channel)
{
    const std::size_t before = address % kPageBytes;
    mappedBytes_ = (before + bytes + kPageBytes - 1) / kPageBytes * kPageBytes;
    start_ = channel.map(address - static_cast<TAddr>(before), mappedBytes_, caching);
    bytes_ = {static_cast<std::byte*>(start_) + before, bytes};
}

Mapping::Mapping(Mapping&& other) noexcept
    : channel_(other.channel_), start_(std::exchange(other.start_, nullptr)), mappedBytes_(other.mappedBytes_),
      bytes_(std::exchange(other.bytes_, {}))
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
    TMMInitOption option = MM_CONSTRUCT_DEFAULT_MCT;
    runOrThrow(MM_CMD_ENTRY, option);
}

void Device::startLibrary(TStartOption startOption)
{
    TLibEntryInfo info{startOption, 0};
    runOrThrow(MM_CMD_LIB_ENTRY, info);
}

TSegInfoFromApp Device::createSegment(const SegmentRequest& request)
{
    TSegInfoFromApp info{};
    setName(info.aubSegID, request.name);
    info.ubType = request.type;
    info.ubSegDSType = request.discipline;
    info.ubMap = request.mapBits;
    info.ubSemaphore = request.locked ? YES : NO;
    info.ulSegSize = request.bytes;
    info.ulBlkSize = request.blockBytes;
    info.ubVM = request.overflowsToHeap ? 1 : 0;
    runOrThrow(MM_CMD_CREATE_SEGMENT, info);
    return info;
}

std::optional<TAddr> Device::allocate(std::uint32_t handle, std::uint32_t bytes, std::uint8_t owner)
{
    TMallocInfo info{handle, bytes, owner, {}, 0};
    const int result = run(MM_CMD_MALLOC, info);
    if (result == EINVASEGSIZE)
        return std::nullopt;
    if (result != ENOERR)
        throw Error("MM_CMD_MALLOC", result);
    return info.pubStart;
}

void Device::release(std::uint32_t handle, TAddr address, std::uint32_t bytes)
{
    TFreeInfo info{handle, address, bytes};
    runOrThrow(MM_CMD_FREE, info);
}

void Device::collectGarbage(std::uint32_t handle, std::uint8_t owner)
{
    TCollectGarbageInfo info{handle, owner, {}};
    runOrThrow(MM_CMD_COLLECT_GARBAGE, info);
}

void Device::fill(TAddr address, std::uint8_t byte, std::uint32_t bytes)
{
    TMemsetInfo info{address, byte, bytes};
    runOrThrow(MM_CMD_MEMSET, info);
}

void Device::deleteFixedSegment(const std::string& name)
{
    TDeleteSegmentInfo info{};
    setName(info.aubCFGID, name);
    runOrThrow(MM_CMD_DELETE_SEGMENT, info);
}

void Device::addFixedSegment(const std::string& name, std::uint32_t bytes, TAddr address)
{
    TAddSegmentInfo info{};
    setName(info.aubCFGID, name);
    info.ulSize = bytes;
    info.pubAddr = address;
    runOrThrow(MM_CMD_ADD_SEGMENT, info);
}

void Device::clearFixedSegment(const std::string& name)
{
    TClearSegmentInfo info{};
    setName(info.aubCFGID, name);
    runOrThrow(MM_CMD_CLEAR_SEGMENT, info);
}

bool Device::contains(std::uint32_t handle, TAddr address)
{
    TCheckSegmentInfo info{handle, address, 0, {}};
    runOrThrow(MM_CMD_CHECK_SEGMENT, info);
    return info.status != 0;
}

void Device::display(std::uint8_t selector)
{
    TDisplayMSTInfo info{selector, 0, {}};
    runOrThrow(MM_CMD_DISPLAY_MST, info);
}

std::uint32_t Device::physicalAddress(TAddr address)
{
    TQueryPhysAddrInfo info{0, {}, address, 0};
    runOrThrow(MM_CMD_QUERY_PHYS_ADDR, info);
    return info.ulPhysAddr;
}

std::optional<TMMSegInfoWire> Device::segment(std::uint8_t handle)
{
    TGetMSTInfo info{};
    info.hubHandle = handle;
    runOrThrow(MM_CMD_GET_MST, info);
    return info.status == 0 ? std::optional(info.SegTable) : std::nullopt;
}

std::optional<TMCTInfoWire> Device::tableRow(std::uint8_t row)
{
    TGetMCTInfo info{};
    info.cfgid = row;
    runOrThrow(MM_CMD_GET_MCT, info);
    return info.status == 0 ? std::optional(info.SegTable) : std::nullopt;
}

} // namespace velmora
