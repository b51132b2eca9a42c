// Before a controller runs, and what is left to the program that it runs in. No test here boots it in this process: each
// has a child of its own, which ends with status 0 when all is well.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

#include <sys/mman.h>
#include <unistd.h>

#include "controller/device.h"
#include "host/machine.h"

namespace velmora::test {
namespace {

using sim::machine;
using ::testing::ExitedWithCode;

// What an exception says; the wrong type, or none, ends the process.
template <class Exception, class Call> std::string refusal(const Call& call)
{
    try {
        call();
    } catch (const Exception& exception) {
        return exception.what();
    }
    std::_Exit(1);
}

void expectSentence(const std::string& text, const std::string& expected)
{
    if (text != expected) {
        std::fprintf(stderr, "%s\n", text.c_str());
        std::_Exit(1);
    }
}

constexpr const char* kNotRunning = "no controller is running: velmora::sim::bootController() comes before its device";

TEST(BeforeBoot, TheDeviceCannotBeOpened)
{
    EXPECT_EXIT(
        {
            expectSentence(refusal<std::logic_error>([] { sim::openDevice(); }), kNotRunning);
            std::_Exit(0);
        },
        ExitedWithCode(0), "");
}

TEST(BeforeBoot, TheMachineRunsNothing)
{
    EXPECT_EXIT(
        {
            expectSentence(refusal<std::logic_error>([] { machine().run([] { return 0u; }); }),
                           "the simulated machine is switched off");
            std::_Exit(0);
        },
        ExitedWithCode(0), "");
}

TEST(BeforeBoot, ACommandAfterASecondPowerOnIsRefusedUntilTheNextBoot)
{
    EXPECT_EXIT(
        {
            sim::bootController();
            velmora::Device device(sim::openDevice());
            device.buildTable();
            sim::powerOn();
            expectSentence(refusal<std::logic_error>([&] { device.buildTable(); }), kNotRunning);
            expectSentence(refusal<std::logic_error>([&] { device.map(0x95100000, 1); }), kNotRunning);
            sim::bootController();
            device.buildTable();
            std::_Exit(0);
        },
        ExitedWithCode(0), "");
}

TEST(BeforeBoot, TakenAddressesAreNamedAndANewAttemptSucceeds)
{
    EXPECT_EXIT(
        {
            // The scratch memory's, which are asked for last: what was there already is given back.
            void* const wanted = reinterpret_cast<void*>(sim::kScratch);
            if (mmap(wanted, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0) != wanted)
                std::_Exit(1);
            for (int attempt = 0; attempt < 2; ++attempt)
                expectSentence(refusal<std::runtime_error>([] { sim::bootController(); }),
                               "the simulated controller needs the addresses from 0x10000000 to 0x10010000, and this "
                               "process has something else there");
            munmap(wanted, 4096);
            sim::bootController();
            std::_Exit(0);
        },
        ExitedWithCode(0), "");
}

// Faults of the program itself ---------------------------------------------------------------------------

volatile U32 nothing = 0x100; // an address that does not exist, which the compiler need not know

void writeTo(U32 address)
{
    *reinterpret_cast<volatile char*>(address) = 1;
}

// A command's fault is the command's, whatever handler the program has.
void bootAndSeeAnOops()
{
    sim::bootController();
    const sim::Outcome end = machine().run([] {
        writeTo(nothing);
        return 0u;
    });
    if (end.kind != sim::Outcome::Kind::Oops || end.address != nothing)
        std::_Exit(1);
}

void exitWith7(int, siginfo_t* info, void* context)
{
    std::_Exit(info->si_addr == reinterpret_cast<void*>(nothing) && context != nullptr ? 7 : 1);
}

TEST(OwnFaults, GoToTheProgramsOwnHandler)
{
    EXPECT_EXIT(
        {
            struct sigaction action = {};
            action.sa_sigaction = exitWith7;
            action.sa_flags = SA_SIGINFO;
            sigaction(SIGSEGV, &action, nullptr);
            bootAndSeeAnOops();
            writeTo(nothing);
        },
        ExitedWithCode(7), "");
}

TEST(OwnFaults, GoToAHandlerOfOneArgumentTooAndOnceToOneThatIsMeantForOnce)
{
    EXPECT_EXIT(
        {
            struct sigaction action = {};
            action.sa_handler = [](int) {
                static bool again = false;
                if (std::exchange(again, true))
                    std::_Exit(1);
                std::fputs("handled once\n", stderr);
            };
            action.sa_flags = static_cast<int>(SA_RESETHAND); // the access is repeated, and then ends the process
            sigaction(SIGSEGV, &action, nullptr);
            bootAndSeeAnOops();
            writeTo(nothing);
        },
        ::testing::KilledBySignal(SIGSEGV), "handled once");
}

#ifdef __SANITIZE_ADDRESS__

TEST(OwnFaults, AreReportedByAddressSanitizer)
{
    EXPECT_DEATH(
        {
            bootAndSeeAnOops();
            writeTo(nothing);
        },
        "AddressSanitizer: SEGV on unknown address 0x00000100");
}

TEST(OwnFaults, AHeapUseAfterFreeIsReportedByAddressSanitizer)
{
    EXPECT_DEATH(
        {
            bootAndSeeAnOops();
            char* volatile freed = new char[16];
            delete[] freed;
            writeTo(reinterpret_cast<U32>(freed));
        },
        "AddressSanitizer: heap-use-after-free");
}

#else

TEST(OwnFaults, EndTheProcess)
{
    EXPECT_EXIT(
        {
            bootAndSeeAnOops();
            writeTo(nothing);
        },
        ::testing::KilledBySignal(SIGSEGV), "");
}

#endif

} // namespace
} // namespace velmora::test
