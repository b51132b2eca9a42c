#include "fuzz/protocol.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

#include "controller/service.h"
#include "fuzz/open_states.h"
#include "host/machine.h"

namespace velmora::fuzz {

using namespace protocol;
using sim::Peer;
using sim::Reply;
using sim::Service;

namespace {

// The record's first byte: bits 0 to 1 which of the connections, bit 2 the header is made good (its kind is bits 3 to 5),
// bit 6 a command's counts are made good, bit 7 the packet came with descriptors.
constexpr unsigned kPeers = 4;

struct Packet {
    unsigned peer;
    bool complete;
    std::vector<std::byte> bytes;
};

// The default build trusts the handle of these commands and looks wherever it leads: in memory of the kernel's, there as here.
void keepInTheTable(std::vector<std::byte>& bytes)
{
    constexpr std::size_t end = sizeof(Command) + sizeof(U32);
    if (bytes.size() < end)
        return;
    Command command;
    std::memcpy(&command, bytes.data(), sizeof command);
    U32 handle;
    std::memcpy(&handle, bytes.data() + sizeof command, sizeof handle);
    if (command.number != MM_CMD_DISPLAY_MST || handle % 256 != MM_DISPLAY_ALL)
        handle %= MAX_SEGTABLE_SIZE;
    if (command.number == MM_CMD_CHECK_SEGMENT || command.number == MM_CMD_DISPLAY_MST)
        std::memcpy(bytes.data() + sizeof command, &handle, sizeof handle);
}

Packet nextPacket(const std::uint8_t*& data, std::size_t& size)
{
    const std::uint8_t what = data[0];
    const std::size_t wanted = data[1] | std::size_t(data[2]) << 8;
    const std::size_t bytes = std::min(wanted % 256, size - 3);
    Packet packet{what % kPeers, (what & 0x80) == 0, {}};
    const auto* const start = reinterpret_cast<const std::byte*>(data) + 3;
    packet.bytes.assign(start, start + bytes);
    data += 3 + bytes;
    size -= 3 + bytes;
    if ((what & 4) != 0) {
        packet.bytes.resize(std::max(packet.bytes.size(), sizeof(Header)));
        const Header header = headerOf(static_cast<Kind>(1 + (what >> 3) % 8), what);
        std::memcpy(packet.bytes.data(), &header, sizeof header);
    }
    if ((what & 0x40) != 0 && packet.bytes.size() >= sizeof(Command)) {
        Command command;
        std::memcpy(&command, packet.bytes.data(), sizeof command);
        command.number = MM_CMD_FIRST + command.number % (MM_CMD_COUNT + 1);
        command.address = kUserMemory;
        command.bytes = command.writable = static_cast<std::uint32_t>(packet.bytes.size() - sizeof command);
        std::memcpy(packet.bytes.data(), &command, sizeof command);
    }
    if (isLeftOut(Open::HandleBeyondTable))
        keepInTheTable(packet.bytes);
    return packet;
}

// What is wrong with an answer.
std::string mistakeIn(const Reply& reply, const Packet& packet, bool welcomed)
{
    if (reply.message.size() < sizeof(Header) || reply.message.size() > kMostMessageBytes)
        return "an answer of " + std::to_string(reply.message.size()) + " bytes";
    Header answer;
    std::memcpy(&answer, reply.message.data(), sizeof answer);
    if (answer.magic != kMagic || answer.version != kVersion)
        return "an answer without a good header";
    const bool refused = answer.kind == Kind::Refused;
    if (refused != (reply.closes && !reply.stopped) || (refused && answer.result >= 0))
        return "a refusal that does not end the connection, or an end without one";
    if (reply.stopped != (answer.kind == Kind::Stopped))
        return "an end of the controller without a report, or a report without an end";
    if (refused)
        return "";
    Header asked;
    std::memcpy(&asked, packet.bytes.data(), sizeof asked);
    if (!packet.complete || asked.magic != kMagic || asked.version != kVersion)
        return "a packet that is no request was not refused";
    if (!welcomed && asked.kind != Kind::Hello)
        return "a request before a hello was not refused";
    if (reply.stopped && MM_Guarded)
        return "a command that the guarded build did not survive";
    if (reply.stopped)
        return asked.kind == Kind::Command || asked.kind == Kind::Map
                   ? ""
                   : "something else than a command ended the controller";
    if (answer.kind != asked.kind || answer.ticket != asked.ticket)
        return "an answer to something else";
    if ((reply.descriptor >= 0) != (asked.kind == Kind::Map && answer.result == 0))
        return "memory without a granted mapping, or the other way round";
    return "";
}

// What follows the log reads now and then.
std::string mistakeInLog(Service& service, Peer& peer, unsigned most)
{
    for (std::vector<std::byte> message; most > 0 && !(message = service.logMessage(peer)).empty(); --most) {
        if (message.size() < sizeof(LogMessage) || message.size() > kMostMessageBytes)
            return "a log message of " + std::to_string(message.size()) + " bytes";
        service.logMessageSent(peer);
    }
    return "";
}

sim::ServiceOptions smallController()
{
    sim::ServiceOptions options;
    options.ramBytes = 16U << 20;
    options.areaStart = 0x94100000;
    options.areaEnd = 0x94800000;
    options.clientsMayFault = true;
    options.mostAccesses = 200'000;
    return options;
}

} // namespace

ProtocolVerdict playProtocol(const std::uint8_t* data, std::size_t size)
{
    Service service(smallController());
    std::array<Peer, kPeers> peers;
    ProtocolVerdict verdict;
    while (size >= 3 && verdict.mistake.empty() && !verdict.stopped) {
        const Packet packet = nextPacket(data, size);
        Peer& peer = peers[packet.peer];
        const bool welcomed = peer.welcome;
        const Reply reply = service.answer(peer, packet.bytes, packet.complete);
        ++verdict.packets;
        verdict.mistake = mistakeIn(reply, packet, welcomed);
        verdict.stopped = reply.stopped;
        if (verdict.mistake.empty())
            verdict.mistake = mistakeInLog(service, peer, packet.peer);
        if (reply.closes && !reply.stopped) {
            service.leave(peer);
            peer = Peer();
        }
    }
    if (!verdict.mistake.empty() || verdict.stopped)
        return verdict;
    Peer fresh;
    const Hello hello{headerOf(Kind::Hello, 1)};
    const Reply welcome = service.answer(fresh, std::as_bytes(std::span(&hello, 1)));
    if (welcome.message.size() != sizeof(Welcome) || !fresh.welcome)
        verdict.mistake = "afterwards nobody is welcome any more";
    return verdict;
}

} // namespace velmora::fuzz
