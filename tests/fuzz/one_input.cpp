// A target under libFuzzer.
#include <cstdio>
#include <cstdlib>

#include "host/machine.h"
#include "fuzz/target.h"

// The controller's addresses are taken before libFuzzer fills the process.
extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    velmora::sim::machine().powerOn();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string mistake = velmora::fuzz::playInput(data, size);
    if (!mistake.empty()) {
        std::printf("%s\n", mistake.c_str());
        std::fflush(stdout);
        std::abort();
    }
    return 0;
}
