// mutation-runner: the tests of one build in one program, run against one mutant after another, each in a process of its own.
//   mutation-runner NUMBERS RESULTS JOBS     NUMBERS: a file with the mutants' numbers; RESULTS: is written, a line each
//
// First all tests run once without a change: which mutants does each of them reach, and how long does it take? A mutant is then given
// to the tests that reach it, the shortest ones first, until one fails. A crash is a failure, and so is taking twenty times as long
// as without the change, in time of the processor: what the machine does besides changes no result.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "mutants.h"

constexpr unsigned kMostMutants = 8192, kMostTests = 2048;

unsigned velmoraMutant;
unsigned char velmoraReached[kMostMutants];

namespace {

constexpr double kFirstBatch = 0.1;           // seconds of tests that are tried before the others
constexpr double kSlower = 20, kAlways = 0.5; // a test's limit: so many times as long as without a change, and this
constexpr unsigned kAsleep = 120;             // seconds of a test that does not even compute

// What processes tell each other.
struct Shared {
    char tests[kMostTests][120]; // full names
    double seconds[kMostTests];
    unsigned char reached[kMostTests][kMostMutants];
    unsigned count;
    char failed[kMostMutants][120]; // the test that caught a mutant
};
Shared* shared;

double processorTime()
{
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

std::string nameOf(const testing::TestInfo& info)
{
    return std::string(info.test_suite_name()) + '.' + info.name();
}

// Notes what each test reaches. What is done once for several tests counts for each of them: it is in the process when they run.
class Recorder : public testing::EmptyTestEventListener
{
    void OnTestStart(const testing::TestInfo&) override
    {
        std::memset(velmoraReached, 0, sizeof velmoraReached);
        start_ = processorTime();
    }
    void OnTestEnd(const testing::TestInfo& info) override
    {
        const unsigned at = shared->count++;
        std::snprintf(shared->tests[at], sizeof shared->tests[at], "%s", nameOf(info).c_str());
        shared->seconds[at] = processorTime() - start_;
        std::memcpy(shared->reached[at], velmoraReached, sizeof velmoraReached);
    }
    double start_ = 0;
};

void beQuiet()
{
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
}

void limit(double seconds)
{
    itimerval timer{};
    timer.it_value.tv_sec = static_cast<time_t>(seconds);
    timer.it_value.tv_usec = static_cast<suseconds_t>((seconds - static_cast<double>(timer.it_value.tv_sec)) * 1e6);
    setitimer(ITIMER_PROF, &timer, nullptr);
    alarm(static_cast<unsigned>(seconds) + kAsleep);
}

// Says which test it was, and gives each its time.
class Catcher : public testing::EmptyTestEventListener
{
    void OnTestStart(const testing::TestInfo& info) override
    {
        const std::string name = nameOf(info);
        std::snprintf(shared->failed[velmoraMutant], sizeof shared->failed[0], "%s", name.c_str());
        for (unsigned test = 0; test < shared->count; ++test)
            if (name == shared->tests[test])
                limit(kAlways + kSlower * shared->seconds[test]);
    }
};

int runTests(const std::vector<unsigned>& tests)
{
    std::string filter;
    for (const unsigned test : tests)
        filter += std::string(filter.empty() ? "" : ":") + shared->tests[test];
    GTEST_FLAG_SET(filter, filter);
    return RUN_ALL_TESTS();
}

// In a child: 0 when every test passes that reaches the mutant.
int tryMutant(unsigned mutant)
{
    std::vector<unsigned> tests;
    for (unsigned test = 0; test < shared->count; ++test)
        if (mutant == 0 || shared->reached[test][mutant] != 0)
            tests.push_back(test);
    std::stable_sort(tests.begin(), tests.end(),
                     [](unsigned a, unsigned b) { return shared->seconds[a] < shared->seconds[b]; });
    double seconds = 0;
    auto batch = tests.begin();
    while (batch != tests.end() && seconds < kFirstBatch)
        seconds += shared->seconds[*batch++];
    velmoraMutant = mutant;
    testing::UnitTest::GetInstance()->listeners().Append(new Catcher);
    if (batch != tests.begin() && runTests({tests.begin(), batch}) != 0)
        return 1;
    return batch != tests.end() ? runTests({batch, tests.end()}) : 0;
}

template <class Work> pid_t inChild(Work work)
{
    std::cout.flush();
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0)
        _exit(work());
    return child;
}

bool isReached(unsigned mutant)
{
    for (unsigned test = 0; test < shared->count; ++test)
        if (shared->reached[test][mutant] != 0)
            return true;
    return false;
}

std::string resultOf(unsigned mutant, int status)
{
    const std::string test = shared->failed[mutant];
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
        return "survived";
    if (WIFEXITED(status))
        return "failed " + test;
    const int signal = WTERMSIG(status);
    return (signal == SIGPROF || signal == SIGALRM ? "endless " : "crashed ") + test;
}

int tryAll(const std::vector<unsigned>& mutants, unsigned jobs, std::ofstream& results)
{
    std::map<pid_t, unsigned> running;
    const auto collectOne = [&] {
        int status = 0;
        const pid_t child = wait(&status);
        results << running.at(child) << ' ' << resultOf(running.at(child), status) << '\n' << std::flush;
        running.erase(child);
    };
    for (const unsigned mutant : mutants) {
        if (!isReached(mutant)) {
            results << mutant << " unreached\n";
            continue;
        }
        while (running.size() >= jobs)
            collectOne();
        running[inChild([=] {
            beQuiet();
            return tryMutant(mutant);
        })] = mutant;
    }
    while (!running.empty())
        collectOne();
    return 0;
}

} // namespace

int main(int count, char** arguments)
{
    testing::InitGoogleTest(&count, arguments);
    if (count != 4) {
        std::cerr << "usage: mutation-runner NUMBERS RESULTS JOBS\n";
        return 2;
    }
    shared = static_cast<Shared*>(
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    if (shared == MAP_FAILED) {
        std::perror("mutation-runner");
        return 1;
    }
    GTEST_FLAG_SET(brief, true);
    int status = 0;
    waitpid(inChild([] {
                testing::UnitTest::GetInstance()->listeners().Append(new Recorder);
                return RUN_ALL_TESTS();
            }),
            &status, 0);
    if (status != 0) {
        std::cerr << "mutation-runner: the tests fail without any change\n";
        return 1;
    }
    GTEST_FLAG_SET(fail_fast, true);
    waitpid(inChild([] { return tryMutant(0); }), &status, 0);
    if (status != 0) {
        std::cerr << "mutation-runner: the tests fail without any change when the short ones run first\n";
        return 1;
    }
    std::vector<unsigned> mutants;
    std::ifstream numbers(arguments[1]);
    for (unsigned mutant; numbers >> mutant;)
        if (mutant != 0 && mutant < kMostMutants)
            mutants.push_back(mutant);
    std::ofstream results(arguments[2]);
    return tryAll(mutants, static_cast<unsigned>(std::max(1L, std::strtol(arguments[3], nullptr, 10))), results);
}
