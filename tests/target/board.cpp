#define _FILE_OFFSET_BITS 64 // mapping offsets are addresses above 2 GiB

#include "board.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <map>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include "harness.hpp"

namespace target {

namespace {

// The NAME=VALUE lines of the file that the controller was started with.
std::map<std::string, std::string> boardValues()
{
    std::istringstream file(readFile("/etc/board"));
    std::map<std::string, std::string> values;
    for (std::string line; std::getline(file, line);)
        if (const std::size_t sign = line.find('='); sign != line.npos)
            values[line.substr(0, sign)] = line.substr(sign + 1);
    return values;
}

Board readBoard()
{
    const std::map<std::string, std::string> values = boardValues();
    const auto number = [&](const char* name) {
        const auto value = values.find(name);
        if (value == values.end())
            throw Failure(std::string("/etc/board does not say ") + name);
        return static_cast<std::uint32_t>(std::stoul(value->second, nullptr, 0));
    };
    return {number("PAGE_OFFSET"), number("PHYS_OFFSET"), number("RAM_BYTES"),
            number("AREA_PHYS"),   number("AREA_BYTES"),  values.contains("OLD_CALLS")};
}

} // namespace

const Board& board()
{
    static const Board described = readBoard();
    return described;
}

bool kernelIsBefore(unsigned version, unsigned patchLevel)
{
    utsname name = {};
    uname(&name);
    unsigned thisVersion = 0, thisPatchLevel = 0;
    std::sscanf(name.release, "%u.%u", &thisVersion, &thisPatchLevel);
    return thisVersion != version ? thisVersion < version : thisPatchLevel < patchLevel;
}

std::string areaText(std::uint32_t start, std::uint32_t end)
{
    char text[32];
    std::snprintf(text, sizeof text, "%08x-%08x", start, end);
    return text;
}

namespace {

// Kernels from 3.8 on take a module as a file.
int loadFile(const std::string& file, const std::string& parameters)
{
    const int module = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (module < 0)
        throw Failure("cannot open " + file);
    const long result = syscall(SYS_finit_module, module, parameters.c_str(), 0);
    const int code = result < 0 ? -errno : 0;
    close(module);
    return code;
}

int loadImage(const std::string& image, const std::string& parameters)
{
    return syscall(SYS_init_module, image.data(), image.size(), parameters.c_str()) < 0 ? -errno : 0;
}

} // namespace

int loadModule(const std::string& file, const std::string& parameters)
{
    const int code = board().oldCalls ? -ENOSYS : loadFile(file, parameters);
    return code == -ENOSYS ? loadImage(readFile(file), parameters) : code;
}

int unloadModule(const std::string& name)
{
    return syscall(SYS_delete_module, name.c_str(), O_NONBLOCK) < 0 ? -errno : 0;
}

bool moduleLoaded(const std::string& name)
{
    return access(("/sys/module/" + name + "/initstate").c_str(), F_OK) == 0;
}

std::optional<unsigned> deviceMajor()
{
    std::istringstream devices(readFile("/proc/devices"));
    std::string line;
    while (std::getline(devices, line)) {
        unsigned number;
        char name[64];
        if (std::sscanf(line.c_str(), "%u %63s", &number, name) == 2 && std::strcmp(name, VELMORA_MM_DEVICE_NAME) == 0)
            return number;
    }
    return std::nullopt;
}

void makeNode()
{
    const std::optional<unsigned> major = deviceMajor();
    if (!major)
        throw Failure("the device is not in /proc/devices");
    unlink(VELMORA_MM_DEVICE_NODE);
    if (mknod(VELMORA_MM_DEVICE_NODE, S_IFCHR | 0660, makedev(*major, 0)) != 0)
        throw Failure(std::string("mknod: ") + std::strerror(errno));
}

void needManager()
{
    if (!moduleLoaded(kModuleName)) {
        const int result = loadModule(kModuleFile, std::string("bigphysarea=") + board().areaText());
        if (result != 0)
            throw Failure("the module cannot be loaded: " + std::to_string(result));
    }
    makeNode();
}

void needFreshManager()
{
    needManager();
    const Descriptor device;
    TMMInitOption option = MM_CONSTRUCT_DEFAULT_MCT;
    TLibEntryInfo start = {SM_BKUP_OK, 0};
    CHECK_EQUAL(device.command(MM_CMD_ENTRY, option), 0);
    CHECK_EQUAL(device.command(MM_CMD_LIB_ENTRY, start), 0);
}

void needNoManager()
{
    if (moduleLoaded(kModuleName))
        CHECK_EQUAL(unloadModule(kModuleName), 0);
}

namespace {

void loadStub(const std::string& parameters)
{
    const int result = loadModule("/lib/velmora_mm_stub.ko", parameters);
    if (result != 0)
        throw Failure("the stub with " + parameters + " cannot be loaded: " + std::to_string(result));
}

} // namespace

FixedAnswer::FixedAnswer(const char* function, int answer)
{
    loadStub(std::string("function=") + function + " answer=" + std::to_string(answer));
}

FixedAnswer::~FixedAnswer()
{
    unloadModule("velmora_mm_stub");
}

void removeLeftDevice(unsigned major)
{
    loadStub("major=" + std::to_string(major));
    CHECK_EQUAL(unloadModule("velmora_mm_stub"), 0);
}

Descriptor::Descriptor(int flags, const char* path) : number_(open(path, O_RDWR | O_CLOEXEC | flags))
{
    if (number_ < 0)
        throw Failure(std::string("cannot open ") + path + ": " + std::strerror(errno));
}

Descriptor::~Descriptor()
{
    close(number_);
}

int Descriptor::commandAt(std::uint32_t command, std::uint32_t userAddress) const
{
    const int result = ioctl(number_, command, userAddress);
    return result < 0 ? -errno : result;
}

std::int64_t mapDevice(const Descriptor& device, std::uint32_t address, std::size_t bytes, void* where)
{
    void* const start = mmap(where, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | (where ? MAP_FIXED : 0),
                             device.number(), static_cast<off_t>(address));
    return start == MAP_FAILED ? -errno : static_cast<std::int64_t>(reinterpret_cast<std::uintptr_t>(start));
}

View::View(const Descriptor& device, std::uint32_t address, std::size_t bytes) : bytes_(bytes)
{
    const std::int64_t result = mapDevice(device, address, bytes);
    if (result < 0)
        throw Failure("mapping " + shown(address) + " answers " + std::to_string(result));
    start_ = reinterpret_cast<void*>(static_cast<std::uintptr_t>(result));
}

View::~View()
{
    munmap(start_, bytes_);
}

namespace {

// The kernel's page table entry of a user address, through the probe module.
std::uint32_t pageTableEntry(const void* address)
{
    static const int loaded = loadModule("/lib/velmora_mm_pte.ko", "");
    if (loaded != 0 && loaded != -EEXIST)
        throw Failure("the page table probe cannot be loaded");
    const int file = open("/proc/velmora_mm_pte", O_RDONLY | O_CLOEXEC);
    std::uint32_t entry = 0;
    const ssize_t got =
        pread(file, &entry, sizeof entry, static_cast<off_t>(reinterpret_cast<std::uintptr_t>(address)));
    close(file);
    if (got != sizeof entry)
        throw Failure("no page table entry at " +
                      shown(static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(address))));
    return entry;
}

} // namespace

std::uint32_t physicalPage(const void* address)
{
    return pageTableEntry(address) / kPageBytes;
}

std::uint32_t memoryType(const void* address)
{
    constexpr std::uint32_t kMemoryTypeBits = 0x3C;
    return pageTableEntry(address) & kMemoryTypeBits;
}

std::string readFile(const std::string& path)
{
    std::ifstream file(path);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

int startProcess(const std::function<void()>& work)
{
    std::fflush(stdout);
    const int process = fork();
    if (process < 0)
        throw Failure("fork failed");
    if (process > 0)
        return process;
    int status = 0;
    try {
        work();
    } catch (const std::exception& error) {
        std::printf("    in another process: %s\n", error.what());
        std::fflush(stdout);
        status = 1;
    }
    _exit(status);
}

void waitForProcess(int process)
{
    int status = 0;
    waitpid(process, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        throw Failure("a process ended badly");
}

} // namespace target
