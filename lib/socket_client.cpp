#include "lib/socket_client.hpp"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "lib/socket_protocol.hpp"

namespace velmora::socket_client {

using namespace protocol;

namespace {

__attribute__((format(printf, 2, 3))) void say(Connection& connection, const char* format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(connection.report, sizeof connection.report, format, arguments);
    va_end(arguments);
}

// The end of a connection, with the report that is there already.
int lost(Connection& connection)
{
    disconnect(connection);
    return kNoAnswer;
}

// Takes over the sentence of Refused or Stopped.
int lostWith(Connection& connection, const void* message, std::size_t bytes)
{
    const std::size_t length = bytes - sizeof(Plain);
    say(connection, "%.*s", static_cast<int>(length < kMostText ? length : kMostText),
        static_cast<const char*>(message) + sizeof(Plain));
    return lost(connection);
}

// Before a message is looked at: is it one?
bool isMessage(const void* message, std::size_t bytes, Header& header)
{
    if (bytes < sizeof header)
        return false;
    std::memcpy(&header, message, sizeof header);
    return header.magic == kMagic;
}

// The descriptor that a packet brought, -1 without; any further ones are closed.
int takeDescriptor(msghdr& packet)
{
    int first = -1;
    for (cmsghdr* part = CMSG_FIRSTHDR(&packet); part != nullptr; part = CMSG_NXTHDR(&packet, part)) {
        if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS)
            continue;
        const std::size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (std::size_t i = 0; i < count; ++i) {
            int number;
            std::memcpy(&number, CMSG_DATA(part) + i * sizeof number, sizeof number);
            if (first < 0)
                first = number;
            else
                close(number);
        }
    }
    return first;
}

// One packet; 0 when the connection has ended.
ssize_t receivePacket(int socket, void* message, std::size_t room, int flags, int* descriptor)
{
    iovec part = {message, room};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    msghdr packet = {};
    packet.msg_iov = &part;
    packet.msg_iovlen = 1;
    if (descriptor != nullptr) {
        packet.msg_control = control;
        packet.msg_controllen = sizeof control;
    }
    bool again = true;
    for (;;) {
        const ssize_t bytes = recvmsg(socket, &packet, flags | MSG_CMSG_CLOEXEC);
        if (bytes >= 0) {
            if (descriptor != nullptr)
                *descriptor = takeDescriptor(packet);
            return bytes;
        }
        // What the controller said before it went can be read after the error that says so.
        if (errno == ECONNRESET && again)
            again = false;
        else if (errno != EINTR)
            return errno == ECONNRESET ? 0 : -1;
    }
}

// Sends a request. That the controller is gone shows when its answer is asked for, and so does why.
void sendPacket(int socket, iovec* parts, std::size_t count)
{
    msghdr packet = {};
    packet.msg_iov = parts;
    packet.msg_iovlen = static_cast<decltype(packet.msg_iovlen)>(count);
    while (sendmsg(socket, &packet, MSG_NOSIGNAL) < 0 && errno == EINTR) {
    }
}

// The answer to the request whose header this is: its bytes, or kNoAnswer.
int receiveAnswer(Connection& connection, const Header& request, void* answer, std::size_t room, int* descriptor)
{
    char message[kMostMessageBytes];
    const ssize_t bytes = receivePacket(connection.descriptor, message, sizeof message, 0, descriptor);
    if (bytes <= 0) {
        say(connection, "the controller is gone: the connection to it has ended");
        return lost(connection);
    }
    const auto length = static_cast<std::size_t>(bytes);
    Header header;
    if (!isMessage(message, length, header)) {
        say(connection, "what answered is no controller");
        return lost(connection);
    }
    if (header.kind == Kind::Refused || header.kind == Kind::Stopped)
        return lostWith(connection, message, length);
    if (header.kind != request.kind || header.ticket != request.ticket || header.version != kVersion) {
        say(connection, "the controller's answer is not one to what was asked");
        return lost(connection);
    }
    std::memcpy(answer, message, length < room ? length : room);
    return static_cast<int>(length);
}

int transactParts(Connection& connection, Header& header, iovec* parts, std::size_t count, void* answer,
                  std::size_t room, int* descriptor)
{
    if (connection.descriptor < 0) {
        if (connection.report[0] == 0)
            say(connection, "there is no connection to a controller");
        return kNoAnswer;
    }
    header = headerOf(header.kind, ++connection.ticket);
    sendPacket(connection.descriptor, parts, count);
    return receiveAnswer(connection, header, answer, room, descriptor);
}

// A request of a fixed size with an answer of a fixed size: 0 or kNoAnswer.
template <class Request, class Answer>
int ask(Connection& connection, Request& request, Answer& answer, int* descriptor = nullptr)
{
    iovec part = {&request, sizeof request};
    const int bytes = transactParts(connection, request.header, &part, 1, &answer, sizeof answer, descriptor);
    if (bytes >= 0 && static_cast<std::size_t>(bytes) < sizeof answer) {
        say(connection, "the controller's answer is too short");
        return lost(connection);
    }
    return bytes < 0 ? bytes : 0;
}

// Gives up before there is a connection: the sentence is there, this is the code.
int notConnected(Connection& connection, int code)
{
    disconnect(connection);
    return code;
}

int explainConnect(Connection& connection, const char* path, int error)
{
    struct stat file;
    switch (error) {
    case ENOENT: say(connection, "no controller is running: there is no socket %s", path); break;
    case EACCES: say(connection, "no permission to use the controller's socket %s", path); break;
    case EPROTOTYPE:
        say(connection, "what listens at %s is no controller", path);
        return notConnected(connection, -EPROTO);
    case EAGAIN: say(connection, "the controller at %s does not answer", path); break;
    case ECONNREFUSED:
        if (stat(path, &file) == 0 && !S_ISSOCK(file.st_mode)) {
            say(connection, "%s is no socket of a controller", path);
            return notConnected(connection, -ENOTSOCK);
        }
        say(connection, "no controller is running: nobody listens at %s", path);
        break;
    default: say(connection, "cannot connect to a controller at %s: %s", path, std::strerror(error)); break;
    }
    return notConnected(connection, -error);
}

int greet(Connection& connection, const char* path, int patienceSeconds)
{
    Hello hello = {};
    hello.header = headerOf(Kind::Hello, ++connection.ticket);
    iovec part = {&hello, sizeof hello};
    sendPacket(connection.descriptor, &part, 1);

    pollfd welcome = {connection.descriptor, POLLIN, 0};
    int ready;
    do
        ready = poll(&welcome, 1, patienceSeconds * 1000);
    while (ready < 0 && errno == EINTR);
    char message[kMostMessageBytes];
    Header header;
    ssize_t bytes = -1;
    if (ready > 0)
        bytes = receivePacket(connection.descriptor, message, sizeof message, 0, nullptr);
    if (ready == 0)
        say(connection, "what listens at %s does not answer as a controller does", path);
    else if (bytes < static_cast<ssize_t>(sizeof(Plain)) ||
             !isMessage(message, static_cast<std::size_t>(bytes), header))
        say(connection, "what listens at %s is no controller", path);
    else if (header.kind == Kind::Refused || header.kind == Kind::Stopped) {
        lostWith(connection, message, static_cast<std::size_t>(bytes));
        return header.result < 0 ? header.result : -EPROTO;
    } else if (header.kind == Kind::Hello && header.version == kVersion &&
               bytes >= static_cast<ssize_t>(sizeof(Welcome))) {
        Welcome answer;
        std::memcpy(&answer, message, sizeof answer);
        connection.pageOffset = answer.pageOffset;
        connection.ramBytes = answer.ramBytes;
        return 0;
    } else
        say(connection, "the controller at %s answers in a way that this program does not know", path);
    return notConnected(connection, -EPROTO);
}

} // namespace

bool defaultSocket(char* path, std::size_t bytes)
{
    const char* folder = secure_getenv("XDG_RUNTIME_DIR");
    if (folder == nullptr || folder[0] != '/')
        folder = "/run";
    const int length = std::snprintf(path, bytes, "%s/velmora-mm/controller.sock", folder);
    return length > 0 && static_cast<std::size_t>(length) < bytes;
}

int connectTo(Connection& connection, const char* path, int patienceSeconds)
{
    connection = {};
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::size_t length = std::strlen(path);
    if (length == 0 || length >= sizeof address.sun_path) {
        say(connection,
            length == 0 ? "the controller's socket has no name" : "the name of the controller's socket is too long");
        return length == 0 ? -ENOENT : -ENAMETOOLONG;
    }
    std::memcpy(address.sun_path, path, length);
    connection.descriptor = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (connection.descriptor < 0)
        return explainConnect(connection, path, errno);

    const timeval patience = {patienceSeconds, 0};
    setsockopt(connection.descriptor, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    int result;
    do
        result = connect(connection.descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    while (result != 0 && errno == EINTR);
    if (result != 0)
        return explainConnect(connection, path, errno);
    const timeval none = {};
    setsockopt(connection.descriptor, SOL_SOCKET, SO_SNDTIMEO, &none, sizeof none);
    return greet(connection, path, patienceSeconds);
}

void disconnect(Connection& connection)
{
    if (connection.descriptor >= 0)
        close(connection.descriptor);
    connection.descriptor = -1;
}

int openDevice(Connection& connection, bool sync)
{
    Open request = {};
    request.header.kind = Kind::Open;
    request.flags = sync ? kSync : 0;
    Plain answer;
    const int result = ask(connection, request, answer);
    return result != 0 ? result : answer.header.result;
}

int command(Connection& connection, Call& call)
{
    const std::size_t sent = call.bytes < kMostUserBytes ? call.bytes : kMostUserBytes;
    Command request = {};
    request.header.kind = Kind::Command;
    request.number = call.number;
    request.address = call.address;
    request.bytes = static_cast<std::uint32_t>(sent);
    request.writable = static_cast<std::uint32_t>(call.writable < sent ? call.writable : sent);
    iovec parts[] = {{&request, sizeof request}, {call.user, sent}};
    struct {
        CommandAnswer head;
        char user[kMostUserBytes];
    } answer;
    call.written = 0;
    const int bytes =
        transactParts(connection, request.header, parts, sent == 0 ? 1 : 2, &answer, sizeof answer, nullptr);
    if (bytes < 0)
        return bytes;
    if (static_cast<std::size_t>(bytes) != sizeof answer.head + sent || answer.head.bytes != sent ||
        answer.head.written > request.writable) {
        say(connection, "the controller's answer has not the bytes that were sent");
        return lost(connection);
    }
    if (answer.head.written != 0)
        std::memcpy(call.user, answer.user, answer.head.written);
    call.written = answer.head.written;
    return answer.head.header.result;
}

int map(Connection& connection, std::uint32_t pageOffset, std::uint32_t bytes, bool sync, Grant& grant)
{
    grant = {};
    Map request = {};
    request.header.kind = Kind::Map;
    request.pageOffset = pageOffset;
    request.bytes = bytes;
    request.flags = sync ? kSync : 0;
    MapAnswer answer;
    const int result = ask(connection, request, answer, &grant.descriptor);
    if (result != 0 || answer.header.result != 0 || grant.descriptor < 0) {
        if (grant.descriptor >= 0)
            close(grant.descriptor);
        else if (result == 0 && answer.header.result == 0) {
            say(connection, "the controller granted a mapping and sent no memory");
            return lost(connection);
        }
        grant.descriptor = -1;
        return result != 0 ? result : answer.header.result;
    }
    grant.offset = static_cast<std::uint64_t>(answer.page) << 12;
    grant.bytes = answer.bytes;
    grant.uncached = answer.uncached != 0;
    return 0;
}

int transact(Connection& connection, void* request, std::size_t requestBytes, void* answer, std::size_t room,
             int* descriptor)
{
    iovec part = {request, requestBytes};
    return transactParts(connection, *static_cast<Header*>(request), &part, 1, answer, room, descriptor);
}

int receive(Connection& connection, void* message, std::size_t room, bool wait)
{
    if (connection.descriptor < 0)
        return kNoAnswer;
    const ssize_t bytes = receivePacket(connection.descriptor, message, room, wait ? 0 : MSG_DONTWAIT, nullptr);
    if (bytes < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
        return 0;
    Header header;
    if (bytes <= 0 || !isMessage(message, static_cast<std::size_t>(bytes), header)) {
        say(connection, "the controller is gone: the connection to it has ended");
        return lost(connection);
    }
    if (header.kind == Kind::Refused || header.kind == Kind::Stopped)
        return lostWith(connection, message, static_cast<std::size_t>(bytes));
    return static_cast<int>(bytes);
}

} // namespace velmora::socket_client
