// The controllers that a job can be printed on.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <velmora/device.hpp>

namespace printjob {

// How to open a controller's device and how to read its kernel log.
struct Controller {
    std::function<std::unique_ptr<velmora::Channel>()> open;
    std::function<std::vector<std::string>()> kernelLog; // messages since the last call; throws std::runtime_error
    std::string device = {};                             // as another process names it, where one can
};

// One that runs already; device: its node, or unix:SOCKET.
Controller controllerAt(const std::string& device);

// A simulated one in a process of its own. It ends with the last copy of what is returned.
Controller controllerProcess();

// A simulated one for the parties of one process: in this process where the job is built with the manager's sources, else in
// one of its own.
Controller simulatedController();

} // namespace printjob
