// Stands between programs and a device and writes down what they ask and are answered, as a recording (recording.hpp).
//
// Programs connect to the recorder's socket; each of their connections has one to the device, and every message goes on
// as it is. One request at a time goes to the device, so the lines stand in the order in which it ran them, whoever
// asked. A line is written before its request goes on: that of a command which stops the device is the last one.
#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <thread>

#include <sys/types.h>

#include "lib/socket_protocol.hpp"
#include "recorded.hpp"
#include "recording.hpp"

namespace velmora::tools {

// What a packet to a controller asks of the device; nullopt where it says nothing to the manager.
std::optional<Asked> askedIn(std::span<const std::byte> packet);
// The device's answer in a packet from the controller; nullopt where it is none.
std::optional<Answer> answerIn(std::span<const std::byte> packet);

class Recorder
{
public:
    // socket: where programs find the recorder; empty: in a folder of its own. What the device has already comes first in the
    // file. Throws std::runtime_error when the file or the socket cannot be made.
    Recorder(const std::string& file, std::unique_ptr<Recorded> device, const std::string& socket = {});
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;
    ~Recorder();

    const std::string& socket() const { return socket_; }
    // Stops recording. Throws std::runtime_error when a line could not be written.
    void finish();

private:
    struct Connection {
        int program, device;
        bool gone = false;
    };

    void makeFolder();
    void unmakeFolder();
    void serve();
    void accept();
    static void disconnect(const Connection& connection);
    void ask(Connection& connection);
    void answer(Connection& connection, bool recorded);
    void writeAsker(const Connection& connection);
    void write(const std::string& text);

    std::string name_, folder_, socket_;
    std::unique_ptr<Recorded> device_;
    int file_ = -1, listening_ = -1;
    int end_[2] = {-1, -1}; // a pipe
    bool bound_ = false;
    RecordingWriter writer_;
    std::list<Connection> connections_;
    pid_t asker_ = -1; // the process that asked last
    std::atomic<int> writeError_ = 0;
    std::thread thread_;
};

} // namespace velmora::tools
