// target-hostile: rounds of four processes against the real module, each with a look at everything at its end.
//
//   target-hostile guarded MODULE SECONDS SEED PROCESSORS     anything at all, against the guarded module
//   target-hostile behaved MODULE SECONDS SEED PROCESSORS     processes that keep the rules, against any
//
// One PASS or FAIL line a kind of round, with its seed. After each round the kernel log has lines of the manager only, the
// memory on both sides of the area is as it was, the books balance and nothing is lost.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "../board.hpp"
#include "../harness.hpp"
#include "../kernel_log.hpp"
#include "behaved.hpp"
#include "process.hpp"
#include "segments.hpp"

namespace target::hostile {

namespace {

constexpr unsigned kProcesses = 4;
constexpr auto kRound = std::chrono::milliseconds(1500);
constexpr auto kPatience = std::chrono::seconds(60); // a command that has not come back by then hangs

// The mebibyte on each side of the managed area, which no process can map.
class Fence
{
public:
    Fence()
    {
        const int result = loadModule("/lib/velmora_mm_fence.ko", "start=" + std::to_string(board().areaStart()) +
                                                                      " end=" + std::to_string(board().areaEnd()));
        if (result != 0)
            throw Failure("the fence cannot be loaded: " + std::to_string(result));
    }
    Fence(const Fence&) = delete;
    Fence& operator=(const Fence&) = delete;
    ~Fence() { unloadModule("velmora_mm_fence"); }

    void check() const { CHECK_EQUAL(readFile("/proc/velmora_mm_fence"), std::string("changed=0 first=0x0\n")); }
};

// A line that the manager prints: a refusal, a failed check, the display.
bool isManagers(const std::string& line)
{
    static const char* const begins[] = {"MM_Guard: ",
                                         "Assertion failed! ",
                                         "Velmora_MM_ioctl: ",
                                         "MM_InstallSegment: ",
                                         "CM_ConstructDefaultMCT: ",
                                         "\r\n[MM] H(",
                                         "==========",
                                         "          ",
                                         "[S_ID]",
                                         "****** A : ",
                                         "bigphysares : ",
                                         "velmora_mm"};
    for (const char* const begin : begins)
        if (line.starts_with(begin))
            return true;
    return line.empty() ||
           (line.starts_with(" ") && std::count(line.begin(), line.end(), '-') >= 9); // a row of the display
}

// The kernel log as the rounds go on: all of it is read, or a flood would push lines out.
class WatchedLog
{
public:
    enum class Manager { MaySpeak, IsSilent };
    explicit WatchedLog(Manager manager) : manager_(manager) {}

    void check() { check(manager_); }
    void check(Manager manager)
    {
        const Lines lines = log_.take();
        CHECK_EQUAL(troubles(lines), Lines());
        for (const std::string& line : lines)
            if (manager == Manager::IsSilent || !isManagers(line))
                throw Failure("the kernel log has a line that should not be there: " + line);
        lines_ += lines.size();
    }
    std::size_t lines() const { return lines_; }
    // What has not been looked at, the last lines of it.
    Lines unread()
    {
        Lines lines = log_.take();
        lines.erase(lines.begin(),
                    lines.end() - std::min<std::ptrdiff_t>(static_cast<std::ptrdiff_t>(lines.size()), 8));
        return lines;
    }

private:
    KernelLog log_;
    Manager manager_;
    std::size_t lines_ = 0;
};

// Processes of a round. A party that is killed is replaced, and what it held stays behind.
class Parties
{
public:
    Parties(unsigned count, std::function<void(std::uint32_t)> work) : work_(std::move(work)), processes_(count)
    {
        for (int& process : processes_)
            process = start();
    }
    Parties(const Parties&) = delete;
    Parties& operator=(const Parties&) = delete;
    ~Parties()
    {
        for (const int process : processes_)
            if (process != 0)
                kill(process, SIGKILL);
    }

    void killOne(std::uint32_t which)
    {
        int& process = processes_[which % processes_.size()];
        if (kill(process, SIGKILL) != 0)
            return;
        int status = 0;
        waitFor(process, &status);
        if (WIFEXITED(status) && WEXITSTATUS(status) != 0)
            throw Failure("a process failed");
        process = start();
    }

    void wait()
    {
        for (int& process : processes_) {
            int status = 0;
            waitFor(process, &status);
            process = 0;
            if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
                throw Failure("a process ended badly: " + std::to_string(status));
        }
    }

private:
    int start()
    {
        const std::uint32_t number = started_++;
        return startProcess([this, number] { work_(number); });
    }

    static void waitFor(int process, int* status)
    {
        const Clock::time_point late = Clock::now() + kPatience;
        while (waitpid(process, status, WNOHANG) == 0) {
            if (Clock::now() > late)
                throw Failure("a command has not come back");
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }

    std::function<void(std::uint32_t)> work_; // given a number that no process had before
    std::uint32_t started_ = 0;
    std::vector<int> processes_;
};

// What all rounds stand on.
struct Ground {
    Ground(const std::string& module, WatchedLog::Manager manager) : log(manager), module_(module) {}

    // The manager as it is when it has just been loaded: the rows of fixed segments that were deleted are back.
    void reload()
    {
        needNoManager();
        CHECK_EQUAL(loadModule(module_, "bigphysarea=" + board().areaText()), 0);
        makeNode();
        CHECK_EQUAL(troubles(log.unread()), Lines()); // the kernel says something of its own here
    }

    // All is as it must be when the processes of a round have ended.
    void check()
    {
        log.check();
        const Descriptor device;
        checkBooks(device);
        log.check(WatchedLog::Manager::MaySpeak); // the books had the heap displayed
        fence.check();
    }

    Fence fence;
    WatchedLog log;
    Ledger ledger;

private:
    std::string module_;
};

struct Options {
    std::string module;
    double seconds;
    std::uint32_t seed;
};

// Segments of every width of owners' entries and of block sizes from 16 bytes to a page, one that overflows, and the heap.
void createOrdinary(const Descriptor& device, bool heap)
{
    for (const Shape& shape : {Shape{"NONE", 0x10000, 16}, Shape{"ONE", 0x20000, 32, 1}, Shape{"TWO", 0x40000, 64, 2},
                               Shape{"FOUR", 0x40000, 256, 4}, Shape{"PAGE", 0x400000, 4096, 8},
                               Shape{"OVER", 0x8000, 64, 8, LINKEDLIST, FLOAT, true}})
        CHECK_EQUAL(create(device, shape), 0);
    if (heap)
        CHECK_EQUAL(create(device, {"HEAP", 0, 64, 8}), 0);
}

void createAnything(const Descriptor& device, Random& random)
{
    create(device, {"STCK", 0x10000, 64, 0, STACK});
    create(device, {"TINY", 0x4000, 2, 0, STACK});
    createOrdinary(device, random.oneIn(2)); // a heap leaves nothing for the segments that others create
    create(device, {"$JCB", 0, 64, 4, LINKEDLIST, FIXED});
    if (random.oneIn(2))
        create(device, {"$UEV", 0, 32, 0, LINKEDLIST, FIXED});
}

// Lets the processes work until a time, reads the log meanwhile, and kills one now and then when that is part of the round.
void watch(Parties& parties, WatchedLog& log, Clock::time_point until, Random* killer)
{
    while (Clock::now() < until) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        log.check();
        if (killer != nullptr && killer->oneIn(6) && Clock::now() < until)
            parties.killOne(killer->any());
    }
    parties.wait();
}

void anythingRound(std::uint32_t seed, unsigned processes, Ground& ground)
{
    Random random(seed);
    {
        const Descriptor device;
        startAfresh(device);
        createAnything(device, random);
    }
    const Clock::time_point until = Clock::now() + kRound;
    Parties parties(processes, [&](std::uint32_t number) {
        HostileProcess(seed + 1 + number, Conduct::Wild, ground.ledger, 0).run(until);
    });
    watch(parties, ground.log, until, processes > 1 ? &random : nullptr);
}

void countedRound(std::uint32_t seed, Ground& ground)
{
    {
        const Descriptor device;
        startAfresh(device);
        createOrdinary(device, true);
    }
    ground.ledger.clear();
    const Clock::time_point until = Clock::now() + kRound;
    Parties parties(kProcesses, [&](std::uint32_t number) {
        HostileProcess(seed + 1 + number, Conduct::Counted, ground.ledger, 0).run(until);
    });
    watch(parties, ground.log, until, nullptr);
}

unsigned peerNumber(const std::string& name)
{
    const std::string text = readFile("/proc/velmora_mm_peer");
    const std::size_t at = text.find(name + "=");
    CHECK(at != text.npos);
    return static_cast<unsigned>(std::stoul(text.substr(at + name.size() + 1), nullptr, 0));
}

void orderPeer(const char* word)
{
    std::FILE* const file = std::fopen("/proc/velmora_mm_peer", "w");
    CHECK(file != nullptr);
    std::fputs(word, file);
    std::fclose(file);
}

// Kernel code, a thread and a timer, allocates and releases in the segment in which the processes do, on any processor and
// without the lock that commands have among themselves; and every process writes anywhere.
void kernelCodeRound(std::uint32_t seed, Ground& ground)
{
    std::uint32_t segment = 0;
    {
        const Descriptor device;
        startAfresh(device);
        CHECK_EQUAL(create(device, {"PEER", 0x400000, kPageBytes, 8}, &segment), 0);
        CHECK_EQUAL(create(device, {"HEAP", 0, 64, 8}), 0);
    }
    CHECK_EQUAL(loadModule("/lib/guarded/velmora_mm_peer.ko", "handle=" + std::to_string(segment)), 0);
    ground.ledger.clear();
    const Clock::time_point until = Clock::now() + kRound;
    {
        Parties parties(kProcesses, [&](std::uint32_t number) {
            HostileProcess(seed + 1 + number, Conduct::OwnBlocks, ground.ledger, segment).run(until);
        });
        unsigned orders = 0;
        do {
            orderPeer(orders % 2 == 0 ? "allocate" : "release");
            while (peerNumber("busy") != 0 && Clock::now() < until + kPatience)
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
            ground.log.check();
            ++orders;
        } while (Clock::now() < until);
        parties.wait();
        orderPeer("release");
        while (peerNumber("busy") != 0 && Clock::now() < until + kPatience)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    CHECK_EQUAL(peerNumber("busy"), 0U);
    CHECK_EQUAL(peerNumber("failed"), 0U);
    CHECK_EQUAL(peerNumber("allocated"), 0U);
    CHECK_EQUAL(unloadModule("velmora_mm_peer"), 0);
}

void behavedRound(std::uint32_t seed, Ground& ground)
{
    std::vector<std::uint32_t> segments;
    {
        const Descriptor device;
        startAfresh(device);
        for (const Shape& shape : {Shape{"FOUR", 0x40000, 256, 4}, Shape{"PAGE", 0x400000, 4096, 8},
                                   Shape{"LINE", 0x80000, 64, 8}, Shape{"HEAP", 0, 4096, 8}}) {
            std::uint32_t handle = 0;
            CHECK_EQUAL(create(device, shape, &handle), 0);
            segments.push_back(handle);
        }
    }
    static constexpr std::uint8_t kOwners[kProcesses] = {1, 2, 4, 8}; // no owner's bits are in another's
    const Clock::time_point until = Clock::now() + kRound;
    // The first process is killed half-way. The log is not looked at meanwhile, nothing is said there.
    Parties parties(kProcesses, [&](std::uint32_t number) {
        behave(seed + 1 + number, kOwners[number % kProcesses], segments, until, ground.ledger);
    });
    std::this_thread::sleep_for(kRound / 2);
    parties.killOne(0); // the one that takes its place has its owner
    parties.wait();
    const Descriptor device;
    for (const std::uint32_t segment : segments)
        CHECK_EQUAL(collect(device, segment, kOwners[0]), 0);
    for (std::size_t i = 0; i + 1 < segments.size(); ++i) {
        const TMMSegInfoWire entry = entryOf(device, segments[i]);
        CHECK_EQUAL(entry.ulTotalFreeBlkNum, entry.ulTotalBlkNum);
        CHECK_EQUAL(entry.ulLargestBlkSize, entry.ulTotalBlkNum);
    }
}

struct Kind {
    const char* name;
    std::function<void(std::uint32_t seed, Ground& ground)> run;
    unsigned rounds = 0;
};

// Rounds of each kind in turn, as long as there is time, each kind once at least. False when one failed.
bool runRounds(std::vector<Kind> kinds, const Options& options, WatchedLog::Manager manager)
{
    needNoManager();
    Ground ground(options.module, manager);
    const Clock::time_point end =
        Clock::now() + std::chrono::milliseconds(static_cast<long long>(options.seconds * 1000));
    bool failed = false;
    for (std::uint32_t round = 0; !failed && (round < kinds.size() || Clock::now() < end); ++round) {
        Kind& kind = kinds[round % kinds.size()];
        const std::uint32_t seed = options.seed + 1000 * round;
        try {
            ground.reload();
            kind.run(seed, ground);
            ground.check();
            ++kind.rounds;
        } catch (const std::exception& error) {
            std::printf("FAIL %s, round %u, seed %u\n    %s\n", kind.name, round, options.seed, error.what());
            for (const std::string& line : ground.log.unread())
                std::printf("    the kernel log: %s\n", line.c_str());
            failed = true;
        }
        std::fflush(stdout);
    }
    for (const Kind& kind : kinds)
        if (!failed)
            std::printf("PASS %s (%u rounds, seed %u)\n", kind.name, kind.rounds, options.seed);
    std::printf("     %u steps of the processes, %zu lines on the kernel log\n", ground.ledger.steps(),
                ground.log.lines());
    return !failed && (needNoManager(), true);
}

bool run(const std::string& conduct, const Options& options)
{
    if (conduct == "behaved")
        return runRounds({{"behaved_processes_lose_nothing_and_nothing_is_said", behavedRound}}, options,
                         WatchedLog::Manager::IsSilent);
    return runRounds({{"hostile_processes_lose_nothing",
                       [](std::uint32_t seed, Ground& ground) { anythingRound(seed, kProcesses, ground); }},
                      {"hostile_processes_are_handed_out_nothing_twice", countedRound},
                      {"hostile_writes_beside_kernel_code_that_allocates", kernelCodeRound},
                      {"hostile_process_alone_starts_the_library_and_loses_nothing",
                       [](std::uint32_t seed, Ground& ground) { anythingRound(seed, 1, ground); }}},
                     options, WatchedLog::Manager::MaySpeak);
}

} // namespace

} // namespace target::hostile

int main(int count, char** arguments)
{
    if (count != 6) {
        std::fprintf(stderr, "usage: target-hostile guarded|behaved MODULE SECONDS SEED PROCESSORS\n");
        return 2;
    }
    try {
        const long processors = sysconf(_SC_NPROCESSORS_ONLN);
        if (processors != std::atol(arguments[5]))
            throw target::Failure("there are " + std::to_string(processors) + " processors, not " + arguments[5]);
        const target::hostile::Options options = {arguments[2], std::atof(arguments[3]),
                                                  static_cast<std::uint32_t>(std::strtoul(arguments[4], nullptr, 0))};
        return target::hostile::run(arguments[1], options) ? 0 : 1;
    } catch (const std::exception& error) {
        std::printf("FAIL target-hostile: %s\n", error.what());
        return 1;
    }
}
