// One connection to a controller's socket, for programs of any word size. Stands on the C library alone: no exception, no
// dynamic memory, no global state, so that it also serves inside a program that knows nothing of it (preload).
//
// A Connection is used by one thread at a time, and not on both sides of a fork: answers would go to whoever reads first.
#pragma once

#include <cstddef>
#include <cstdint>

#pragma GCC visibility push(hidden) // no part of the shared library's ABI
namespace velmora::socket_client {

// The connection is as good as its descriptor: -1 when there is none. report is a sentence on what went wrong last, where
// a call gave the code of a failed connection.
struct Connection {
    int descriptor = -1;
    std::uint32_t ticket = 0;
    std::uint32_t pageOffset = 0; // the controller's, from its welcome
    std::uint32_t ramBytes = 0;
    char report[256] = {};
};

// Result of a call that did not reach the manager, or whose answer did not come back: the controller is gone or does
// not speak this protocol. report says more. Never an answer of the manager.
inline constexpr int kNoAnswer = -32; // -EPIPE

// Where a controller listens unless something else is said: $XDG_RUNTIME_DIR/velmora-mm/controller.sock, without that
// variable /run/velmora-mm/controller.sock. False when it does not fit.
bool defaultSocket(char* path, std::size_t bytes);

// How long a controller may be busy before it greets; something else that listens may never answer.
inline constexpr int kWelcomeSeconds = 10;

// Connects to the socket at path and exchanges hellos: 0, or a negative code with a sentence in report: -ENOENT (nothing
// there), -EACCES (no permission), -ECONNREFUSED (nobody listens), -EPROTO (no controller), -EPROTONOSUPPORT (a controller of
// another version), -EUSERS (it has too many clients) and what else connect() gives. The descriptor is closed at exec.
int connectTo(Connection& connection, const char* path, int patienceSeconds = kWelcomeSeconds);
void disconnect(Connection& connection);

// The device's open entry: its answer, or kNoAnswer. Its release entry runs when the last descriptor of this connection,
// in whatever process, is closed.
int openDevice(Connection& connection, bool sync);

// One command. user: the bytes of user memory at the argument's address that can be read, of which the first `writable` can
// be written; more than the largest record are not sent. Returns the manager's answer, and in `written` how many bytes from
// the first on it copied out; those have come back into user. address: see protocol::Command.
struct Call {
    std::uint32_t number = 0;
    std::uint32_t address = 0x10000000; // protocol::kUserMemory
    void* user = nullptr;
    std::size_t bytes = 0;
    std::size_t writable = 0;
    std::size_t written = 0; // out
};
int command(Connection& connection, Call& call);

// Asks for a mapping of the device at a kernel virtual address in pages. 0: grant.descriptor (closed at exec, the caller's
// to close) is to be mapped shared at grant.offset, for grant.bytes. Negative: the manager's answer, or kNoAnswer.
struct Grant {
    int descriptor = -1;
    std::uint64_t offset = 0;
    std::uint32_t bytes = 0;
    bool uncached = false;
};
int map(Connection& connection, std::uint32_t pageOffset, std::uint32_t bytes, bool sync, Grant& grant);

// One request and its answer, for what the calls above do not cover. The request begins with a protocol::Header, whose
// magic, version and ticket are filled in; the answer is cut to its room. Number of bytes of the answer, or kNoAnswer.
// descriptor: receives one that came along, -1 without; nullptr: none is expected.
int transact(Connection& connection, void* request, std::size_t requestBytes, void* answer, std::size_t room,
             int* descriptor = nullptr);

// What the controller has sent: the next message, without waiting when `wait` is false. Number of bytes, 0 when there is
// none yet, or kNoAnswer. For connections that follow the log.
int receive(Connection& connection, void* message, std::size_t room, bool wait);

} // namespace velmora::socket_client
#pragma GCC visibility pop
