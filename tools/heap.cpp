#include "heap.hpp"

#include "kernel_log.hpp"

namespace velmora::tools {

Heap readHeap(Device& device, const std::string& name)
{
    try {
        KernelLog log(name);
        log.take();
        device.display(MM_HEAPHANDLE);
        return {heapPieces(log.take()), ""};
    } catch (const ConnectionError&) {
        throw;
    } catch (const std::runtime_error& error) {
        return {{}, error.what()};
    }
}

} // namespace velmora::tools
