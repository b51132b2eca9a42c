// The simulated machine: a controller's address space inside this 32-bit process, and the kernel services
// that the manager asks for (kernel/mm/MM_Platform.h), each of which can be made to fail.
//
// RAM is a shared memory file mapped at the kernel's linear map, so that a mapping of the device is a real
// second mapping of the same bytes. User memory is a small scratch area; every other user address
// faults. One machine for each process: its addresses are fixed.
//
// The machine knows nothing of the manager that runs on it: it neither calls it nor touches its data. Who loads the
// manager, and has it start from fresh data, is above (controller/).
//
//   machine().powerOn();
//   const Outcome end = machine().run([] { return static_cast<U32>(printer_mm_init()); });
//   for (const std::string& message : machine().takeLog()) ...
//
// Faults: from the first power-on the machine catches SIGSEGV and SIGBUS. Those of a running command become its
// outcome; all others go to the handler that the program had before, so a program's own handler is installed first.
//
// Threads: commands of several threads are run one at a time by the caller (see controller/device.h); the
// machine itself takes no lock of its own.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/mm/MM_Platform.h"

namespace velmora::sim {

inline constexpr U32 kPageOffset = 0x94000000;
inline constexpr U32 kRamBytes = 0x10000000;                // unless the machine is switched on with another size
inline constexpr U32 kHighMemory = kPageOffset + kRamBytes; // with that size
inline constexpr U32 kMostRamBytes = 0x40000000;            // that a 32-bit process has room for beside everything else
inline constexpr U32 kScratch = 0x10000000;
inline constexpr U32 kScratchBytes = 0x10000;
inline constexpr U32 kUserLimit = 0x93000000;

// How a command ended. Hang: it would wait for ever on a lock that is already held. Oops: it touched
// an address that does not exist; address is the first such byte. Endless: it made more accesses than it was granted.
struct Outcome {
    enum class Kind { Returned, Hang, Oops, Endless };
    Kind kind = Kind::Returned;
    U32 value = 0;   // what the command returned
    U32 address = 0; // Oops only
    TMMLock lock{};  // Hang only

    bool returned() const { return kind == Kind::Returned; }
    // One line for a person: the command's name and what became of it.
    std::string describe(std::string_view command) const;
};

// The services that may fail, each as MM_Platform.h says.
enum class KernelService { TakeMemory, AccessOk, CopyIn, CopyOut, RegisterDevice, CreateProc, PageIsRam, Remap, Count };

// One call of a service, counted from 1 since power-on.
struct ServiceCall {
    KernelService service;
    unsigned long call;
};

// Services that fail on demand; everything works by default.
struct Faults {
    std::optional<ServiceCall> failing;      // this one call fails; a copy moves nothing
    std::optional<S32> registerResult;       // register_chrdev answers this negative code
    bool refuseProcEntry = false;            // no proc entry is given
    bool refuseRemap = false;                // remap_pfn_range fails
    bool everyPageIsRam = false;             // pfn_valid takes every page number for one of RAM
    std::optional<U32> copyInStopsAt;        // copy_from_user moves this many bytes at most
    std::optional<U32> copyOutStopsAt;       // copy_to_user moves this many bytes at most
    std::optional<U32> memoryStopsAt;        // the kernel has memory of its own for this many times
    std::optional<unsigned long> touchLimit; // a command that makes more accesses is taken for endless and stopped
    std::function<void()> meanwhile;         // what others do before each access to managed memory
};

// The kernel's side of a mapping request (TMMMapRequest::pvKernel).
struct MapTarget {
    bool mapForReal = false; // map the bytes at the request's start address, else only note what was asked
    bool mapped = false;     // out: remap_pfn_range was reached and succeeded
    U32 pfn = 0;
    U32 bytes = 0;
    TMMProt protection{};
};

class Machine
{
public:
    // Cold start: RAM and scratch zero, log empty, no lock held, no device, no fault. ramBytes: whole pages, up to
    // kMostRamBytes, otherwise std::invalid_argument. Throws std::runtime_error when this process has other things at the
    // controller's addresses, std::system_error when there is no memory. With another size than before, mappings of the
    // RAM that other processes have stay with the old one.
    void powerOn(U32 ramBytes = kRamBytes);

    // Runs one command of the manager. Nested runs are not supported. std::logic_error before the first power-on.
    Outcome run(const std::function<U32()>& command);

    // Messages of the kernel log since the last call, one for each printk, every byte kept.
    std::vector<std::string> takeLog();

    // From power-on to power-on: size of RAM, kernel virtual address of its end, and the memory file that it is, which
    // nobody can make smaller or larger.
    static U32 ramBytes() { return ramBytes_; }
    static U32 highMemory() { return kPageOffset + ramBytes_; }
    int ramFile() const { return ramFile_; }

    // True when all bytes of [address, address + bytes) are RAM or all are scratch memory. bytes above 0.
    static bool exists(U32 address, U32 bytes);
    // The first byte of [address, address + bytes) that is neither RAM nor scratch; nullopt when all exist.
    static std::optional<U32> firstMissing(U32 address, U32 bytes);
    static std::uint8_t* at(U32 address) { return reinterpret_cast<std::uint8_t*>(address); }

    bool lockHeld(TMMLock lock) const { return locks_.at(lock); }
    bool interruptsOff() const { return interruptsOff_; }
    unsigned long lockTakes() const { return lockTakes_; }
    // Pieces of kernel memory that are taken and not yet given back, since the program started.
    long memoryTaken() const { return memoryTaken_; }
    unsigned long cacheFlushes() const { return cacheFlushes_; }
    // Bytes from the scratch area's start that copies to user memory reached since the last command began.
    U32 copiedOut() const { return copiedOut_; }
    // Calls of a service since power-on.
    unsigned long calls(KernelService service) const { return calls_.at(static_cast<std::size_t>(service)); }
    // Accesses to managed memory that the manager announced.
    unsigned long touches() const { return touches_; }

    // RAM that was ever written (or read) since power-on, as stretches of whole pages in order; the rest is zero.
    struct Stretch {
        U32 start, end;
    };
    std::vector<Stretch> usedRam() const;

    // Registered character devices, name by major number, and proc entries, mode by name.
    const std::map<S32, std::string>& devices() const { return devices_; }
    const std::map<std::string, U32>& procEntries() const { return procEntries_; }

    Faults faults;

    // Services; called by the platform entries only. fails() counts a call and says whether it is the one to fail.
    bool fails(KernelService service);
    void print(std::string message) { log_.push_back(std::move(message)); }
    void lock(TMMLock lock);
    void unlock(TMMLock lock);
    void touch(U32 address, U32 bytes);
    U32 copyFromUser(void* to, U32 from, U32 bytes);
    U32 copyToUser(U32 to, const void* from, U32 bytes);
    S32 registerDevice(std::string name);
    void unregisterDevice(S32 major, const std::string& name);
    bool createProcEntry(std::string name, U32 mode);
    void removeProcEntry(const std::string& name);
    S32 remap(const TMMMapRequest& request, U32 pfn, U32 bytes, TMMProt protection);
    bool takeMemory();
    void giveMemory() { --memoryTaken_; }
    void flushCache() { ++cacheFlushes_; }

private:
    void fitRam(U32 bytes);
    [[noreturn]] void stop(const Outcome& outcome);

    static inline U32 ramBytes_ = kRamBytes;
    int ramFile_ = -1;
    bool scratchReserved_ = false;
    std::vector<std::string> log_;
    std::array<bool, MM_LOCK_NUM> locks_{};
    std::array<unsigned long, static_cast<std::size_t>(KernelService::Count)> calls_{};
    bool interruptsOff_ = false;
    unsigned long lockTakes_ = 0;
    long memoryTaken_ = 0;
    unsigned long cacheFlushes_ = 0;
    U32 copiedOut_ = 0;
    unsigned long touches_ = 0;
    unsigned long lastTouch_ = ~0UL; // of the running command
    std::map<S32, std::string> devices_;
    std::map<std::string, U32> procEntries_;
};

Machine& machine();

} // namespace velmora::sim
