#include "recorder.hpp"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "lib/descriptor_message.hpp"
#include "socket_address.hpp"

namespace velmora::tools {

using namespace protocol;

namespace {

constexpr std::uint32_t kPageBytes = 4096;
constexpr int kPatienceSeconds = 10; // for a program that does not read

std::vector<std::uint8_t> bytesOf(std::span<const std::byte> bytes)
{
    const auto* const first = reinterpret_cast<const std::uint8_t*>(bytes.data());
    return {first, first + bytes.size()};
}

[[noreturn]] void fail(const std::string& what)
{
    throw std::runtime_error(what + ": " + std::strerror(errno));
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

std::optional<Asked> askedIn(std::span<const std::byte> packet)
{
    const auto is = [&](Kind kind, std::size_t bytes) {
        Header header;
        if (packet.size() < bytes)
            return false;
        std::memcpy(&header, packet.data(), sizeof header);
        return header.magic == kMagic && header.version == kVersion && header.kind == kind;
    };
    if (is(Kind::Command, sizeof(Command))) {
        Command command;
        std::memcpy(&command, packet.data(), sizeof command);
        const auto user = packet.subspan(sizeof command);
        if (user.size() != command.bytes || user.size() > kMostUserBytes)
            return std::nullopt;
        return Asked{{command.number, bytesOf(user)}, command.address, command.writable};
    }
    if (is(Kind::Map, sizeof(Map))) {
        Map map;
        std::memcpy(&map, packet.data(), sizeof map);
        if (map.bytes == 0 || map.bytes % kPageBytes != 0) // the kernel does not hand it on
            return std::nullopt;
        const MappingRecord record = {map.pageOffset * kPageBytes, map.bytes, std::uint8_t((map.flags & kSync) != 0)};
        return Asked{{kMapping, bytesOf(std::as_bytes(std::span(&record, 1)))}, 0, 0};
    }
    return std::nullopt;
}

std::optional<Answer> answerIn(std::span<const std::byte> packet)
{
    Header header;
    if (packet.size() < sizeof header)
        return std::nullopt;
    std::memcpy(&header, packet.data(), sizeof header);
    if (header.kind == Kind::Map)
        return Answer{header.result, {}};
    if (header.kind != Kind::Command || packet.size() < sizeof(CommandAnswer))
        return std::nullopt;
    return Answer{header.result, bytesOf(packet.subspan(sizeof(CommandAnswer)))};
}

Recorder::Recorder(const std::string& file, std::unique_ptr<Recorded> recorded, const std::string& socket)
    : name_(file), socket_(socket), device_(std::move(recorded))
{
    // What stands in front of the first request.
    std::string beginning = device_->beginning();
    Device device(openNode(device_->name()));
    beginning += writer_.state(device);
    file_ = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (file_ < 0)
        fail("cannot record into " + file);
    if (socket_.empty())
        makeFolder();
    const sockaddr_un address = addressOf(socket_);
    listening_ = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    bound_ = listening_ >= 0 && bind(listening_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    if (!bound_ || listen(listening_, SOMAXCONN) != 0 || pipe2(end_, O_CLOEXEC) != 0) {
        const int error = errno;
        unmakeFolder();
        errno = error;
        fail("cannot listen at " + socket_);
    }
    write(beginning);
    thread_ = std::thread([this] { serve(); });
}

void Recorder::makeFolder()
{
    const char* const parent = std::getenv("TMPDIR");
    folder_ = std::string(parent != nullptr && *parent == '/' ? parent : "/tmp") + "/velmora-mm-XXXXXX";
    if (mkdtemp(folder_.data()) == nullptr)
        fail("cannot make the folder " + folder_);
    socket_ = folder_ + "/recorder.sock";
}

void Recorder::unmakeFolder()
{
    if (bound_)
        unlink(socket_.c_str());
    if (!folder_.empty())
        rmdir(folder_.c_str());
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
    unmakeFolder();
}

void Recorder::finish()
{
    close(std::exchange(end_[1], -1));
    thread_.join();
    write(RecordingWriter::end());
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
            waiting.push_back({connection.device, POLLIN, 0});
        }
        if (poll(waiting.data(), waiting.size(), -1) < 0)
            continue;
        auto at = waiting.begin() + 2;
        for (Connection& connection : connections_) {
            if ((at++)->revents != 0)
                ask(connection);
            if ((at++)->revents != 0 && !connection.gone)
                answer(connection, false);
        }
        if (waiting[1].revents != 0)
            accept();
        connections_.remove_if([](const Connection& connection) {
            if (!connection.gone)
                return false;
            disconnect(connection);
            return true;
        });
    } while (waiting[0].revents == 0);
    for (const Connection& connection : connections_)
        disconnect(connection);
    connections_.clear();
}

void Recorder::disconnect(const Connection& connection)
{
    close(connection.program);
    if (connection.device >= 0)
        close(connection.device);
}

// A program whose device cannot be reached finds its connection ended.
void Recorder::accept()
{
    const int program = accept4(listening_, nullptr, nullptr, SOCK_CLOEXEC);
    if (program < 0)
        return;
    const timeval patience = {kPatienceSeconds, 0};
    setsockopt(program, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    const int device = device_->connect();
    connections_.push_back({program, device, device < 0});
}

// Which process asks, where it is another one than before.
void Recorder::writeAsker(const Connection& connection)
{
    ucred peer = {};
    socklen_t bytes = sizeof peer;
    getsockopt(connection.program, SOL_SOCKET, SO_PEERCRED, &peer, &bytes);
    if (peer.pid == asker_)
        return;
    asker_ = peer.pid;
    std::ifstream comm("/proc/" + std::to_string(peer.pid) + "/comm");
    std::string name;
    std::getline(comm, name);
    write(RecordingWriter::asker(name, peer.pid));
}

// A request, and its answer before anybody else's turn comes.
void Recorder::ask(Connection& connection)
{
    Packet request(connection.program);
    if (request.bytes <= 0) {
        connection.gone = true;
        return;
    }
    const auto asked = askedIn(request.content());
    if (asked) {
        writeAsker(connection);
        write(writer_.asked(*asked));
    }
    request.sendTo(connection.device);
    answer(connection, asked.has_value());
}

void Recorder::answer(Connection& connection, bool recorded)
{
    Packet answer(connection.device);
    if (answer.bytes <= 0) {
        connection.gone = true;
        return;
    }
    if (recorded) {
        const auto known = answerIn(answer.content());
        write(known ? writer_.answered(*known) : "# The controller stopped.\n");
    }
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
