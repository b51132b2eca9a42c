// target-session: runs a session script on the real device and compares with the answers of the simulated controller.
//
//   target-session SCRIPT ANSWERS      0: every answer and message is the same, 1: not, 2: the script is not for a device
//
// The script's addresses are the simulated controller's. Those of the area that the script loads are moved to the area
// reserved here, and moved back in the answers: in records by command, in messages and memory by value. What user space
// cannot do (call, dump, locks) is no command here.
#include <algorithm>
#include <cctype>
#include <chrono>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <map>
#include <optional>
#include <sys/mman.h>
#include <unistd.h>

#include "controller/session_text.h"
#include "board.hpp"
#include "harness.hpp"
#include "kernel_log.hpp"

namespace target {

namespace {

using velmora::sim::Word;

// The simulated controller.
constexpr std::uint32_t kSimPageOffset = 0x94000000;
constexpr std::uint32_t kSimHighMemory = 0xA4000000;
constexpr std::uint32_t kSimUserLimit = 0x93000000;
constexpr std::uint32_t kScratch = 0x10000000;
constexpr std::uint32_t kScratchBytes = 0x10000;

struct NotForADevice : std::runtime_error {
    using std::runtime_error::runtime_error;
};

std::string hex(std::uint32_t value, const char* format = "0x%x")
{
    char text[32];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

std::uint32_t wordAt(const std::vector<std::uint8_t>& bytes, std::size_t offset)
{
    std::uint32_t value;
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

// Where the addresses in a command's record stand.
std::vector<std::size_t> addressFields(std::uint32_t command)
{
    switch (command) {
    case MM_CMD_MALLOC: return {offsetof(TMallocInfo, pubStart)};
    case MM_CMD_FREE: return {offsetof(TFreeInfo, pubRlsAddr)};
    case MM_CMD_MEMSET: return {offsetof(TMemsetInfo, s)};
    case MM_CMD_ADD_SEGMENT:
    case MM_CMD_CLEAR_SEGMENT: return {offsetof(TAddSegmentInfo, pubAddr)};
    case MM_CMD_CHECK_SEGMENT: return {offsetof(TCheckSegmentInfo, ulAddr)};
    case MM_CMD_QUERY_PHYS_ADDR: return {offsetof(TQueryPhysAddrInfo, ulStart)};
    case MM_CMD_GET_MCT: return {offsetof(TGetMCTInfo, SegTable) + offsetof(TMCTInfoWire, pubStartAddr)};
    case MM_CMD_GET_MST: {
        constexpr std::size_t entry = offsetof(TGetMSTInfo, SegTable);
        return {entry + offsetof(TMMSegInfoWire, pubStartAddr), entry + offsetof(TMMSegInfoWire, pubEndAddr),
                entry + offsetof(TMMSegInfoWire, pubMapStartAddr), entry + offsetof(TMMSegInfoWire, pubMapEndAddr)};
    }
    default: return {};
    }
}

// What one line of a script answers, its messages without their line ends.
struct Reply {
    Lines log;
    std::string answer;
};

// Both sides in the form that can be compared, as a session script's answers are written.
Lines shownReply(const Reply& reply)
{
    Lines lines;
    for (const std::string& message : comparable(reply.log))
        lines.push_back("log \"" + velmora::sim::escaped(message) + "\"");
    lines.push_back(reply.answer);
    return lines;
}

class Session
{
public:
    Session()
    {
        void* const scratch = mmap(reinterpret_cast<void*>(kScratch), kScratchBytes, PROT_READ | PROT_WRITE,
                                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
        if (scratch != reinterpret_cast<void*>(kScratch))
            throw Failure("the scratch memory is not to be had");
    }

    Reply run(const std::vector<Word>& words)
    {
        words_ = words;
        next_ = 1;
        log_.take();
        Reply reply;
        reply.answer = "= " + runCommand(words.at(0).text);
        for (const std::string& message : log_.take())
            if (message.find("taint") == message.npos && message.find("module verification failed") == message.npos)
                reply.log.push_back(home(message));
        return reply;
    }

private:
    std::uint32_t number() { return velmora::sim::parseNumber(words_.at(next_++).text); }
    bool more() const { return next_ < words_.size(); }

    bool inSimArea(std::uint32_t address) const { return simStart_ != 0 && address >= simStart_ && address <= simEnd_; }
    bool inArea(std::uint32_t address) const
    {
        return simStart_ != 0 && address - board().areaStart() <= simEnd_ - simStart_;
    }
    // To this controller's address, and home again to the script's.
    std::uint32_t here(std::uint32_t address) const
    {
        return inSimArea(address) ? address - simStart_ + board().areaStart() : address;
    }
    std::uint32_t home(std::uint32_t address) const
    {
        return inArea(address) ? address - board().areaStart() + simStart_ : address;
    }

    // Addresses in a message are 8 hexadecimal digits on both controllers.
    std::string home(std::string message) const
    {
        const auto isHex = [&](std::size_t i) {
            return i < message.size() && std::isxdigit(static_cast<unsigned char>(message[i]));
        };
        for (std::size_t i = 0; i < message.size(); ++i) {
            if (!isHex(i))
                continue;
            std::size_t end = i;
            while (isHex(end))
                ++end;
            if (end - i == 8) {
                const auto value = static_cast<std::uint32_t>(std::stoul(message.substr(i, 8), nullptr, 16));
                const bool upper =
                    std::any_of(message.begin() + static_cast<long>(i), message.begin() + static_cast<long>(end),
                                [](char c) { return c >= 'A' && c <= 'F'; });
                const bool nearPageOffset =
                    simStart_ == 0 && value >= board().pageOffset - 0x100000 && value < board().highMemory();
                const std::uint32_t moved = value == board().pageOffset || nearPageOffset
                                                ? value - board().pageOffset + kSimPageOffset
                                                : home(value);
                // A number of digits only does not say which case its format has; the one format with capitals is the load's.
                const bool capitals = upper || message.find("PAGE_OFFSET") != message.npos;
                message.replace(i, 8, hex(moved, capitals ? "%08X" : "%08x"));
            }
            i = end;
        }
        return message;
    }

    std::string runCommand(const std::string& command)
    {
        if (command == "load")
            return load();
        if (command == "unload") {
            area_.reset();
            device_.reset();
            return std::to_string(unloadModule(kModuleName));
        }
        if (command == "proc")
            return readProc();
        if (command == "peek" || command == "poke" || command == "fill" || command == "crc")
            return memory(command);
        if (!device_)
            throw NotForADevice("'" + command + "' needs a loaded module");
        if (command == "ioctl")
            return control();
        if (command == "mmap")
            return map();
        if (command == "read" || command == "write")
            return transfer(command == "read");
        throw NotForADevice("'" + command + "' is not for a device");
    }

    std::string load()
    {
        const std::string& text = words_.at(next_++).text;
        unsigned first = 0, second = 0;
        std::sscanf(text.c_str(), "%8x-%8x", &first, &second);
        const bool fits =
            second > first && second - first <= board().areaBytes && first > kSimPageOffset && second <= kSimHighMemory;
        const auto moved = [](std::uint32_t address) {
            return hex(address - kSimPageOffset + board().pageOffset, "%08x");
        };
        std::string here = text;
        simStart_ = simEnd_ = 0;
        if (fits) {
            simStart_ = first;
            simEnd_ = second;
            here = hex(board().areaStart(), "%08x") + "-" + hex(board().areaStart() + (second - first), "%08x");
            clearArea(here);
        } else if (second != 0) {
            here = moved(first) + "-" +
                   moved(second); // refused for its bounds, which keep their distance from PAGE_OFFSET
        }
        needNoManager();
        log_.take();
        const int result = loadModule(kModuleFile, text.empty() ? "" : "bigphysarea=" + here);
        if (result == 0) {
            makeNode();
            device_.emplace();
            area_.emplace(*device_, board().areaStart(), board().areaBytes);
        }
        return std::to_string(result);
    }

    // Memory is zero when a script starts.
    void clearArea(const std::string& here)
    {
        needNoManager();
        CHECK_EQUAL(loadModule(kModuleFile, "bigphysarea=" + here), 0);
        makeNode();
        {
            const Descriptor device;
            const View view(device, board().areaStart(), simEnd_ - simStart_);
            std::memset(view.start(), 0, simEnd_ - simStart_);
        }
        CHECK_EQUAL(unloadModule(kModuleName), 0);
    }

    std::string control()
    {
        const std::uint32_t command = number();
        const bool braced = words_.at(next_).kind == Word::Kind::Braced;
        if (!braced) {
            std::uint32_t address = number();
            if (address >= kSimUserLimit - kPageBytes && address < kSimHighMemory)
                address = address - kSimUserLimit + board().userLimit();
            return std::to_string(device_->commandAt(command, address));
        }
        std::vector<std::uint8_t> record = velmora::sim::parseHex(words_.at(next_++).text);
        auto* const scratch = reinterpret_cast<std::uint8_t*>(kScratch);
        for (const std::size_t field : addressFields(command))
            if (field + 4 <= record.size())
                putWord(record, field, here(wordAt(record, field)));
        std::copy(record.begin(), record.end(), scratch);
        const int result = device_->commandAt(command, kScratch);
        std::copy(scratch, scratch + record.size(), record.begin());
        for (const std::size_t field : addressFields(command))
            if (field + 4 <= record.size())
                putWord(record, field, home(wordAt(record, field)));
        if (command == MM_CMD_QUERY_PHYS_ADDR && record.size() >= sizeof(TQueryPhysAddrInfo) &&
            wordAt(record, 8) != EASSERT)
            putWord(record, 8, home(wordAt(record, 8) - board().physOffset + board().pageOffset) - kSimPageOffset);
        if (command == MM_CMD_GET_MST && record.size() >= sizeof(TGetMSTInfo) &&
            record[offsetof(TGetMSTInfo, status)] == 0) {
            // routine addresses are no business of a script's
            putWord(record, offsetof(TGetMSTInfo, SegTable) + offsetof(TMMSegInfoWire, pfnAlloc), 0);
            putWord(record, offsetof(TGetMSTInfo, SegTable) + offsetof(TMMSegInfoWire, pfnFree), 0);
        }
        return std::to_string(result) + " " + velmora::sim::toHex(record.data(), record.size());
    }

    static void putWord(std::vector<std::uint8_t>& bytes, std::size_t offset, std::uint32_t value)
    {
        std::memcpy(bytes.data() + offset, &value, sizeof value);
    }

    std::string map()
    {
        std::uint32_t address = number() & ~(kPageBytes - 1);
        const std::uint32_t bytes = number();
        if (inSimArea(address) && address != simEnd_)
            address = here(address);
        else if (address >= kSimHighMemory)
            address = address - kSimHighMemory + board().highMemory(); // as far beyond the RAM here
        else
            throw NotForADevice("a mapping outside the area");
        const Descriptor device(more() ? O_SYNC : 0);
        const std::int64_t start = mapDevice(device, address, bytes);
        if (start < 0)
            return std::to_string(start);
        void* const view = reinterpret_cast<void*>(static_cast<std::uintptr_t>(start));
        const std::uint32_t page =
            (home(physicalPage(view) * kPageBytes - board().physOffset + board().pageOffset) - kSimPageOffset) /
            kPageBytes;
        const bool cached = memoryType(view) != 0;
        munmap(view, bytes);
        return "0 pfn=" + hex(page) + " size=" + hex(bytes) + " prot=" + (cached ? "cached" : "uncached");
    }

    std::string transfer(bool in)
    {
        std::vector<char> bytes(number() % 0x10000 + 1);
        const ssize_t result = in ? read(device_->number(), bytes.data(), bytes.size() - 1)
                                  : write(device_->number(), bytes.data(), bytes.size() - 1);
        return std::to_string(result < 0 ? -errno : static_cast<int>(result));
    }

    std::string readProc()
    {
        const std::uint32_t offset = number();
        const std::uint32_t count = number();
        const int file = open("/proc/velmora_mm", O_RDONLY | O_CLOEXEC);
        if (file < 0)
            throw NotForADevice("no proc file before a load");
        char text[4096];
        const ssize_t got = pread(file, text, std::min<std::size_t>(count, sizeof text), static_cast<off_t>(offset));
        close(file);
        return std::to_string(got) + " \"" +
               velmora::sim::escaped(std::string(text, static_cast<std::size_t>(std::max<ssize_t>(got, 0)))) + "\"";
    }

    std::string memory(const std::string& command)
    {
        const std::uint32_t address = number();
        std::vector<std::uint8_t> bytes;
        if (command == "poke")
            bytes = velmora::sim::parseHex(words_.at(next_++).text);
        const std::uint32_t count = command == "poke" ? static_cast<std::uint32_t>(bytes.size()) : number();
        std::uint8_t* at;
        if (address >= kScratch && address - kScratch + std::uint64_t(count) <= kScratchBytes)
            at = reinterpret_cast<std::uint8_t*>(kScratch) + (address - kScratch);
        else if (area_ && inSimArea(address) && address + std::uint64_t(count) <= simEnd_)
            at = static_cast<std::uint8_t*>(area_->start()) + (address - simStart_);
        else
            throw NotForADevice("memory outside the area and the scratch memory");
        if (command == "poke")
            std::copy(bytes.begin(), bytes.end(), at);
        else if (command == "fill")
            std::memset(at, static_cast<int>(number()), count);
        else if (command == "crc")
            return hex(velmora::sim::crc32(at, count), "0x%08x");
        else {
            bytes.assign(at, at + count);
            for (std::size_t i = (4 - address % 4) % 4; i + 4 <= bytes.size(); i += 4)
                putWord(bytes, i, home(wordAt(bytes, i)));
            return velmora::sim::toHex(bytes.data(), bytes.size());
        }
        return "0";
    }

    KernelLog log_;
    std::optional<Descriptor> device_;
    std::optional<View> area_;
    std::uint32_t simStart_ = 0, simEnd_ = 0; // the script's area
    std::vector<Word> words_;
    std::size_t next_ = 0;
};

// The simulated controller's next reply.
Reply nextReply(std::istream& answers)
{
    Reply reply;
    while (std::getline(answers, reply.answer) && !reply.answer.starts_with("=")) {
        std::string message = velmora::sim::splitLine(reply.answer).at(1).text;
        if (message.ends_with('\n'))
            message.pop_back();
        reply.log.push_back(message);
    }
    return reply;
}

int compare(const char* scriptFile, const char* answersFile)
{
    std::ifstream script(scriptFile), answers(answersFile);
    if (!script || !answers)
        throw Failure(std::string("cannot open ") + scriptFile + " or " + answersFile);
    const auto begin = std::chrono::steady_clock::now();
    Session session;
    unsigned commands = 0;
    std::string line;
    for (unsigned number = 1; std::getline(script, line); ++number) {
        const std::vector<Word> words = velmora::sim::splitLine(line);
        if (words.empty())
            continue;
        ++commands;
        const Lines expected = shownReply(nextReply(answers));
        const Lines actual = shownReply(session.run(words));
        if (actual != expected) {
            std::printf("FAIL session %s\n    line %u: %s\n    here: %s\n    simulated: %s\n", scriptFile, number,
                        line.c_str(), shown(actual).c_str(), shown(expected).c_str());
            return 1;
        }
    }
    std::printf("PASS session %s: the same answers and messages to %u commands (%.2f s)\n", scriptFile, commands,
                std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
    return 0;
}

} // namespace

} // namespace target

int main(int count, char** arguments)
{
    if (count < 3 || count % 2 == 0) {
        std::fprintf(stderr, "usage: target-session SCRIPT ANSWERS ...\n");
        return 2;
    }
    int status = 0;
    for (int i = 1; i < count; i += 2) {
        try {
            status = std::max(status, target::compare(arguments[i], arguments[i + 1]));
        } catch (const std::exception& error) {
            std::printf("FAIL session %s: %s\n", arguments[i], error.what());
            status = 2;
        }
        std::fflush(stdout);
    }
    return status;
}
