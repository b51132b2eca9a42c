#include "host/machine.h"

#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <sys/mman.h>
#include <unistd.h>
#include <fcntl.h>

namespace velmora::sim {

namespace {

constexpr S32 kFirstDynamicMajor = 254; // the kernel gives dynamic majors from here down

// The command that this thread is running; faults outside one are this program's own.
thread_local sigjmp_buf* currentCommand = nullptr;
thread_local Outcome currentOutcome;

[[noreturn]] void noMemory()
{
    throw std::system_error(errno, std::generic_category(), "no memory for the simulated controller");
}

struct Descriptor {
    explicit Descriptor(int opened) : number(opened) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor()
    {
        if (number >= 0)
            close(number);
    }
    int number;
};

// Addresses of this process that belong to the controller, given back unless they are kept.
class Reservation
{
public:
    Reservation(U32 address, U32 bytes, int flags, int file) : place_(reinterpret_cast<void*>(address)), bytes_(bytes)
    {
        void* const got = mmap(place_, bytes, PROT_READ | PROT_WRITE, flags | MAP_FIXED_NOREPLACE, file, 0);
        if (got == place_)
            return;
        if (got == MAP_FAILED && errno != EEXIST)
            noMemory();
        if (got != MAP_FAILED) // an old kernel takes the address for a wish
            munmap(got, bytes);
        char text[128];
        std::snprintf(text, sizeof text,
                      "the simulated controller needs the addresses from 0x%08x to 0x%08x, and this process has "
                      "something else there",
                      static_cast<unsigned>(address), static_cast<unsigned>(address + bytes));
        throw std::runtime_error(text);
    }
    Reservation(const Reservation&) = delete;
    Reservation& operator=(const Reservation&) = delete;
    ~Reservation()
    {
        if (place_ != nullptr)
            munmap(place_, bytes_);
    }

    void keep() { place_ = nullptr; }

private:
    void* place_;
    U32 bytes_;
};

// What this program did about a fault before the machine was there.
struct FaultHandler {
    int signal;
    struct sigaction before;
};
FaultHandler faultHandlers[] = {{SIGSEGV, {}}, {SIGBUS, {}}};

// A fault outside a command, as if this handler were not installed.
void passOn(struct sigaction& before, int signal, siginfo_t* info, void* context)
{
    const struct sigaction handler = before;
    if ((handler.sa_flags & static_cast<int>(SA_RESETHAND)) != 0)
        before.sa_handler = SIG_DFL;
    if ((handler.sa_flags & SA_SIGINFO) != 0)
        handler.sa_sigaction(signal, info, context);
    else if (handler.sa_handler != SIG_DFL && handler.sa_handler != SIG_IGN)
        handler.sa_handler(signal);
    else
        std::signal(signal, handler.sa_handler); // the access is repeated and ends the process
}

void onFault(int signal, siginfo_t* info, void* context)
{
    if (currentCommand == nullptr) {
        passOn(faultHandlers[signal == SIGBUS].before, signal, info, context);
        return;
    }
    currentOutcome = {Outcome::Kind::Oops, 0, reinterpret_cast<U32>(info->si_addr), {}};
    siglongjmp(*currentCommand, 1);
}

// The mask and the stack stay as the program's handler wants them.
void catchFaults()
{
    for (auto& [signal, before] : faultHandlers) {
        sigaction(signal, nullptr, &before);
        struct sigaction action = before;
        action.sa_sigaction = onFault;
        action.sa_flags = (before.sa_flags | SA_SIGINFO) & ~static_cast<int>(SA_RESETHAND);
        sigaction(signal, &action, nullptr);
    }
}

bool inside(U32 address, U32 bytes, U32 start, U32 size)
{
    return address >= start && address - start < size && bytes <= size - (address - start);
}

const char* lockName(TMMLock lock)
{
    constexpr const char* names[MM_LOCK_NUM] = {"search_lock", "free_lock", "push_lock", "pop_lock"};
    return names[lock];
}

} // namespace

std::string Outcome::describe(std::string_view command) const
{
    char text[64] = " returned";
    if (kind == Kind::Hang)
        std::snprintf(text, sizeof text, " waits for ever on %s, which is already held", lockName(lock));
    if (kind == Kind::Oops)
        std::snprintf(text, sizeof text, " touched 0x%08x, which does not exist", static_cast<unsigned>(address));
    if (kind == Kind::Endless)
        std::snprintf(text, sizeof text, " goes on without an end");
    return std::string(command) + text;
}

Machine& machine()
{
    static Machine instance;
    return instance;
}

// The first power-on takes the addresses; a later one with another size exchanges the RAM. A file that cannot change
// its size keeps the machine safe from whoever else has it.
void Machine::fitRam(U32 bytes)
{
    if (ramFile_ >= 0 && bytes == ramBytes_)
        return;
    Descriptor file(memfd_create("velmora-ram", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (file.number < 0 || ftruncate(file.number, static_cast<off_t>(bytes)) != 0 ||
        fcntl(file.number, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0)
        noMemory();
    if (ramFile_ >= 0) {
        munmap(at(kPageOffset), ramBytes_);
        close(std::exchange(ramFile_, -1));
    }
    Reservation ram(kPageOffset, bytes, MAP_SHARED | MAP_NORESERVE, file.number);
    if (!scratchReserved_) {
        Reservation scratch(kScratch, kScratchBytes, MAP_PRIVATE | MAP_ANONYMOUS, -1);
        scratch.keep();
        scratchReserved_ = true;
        catchFaults();
    }
    ram.keep();
    ramBytes_ = bytes;
    ramFile_ = std::exchange(file.number, -1);
}

void Machine::powerOn(U32 ramBytes)
{
    if (ramBytes == 0 || ramBytes > kMostRamBytes || ramBytes % (1U << MMP_PAGE_SHIFT) != 0)
        throw std::invalid_argument("RAM of the simulated controller is made of whole pages, up to 1 GiB of them");
    fitRam(ramBytes);
    // Punching out the whole file drops its pages: cheaper than writing zeros.
    if (fallocate(ramFile_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(ramBytes_)) != 0)
        std::memset(at(kPageOffset), 0, ramBytes_);
    std::memset(at(kScratch), 0, kScratchBytes);
    faults = {};
    log_.clear();
    locks_.fill(false);
    calls_.fill(0);
    interruptsOff_ = false;
    lockTakes_ = cacheFlushes_ = touches_ = 0;
    copiedOut_ = 0;
    devices_.clear();
    procEntries_.clear();
}

Outcome Machine::run(const std::function<U32()>& command)
{
    if (ramFile_ < 0)
        throw std::logic_error("the simulated machine is switched off");
    sigjmp_buf place;
    if (sigsetjmp(place, 1) != 0) {
        currentCommand = nullptr;
        return currentOutcome;
    }
    currentCommand = &place;
    copiedOut_ = 0;
    lastTouch_ = faults.touchLimit ? touches_ + *faults.touchLimit : ~0UL;
    const U32 value = command();
    currentCommand = nullptr;
    return {Outcome::Kind::Returned, value, 0, {}};
}

void Machine::stop(const Outcome& outcome)
{
    if (currentCommand == nullptr) {
        std::fprintf(stderr, "velmora: %s\n", outcome.describe("a call outside any command").c_str());
        std::abort();
    }
    currentOutcome = outcome;
    siglongjmp(*currentCommand, 1);
}

std::vector<std::string> Machine::takeLog()
{
    return std::exchange(log_, {});
}

bool Machine::exists(U32 address, U32 bytes)
{
    return inside(address, bytes, kPageOffset, ramBytes_) || inside(address, bytes, kScratch, kScratchBytes);
}

std::optional<U32> Machine::firstMissing(U32 address, U32 bytes)
{
    if (bytes == 0 || exists(address, bytes))
        return std::nullopt;
    if (inside(address, 1, kPageOffset, ramBytes_))
        return highMemory();
    if (inside(address, 1, kScratch, kScratchBytes))
        return kScratch + kScratchBytes;
    return address;
}

std::vector<Machine::Stretch> Machine::usedRam() const
{
    std::vector<Stretch> found;
    for (off_t end = 0; end < static_cast<off_t>(ramBytes_);) {
        const off_t start = lseek(ramFile_, end, SEEK_DATA);
        if (start < 0)
            break;
        end = lseek(ramFile_, start, SEEK_HOLE);
        found.push_back({kPageOffset + static_cast<U32>(start), kPageOffset + static_cast<U32>(end)});
    }
    return found;
}

bool Machine::fails(KernelService service)
{
    const unsigned long call = ++calls_.at(static_cast<std::size_t>(service));
    return faults.failing && faults.failing->service == service && faults.failing->call == call;
}

void Machine::lock(TMMLock lock)
{
    if (locks_.at(lock))
        stop({Outcome::Kind::Hang, 0, 0, lock});
    locks_[lock] = true;
    interruptsOff_ = true;
    ++lockTakes_;
}

void Machine::unlock(TMMLock lock)
{
    locks_.at(lock) = false;
    interruptsOff_ = false;
}

void Machine::touch(U32 address, U32 bytes)
{
    if (++touches_ > lastTouch_ && currentCommand != nullptr)
        stop({Outcome::Kind::Endless, 0, 0, {}});
    if (faults.meanwhile)
        faults.meanwhile();
    if (const auto missing = firstMissing(address, bytes))
        stop({Outcome::Kind::Oops, 0, *missing, {}});
}

// User memory is the scratch area; a copy moves what exists and stops at the first byte that does not.
static U32 userBytes(U32 address, U32 bytes, std::optional<U32> stopsAt)
{
    U32 copied = 0;
    if (inside(address, 1, kScratch, kScratchBytes))
        copied = std::min(bytes, kScratch + kScratchBytes - address);
    return std::min(copied, stopsAt.value_or(copied));
}

U32 Machine::copyFromUser(void* to, U32 from, U32 bytes)
{
    const U32 copied = fails(KernelService::CopyIn) ? 0 : userBytes(from, bytes, faults.copyInStopsAt);
    if (copied != 0)
        std::memcpy(to, at(from), copied);
    return bytes - copied;
}

U32 Machine::copyToUser(U32 to, const void* from, U32 bytes)
{
    const U32 copied = fails(KernelService::CopyOut) ? 0 : userBytes(to, bytes, faults.copyOutStopsAt);
    if (copied != 0) {
        std::memcpy(at(to), from, copied);
        copiedOut_ = std::max(copiedOut_, to - kScratch + copied);
    }
    return bytes - copied;
}

bool Machine::takeMemory()
{
    if (fails(KernelService::TakeMemory))
        return false;
    if (faults.memoryStopsAt && (*faults.memoryStopsAt)-- == 0) {
        faults.memoryStopsAt = 0;
        return false;
    }
    ++memoryTaken_;
    return true;
}

S32 Machine::registerDevice(std::string name)
{
    const bool refused = fails(KernelService::RegisterDevice);
    if (faults.registerResult || refused)
        return faults.registerResult.value_or(-EBUSY);
    S32 major = kFirstDynamicMajor;
    while (devices_.contains(major))
        --major;
    if (major == 0)
        return -EBUSY;
    devices_.emplace(major, std::move(name));
    return major;
}

void Machine::unregisterDevice(S32 major, const std::string& name)
{
    const auto device = devices_.find(major);
    if (device != devices_.end() && device->second == name)
        devices_.erase(device);
}

bool Machine::createProcEntry(std::string name, U32 mode)
{
    if (fails(KernelService::CreateProc) || faults.refuseProcEntry)
        return false;
    procEntries_[std::move(name)] = mode;
    return true;
}

void Machine::removeProcEntry(const std::string& name)
{
    procEntries_.erase(name);
}

S32 Machine::remap(const TMMMapRequest& request, U32 pfn, U32 bytes, TMMProt protection)
{
    if (fails(KernelService::Remap) || faults.refuseRemap)
        return -1;
    auto& target = *static_cast<MapTarget*>(request.pvKernel);
    if (target.mapForReal) {
        const auto offset = static_cast<off_t>(pfn) << MMP_PAGE_SHIFT;
        const void* const got =
            mmap(at(request.ulStart), bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, ramFile_, offset);
        if (got == MAP_FAILED)
            return -1;
    }
    target.mapped = true;
    target.pfn = pfn;
    target.bytes = bytes;
    target.protection = protection;
    return 0;
}

} // namespace velmora::sim
