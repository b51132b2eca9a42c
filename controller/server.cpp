#include "controller/server.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <poll.h>
#include <stdexcept>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>
#include <fcntl.h>

#include "lib/descriptor_message.hpp"

namespace velmora::sim {

using namespace protocol;

namespace {

constexpr const char* kGroup = "velmora";
constexpr mode_t kMode = 0660;

[[noreturn]] void fail(const std::string& what)
{
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

sockaddr_un addressOf(const std::string& path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path)
        throw std::runtime_error("the socket's name '" + path + "' must have 1 to " +
                                 std::to_string(sizeof address.sun_path - 1) + " characters");
    path.copy(address.sun_path, path.size());
    return address;
}

std::string folderOf(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return slash == path.npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

// Only one controller at a time looks at a folder's sockets and changes them.
class FolderLock
{
public:
    explicit FolderLock(const std::string& folder) : folder_(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))
    {
        if (!folder_)
            fail("cannot use the folder " + folder + " for a socket");
        while (flock(folder_.number(), LOCK_EX) != 0 && errno == EINTR) {
        }
    }

private:
    OwnDescriptor folder_;
};

// A socket that nobody listens on any more is removed; everything else is in the way.
void makeRoom(const std::string& path, const sockaddr_un& address)
{
    struct stat file;
    if (lstat(path.c_str(), &file) != 0)
        return;
    if (!S_ISSOCK(file.st_mode))
        throw std::runtime_error(path + " is there already and is no socket");
    const OwnDescriptor probe(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (connect(probe.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 || errno == EAGAIN)
        throw std::runtime_error("a controller is running already and listens at " + path);
    if (errno != ECONNREFUSED)
        fail("the socket " + path + " is in use");
    if (unlink(path.c_str()) != 0)
        fail("cannot remove the socket " + path + " that a controller left");
}

// From /etc/group, which needs none of the C library's plug-ins.
std::optional<gid_t> groupNumber(const std::string& name)
{
    std::ifstream groups("/etc/group");
    for (std::string line; std::getline(groups, line);) {
        if (line.compare(0, name.size() + 1, name + ":") != 0)
            continue;
        const std::size_t number = line.find(':', name.size() + 1);
        if (number != line.npos)
            return static_cast<gid_t>(std::strtoul(line.c_str() + number + 1, nullptr, 10));
    }
    return std::nullopt;
}

OwnDescriptor spareDescriptor()
{
    return OwnDescriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC));
}

std::string sentenceOf(const Reply& reply)
{
    return {reinterpret_cast<const char*>(reply.message.data()) + sizeof(Plain), reply.message.size() - sizeof(Plain)};
}

} // namespace

OwnDescriptor::~OwnDescriptor()
{
    if (number_ >= 0)
        close(number_);
}

ListeningSocket::ListeningSocket(const std::string& path) : path_(path)
{
    const sockaddr_un address = addressOf(path);
    const FolderLock lock(folderOf(path));
    makeRoom(path, address);
    socket_ = OwnDescriptor(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const mode_t before = umask(0777 & ~kMode);
    const int bound = bind(socket_.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    umask(before);
    if (bound != 0)
        fail("cannot make the socket " + path);
    struct stat file = {};
    stat(path.c_str(), &file);
    device_ = file.st_dev;
    file_ = file.st_ino;
    if (const auto group = groupNumber(kGroup); group && chown(path.c_str(), static_cast<uid_t>(-1), *group) != 0)
        errno = 0; // not ours to give; the owner's group has it
    if (listen(socket_.number(), SOMAXCONN) != 0)
        fail("cannot listen at " + path);
}

ListeningSocket::~ListeningSocket()
{
    try {
        const FolderLock lock(folderOf(path_));
        struct stat file;
        if (lstat(path_.c_str(), &file) == 0 && file.st_dev == device_ && file.st_ino == file_)
            unlink(path_.c_str());
    } catch (const std::runtime_error&) { // the folder is gone, and the socket with it
    }
}

Server::Server(ServerOptions options)
    : options_(std::move(options)), listening_(options_.socket), service_(options_.service), spare_(spareDescriptor())
{
    printLog();
}

std::optional<std::string> Server::run(std::span<const int> ends)
{
    std::vector<pollfd> waiting;
    while (!report_) {
        waiting.clear();
        for (const int end : ends)
            waiting.push_back({end, POLLIN, 0});
        waiting.push_back({listening_.number(), POLLIN, 0});
        for (const Client& client : clients_) {
            const bool blocked = !client.pending.message.empty() || !service_.logMessage(client.peer).empty();
            waiting.push_back({client.socket.number(), static_cast<short>(blocked ? POLLOUT : POLLIN), 0});
        }
        if (poll(waiting.data(), waiting.size(), -1) < 0) {
            if (errno == EINTR)
                continue;
            fail("cannot wait for clients");
        }
        auto at = waiting.begin();
        for (; at != waiting.begin() + std::ssize(ends); ++at)
            if (at->revents != 0) {
                tellAll(Service::stop(0, "the controller was switched off"));
                return std::nullopt;
            }
        const bool newcomers = (at++)->revents != 0;
        for (auto client = clients_.begin(); client != clients_.end() && !report_; ++client, ++at)
            serve(*client, at->revents);
        if (newcomers && !report_)
            accept();
        forgetGone();
    }
    return report_;
}

// A client too many is told so.
void Server::accept()
{
    OwnDescriptor connected(accept4(listening_.number(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!connected && (errno == EMFILE || errno == ENFILE)) { // the spare one lets the client be sent away
        spare_ = OwnDescriptor();
        connected = OwnDescriptor(accept4(listening_.number(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        connected = OwnDescriptor();
        spare_ = spareDescriptor();
    }
    if (!connected)
        return;
    clients_.emplace_back(std::move(connected));
    if (clients_.size() > options_.mostClients)
        deliver(clients_.back(), Service::refusal(0, -EUSERS, "the controller has as many clients as it can serve"));
    service_.setClients(clients_.size());
}

void Server::serve(Client& client, short events)
{
    if (events == 0 || client.gone)
        return;
    if ((events & POLLOUT) != 0) {
        deliver(client, std::exchange(client.pending, {}));
        feed(client);
    } else if ((events & POLLIN) != 0) {
        receive(client);
    } else {
        client.gone = true; // hung up, and nothing left to read
    }
}

// One request.
void Server::receive(Client& client)
{
    std::array<std::byte, sizeof(Command) + kMostUserBytes + 1> packet;
    iovec part = {packet.data(), packet.size()};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    const ssize_t bytes = recvmsg(client.socket.number(), &message, 0);
    if (bytes < 0 && (errno == EINTR || errno == EAGAIN))
        return;
    if (bytes <= 0) { // an empty packet is no message either
        client.gone = true;
        return;
    }
    // Descriptors were left outside, for want of a place to put them.
    const bool complete = (message.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) == 0;
    Reply reply = service_.answer(client.peer, std::span(packet).first(static_cast<std::size_t>(bytes)), complete);
    feedAll(&client);
    if (reply.stopped) {
        report_ = sentenceOf(reply);
        tellAll(reply);
    } else {
        deliver(client, std::move(reply));
        feed(client);
    }
}

// Sends an answer now or, where there is no room, when there is.
void Server::deliver(Client& client, Reply reply)
{
    if (reply.message.empty())
        return;
    if (sendWithDescriptor(client.socket.number(), reply.message.data(), reply.message.size(), reply.descriptor,
                           MSG_DONTWAIT) >= 0)
        client.gone = client.gone || reply.closes;
    else if (errno == EAGAIN || errno == EINTR || errno == ETOOMANYREFS)
        client.pending = std::move(reply);
    else
        client.gone = true;
}

// As much of the log as there is room for.
void Server::feed(Client& client)
{
    while (!client.gone && client.pending.message.empty()) {
        const std::vector<std::byte> message = service_.logMessage(client.peer);
        if (message.empty())
            return;
        if (send(client.socket.number(), message.data(), message.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
            client.gone = errno != EAGAIN && errno != EINTR;
            return;
        }
        service_.logMessageSent(client.peer);
    }
}

// The log is there before the answer of the command that printed it, and behind the answer that promises it.
void Server::feedAll(const Client* but)
{
    printLog();
    for (Client& client : clients_)
        if (&client != but)
            feed(client);
}

void Server::printLog()
{
    for (std::uint64_t lost = 0; printed_.behind(service_.log());) {
        const std::uint64_t number = printed_.next(service_.log(), lost);
        if (options_.log)
            options_.log(service_.log().at(number));
        printed_.took(number);
    }
}

void Server::forgetGone()
{
    for (auto client = clients_.begin(); client != clients_.end() && !report_;) {
        if (!client->gone) {
            ++client;
            continue;
        }
        Reply last = service_.leave(client->peer);
        client = clients_.erase(client);
        service_.setClients(clients_.size());
        feedAll(nullptr);
        if (last.stopped) {
            report_ = sentenceOf(last);
            tellAll(last);
        }
    }
}

void Server::tellAll(const Reply& last)
{
    for (Client& client : clients_)
        if (!client.gone)
            deliver(client, last);
}

} // namespace velmora::sim
