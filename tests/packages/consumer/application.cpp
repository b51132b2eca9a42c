// An application outside the project's tree: on a private controller it makes a segment, and writes to memory that it reads
// back by another view.
#include <algorithm>
#include <cstdio>
#include <exception>

#include <velmora/controller.hpp>
#include <velmora/device.hpp>

int main()
{
    try {
        velmora::sim::Controller controller;
        velmora::Device device(controller.open());
        device.buildTable();
        device.startLibrary(SM_BKUP_OK);
        const auto bands = device.createSegment({.name = "BAND", .bytes = 1 << 20, .blockBytes = 4096, .mapBits = 8});
        const auto address = device.allocate(bands.hulHandle, 65536, 1);
        if (!address)
            return 1;
        velmora::Mapping one = device.map(*address, 65536);
        const velmora::Mapping other = device.map(*address, 65536);
        std::ranges::fill(one.bytes(), std::byte{0x5A});
        if (!std::ranges::equal(one.bytes(), other.bytes()))
            return 1;
        // An exception of the library's, caught by its type across the border.
        try {
            device.physicalAddress(0);
        } catch (const velmora::Error&) {
        }
        std::printf("application: %zu-bit, 65536 bytes at %#x\n", 8 * sizeof(void*), *address);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "application: %s\n", error.what());
        return 1;
    }
}
