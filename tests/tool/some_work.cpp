// Does on a device what a check of a program wants to see: "PAGE" has 257 blocks of 4 KiB.
//   some-work start     starts the library; owner 3 takes the highest 128 blocks
//   some-work take N    owner 5 takes N blocks more
#include <cstdlib>
#include <cstring>

#include <velmora/device.hpp>

int main(int count, char** arguments)
{
    using namespace velmora;
    Device device(openNode());
    if (count == 2 && std::strcmp(arguments[1], "start") == 0) {
        startUp(device);
        Segment pages = Segment::create(device, {.name = "PAGE", .bytes = 1 << 20, .blockBytes = 4096, .ownerBits = 8});
        pages.allocate(128 * 4096, Owner{3})->detach();
        return 0;
    }
    if (count != 3 || std::strcmp(arguments[1], "take") != 0)
        return 2;
    Segment pages = Segment::find(device, "PAGE").value();
    pages.allocate(static_cast<std::uint32_t>(std::atoi(arguments[2])) * 4096, Owner{5}).value().detach();
}
