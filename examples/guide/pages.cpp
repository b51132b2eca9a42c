// Two parties and a page: one stores it, the other prints it, and what a party leaves behind is collected. Each has a device
// of its own, as in processes of their own.
#include <algorithm>
#include <cstdio>
#include <exception>
#include <vector>

#include <velmora/device.hpp>

namespace {

constexpr std::uint32_t kBandBytes = 256 << 10;

// Bands of a page, detached: a party that printed them would take this list from a pipe or from "$JCB".
std::vector<velmora::BlockRecord> store(velmora::Device device, velmora::Owner page, int bands)
{
    velmora::Segment segment = velmora::Segment::find(device, "PAGE").value();
    // Without this the page must fit into the segment. The heap's facts come from who created it.
    segment.overflowInto(velmora::Segment::heap(device, {.blockBytes = 4096}));

    std::vector<velmora::BlockRecord> stored;
    for (int band = 0; band < bands; ++band) {
        std::error_code error;
        std::optional<velmora::Block> block = segment.allocate(kBandBytes, page, error);
        if (!block) {
            std::printf("band %d: %s\n", band, error.message().c_str());
            break;
        }
        const velmora::Mapping view = block->map();
        std::ranges::fill(view.bytes(), static_cast<std::byte>(band));
        stored.push_back(block->detach()); // from here on the other party's
    }
    return stored;
}

// Reads the bands and gives each back with its end.
std::uint64_t print(velmora::Device device, const std::vector<velmora::BlockRecord>& bands)
{
    const velmora::Segment segment = velmora::Segment::find(device, "PAGE").value();
    const velmora::Segment heap = velmora::Segment::heap(device, {.blockBytes = 4096});
    std::uint64_t sum = 0;
    for (const velmora::BlockRecord& band : bands) {
        const bool overflowed = band.segment == static_cast<std::uint32_t>(velmora::Handle::Heap);
        const velmora::Block block = (overflowed ? heap : segment).adopt(band);
        const velmora::Mapping view = block.map();
        for (const std::byte byte : view.bytes())
            sum += std::to_integer<std::uint64_t>(byte);
    }
    return sum;
}

// After a party has ended: what it allocated for its owner.
void collect(velmora::Device device, velmora::Owner page)
{
    const velmora::Segment segment = velmora::Segment::find(device, "PAGE").value();
    for (const velmora::OwnerUsage& usage : velmora::owners(segment))
        std::printf("owner 0x%02x has %u blocks\n", static_cast<unsigned>(usage.owner), usage.blocks);
    segment.collect(page);
}

} // namespace

int main()
{
    try {
        const std::vector<velmora::Owner> pages = velmora::ownerIds(8); // none contains another
        const auto first = store(velmora::Device(velmora::openNode()), pages[0], 6);
        std::printf("printed: %llu\n",
                    static_cast<unsigned long long>(print(velmora::Device(velmora::openNode()), first)));
        store(velmora::Device(velmora::openNode()), pages[1], 1); // and forgets it
        collect(velmora::Device(velmora::openNode()), pages[1]);
        return 0;
    } catch (const velmora::Error& error) {
        std::fprintf(stderr, "pages: %s (from %s)\n", error.what(), error.command().c_str());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "pages: %s\n", error.what());
    }
    return 1;
}
