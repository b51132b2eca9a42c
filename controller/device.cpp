#include "controller/device.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <sys/mman.h>

#include "kernel/mm/mmi/MM_Interface.h"
#include "controller/manager_state.h"
#include "host/machine.h"

namespace velmora::sim {

namespace {

std::mutex oneCommandAtATime; // the kernel's lock around the control entry

int runEntry(const std::string& name, const std::function<U32()>& entry)
{
    const Outcome outcome = machine().run(entry);
    if (!outcome.returned())
        throw std::runtime_error("the simulated controller stopped: " + outcome.describe(name));
    return static_cast<int>(outcome.value);
}

// There is a device to talk to once the manager has registered one.
void requireDevice()
{
    if (machine().devices().empty())
        throw std::logic_error("no controller is running: velmora::sim::bootController() comes before its device");
}

class SimulatedChannel : public Channel
{
public:
    SimulatedChannel()
    {
        const std::lock_guard guard(oneCommandAtATime);
        requireDevice();
        runEntry("open", [] { return static_cast<U32>(Velmora_MM_open()); });
    }
    ~SimulatedChannel() override
    {
        const std::lock_guard guard(oneCommandAtATime);
        machine().run([] { return static_cast<U32>(Velmora_MM_release()); }); // nobody hears of what becomes of it
    }

    int command(std::uint32_t number, void* record, std::size_t bytes) override
    {
        const std::lock_guard guard(oneCommandAtATime);
        requireDevice();
        std::memcpy(Machine::at(kScratch), record, bytes);
        const int result = runEntry("ioctl " + commandName(number),
                                    [=] { return static_cast<U32>(Velmora_MM_ioctl(number, kScratch)); });
        std::memcpy(record, Machine::at(kScratch), bytes);
        return result;
    }

    void* map(TAddr address, std::size_t bytes, Caching caching) override
    {
        const std::lock_guard guard(oneCommandAtATime);
        requireDevice();
        void* const start = mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (start == MAP_FAILED)
            throw Error("mmap", -errno);
        MapTarget target;
        target.mapForReal = true;
        TMMMapRequest request{};
        request.ulPgOff = address >> MMP_PAGE_SHIFT;
        request.ulStart = static_cast<U32>(reinterpret_cast<std::uintptr_t>(start));
        request.ulEnd = request.ulStart + static_cast<U32>(bytes);
        request.fSync = caching == Caching::Uncached;
        request.pvKernel = &target;
        const int result = runEntry("mmap", [&] { return static_cast<U32>(Velmora_MM_mmap(&request)); });
        if (result != 0) {
            munmap(start, bytes);
            throw Error("mmap", result);
        }
        return start;
    }

    void unmap(void* start, std::size_t bytes) override { munmap(start, bytes); }
};

} // namespace

void powerOn(std::uint32_t ramBytes)
{
    machine().powerOn(ramBytes);
    resetManagerState();
}

void bootController(TAddr start, TAddr end, std::uint32_t ramBytes)
{
    powerOn(ramBytes);
    std::snprintf(bigphysarea_info, sizeof bigphysarea_info, "%08x-%08x", start, end);
    if (const int result = runEntry("load", [] { return static_cast<U32>(printer_mm_init()); }))
        throw Error("load", result);
}

std::unique_ptr<Channel> openDevice()
{
    return std::make_unique<SimulatedChannel>();
}

} // namespace velmora::sim
