#include "processes.hpp"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <map>
#include <poll.h>
#include <system_error>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace printjob {

// Wire ----------------------------------------------------------------------------------------------

Wire::~Wire()
{
    close(descriptor_);
}

bool Wire::send(const Message& message) const
{
    ssize_t sent;
    do
        sent = ::send(descriptor_, &message, sizeof message, MSG_NOSIGNAL);
    while (sent < 0 && errno == EINTR);
    return sent == sizeof message;
}

bool Wire::sendText(const std::string& text) const
{
    for (std::size_t done = 0; done < text.size();) {
        Message piece{.kind = Kind::Text};
        piece.bytes = static_cast<std::uint32_t>(text.copy(piece.text, sizeof piece.text, done));
        if (!send(piece))
            return false;
        done += piece.bytes;
    }
    return true;
}

bool Wire::sendBand(const Band& band) const
{
    return send({.kind = Kind::Band, .address = band.address, .bytes = band.bytes, .inHeap = band.inHeap});
}

bool Wire::receive(Message& message) const
{
    ssize_t got;
    do
        got = recv(descriptor_, &message, sizeof message, 0);
    while (got < 0 && errno == EINTR);
    return got == sizeof message && message.bytes <= (message.kind == Kind::Text ? sizeof message.text : UINT32_MAX);
}

// Party ---------------------------------------------------------------------------------------------

namespace {

constexpr int kFirstInherited = 3;

// The whole of a party's process.
[[noreturn]] void runParty(int descriptor, const std::function<void(const Wire&)>& work)
{
    dup2(descriptor, kFirstInherited);
    closefrom(kFirstInherited + 1); // job handling's own descriptors, the other party's wire, what keeps the controller
    const Wire wire(kFirstInherited);
    try {
        work(wire);
    } catch (const std::exception& error) {
        wire.sendText(error.what());
        wire.send({.kind = Kind::Failed});
        _exit(1);
    }
    _exit(0);
}

} // namespace

Party::Party(std::string name, std::chrono::seconds patience, const std::function<void(const Wire&)>& work)
    : name_(std::move(name)), patience_(patience)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        throw std::system_error(errno, std::generic_category(), "cannot start the " + name_);
    wire_ = std::make_unique<Wire>(ends[0]);
    const timeval limit = {static_cast<time_t>(patience.count()), 0};
    for (const int direction : {SO_SNDTIMEO, SO_RCVTIMEO})
        setsockopt(ends[0], SOL_SOCKET, direction, &limit, sizeof limit);
    std::fflush(stdout); // or it would be there twice
    process_ = fork();
    if (process_ == 0)
        runParty(ends[1], work);
    const int error = errno;
    close(ends[1]);
    if (process_ < 0)
        throw std::system_error(error, std::generic_category(), "cannot start the " + name_);
}

// Nothing but the process holds the other end of the wire: when it ends, reading does.
Party::~Party()
{
    if (process_ <= 0)
        return;
    hangUp();
    Message message;
    while (receiveLast(message)) {
    }
    waitForEnd();
}

bool Party::receiveLast(Message& message)
{
    if (wire_->receive(message))
        return true;
    if (!hasEnded())
        signal(SIGKILL);
    return false;
}

bool Party::hasEnded() const
{
    pollfd end = {wire_->descriptor(), 0, 0};
    return poll(&end, 1, 0) > 0 && (end.revents & POLLHUP) != 0;
}

int Party::waitForEnd()
{
    int status = 0;
    while (waitpid(process_, &status, 0) < 0 && errno == EINTR) {
    }
    process_ = -1;
    return status;
}

void Party::giveUp()
{
    signal(SIGKILL);
    waitForEnd();
    throw PartyLost(name_ + " gave no sign of life for " + std::to_string(patience_.count()) + " s and was ended");
}

void Party::lost()
{
    if (!hasEnded())
        giveUp();
    const int status = process_ > 0 ? waitForEnd() : 0;
    throw PartyLost(name_ + (WIFSIGNALED(status) ? " was ended by signal " + std::to_string(WTERMSIG(status))
                                                 : " ended with status " + std::to_string(WEXITSTATUS(status))));
}

void Party::hangUp()
{
    shutdown(wire_->descriptor(), SHUT_WR);
}

void Party::signal(int number)
{
    kill(process_, number);
}

void Party::send(const Message& message)
{
    if (!wire_->send(message))
        lost();
}

void Party::send(const StoredPage& page)
{
    bool heard = wire_->sendText(page.header.text);
    for (const Band& band : page.bands)
        heard = heard && wire_->sendBand(band);
    if (!heard)
        lost();
}

Message Party::receive()
{
    Message message;
    if (!wire_->receive(message))
        lost();
    if (message.kind == Kind::Text)
        text_.append(message.text, message.bytes);
    if (message.kind == Kind::Failed)
        throw std::runtime_error(takeText());
    return message;
}

// What the processes do -----------------------------------------------------------------------------

void processRasters(const Wire& wire, const std::string& device, const Layout& layout, const Order& order)
{
    Message request;
    if (!wire.receive(request))
        return;
    RasterProcessor processor(velmora::openNode(device), layout, request.number);
    while (wire.receive(request)) {
        StoredPage page{request.page, static_cast<std::uint8_t>(request.number), {}, {}};
        processor.store(order.rasters.at(page.number - 1), page, [&](const Band& band) { wire.sendBand(band); });
        wire.sendText(page.header.text);
        wire.send({.kind = Kind::Stored,
                   .page = page.number,
                   .bytes = static_cast<std::uint32_t>(page.header.rowBytes),
                   .width = page.header.width,
                   .height = page.header.height});
    }
}

void writeCopies(const Wire& wire, const std::string& device, const Order& order)
{
    Message request;
    if (!wire.receive(request))
        return;
    CollationCopy collation(velmora::openNode(device), request.address);
    wire.send({.kind = Kind::Copies, .number = collation.copies()});
    std::map<unsigned, StoredPage> pages; // as far as they were described
    StoredPage next{};
    while (wire.receive(request)) {
        if (request.kind == Kind::Text)
            next.header.text.append(request.text, request.bytes);
        else if (request.kind == Kind::Band)
            next.bands.push_back(bandIn(request));
        if (request.kind != Kind::Write)
            continue;
        if (!next.bands.empty() || !next.header.text.empty())
            pages[request.page] = std::exchange(next, {});
        collation.write(pages.at(request.page), order.file(request.number, request.page));
        wire.send({.kind = Kind::Written, .page = request.page, .number = request.number});
    }
}

} // namespace printjob
