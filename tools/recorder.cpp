#include "recorder.hpp"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "lib/command_records.hpp"
#include "lib/descriptor_message.hpp"

namespace velmora::tools {

using namespace protocol;

namespace {

constexpr std::uint32_t kScratchEnd = kUserMemory + 0x10000;
constexpr int kPatienceSeconds = 10; // for a program that does not read

std::string number(std::uint32_t value)
{
    std::array<char, 16> text;
    std::snprintf(text.data(), text.size(), "0x%x", value);
    return text.data();
}

std::string hex(std::span<const std::byte> bytes)
{
    std::string text;
    for (const std::byte byte : bytes) {
        std::array<char, 3> digits;
        std::snprintf(digits.data(), digits.size(), "%02x", std::to_integer<unsigned>(byte));
        text += digits.data();
    }
    return text;
}

std::string commandLines(const Command& request, std::span<const std::byte> user)
{
    const CommandRecord record = recordOf(request.number);
    const std::string command = "ioctl " + number(request.number) + " ";
    if (user.size() >= record.bytes && record.bytes != 0) {
        const bool lost = record.comesBack && request.writable < record.bytes;
        return (lost ? "# the caller had no write permission for this record:\n" : "") + command + "{" +
               hex(user.first(record.bytes)) + "}\n";
    }
    if (!user.empty() && record.bytes != 0) {
        const std::string address = number(kScratchEnd - static_cast<std::uint32_t>(user.size()));
        return "poke " + address + " " + hex(user) + "\n" + command + address + "\n";
    }
    const bool exists = request.address >= kUserMemory && request.address < kScratchEnd;
    return command + number(exists ? kScratchEnd : request.address) + "\n";
}

[[noreturn]] void fail(const std::string& what)
{
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

sockaddr_un addressOf(const std::string& path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

// A packet with at most one descriptor, for passing it on. bytes as of recvmsg().
struct Packet {
    std::array<std::byte, kMostMessageBytes> room;
    ssize_t bytes = 0;
    int descriptor = -1;

    explicit Packet(int from)
    {
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
        iovec part = {room.data(), room.size()};
        msghdr message = {};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        do
            bytes = recvmsg(from, &message, MSG_CMSG_CLOEXEC);
        while (bytes < 0 && errno == EINTR);
        const cmsghdr* const rights = bytes > 0 ? CMSG_FIRSTHDR(&message) : nullptr;
        if (rights != nullptr && rights->cmsg_type == SCM_RIGHTS)
            std::memcpy(&descriptor, CMSG_DATA(rights), sizeof descriptor);
    }
    Packet(const Packet&) = delete;
    Packet& operator=(const Packet&) = delete;
    ~Packet()
    {
        if (descriptor >= 0)
            close(descriptor);
    }

    std::span<const std::byte> content() const { return std::span(room).first(static_cast<std::size_t>(bytes)); }

    // Nobody there to take it is no news: that shows when their connection ends.
    void sendTo(int to)
    {
        while (sendWithDescriptor(to, room.data(), static_cast<std::size_t>(bytes), descriptor) < 0 && errno == EINTR) {
        }
    }
};

} // namespace

std::string scriptLines(std::span<const std::byte> request)
{
    const auto is = [&](Kind kind, std::size_t bytes) {
        Header header;
        if (request.size() < bytes)
            return false;
        std::memcpy(&header, request.data(), sizeof header);
        return header.magic == kMagic && header.version == kVersion && header.kind == kind;
    };
    if (is(Kind::Command, sizeof(Command))) {
        Command command;
        std::memcpy(&command, request.data(), sizeof command);
        const auto user = request.subspan(sizeof command);
        return user.size() == command.bytes && user.size() <= kMostUserBytes ? commandLines(command, user) : "";
    }
    if (is(Kind::Map, sizeof(Map))) {
        Map map;
        std::memcpy(&map, request.data(), sizeof map);
        if (map.bytes == 0)
            return "";
        return "mmap " + number(map.pageOffset << 12) + " " + number(map.bytes) +
               ((map.flags & kSync) != 0 ? " sync\n" : "\n");
    }
    return "";
}

Recorder::Recorder(const std::string& file, const std::string& controller, const std::string& beginning)
    : name_(file), controller_(controller)
{
    file_ = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (file_ < 0)
        fail("cannot record into " + file);
    const char* const parent = std::getenv("TMPDIR");
    folder_ = std::string(parent != nullptr && *parent == '/' ? parent : "/tmp") + "/velmora-mm-XXXXXX";
    if (mkdtemp(folder_.data()) == nullptr)
        fail("cannot make the folder " + folder_);
    socket_ = folder_ + "/recorder.sock";
    const sockaddr_un address = addressOf(socket_);
    listening_ = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (listening_ < 0 || bind(listening_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listening_, SOMAXCONN) != 0 || pipe2(end_, O_CLOEXEC) != 0)
        fail("cannot listen at " + socket_);
    write(beginning);
    thread_ = std::thread([this] { serve(); });
}

Recorder::~Recorder()
{
    if (thread_.joinable()) {
        close(std::exchange(end_[1], -1));
        thread_.join();
    }
    for (const int descriptor : {file_, listening_, end_[0], end_[1]})
        if (descriptor >= 0)
            close(descriptor);
    unlink(socket_.c_str());
    rmdir(folder_.c_str());
}

void Recorder::finish()
{
    close(std::exchange(end_[1], -1));
    thread_.join();
    if (close(std::exchange(file_, -1)) != 0 && writeError_ == 0)
        writeError_ = errno;
    errno = writeError_;
    if (errno != 0)
        fail("cannot write the record " + name_);
}

void Recorder::serve()
{
    std::vector<pollfd> waiting;
    do {
        waiting.assign({{end_[0], POLLIN, 0}, {listening_, POLLIN, 0}});
        for (const Connection& connection : connections_) {
            waiting.push_back({connection.program, POLLIN, 0});
            waiting.push_back({connection.controller, POLLIN, 0});
        }
        if (poll(waiting.data(), waiting.size(), -1) < 0)
            continue;
        auto at = waiting.begin() + 2;
        for (Connection& connection : connections_) {
            if ((at++)->revents != 0)
                ask(connection);
            if ((at++)->revents != 0 && !connection.gone)
                answer(connection);
        }
        if (waiting[1].revents != 0)
            accept();
        connections_.remove_if([](const Connection& connection) {
            if (!connection.gone)
                return false;
            close(connection.program);
            close(connection.controller);
            return true;
        });
    } while (waiting[0].revents == 0);
    for (const Connection& connection : connections_) {
        close(connection.program);
        close(connection.controller);
    }
}

// A program whose controller cannot be reached finds its connection ended.
void Recorder::accept()
{
    const int program = accept4(listening_, nullptr, nullptr, SOCK_CLOEXEC);
    if (program < 0)
        return;
    const timeval patience = {kPatienceSeconds, 0};
    setsockopt(program, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    const int controller = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    const sockaddr_un address = addressOf(controller_);
    const bool connected =
        controller >= 0 && connect(controller, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    connections_.push_back({program, controller, !connected});
}

// A request, and its answer before anybody else's turn comes.
void Recorder::ask(Connection& connection)
{
    Packet request(connection.program);
    if (request.bytes <= 0) {
        connection.gone = true;
        return;
    }
    write(scriptLines(request.content()));
    request.sendTo(connection.controller);
    answer(connection);
}

void Recorder::answer(Connection& connection)
{
    Packet answer(connection.controller);
    if (answer.bytes <= 0)
        connection.gone = true;
    else
        answer.sendTo(connection.program);
}

void Recorder::write(const std::string& text)
{
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t bytes = ::write(file_, text.data() + done, text.size() - done);
        if (bytes < 0 && errno == EINTR)
            continue;
        if (bytes < 0) {
            writeError_ = errno;
            return;
        }
        done += static_cast<std::size_t>(bytes);
    }
}

} // namespace velmora::tools
