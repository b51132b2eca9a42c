// Runs the tests whose names begin with one of the arguments, or all; then looks through the whole kernel log.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>

#include "board.hpp"
#include "harness.hpp"
#include "kernel_log.hpp"

namespace target {

std::vector<TestCase>& allTests()
{
    static std::vector<TestCase> tests;
    return tests;
}

} // namespace target

int main(int count, char** arguments)
{
    using namespace target;
    unsigned failed = 0;
    const auto outcome = [&](const char* name, auto&& run) {
        const auto begin = std::chrono::steady_clock::now();
        std::string error;
        try {
            run();
        } catch (const std::exception& exception) {
            error = exception.what();
        }
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        std::printf("%s %s (%.2f s)\n", error.empty() ? "PASS" : "FAIL", name, seconds);
        if (!error.empty()) {
            std::printf("    %s\n", error.c_str());
            ++failed;
        }
        std::fflush(stdout);
    };
    const auto wanted = [&](const char* name) {
        for (int i = 1; i < count; ++i)
            if (std::strncmp(name, arguments[i], std::strlen(arguments[i])) == 0)
                return true;
        return count == 1;
    };

    for (const TestCase& test : allTests())
        if (wanted(test.name))
            outcome(test.name, test.run);
    outcome("kernel_log_is_free_of_trouble", [] {
        KernelLog log(KernelLog::From::Boot);
        CHECK_EQUAL(troubles(log.take()), Lines());
    });
    return failed == 0 ? 0 : 1;
}
