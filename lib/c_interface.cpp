// The C interface over the safe layer: handles are the objects themselves, exceptions become codes.
#include <velmora/velmora.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <optional>
#include <system_error>

#include <velmora/segment.hpp>
#include <velmora/usage.hpp>

struct velmora_device {
    velmora::Device device;
};

struct velmora_segment {
    velmora::Segment segment;
};

struct velmora_block {
    velmora::Block block;
};

struct velmora_mapping {
    velmora::Mapping mapping;
};

namespace {

using velmora::Errc;

static_assert(VELMORA_NO_ROOM == static_cast<int>(Errc::NoRoom) &&
              VELMORA_BAD_RANGE == static_cast<int>(Errc::BadRange) &&
              VELMORA_HEAP_UNSAFE == static_cast<int>(Errc::HeapUnsafe));
static_assert(sizeof(velmora_block_record) == sizeof(velmora::BlockRecord));

// Of this thread.
struct Texts {
    std::string lastError, code;
};

Texts& texts()
{
    thread_local Texts own;
    return own;
}

int failed(int code, const char* sentence) noexcept
{
    try {
        texts().lastError = sentence;
    } catch (...) {
        texts().lastError.clear();
    }
    return code;
}

// Runs a call; its code, or that of what it threw.
template <class Call> int guarded(Call call) noexcept
{
    try {
        call();
        return VELMORA_OK;
    } catch (const velmora::Error& error) {
        return failed(error.result(), error.what());
    } catch (const std::system_error& error) {
        return failed(-error.code().value(), error.what());
    } catch (const std::bad_alloc&) {
        return failed(-ENOMEM, "no memory in this process");
    } catch (const std::exception& error) {
        return failed(-EINVAL, error.what());
    }
}

std::string textOf(const char* text)
{
    return text != nullptr ? text : "";
}

velmora::SegmentOptions optionsOf(const velmora_segment_options& options)
{
    if (options.struct_bytes != sizeof options)
        throw velmora::Error("velmora_segment_options", -EINVAL);
    if (options.owner_bits > 8)
        throw velmora::Error("velmora_segment_options", Errc::BadOwner);
    if (options.place > VELMORA_HEAP || options.discipline > VELMORA_BLOCKS)
        throw velmora::Error("velmora_segment_options", -EINVAL);
    return {.name = textOf(options.name),
            .bytes = options.bytes,
            .blockBytes = options.block_bytes,
            .ownerBits = static_cast<std::uint8_t>(options.owner_bits),
            .place = static_cast<velmora::Place>(options.place),
            .discipline = static_cast<velmora::Discipline>(options.discipline),
            .managerOverflows = options.manager_overflows != 0};
}

velmora::Owner ownerOf(const char* call, unsigned int owner)
{
    if (owner > 0xFF)
        throw velmora::Error(call, Errc::BadOwner, std::to_string(owner));
    return static_cast<velmora::Owner>(owner);
}

velmora_segment_info infoOf(const velmora::SegmentUsage& usage)
{
    velmora_segment_info info{};
    std::copy(usage.name.begin(), usage.name.end(), info.name);
    info.handle = static_cast<unsigned>(usage.handle);
    info.place = static_cast<unsigned>(usage.place);
    info.discipline = static_cast<unsigned>(usage.discipline);
    info.block_bytes = usage.blockBytes;
    info.block_stride = usage.blockStride;
    info.owner_bits = usage.ownerBits;
    info.locked = usage.locked;
    info.manager_overflows = usage.managerOverflows;
    info.start = usage.start;
    info.end = usage.end;
    info.blocks = usage.blocks;
    info.free_blocks = usage.freeBlocks;
    info.longest_run = usage.longestRun;
    info.usable = velmora::resultOf(usage.usable);
    return info;
}

template <class From, class To, class Make>
void give(const std::vector<From>& list, To* elements, size_t room, size_t* count, Make make)
{
    for (size_t i = 0; i < std::min(room, list.size()); ++i)
        elements[i] = make(list[i]);
    *count = list.size();
}

void put(const velmora::BlockRecord& from, velmora_block_record* to)
{
    std::memcpy(to, &from, sizeof *to);
}

} // namespace

const char* velmora_version(void)
{
    return VELMORA_MM_VERSION;
}

const char* velmora_strerror(int code)
{
    texts().code = code == 0 ? "no error" : velmora::codeOf(code).message();
    return texts().code.c_str();
}

const char* velmora_code_name(int code)
{
    texts().code = velmora::codeName(code);
    return texts().code.c_str();
}

const char* velmora_last_error(void)
{
    return texts().lastError.c_str();
}

int velmora_open(const char* where, velmora_device** device)
{
    return guarded([&] { *device = new velmora_device{velmora::Device(velmora::openNode(textOf(where)))}; });
}

void velmora_close(velmora_device* device)
{
    delete device;
}

int velmora_command(velmora_device* device, unsigned int number, void* record, size_t bytes)
{
    int result = 0;
    const int code = guarded([&] { result = device->device.command(number, record, bytes); });
    return code != 0 ? code : result;
}

int velmora_start_up(velmora_device* device, unsigned int option, int forget_everything)
{
    using velmora::Restart;
    return guarded(
        [&] { startUp(device->device, option, forget_everything != 0 ? Restart::ForgetEverything : Restart::Refuse); });
}

int velmora_segment_find(velmora_device* device, const char* name, velmora_segment** segment)
{
    return guarded([&] {
        auto found = velmora::Segment::find(device->device, textOf(name));
        if (!found)
            throw velmora::Error("velmora_segment_find", Errc::NoSuchSegment, "'" + textOf(name) + "'");
        *segment = new velmora_segment{*found};
    });
}

int velmora_segment_create(velmora_device* device, const velmora_segment_options* options, velmora_segment** segment)
{
    return guarded(
        [&] { *segment = new velmora_segment{velmora::Segment::create(device->device, optionsOf(*options))}; });
}

int velmora_segment_open_or_create(velmora_device* device, const velmora_segment_options* options,
                                   velmora_segment** segment)
{
    return guarded(
        [&] { *segment = new velmora_segment{velmora::Segment::openOrCreate(device->device, optionsOf(*options))}; });
}

int velmora_segment_heap(velmora_device* device, unsigned int block_bytes, unsigned int owner_bits,
                         velmora_segment** segment)
{
    return guarded([&] {
        if (owner_bits > 8)
            throw velmora::Error("velmora_segment_heap", Errc::BadOwner);
        const velmora::HeapFacts facts{block_bytes, static_cast<std::uint8_t>(owner_bits)};
        *segment = new velmora_segment{velmora::Segment::heap(device->device, facts)};
    });
}

void velmora_segment_close(velmora_segment* segment)
{
    delete segment;
}

int velmora_segment_get_info(velmora_segment* segment, velmora_segment_info* info)
{
    return guarded([&] {
        if (segment->segment.isHeap())
            throw velmora::Error("velmora_segment_get_info", Errc::NotKnown);
        velmora::Device device = segment->segment.device();
        for (const velmora::SegmentUsage& usage : velmora::segments(device))
            if (usage.handle == segment->segment.handle() && usage.name == segment->segment.name()) {
                *info = infoOf(usage);
                return;
            }
        throw velmora::Error("velmora_segment_get_info", Errc::NoSuchSegment);
    });
}

int velmora_segment_overflow_into(velmora_segment* segment, const velmora_segment* heap, unsigned int owner)
{
    return guarded(
        [&] { segment->segment.overflowInto(heap->segment, ownerOf("velmora_segment_overflow_into", owner)); });
}

int velmora_collect(velmora_segment* segment, unsigned int owner)
{
    return guarded([&] { segment->segment.collect(ownerOf("velmora_collect", owner)); });
}

size_t velmora_owner_ids(unsigned int bits, unsigned int* ids, size_t room)
{
    size_t count = 0;
    guarded([&] {
        give(velmora::ownerIds(bits), ids, room, &count, [](velmora::Owner id) { return static_cast<unsigned>(id); });
    });
    return count;
}

int velmora_allocate(velmora_segment* segment, unsigned int bytes, unsigned int owner, velmora_block** block)
{
    return guarded([&] {
        auto taken = segment->segment.allocate(bytes, ownerOf("velmora_allocate", owner));
        if (!taken)
            throw velmora::Error("velmora_allocate", Errc::NoRoom,
                                 std::to_string(bytes) + " bytes from '" + segment->segment.name() + "'");
        *block = new velmora_block{std::move(*taken)};
    });
}

int velmora_adopt(velmora_segment* segment, const velmora_block_record* record, velmora_block** block)
{
    return guarded([&] {
        velmora::BlockRecord same{record->segment, record->address, record->bytes, record->owner, {}};
        std::memcpy(same.name, record->name, sizeof same.name);
        *block = new velmora_block{segment->segment.adopt(same)};
    });
}

void velmora_block_get_record(const velmora_block* block, velmora_block_record* record)
{
    put(block->block.record(), record);
}

int velmora_block_held(const velmora_block* block)
{
    return block->block.held() ? 1 : 0;
}

int velmora_block_fill(const velmora_block* block, unsigned int byte)
{
    return guarded([&] { block->block.fill(static_cast<std::byte>(byte)); });
}

int velmora_block_physical_address(const velmora_block* block, unsigned int* address)
{
    return guarded([&] { *address = block->block.physicalAddress(); });
}

int velmora_block_release(velmora_block* block)
{
    return guarded([&] { block->block.release(); });
}

int velmora_block_detach(velmora_block* block, velmora_block_record* record)
{
    return guarded([&] { put(block->block.detach(), record); });
}

void velmora_block_close(velmora_block* block)
{
    delete block;
}

int velmora_map(const velmora_block* block, unsigned int offset, unsigned int bytes, unsigned int caching,
                velmora_mapping** mapping)
{
    using velmora::Caching;
    return guarded([&] {
        const Caching way = caching == VELMORA_UNCACHED ? Caching::Uncached : Caching::Cached;
        *mapping = new velmora_mapping{block->block.map(offset, bytes, way)};
    });
}

void* velmora_mapping_data(const velmora_mapping* mapping)
{
    return mapping->mapping.bytes().data();
}

size_t velmora_mapping_size(const velmora_mapping* mapping)
{
    return mapping->mapping.bytes().size();
}

void velmora_unmap(velmora_mapping* mapping)
{
    delete mapping;
}

int velmora_segments(velmora_device* device, velmora_segment_info* infos, size_t room, size_t* count)
{
    return guarded([&] { give(velmora::segments(device->device), infos, room, count, infoOf); });
}

int velmora_owners(velmora_segment* segment, velmora_owner_usage* usages, size_t room, size_t* count)
{
    return guarded([&] {
        give(velmora::owners(segment->segment), usages, room, count, [](const velmora::OwnerUsage& usage) {
            return velmora_owner_usage{static_cast<unsigned>(usage.owner), usage.blocks};
        });
    });
}

int velmora_free_runs(velmora_segment* segment, velmora_free_run* runs, size_t room, size_t* count)
{
    return guarded([&] {
        give(velmora::freeRuns(segment->segment), runs, room, count, [](const velmora::FreeRun& run) {
            return velmora_free_run{run.start, run.blocks};
        });
    });
}

int velmora_fragmentation(velmora_segment* segment, velmora_fragmentation_info* info)
{
    return guarded([&] {
        const velmora::Fragmentation now = velmora::fragmentation(segment->segment);
        *info = {now.freeBytes, now.longestBytes, now.ratio};
    });
}
