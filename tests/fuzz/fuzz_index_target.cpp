// The same driver under libFuzzer.
#include <cstdio>
#include <cstdlib>

#include "host/machine.h"
#include "driver.h"

// The controller's addresses are taken before libFuzzer fills the process.
extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    velmora::sim::machine().powerOn();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    constexpr unsigned long accesses = 2'000'000; // many short sequences find more than a few long ones
    const velmora::fuzz::Verdict verdict = velmora::fuzz::run(data, size, accesses);
    if (!verdict.same()) {
        std::printf("A difference at %s", verdict.difference.c_str());
        std::fflush(stdout);
        std::abort();
    }
    return 0;
}
