// guard-play: what clients that keep the rules are answered, as text: every command with its answer and messages, and from
// time to time the whole state, lists and maps in memory included. The default build and the guarded one print the same.
//   guard-play SEED RUNS
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "controller/manager_state.h"
#include "controller/session_text.h"
#include "guard/commands.h"

namespace {

using namespace velmora;
using namespace velmora::guard;
using sim::Machine;

struct Grant {
    U32 handle, address, bytes;
    U8 owner;
};

class Clients
{
public:
    explicit Clients(unsigned long seed) : random_(static_cast<std::uint32_t>(seed)) {}

    void run()
    {
        sim::bootController();
        say("entry", enter());
        for (unsigned starts = 1 + below(3); starts > 0; --starts) {
            say("start", startLibrary());
            createAll();
            for (unsigned steps = 100 + below(1500); steps > 0; --steps)
                step();
            state();
            while (!grants_.empty())
                releaseOne(grants_.size() - 1);
            state();
        }
    }

private:
    unsigned below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }

    void say(const char* what, int answer, U32 a = 0, U32 b = 0, U32 c = 0)
    {
        for (const std::string& message : machine().takeLog()) {
            const std::size_t line = message.rfind(",line="); // the sources are the same, lines as well
            std::printf("  %s\n", sim::escaped(message.substr(0, line)).c_str());
        }
        std::printf("%s 0x%x 0x%x 0x%x = %d\n", what, a, b, c, answer);
    }

    void createAll()
    {
        segments_.clear();
        constexpr U32 sizes[] = {16, 32, 64, 256, 4096};
        constexpr U8 maps[] = {0, 1, 2, 4, 8};
        const char* const names[] = {"SEG1", "SEG2", "SEG3", "SEG4"};
        for (unsigned i = 1 + below(4); i > 0; --i) {
            Shape shape{names[i - 1], 0, sizes[below(5)]};
            shape.bytes = shape.blockBytes * (20 + below(below(2) == 0 ? 100 : 3000));
            shape.bytes = (shape.bytes + 4095) & ~4095U; // no stretch that is left is shorter than a block of the heap
            shape.discipline = below(6) == 0 ? STACK : LINKEDLIST;
            shape.map = shape.discipline == STACK ? 0 : maps[below(5)];
            shape.type = below(4) == 0 ? FLOATALIGN : FLOAT;
            shape.semaphore = below(2) == 0 ? YES : NO;
            shape.overflow = below(3) == 0;
            add(shape);
        }
        Shape heap{"HEAP", 0, 4096};
        heap.map = maps[below(5)];
        if (below(4) != 0)
            add(heap);
        if (below(3) == 0) {
            Shape fixed{"$JCB", 0, 64};
            fixed.type = FIXED;
            fixed.map = 8;
            add(fixed);
        }
    }

    void add(const Shape& shape)
    {
        U32 handle = 0;
        const int answer = create(shape, &handle);
        say("create", answer, shape.bytes, shape.blockBytes, shape.map);
        if (answer == ENOERR)
            segments_.push_back({handle, shape});
    }

    void step()
    {
        if (segments_.empty())
            return;
        const unsigned what = below(100);
        if (what < 50)
            allocateOne();
        else if (what < 88)
            releaseOne(grants_.empty() ? 0 : below(grants_.size()));
        else if (what < 93)
            fillOne();
        else if (what < 96)
            collectOne();
        else if (what < 99)
            ask();
        else
            state();
    }

    void allocateOne()
    {
        const Segment& segment = segments_[below(segments_.size())];
        const U32 unit = segment.shape.blockBytes;
        const U32 bytes = 1 + below(below(8) == 0 ? 200 * unit : 6 * unit);
        const U8 map = segment.shape.map;
        const U8 owner = map == 0 ? 0 : map == 1 ? 1 : static_cast<U8>(1 + below((1U << map) - 1));
        const U32 address = allocate(segment.handle, bytes, owner);
        say("malloc", static_cast<int>(address), segment.handle, bytes, owner);
        if (address != 0 && address != MM_FAILED)
            grants_.push_back({isInHeap(address) ? U32(HEAPHANDLE) : segment.handle, address,
                               isInHeap(address) ? (bytes + unit - 1) / unit * 4096 : bytes,
                               isInHeap(address) && segment.handle != HEAPHANDLE ? U8(0) : owner});
    }

    void releaseOne(std::size_t index)
    {
        if (grants_.empty())
            return;
        for (std::size_t i = index + 1; i < grants_.size(); ++i) // of a stack what was pushed last
            if (grants_[i].handle == grants_[index].handle && stSegTable[grants_[i].handle].pfnFree == MM_Pop)
                index = i;
        const Grant grant = grants_[index];
        grants_.erase(grants_.begin() + static_cast<std::ptrdiff_t>(index));
        say("free", release(grant.handle, grant.address, grant.bytes), grant.handle, grant.address, grant.bytes);
    }

    void fillOne()
    {
        if (grants_.empty())
            return;
        const Grant& grant = grants_[below(grants_.size())];
        const U32 bytes = 1 + below(std::min<U32>(grant.bytes, 10000));
        say("memset", fill(grant.address, static_cast<int>(below(256)), bytes), grant.address, bytes);
    }

    // An owner's blocks, and those of every owner that contains it, go; runs that reach the map's start stay.
    void collectOne()
    {
        const Segment& segment = segments_[below(segments_.size())];
        if (segment.shape.map < 2)
            return;
        const U8 owner = static_cast<U8>(1 + below((1U << segment.shape.map) - 1));
        say("collect", collect(segment.handle, owner), segment.handle, owner);
        std::erase_if(grants_, [&](const Grant& grant) {
            return grant.handle == segment.handle && (grant.owner & owner) == owner && grant.owner != 0;
        });
    }

    void ask()
    {
        const U32 handle = segments_[below(segments_.size())].handle;
        TGetMSTInfo mst{};
        mst.hubHandle = static_cast<U8>(handle);
        say("get-mst", command(MM_CMD_GET_MST, mst), mst.SegTable.ulTotalFreeBlkNum, mst.SegTable.ulLargestBlkSize);
        TDisplayMSTInfo display{MM_DISPLAY_ALL, 0, {}};
        say("display", command(MM_CMD_DISPLAY_MST, display));
        TCheckSegmentInfo check{handle, 0x95400000 + below(0x100000), 0, {}};
        say("check", command(MM_CMD_CHECK_SEGMENT, check), check.status);
        TQueryPhysAddrInfo phys{};
        phys.ulStart = 0x95400000;
        say("phys", command(MM_CMD_QUERY_PHYS_ADDR, phys), phys.ulPhysAddr);
        sim::MapTarget target;
        TMMMapRequest request{0x95400000 >> MMP_PAGE_SHIFT, 0x20000000, 0x20004000, 0, &target};
        say("mmap", entry([&] { return Velmora_MM_mmap(&request); }), target.pfn, target.bytes);
    }

    void state()
    {
        std::printf("%s", sim::dumpManagerState().c_str());
        for (const Machine::Stretch& used : machine().usedRam())
            std::printf("memory 0x%08x\n", sim::crc32(Machine::at(used.start), used.end - used.start));
    }

    static bool isInHeap(U32 address) { return MM_CheckHeapArea(MM_At(address)) != 0; }

    struct Segment {
        U32 handle;
        Shape shape;
    };
    std::mt19937 random_;
    std::vector<Segment> segments_;
    std::vector<Grant> grants_;
};

} // namespace

int main(int count, char** arguments)
{
    if (count != 3) {
        std::fprintf(stderr, "usage: guard-play SEED RUNS\n");
        return 2;
    }
    const unsigned long seed = std::strtoul(arguments[1], nullptr, 10);
    for (unsigned long run = 0; run < std::strtoul(arguments[2], nullptr, 10); ++run) {
        std::printf("sequence %lu\n", seed + run);
        try {
            Clients(seed + run).run();
        } catch (const std::exception& error) {
            std::printf("%s\n", error.what());
        }
    }
    return 0;
}
