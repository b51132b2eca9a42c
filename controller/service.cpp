#include "controller/service.h"

#include <cerrno>
#include <algorithm>
#include <cstring>
#include <unistd.h>

#include "controller/device.h"
#include "host/machine.h"
#include "kernel/mm/mmi/MM_Interface.h"

namespace velmora::sim {

using namespace protocol;

namespace {

template <class Message> Message read(std::span<const std::byte> packet)
{
    Message message;
    std::memcpy(&message, packet.data(), sizeof message);
    return message;
}

template <class Message> Reply reply(const Message& message, std::span<const std::byte> rest = {})
{
    Reply made;
    made.message.resize(sizeof message + rest.size());
    std::memcpy(made.message.data(), &message, sizeof message);
    if (!rest.empty())
        std::memcpy(made.message.data() + sizeof message, rest.data(), rest.size());
    return made;
}

Reply plain(const Header& request, std::int32_t result)
{
    return reply(Plain{headerOf(request.kind, request.ticket, result)});
}

std::span<const std::byte> textOf(const std::string& text)
{
    return std::as_bytes(std::span(text)).first(std::min(text.size(), kMostText));
}

// Bytes that a request of this kind has, without those that may follow; 0: there is no such kind.
std::size_t requestBytes(Kind kind)
{
    switch (kind) {
    case Kind::Hello: return sizeof(Hello);
    case Kind::Open: return sizeof(Open);
    case Kind::Command: return sizeof(Command);
    case Kind::Map: return sizeof(Map);
    case Kind::FollowLog: return sizeof(FollowLog);
    case Kind::Status: return sizeof(Status);
    case Kind::Fail: return sizeof(Fail);
    default: return 0;
    }
}

// Why a packet that begins with a whole header of this version is no request, or nothing.
std::optional<std::string> malformed(const Header& header, std::span<const std::byte> packet)
{
    const std::size_t least = requestBytes(header.kind);
    if (least == 0)
        return "there is no request of kind " + std::to_string(static_cast<unsigned>(header.kind));
    std::size_t bytes = least;
    if (header.kind == Kind::Command && packet.size() >= least) {
        const Command request = read<Command>(packet);
        if (request.bytes > kMostUserBytes)
            return "a command brings " + std::to_string(kMostUserBytes) + " bytes of user memory at most, not " +
                   std::to_string(request.bytes);
        if (request.writable > request.bytes || (request.bytes != 0 && request.address != kUserMemory))
            return "a command's bytes of user memory are not where its address says";
        bytes += request.bytes;
    }
    if (packet.size() != bytes)
        return "the request has " + std::to_string(packet.size()) + " bytes, where it should have " +
               std::to_string(bytes);
    return std::nullopt;
}

} // namespace

Service::Service(const ServiceOptions& options) : options_(options)
{
    bootController(options.areaStart, options.areaEnd, options.ramBytes);
    machine().faults.refuseRemap = options.refuseMappings;
    machine().faults.touchLimit = options.mostAccesses;
    for (std::string& message : machine().takeLog())
        log_.append(std::move(message));
}

Reply Service::refusal(std::uint32_t ticket, int code, const std::string& sentence)
{
    Reply made = reply(Plain{headerOf(Kind::Refused, ticket, code)}, textOf(sentence));
    made.closes = true;
    return made;
}

Reply Service::stop(std::uint32_t ticket, const std::string& sentence)
{
    Reply made = reply(Plain{headerOf(Kind::Stopped, ticket, -EIO)}, textOf(sentence));
    made.closes = made.stopped = true;
    return made;
}

// Runs an entry of the manager. What it printed goes to the log; a report when it did not return.
template <class Entry>
std::optional<std::string> Service::run(const std::string& name, std::int32_t& result, Entry entry)
{
    const Outcome outcome = machine().run([&] { return static_cast<U32>(entry()); });
    for (std::string& message : machine().takeLog())
        log_.append(std::move(message));
    ++commands_;
    if (!outcome.returned())
        return "the simulated controller stopped: " + outcome.describe(name);
    result = static_cast<std::int32_t>(outcome.value);
    return std::nullopt;
}

Reply Service::answer(Peer& peer, std::span<const std::byte> packet, bool complete)
{
    if (!complete || packet.size() < sizeof(Header))
        return refusal(0, -EPROTO, "what was sent is no request to a controller");
    const auto header = read<Header>(packet);
    if (header.magic != kMagic)
        return refusal(0, -EPROTO, "what was sent is no request to a controller");
    if (header.version != kVersion)
        return refusal(header.ticket, -EPROTONOSUPPORT,
                       "the controller speaks version " + std::to_string(kVersion) +
                           " of its protocol, the program version " + std::to_string(header.version));
    if (const auto why = malformed(header, packet))
        return refusal(header.ticket, -EPROTO, *why);
    if (!peer.welcome && header.kind != Kind::Hello)
        return refusal(header.ticket, -EPROTO, "a connection begins with a hello");
    if (peer.followsLog)
        return refusal(header.ticket, -EPROTO, "a connection that follows the log takes no request");
    return answerKnown(peer, header, packet);
}

Reply Service::answerKnown(Peer& peer, const Header& header, std::span<const std::byte> packet)
{
    switch (header.kind) {
    case Kind::Hello: return hello(peer, read<Hello>(packet));
    case Kind::Open: return open(peer, read<Open>(packet));
    case Kind::Command: return command(read<Command>(packet), packet.subspan(sizeof(Command)));
    case Kind::Map: return map(read<Map>(packet));
    case Kind::FollowLog: return followLog(peer, read<FollowLog>(packet));
    case Kind::Status: return status(read<Status>(packet));
    default: return fail(read<Fail>(packet));
    }
}

Reply Service::hello(Peer& peer, const Hello& request)
{
    peer.welcome = true;
    return reply(Welcome{headerOf(Kind::Hello, request.header.ticket), kPageOffset, Machine::ramBytes()});
}

Reply Service::open(Peer& peer, const Open& request)
{
    std::int32_t result = 0;
    if (const auto fault = faultOf(kFailOpen))
        return plain(request.header, *fault);
    if (const auto report = run("open", result, [] { return Velmora_MM_open(); }))
        return stop(request.header.ticket, *report);
    if (result == 0)
        ++peer.opens;
    return plain(request.header, result);
}

Reply Service::leave(Peer& peer)
{
    for (; peer.opens > 0; --peer.opens) {
        std::int32_t result = 0;
        if (const auto report = run("release", result, [] { return Velmora_MM_release(); }))
            return stop(0, *report);
    }
    return {};
}

Reply Service::command(const Command& request, std::span<const std::byte> user)
{
    CommandAnswer answer = {headerOf(Kind::Command, request.header.ticket), request.bytes, 0};
    if (const auto fault = faultOf(request.number)) {
        answer.header.result = *fault;
        return reply(answer, user);
    }
    // Only the bytes that came are there: copies end at the first that did not.
    std::copy(user.begin(), user.end(), reinterpret_cast<std::byte*>(Machine::at(kScratch)));
    machine().faults.copyInStopsAt = request.bytes;
    machine().faults.copyOutStopsAt = request.writable;
    if (const auto report = run("ioctl " + commandName(request.number), answer.header.result,
                                [&] { return Velmora_MM_ioctl(request.number, request.address); }))
        return stop(request.header.ticket, *report);
    answer.written = machine().copiedOut();
    return reply(answer, std::as_bytes(std::span(Machine::at(kScratch), user.size())));
}

Reply Service::map(const Map& request)
{
    constexpr U32 pageBytes = 1U << MMP_PAGE_SHIFT;
    MapAnswer answer = {headerOf(Kind::Map, request.header.ticket), 0, 0, 0};
    if (request.bytes == 0 || request.bytes % pageBytes != 0) { // no kernel hands such a request on
        answer.header.result = -EINVAL;
        return reply(answer);
    }
    if (const auto fault = faultOf(kFailMap)) {
        answer.header.result = *fault;
        return reply(answer);
    }
    MapTarget target;
    TMMMapRequest wanted{};
    wanted.ulPgOff = request.pageOffset;
    wanted.ulEnd = wanted.ulStart + request.bytes;
    wanted.fSync = (request.flags & kSync) != 0;
    wanted.pvKernel = &target;
    if (const auto report = run("mmap", answer.header.result, [&] { return Velmora_MM_mmap(&wanted); }))
        return stop(request.header.ticket, *report);
    if (answer.header.result != 0)
        return reply(answer);
    answer.page = target.pfn;
    answer.bytes = target.bytes;
    answer.uncached = target.protection == MM_PROT_UNCACHED;
    Reply granted = reply(answer);
    granted.descriptor = machine().ramFile();
    return granted;
}

Reply Service::followLog(Peer& peer, const FollowLog& request)
{
    peer.followsLog = true;
    peer.log = LogReader((request.flags & kFromStart) != 0 ? log_.first() : log_.end());
    return plain(request.header, 0);
}

Reply Service::status(const Status& request)
{
    return reply(StatusAnswer{headerOf(Kind::Status, request.header.ticket), kPageOffset, Machine::ramBytes(), memstart,
                              memend, clients_, static_cast<std::uint32_t>(getpid()), commands_, log_.end()});
}

Reply Service::fail(const Fail& request)
{
    if (!options_.clientsMayFault)
        return plain(request.header, -EPERM);
    if (request.number == kFailNothing)
        options_.faults.clear();
    else if (options_.faults.size() == 1000)
        return plain(request.header, -ENOSPC);
    else
        options_.faults.push_back({request.number, request.nth, request.answer});
    return plain(request.header, 0);
}

// The answer of the first fault that this call meets; every fault on its command counts the call.
std::optional<std::int32_t> Service::faultOf(std::uint32_t number)
{
    std::optional<std::int32_t> answer;
    std::erase_if(options_.faults, [&](ServiceFault& fault) {
        if (fault.number != number)
            return false;
        const bool always = fault.nth == 0;
        const bool met = always || --fault.nth == 0;
        if (met && !answer)
            answer = fault.answer;
        return met && !always;
    });
    return answer;
}

std::vector<std::byte> Service::logMessage(const Peer& peer) const
{
    if (!peer.followsLog || !peer.log.behind(log_))
        return {};
    LogMessage head = {headerOf(Kind::LogMessage, 0), 0, 0};
    head.number = peer.log.next(log_, head.lost);
    return reply(head, textOf(log_.at(head.number))).message;
}

void Service::logMessageSent(Peer& peer)
{
    std::uint64_t lost = 0;
    peer.log.took(peer.log.next(log_, lost));
}

} // namespace velmora::sim
