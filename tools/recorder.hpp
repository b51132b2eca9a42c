// Stands between programs and a controller and writes down what they ask, as a session script that asks it again.
//
// Programs connect to the recorder's socket; each of their connections has one to the controller, and every message goes on
// as it is. One request at a time goes to the controller, so the lines stand in the order in which it ran them, whoever
// asked. A line is written before its request goes on: that of a command which stops the controller is the last one.
#pragma once

#include <atomic>
#include <list>
#include <span>
#include <string>
#include <thread>

#include "lib/socket_protocol.hpp"

namespace velmora::tools {

// A request as lines of a session script, each with its end; empty for requests that say nothing to the manager.
//
// A script has 64 KiB of user memory at 0x10000000: a record of which the caller had only the first bytes is put at the end
// of it, so that its copy stops at the same byte.
std::string scriptLines(std::span<const std::byte> request);

class Recorder
{
public:
    // controller: its socket. beginning: what stands in front of the first request. Throws std::runtime_error when the file or
    // the socket cannot be made.
    Recorder(const std::string& file, const std::string& controller, const std::string& beginning);
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;
    ~Recorder();

    const std::string& socket() const { return socket_; }
    // Stops recording. Throws std::runtime_error when a line could not be written.
    void finish();

private:
    struct Connection {
        int program, controller;
        bool gone = false;
    };

    void serve();
    void accept();
    void ask(Connection& connection);
    void answer(Connection& connection);
    void write(const std::string& text);

    std::string name_, controller_, folder_, socket_;
    int file_ = -1, listening_ = -1;
    int end_[2] = {-1, -1}; // a pipe
    std::list<Connection> connections_;
    std::atomic<int> writeError_ = 0;
    std::thread thread_;
};

} // namespace velmora::tools
