// A private simulated controller for a program of any word size: the process velmora-controller, on a socket in a temporary
// folder, started here and gone with this object.
//
//   velmora::sim::Controller controller;
//   velmora::Device device(controller.open());
//   device.buildTable();
//
// The program is looked for, in this order: $VELMORA_CONTROLLER, beside this program, in PATH, and where it was installed.
// It ends with this process however that ends; a child of this process that was forked and runs no other program holds it
// as well. What it reports, it reports on this program's standard error.
//
// One thread at a time may use a Controller; channels that it opened go their own ways.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <sys/types.h>

#include <velmora/device.hpp>

// A simulated controller.
namespace velmora::sim {

// How a controller is started.
struct ControllerOptions {
    std::vector<std::string> arguments = {}; // further options of velmora-controller: {"--ram", "64M"}
    std::string program = {};                // which one, instead of looking for it
};

// The kernel log of a controller, whoever started it. One thread at a time may use it.
class Log
{
public:
    // Follows the log of a simulated controller; device: its name as openNode() takes it. What the controller still has of
    // its log comes first. Throws std::system_error as openNode() does, ENOTSUP for a node, whose log is its kernel's.
    explicit Log(const std::string& device = {});
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;
    ~Log();

    // Messages since the last call, one for each printk; all that commands which have returned printed is there. Throws
    // std::runtime_error when the log outran this reader, or the controller is gone.
    std::vector<std::string> take();

private:
    friend class Controller;
    struct Connections;
    std::unique_ptr<Connections> connections_;
};

// A controller that is this object's own.
class Controller
{
public:
    // Starts a controller and returns when clients may come. Throws std::runtime_error with a sentence when it cannot be
    // found or does not start.
    explicit Controller(const ControllerOptions& options = {});
    Controller(const Controller&) = delete;
    Controller& operator=(const Controller&) = delete;
    ~Controller();

    // Path of its socket.
    const std::string& socket() const { return socket_; }
    std::string device() const { return "unix:" + socket_; } // for openNode() and $VELMORA_MM_DEVICE
    // Its process; -1 after stop().
    pid_t process() const { return process_; }

    // Opens its device; throws as openNode() does.
    std::unique_ptr<Channel> open() const { return openNode(device()); }

    // The nth call of a device command from now on, counted from 1, is given the answer without reaching the manager: a code
    // of the manager or a negative kernel code. nth 0: every call.
    void failNth(std::uint32_t command, std::uint32_t nth, int answer);
    // The same for an open of the device.
    void failNthOpen(std::uint32_t nth, int answer);
    // The same for a mapping.
    void failNthMap(std::uint32_t nth, int answer);
    // What has not failed yet will not.
    void forgetFaults();

    // Messages of the kernel log since the start or the last call, as Log::take() has them.
    std::vector<std::string> takeLog();

    // Ends the controller now, as the destructor would; its exit status, or minus the signal that ended it. Every later
    // call of the channels fails with ConnectionError, those above throw std::runtime_error. Once only.
    int stop();

private:
    Log& log();
    void fail(std::uint32_t what, std::uint32_t nth, int answer);

    std::string socket_;
    pid_t process_ = -1;
    int lifeline_ = -1;
    std::unique_ptr<Log> log_;
};

} // namespace velmora::sim
