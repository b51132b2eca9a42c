// The controller behind its socket, without the socket: what each message of lib/socket_protocol.hpp does and is answered.
// Any bytes may come; none of them ends the service but a command that the manager does not survive.
//
// One service for each process, as there is one machine. Used by one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "controller/kernel_log.h"
#include "lib/socket_protocol.hpp"

namespace velmora::sim {

// A call that is answered without reaching the manager.
struct ServiceFault {
    std::uint32_t number; // a device command, protocol::kFailOpen or kFailMap
    std::uint32_t nth;    // the call that fails, counted from now, from 1; 0: every one
    std::int32_t answer;
};

struct ServiceOptions {
    std::uint32_t ramBytes = 256U << 20;
    TAddr areaStart = 0x95000000; // the managed area, as bootController() takes it
    TAddr areaEnd = 0x9E000000;
    std::vector<ServiceFault> faults;
    bool refuseMappings = false;            // the kernel maps nothing, whatever the manager says
    bool clientsMayFault = false;           // a client may ask for faults
    unsigned long mostAccesses = 1UL << 28; // a command that makes more is taken for endless
};

// What the service knows of a connection.
struct Peer {
    bool welcome = false;
    unsigned opens = 0; // of the device
    bool followsLog = false;
    LogReader log;
};

struct Reply {
    std::vector<std::byte> message;
    int descriptor = -1;  // to be sent along; stays the machine's
    bool closes = false;  // the connection ends after the message
    bool stopped = false; // the controller stands still: message is the report for everyone
};

class Service
{
public:
    // Boots the controller. Throws as bootController() does.
    explicit Service(const ServiceOptions& options);

    // Answers a packet. complete: it came whole, and without descriptors.
    Reply answer(Peer& peer, std::span<const std::byte> packet, bool complete = true);
    // The connection has ended: the device's release entry runs for each of its opens.
    Reply leave(Peer& peer);

    // The next message for a follower of the log; empty when it has all. sent() then moves it on.
    std::vector<std::byte> logMessage(const Peer& peer) const;
    void logMessageSent(Peer& peer);
    const KernelLog& log() const { return log_; }

    void setClients(std::size_t count) { clients_ = static_cast<std::uint32_t>(count); }

    // Refused and Stopped: a negative code and a sentence.
    static Reply refusal(std::uint32_t ticket, int code, const std::string& sentence);
    static Reply stop(std::uint32_t ticket, const std::string& sentence);

private:
    Reply answerKnown(Peer& peer, const protocol::Header& header, std::span<const std::byte> packet);
    Reply hello(Peer& peer, const protocol::Hello& request);
    Reply open(Peer& peer, const protocol::Open& request);
    Reply command(const protocol::Command& request, std::span<const std::byte> user);
    Reply map(const protocol::Map& request);
    Reply followLog(Peer& peer, const protocol::FollowLog& request);
    Reply status(const protocol::Status& request);
    Reply fail(const protocol::Fail& request);

    template <class Entry> std::optional<std::string> run(const std::string& name, std::int32_t& result, Entry entry);
    std::optional<std::int32_t> faultOf(std::uint32_t number);

    ServiceOptions options_;
    KernelLog log_;
    std::uint32_t clients_ = 0;
    std::uint64_t commands_ = 0;
};

} // namespace velmora::sim
