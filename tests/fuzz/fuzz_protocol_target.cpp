// The socket protocol under libFuzzer.
#include <cstdio>
#include <cstdlib>

#include "host/machine.h"
#include "fuzz/protocol.h"

// The controller's addresses are taken before libFuzzer fills the process.
extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    velmora::sim::machine().powerOn();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const auto verdict = velmora::fuzz::playProtocol(data, size);
    if (!verdict.mistake.empty()) {
        std::printf("packet %lu: %s\n", verdict.packets, verdict.mistake.c_str());
        std::fflush(stdout);
        std::abort();
    }
    return 0;
}
