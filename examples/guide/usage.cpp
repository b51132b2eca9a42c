// Prints who has how much, as far as a process can know it.
#include <cstdio>
#include <exception>

#include <velmora/device.hpp>

int main()
{
    try {
        velmora::Device device(velmora::openNode());
        for (const velmora::SegmentUsage& usage : velmora::segments(device)) {
            std::printf("%-4s %2u  %5u of %5u blocks of %u bytes are free, %u in a row\n", usage.name.c_str(),
                        static_cast<unsigned>(usage.handle), usage.freeBlocks, usage.blocks, usage.blockStride,
                        usage.longestRun);
            if (usage.usable) {
                std::printf("     not for the safe layer: %s\n", usage.usable.message().c_str());
                continue;
            }
            const velmora::Segment segment = velmora::Segment::find(device, usage.name).value();
            std::error_code unknown; // no owner map, for example
            for (const velmora::OwnedRun& run : velmora::ownedRuns(segment, unknown))
                std::printf("     owner 0x%02x: %u blocks at 0x%08x\n", static_cast<unsigned>(run.owner), run.blocks,
                            run.start);
            if (unknown)
                std::printf("     owners: %s\n", unknown.message().c_str());
        }
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "usage: %s\n", error.what());
        return 1;
    }
}
