// A real device behind the protocol of a controller's socket. Each connection has a thread and the node open, as the program
// would have it, and ends with the program's side; a program gets the node's descriptor for its mappings, so that the driver's own checks decide.
#define _FILE_OFFSET_BITS 64 // the mapping offset is an address above 2 GiB

#include "recorded.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <stdexcept>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include <velmora/device.hpp>

#include "device_command.hpp"
#include "host/machine.h"
#include "kernel_log.hpp"
#include "lib/command_records.hpp"
#include "lib/descriptor_message.hpp"
#include "lib/socket_protocol.hpp"
#include "recording.hpp"
#include "units.hpp"

namespace velmora::tools {

using namespace protocol;

namespace {

constexpr std::size_t kPageBytes = 4096;

// Memory for a command's record, of which the first bytes can be written and those behind its end cannot be read.
class UserMemory
{
public:
    UserMemory()
        : first_(static_cast<std::byte*>(
              mmap(nullptr, 3 * kPageBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)))
    {
        if (first_ == MAP_FAILED)
            throw std::bad_alloc();
        mprotect(first_ + 2 * kPageBytes, kPageBytes, PROT_NONE);
    }
    UserMemory(const UserMemory&) = delete;
    UserMemory& operator=(const UserMemory&) = delete;
    ~UserMemory() { munmap(first_, 3 * kPageBytes); }

    std::byte* nothing() const { return first_ + 2 * kPageBytes; }

    // The record's bytes as the program has them: written up to `writable`, where the device copies all of it in; else it ends
    // where the program's does, and nothing is written at all.
    std::byte* hold(const protocol::Command& command, const std::byte* bytes)
    {
        const bool isWhole = command.bytes >= recordOf(command.number).bytes;
        std::byte* const start =
            isWhole ? first_ + kPageBytes - command.writable : first_ + 2 * kPageBytes - command.bytes;
        mprotect(first_ + kPageBytes, kPageBytes, PROT_READ | PROT_WRITE);
        std::memcpy(start, bytes, command.bytes);
        mprotect(first_ + kPageBytes, kPageBytes, PROT_READ);
        return start;
    }

private:
    std::byte* first_; // a page to write, one to read, one for nothing
};

// One program's connection, from the other side.
class NodeConnection
{
public:
    NodeConnection(const std::string& path, int socket) : path_(path), socket_(socket) {}
    NodeConnection(const NodeConnection&) = delete;
    NodeConnection& operator=(const NodeConnection&) = delete;
    ~NodeConnection()
    {
        for (const int descriptor : {socket_, node_, synced_})
            if (descriptor >= 0)
                close(descriptor);
    }

    // Answers until the program's side is closed.
    void serve()
    {
        ssize_t bytes;
        while ((bytes = recv(socket_, packet_.data(), packet_.size(), 0)) > 0 || (bytes < 0 && errno == EINTR))
            if (bytes > 0 && !answer(static_cast<std::size_t>(bytes)))
                return;
    }

private:
    template <class Request> bool is(Kind kind, std::size_t bytes, Request& request) const
    {
        if (bytes < sizeof request)
            return false;
        std::memcpy(&request, packet_.data(), sizeof request);
        return request.header.kind == kind;
    }

    // False: it was not understood, and the connection ends.
    bool answer(std::size_t bytes)
    {
        Hello hello;
        Open open;
        protocol::Command command;
        Map map;
        if (is(Kind::Hello, bytes, hello))
            return reply(hello.header, Welcome{{}, 0, 0}, 0);
        if (is(Kind::Open, bytes, open))
            return reply(open.header, Plain{}, openNode((open.flags & kSync) != 0));
        if (is(Kind::Command, bytes, command) && bytes == sizeof command + command.bytes &&
            command.bytes <= kMostUserBytes && command.writable <= command.bytes)
            return run(command);
        if (is(Kind::Map, bytes, map))
            return grant(map);
        return refuse(bytes);
    }

    template <class Answer> bool reply(const Header& asked, Answer answer, int result, int descriptor = -1)
    {
        answer.header = headerOf(asked.kind, asked.ticket, result);
        return sendWithDescriptor(socket_, &answer, sizeof answer, descriptor) > 0;
    }

    bool refuse(std::size_t bytes)
    {
        constexpr std::string_view why = "a recorder in front of a real device hands on commands and mappings only";
        Header asked{};
        std::memcpy(&asked, packet_.data(), std::min(bytes, sizeof asked));
        const Plain plain{headerOf(Kind::Refused, asked.ticket, -EOPNOTSUPP)};
        std::memcpy(packet_.data(), &plain, sizeof plain);
        std::memcpy(packet_.data() + sizeof plain, why.data(), why.size());
        sendWithDescriptor(socket_, packet_.data(), sizeof plain + why.size(), -1);
        return false;
    }

    int openNode(bool sync)
    {
        int& descriptor = sync ? synced_ : node_;
        if (descriptor < 0)
            descriptor = open(path_.c_str(), O_RDWR | O_CLOEXEC | (sync ? O_SYNC : 0));
        return descriptor < 0 ? -errno : 0;
    }

    bool run(const protocol::Command& command)
    {
        const CommandRecord record = recordOf(command.number);
        std::byte* const bytes = packet_.data() + sizeof command;
        std::byte* argument = memory_.nothing();
        if (command.bytes != 0)
            argument = memory_.hold(command, bytes);
        else if (command.address != kUserMemory) // no address of a program's
            argument = reinterpret_cast<std::byte*>(static_cast<std::uintptr_t>(command.address));
        const int open = node_ >= 0 ? node_ : synced_;
        const int answer = ioctl(open, command.number, argument);
        const int result = answer < 0 ? -errno : answer;
        if (command.bytes != 0)
            std::memcpy(bytes, argument, command.bytes);
        const std::uint32_t comesBack =
            record.comesBack && command.bytes >= record.bytes ? static_cast<std::uint32_t>(record.bytes) : 0;
        const CommandAnswer head{headerOf(Kind::Command, command.header.ticket, result), command.bytes,
                                 std::min(comesBack, command.writable)};
        std::array<std::byte, sizeof head + kMostUserBytes> packet;
        std::memcpy(packet.data(), &head, sizeof head);
        std::memcpy(packet.data() + sizeof head, bytes, command.bytes);
        return sendWithDescriptor(socket_, packet.data(), sizeof head + command.bytes, -1) > 0;
    }

    // The driver says yes or no here; the program maps the node itself.
    bool grant(const Map& map)
    {
        const bool sync = (map.flags & kSync) != 0;
        int result = openNode(sync);
        const int descriptor = sync ? synced_ : node_;
        if (result == 0) {
            void* const start = mmap(nullptr, map.bytes, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor,
                                     static_cast<off_t>(map.pageOffset) * static_cast<off_t>(kPageBytes));
            result = start == MAP_FAILED ? -errno : 0;
            if (result == 0)
                munmap(start, map.bytes);
        }
        return reply(map.header, MapAnswer{{}, map.pageOffset, map.bytes, sync ? 1U : 0U}, result,
                     result == 0 ? descriptor : -1);
    }

    const std::string path_;
    int socket_, node_ = -1, synced_ = -1;
    UserMemory memory_;
    std::array<std::byte, kMostMessageBytes> packet_;
};

class RecordedNode : public Recorded
{
public:
    RecordedNode(const std::string& path, ManagedMemory memory) : path_(path), memory_(memory) {}
    std::string name() const override { return path_; }
    std::string beginning() const override
    {
        const bool inRam = memory_.start >= sim::kPageOffset && memory_.end - sim::kPageOffset <= sim::kRamBytes;
        return RecordingWriter::beginning(memory_.start, memory_.end) +
               (inRam ? ""
                      : "# A script's own controller has no memory there: this is replayed with --device, or planned "
                        "with.\n");
    }

    int connect() override
    {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
            return -1;
        std::thread([path = path_, socket = ends[1]] { NodeConnection(path, socket).serve(); }).detach();
        return ends[0];
    }

private:
    std::string path_;
    ManagedMemory memory_;
};

ManagedMemory memoryOf(const std::string& path, const std::string& area)
{
    constexpr std::uint32_t margin = 1U << 20; // at each end of the area
    if (area.empty()) {
        KernelLog log(path);
        if (const auto known = managedMemoryIn(log.take()))
            return *known;
        throw std::runtime_error("the kernel log does not say any more where the area of " + path +
                                 " lies: say it by --area START-END, as the module's parameter has it");
    }
    const auto range = parseArea(area);
    if (!range || range->end <= range->start || range->end - range->start <= 2 * margin)
        throw UsageError("--area: '" + area + "' is not START-END with two hexadecimal addresses");
    return {range->start + margin, range->end - margin};
}

} // namespace

std::unique_ptr<Recorded> recordedNode(const std::string& path, const std::string& area)
{
    openDevice(path); // what is no device is said now
    return std::make_unique<RecordedNode>(path, memoryOf(path, area));
}

} // namespace velmora::tools
