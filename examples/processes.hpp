// The raster processor and the collation copy as processes of their own, and what they and job handling say to each
// other. Pages do not travel: a message names addresses of the managed memory, and each party maps them itself.
//
//   job handling      raster processor            job handling      collation copy
//     Begin  --------->                             Begin  --------->
//     Store  --------->                                   <---------  Copies
//           <---------  Band ...                    Text ... ------->
//           <---------  Text ...                    Band ... ------->
//           <---------  Stored                      Write  --------->
//                                                         <---------  Written
//
// A party that cannot go on sends Text ... and Failed, and ends. It ends as well when job handling hangs up. One that owes an
// answer and says nothing for long (stopped, or caught in an endless loop) is ended by force, and lost.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include <sys/types.h>

#include "job.hpp"

namespace printjob {

enum class Kind : std::uint32_t { Begin, Store, Band, Text, Stored, Copies, Write, Written, Failed };

struct Message {
    Kind kind = Kind::Begin;
    std::uint32_t page = 0;
    std::uint32_t number = 0;  // Begin: the page segment. Store: the owner. Copies, Write, Written: copies, which copy
    std::uint32_t address = 0; // Begin: the job ticket. Band
    std::uint32_t bytes = 0;   // Band. Text: how many of text. Stored: in a row
    std::uint32_t inHeap = 0;  // Band
    std::uint32_t width = 0;   // Stored
    std::uint32_t height = 0;
    char text[32] = {}; // a piece of what is to be appended
};
static_assert(sizeof(Message) == 64);

inline Band bandIn(const Message& message)
{
    return {message.address, message.bytes, message.inHeap != 0};
}

// One end of a conversation.
class Wire
{
public:
    explicit Wire(int descriptor) : descriptor_(descriptor) {}
    Wire(const Wire&) = delete;
    Wire& operator=(const Wire&) = delete;
    ~Wire();

    // False when the other side is gone.
    bool send(const Message& message) const;
    bool sendText(const std::string& text) const;
    bool sendBand(const Band& band) const;
    bool receive(Message& message) const;

    int descriptor() const { return descriptor_; }

private:
    int descriptor_;
};

// A party has ended in the middle of the job.
struct PartyLost : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A party in a process of its own, as job handling sees it.
class Party
{
public:
    // Starts the process; it inherits nothing that is open but standard input, output, error and its end of the wire.
    // patience: how long it may keep job handling waiting.
    Party(std::string name, std::chrono::seconds patience, const std::function<void(const Wire&)>& work);
    Party(const Party&) = delete;
    Party& operator=(const Party&) = delete;
    // Hangs up and waits until the process has ended, as long as patience lasts.
    ~Party();

    // Both throw PartyLost when the process is gone or has not moved in time, receive() also std::runtime_error with the
    // sentence of one that failed.
    void send(const Message& message);
    Message receive();
    void send(const StoredPage& page); // its text and its bands

    // Ends the conversation from this side: the process does what it was asked for and ends. The next thing that it still
    // had to say; false after the last one, and when patience ends: then so does the process.
    void hangUp();
    bool receiveLast(Message& message);

    // Ends a process that owes an answer for too long; throws PartyLost.
    [[noreturn]] void giveUp();
    void signal(int number);
    int descriptor() const { return wire_->descriptor(); }

    std::string takeText() { return std::exchange(text_, {}); }

private:
    bool hasEnded() const;
    [[noreturn]] void lost();
    int waitForEnd();

    std::string name_;
    std::chrono::seconds patience_;
    pid_t process_ = -1;
    std::unique_ptr<Wire> wire_;
    std::string text_; // pieces that came since takeText()
};

// What the two processes do; they return when job handling hangs up. device: as velmora::openNode() takes it.
void processRasters(const Wire& wire, const std::string& device, const Layout& layout, const Order& order);
void writeCopies(const Wire& wire, const std::string& device, const Order& order);

} // namespace printjob
