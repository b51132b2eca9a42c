#include "controllers.hpp"

#include <utility>

#include <velmora/controller.hpp>

#ifdef PRINT_JOB_HAS_MANAGER
#include "controller/device.h"
#include "host/machine.h"
#endif
#include "kernel_log.hpp"

namespace printjob {

Controller controllerAt(const std::string& device)
{
    Controller controller{[device] { return velmora::openNode(device); }, {}, device};
    if (device.starts_with("unix:"))
        controller.kernelLog = [log = std::make_shared<velmora::sim::Log>(device)] { return log->take(); };
    else
        controller.kernelLog = [log = KernelLog()]() mutable { return log.takeMessages(); };
    return controller;
}

Controller controllerProcess()
{
    const auto process = std::make_shared<velmora::sim::Controller>();
    return {[process] { return process->open(); }, [process] { return process->takeLog(); }, process->device()};
}

Controller simulatedController()
{
#ifdef PRINT_JOB_HAS_MANAGER
    velmora::sim::bootController();
    return {velmora::sim::openDevice, [] { return velmora::sim::machine().takeLog(); }};
#else
    return controllerProcess();
#endif
}

} // namespace printjob
