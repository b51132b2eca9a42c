// The emulated controller as the tests know it: its kernel's constants, the reserved area, the module, the device.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <velmora_mm/velmora_mm.h>

namespace target {

inline constexpr std::uint32_t kPageBytes = 4096;

// The parameter text of an area.
std::string areaText(std::uint32_t start, std::uint32_t end);

// The board and its kernel, as tests/target/boards/NAME.conf describes them.
struct Board {
    std::uint32_t pageOffset; // kernel virtual address of the start of RAM
    std::uint32_t physOffset; // its physical address
    std::uint32_t ramBytes;
    std::uint32_t areaPhys; // what is reserved
    std::uint32_t areaBytes;
    bool oldCalls; // use the system calls that the oldest kernels have, whatever this one has

    std::uint32_t highMemory() const { return pageOffset + ramBytes; }
    std::uint32_t userLimit() const { return pageOffset - 0x1000000; } // the kernel's modules lie between
    std::uint32_t areaStart() const { return areaPhys - physOffset + pageOffset; }
    std::uint32_t areaEnd() const { return areaStart() + areaBytes; }
    std::uint32_t managedStart() const { return areaStart() + 0x100000; }
    std::uint32_t managedEnd() const { return areaEnd() - 0x100000; }
    std::string areaText() const { return target::areaText(areaStart(), areaEnd()); } // the module's parameter
};
const Board& board();

// Whether the running kernel's version is lower, 3.5 being (3, 5).
bool kernelIsBefore(unsigned version, unsigned patchLevel);

inline constexpr char kModuleFile[] = "/lib/velmora_mm.ko";
inline constexpr char kModuleName[] = "velmora_mm";

// Module control: 0 or a negative kernel code.
int loadModule(const std::string& file, const std::string& parameters);
int unloadModule(const std::string& name);
bool moduleLoaded(const std::string& name);

// The device's major number in /proc/devices.
std::optional<unsigned> deviceMajor();
// Makes the node for the major number in /proc/devices anew.
void makeNode();

// Loads the manager over the reserved area when it is not loaded, and makes its node.
void needManager();
// The same, then empties it: default table, library started afresh, nothing created.
void needFreshManager();
void needNoManager();

// While it lives, a function of the kernel answers a fixed value to this process and does nothing.
class FixedAnswer
{
public:
    FixedAnswer(const char* function, int answer);
    FixedAnswer(const FixedAnswer&) = delete;
    FixedAnswer& operator=(const FixedAnswer&) = delete;
    ~FixedAnswer();
};
// Gives back the number of a device that a module has left behind.
void removeLeftDevice(unsigned major);

// A descriptor of the device with calls that answer as the kernel does: negative codes in place of errno.
class Descriptor
{
public:
    explicit Descriptor(int flags = 0, const char* path = VELMORA_MM_DEVICE_NODE);
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor();

    int number() const { return number_; }
    int commandAt(std::uint32_t command, std::uint32_t userAddress) const;
    template <class Record> int command(std::uint32_t number, Record& record) const
    {
        return commandAt(number, static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(&record)));
    }

private:
    int number_;
};

// A mapping of the device; throws when refused; unmaps itself.
class View
{
public:
    View(const Descriptor& device, std::uint32_t address, std::size_t bytes);
    View(const View&) = delete;
    View& operator=(const View&) = delete;
    ~View();

    volatile std::uint8_t& operator[](std::size_t i) const { return static_cast<volatile std::uint8_t*>(start_)[i]; }
    void* start() const { return start_; }

private:
    void* start_;
    std::size_t bytes_;
};

// mmap of the device: the user address, or a negative kernel code.
std::int64_t mapDevice(const Descriptor& device, std::uint32_t address, std::size_t bytes, void* where = nullptr);

// Physical page that a user address is mapped to; throws when none is.
std::uint32_t physicalPage(const void* address);
// The memory type bits of a user address's page table entry, 0 being uncached.
std::uint32_t memoryType(const void* address);

std::string readFile(const std::string& path);

// Runs a function in a process of its own; 0 when it returned, 1 when it threw (the text is printed).
int startProcess(const std::function<void()>& work);
void waitForProcess(int process);

} // namespace target
