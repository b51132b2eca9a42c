// An application, as another project has it: opens the device, or says why not.
#include <cstdio>
#include <exception>

#include <velmora/device.hpp>
#include <velmora_mm/velmora_mm.h>

int main()
{
    try {
        velmora::Device device(velmora::openNode("/nonexistent/" VELMORA_MM_DEVICE_NAME));
        return 1;
    } catch (const std::exception& error) {
        std::puts(error.what());
        return 0;
    }
}
