// What crosses the controller's socket: a private header of library, controller and preload library, all of one version.
//
// The socket is of type SOCK_SEQPACKET: one packet is one message. Every message begins with a Header; fields are
// little-endian, of fixed width and naturally aligned, the same for 32-bit and 64-bit programs.
//
// A client sends Hello first and then one request at a time; the controller answers each, in order, with the request's
// kind and ticket. What it does not understand it answers with Kind::Refused, a negative code and a sentence, and closes
// the connection. A command that the manager does not survive is answered with Kind::Stopped and a sentence; every other
// client finds the same message before its connection ends. A connection may be shared by nobody who would read another's
// answers.
//
//   Hello      first of all; the answer says which addresses the controller has
//   Open       the device's open entry; its release entry runs when the connection ends, however it ends
//   Command    the device's control entry on the bytes of user memory that follow the request
//   Map        the device's mapping entry; a yes carries the descriptor of the controller's RAM (SCM_RIGHTS), to be mapped
//              at the answer's page number
//   FollowLog  from now on the connection carries kernel messages (Kind::LogMessage), and takes no request any more
//   Status     what the controller has and did
//   Fail       a fault on demand, where the controller lets its clients ask for one
#pragma once

#include <cstddef>
#include <cstdint>

#include <velmora_mm/velmora_mm.h>

namespace velmora::protocol {

inline constexpr std::uint32_t kMagic = 0x434D4D56; // "VMMC"
inline constexpr std::uint16_t kVersion = 1;

// Where the bytes lie that a command brings along, as the manager sees them. A command may name any other address and
// bring no bytes: nothing can be copied there, and above the user's part of the address space access is refused.
inline constexpr std::uint32_t kUserMemory = 0x10000000;
inline constexpr std::uint32_t kNoUserMemory = 0xFFFFFFFF; // an address that no user memory can have
inline constexpr std::size_t kMostUserBytes = 88;          // the largest record
static_assert(kMostUserBytes == sizeof(MM_TGetMSTInfo) && kMostUserBytes >= sizeof(MM_TSegInfoFromApp));

// The controller's RAM is a memory file of this name, as a process's list of mappings shows it.
inline constexpr const char* kRamName = "velmora-ram";

inline constexpr std::size_t kMostText = 2048; // of a message's text, no zero byte at its end

enum class Kind : std::uint16_t {
    Hello = 1,
    Open = 2,
    Command = 3,
    Map = 4,
    FollowLog = 5,
    Status = 6,
    Fail = 7,
    LogMessage = 0x100, // the controller's own messages from here on
    Refused = 0x101,
    Stopped = 0x102
};

struct Header {
    std::uint32_t magic;
    std::uint16_t version;
    Kind kind;
    std::uint32_t ticket; // the answer has the request's
    std::int32_t result;  // answers: 0, a code of the manager (above 0) or a negative kernel code; requests: 0
};

struct Hello {
    Header header;
};

struct Welcome {
    Header header;
    std::uint32_t pageOffset; // kernel virtual address of the first byte of RAM
    std::uint32_t ramBytes;
};

inline constexpr std::uint32_t kSync = 1; // flags of Open and Map: the descriptor has O_SYNC

struct Open {
    Header header;
    std::uint32_t flags;
};

struct Command {
    Header header;
    std::uint32_t number;   // as ioctl takes it
    std::uint32_t address;  // kUserMemory, or one without bytes
    std::uint32_t bytes;    // that follow, at most kMostUserBytes: copies in end there
    std::uint32_t writable; // of them, from the first on: copies out end there
};

struct CommandAnswer {
    Header header;
    std::uint32_t bytes;   // that follow: as many as were sent
    std::uint32_t written; // of them, from the first on: what the manager copied out
};

struct Map {
    Header header;
    std::uint32_t pageOffset; // of the request: a kernel virtual address in pages
    std::uint32_t bytes;      // whole pages, above 0
    std::uint32_t flags;
};

// result 0: the packet carries one descriptor.
struct MapAnswer {
    Header header;
    std::uint32_t page;     // of the RAM behind the descriptor
    std::uint32_t bytes;    // to map there
    std::uint32_t uncached; // 1: the controller's program would bypass the cache; here the memory is the same
};

inline constexpr std::uint32_t kFromStart = 1; // flags of FollowLog: what the controller still has comes first

struct FollowLog {
    Header header;
    std::uint32_t flags;
};

struct LogMessage {
    Header header;
    std::uint64_t number; // of this message, the first since power-on is 0; behind it stand the text's bytes
    std::uint64_t lost;   // messages before this one that came too fast for this follower
};

struct Status {
    Header header;
};

struct StatusAnswer {
    Header header;
    std::uint32_t pageOffset;
    std::uint32_t ramBytes;
    std::uint32_t areaStart; // the managed area, kernel virtual addresses
    std::uint32_t areaEnd;
    std::uint32_t clients;
    std::uint32_t process;     // the controller's
    std::uint64_t commands;    // that were run
    std::uint64_t logMessages; // that were printed; the next one has this number
};

// What can fail beside the device's commands, in Fail::number.
inline constexpr std::uint32_t kFailOpen = 0xFFFF0001;
inline constexpr std::uint32_t kFailMap = 0xFFFF0002;
inline constexpr std::uint32_t kFailNothing = 0xFFFFFFFF; // forget every fault that was asked for

struct Fail {
    Header header;
    std::uint32_t number; // a device command, or one of the above
    std::uint32_t nth;    // the call that fails, counted from now, from 1; 0: every one
    std::int32_t answer;  // which it is given without reaching the manager
};

// Answer to Fail, Open, FollowLog; beginning of Refused and Stopped, whose text follows.
struct Plain {
    Header header;
};

inline constexpr std::size_t kMostMessageBytes = sizeof(LogMessage) + kMostText;

constexpr Header headerOf(Kind kind, std::uint32_t ticket, std::int32_t result = 0)
{
    return {kMagic, kVersion, kind, ticket, result};
}

#define VELMORA_LAYOUT(type, bytes, field, offset) \
    static_assert(sizeof(type) == (bytes) && offsetof(type, field) == (offset))
VELMORA_LAYOUT(Header, 16, kind, 6);
VELMORA_LAYOUT(Header, 16, result, 12);
VELMORA_LAYOUT(Hello, 16, header, 0);
VELMORA_LAYOUT(Welcome, 24, ramBytes, 20);
VELMORA_LAYOUT(Open, 20, flags, 16);
VELMORA_LAYOUT(Command, 32, address, 20);
VELMORA_LAYOUT(Command, 32, writable, 28);
VELMORA_LAYOUT(CommandAnswer, 24, written, 20);
VELMORA_LAYOUT(Map, 28, bytes, 20);
VELMORA_LAYOUT(MapAnswer, 28, uncached, 24);
VELMORA_LAYOUT(FollowLog, 20, flags, 16);
VELMORA_LAYOUT(LogMessage, 32, lost, 24);
VELMORA_LAYOUT(Status, 16, header, 0);
VELMORA_LAYOUT(StatusAnswer, 56, commands, 40);
VELMORA_LAYOUT(StatusAnswer, 56, logMessages, 48);
VELMORA_LAYOUT(Fail, 28, answer, 24);
VELMORA_LAYOUT(Plain, 16, header, 0);
#undef VELMORA_LAYOUT

} // namespace velmora::protocol
