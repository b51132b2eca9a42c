// The party that starts the controller: the library, every segment, the heap last. Runs once after power-on.
#include <cstdio>
#include <exception>

#include <velmora/device.hpp>

int main()
{
    try {
        velmora::Device device(velmora::openNode()); // $VELMORA_MM_DEVICE, else /dev/Velmora_MM
        velmora::startUp(device);                    // refuses when segments are there already

        velmora::Segment::create(device, {.name = "$JCB", .blockBytes = 1024, .place = velmora::Place::Fixed});
        velmora::Segment::create(device, {.name = "PAGE", .bytes = 1 << 20, .blockBytes = 4096, .ownerBits = 8});
        const velmora::Segment heap =
            velmora::Segment::create(device, {.name = "HEAP", .blockBytes = 4096, .place = velmora::Place::Heap});
        std::printf("the heap has %u bytes\n", heap.bytes().value());
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "start_up: %s\n", error.what());
        return 1;
    }
}
