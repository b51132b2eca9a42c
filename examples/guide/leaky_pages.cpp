// A party with a mistake in it: prints three pages and forgets one band of the second. docs/tour.md looks for it.
#include <cstdio>
#include <exception>
#include <vector>

#include <velmora/device.hpp>

namespace {

constexpr std::uint32_t kBandBytes = 64 << 10;

// A page of four bands, for an owner of its own. What is still held is released at the end of the vector.
void print(const velmora::Segment& segment, int page, velmora::Owner owner)
{
    std::vector<velmora::Block> bands;
    bands.reserve(4);
    for (int band = 0; band < 4; ++band)
        bands.push_back(segment.allocate(kBandBytes, owner).value());
    std::printf("page %d for owner %u\n", page, static_cast<unsigned>(owner));
    if (page == 2)
        bands[1].detach(); // handed over to nobody
}

} // namespace

int main()
{
    try {
        velmora::Device device(velmora::openNode());
        const velmora::Segment segment = velmora::Segment::find(device, "PAGE").value();
        const std::vector<velmora::Owner> owners = velmora::ownerIds(segment.ownerBits());
        for (int page = 1; page <= 3; ++page)
            print(segment, page, owners.at(static_cast<std::size_t>(page - 1)));
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "leaky-pages: %s\n", error.what());
        return 1;
    }
}
