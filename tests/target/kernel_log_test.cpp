// How the tests read the kernel log, and whether the board is the one that is described.
#include <cerrno>
#include <cstdio>
#include <sstream>

#include "board.hpp"
#include "harness.hpp"
#include "kernel_log.hpp"

using namespace target;

TARGET_TEST(log_text_is_cut_into_lines_without_level_time_and_caller)
{
    CHECK_EQUAL(linesOf("<6>[    0.000000] Linux version\n<4>no time\n<14>[12345.678901] [   T42] called\n"
                        "<4>\n<4>[MM] H(5)\nbare <4> [1]\n"),
                (Lines{"Linux version", "no time", "called", "", "[MM] H(5)", "bare <4> [1]"}));
    CHECK_EQUAL(linesOf("<4>without an end"), Lines{"without an end"});
    CHECK_EQUAL(linesOf(""), Lines());
}

TARGET_TEST(log_gives_what_was_printed_since_the_last_reading)
{
    needNoManager();
    KernelLog log;
    CHECK_EQUAL(loadModule(kModuleFile, ""), -EPERM);
    const Lines lines = log.take();
    CHECK(!lines.empty());
    CHECK(lines.back().find("can't install MM Driver !") != std::string::npos);
    CHECK_EQUAL(log.take(), Lines());
    bool again = false;
    for (const std::string& line : KernelLog(KernelLog::From::Boot).take())
        again = again || line == lines.back();
    CHECK(again);
}

TARGET_TEST(board_is_the_one_that_is_described)
{
    std::istringstream ranges(readFile("/proc/iomem"));
    bool holdsArea = false;
    for (std::string line; std::getline(ranges, line);) {
        unsigned long first, last;
        if (line.find(": System RAM") != line.npos && std::sscanf(line.c_str(), "%lx-%lx", &first, &last) == 2)
            holdsArea = holdsArea || (first <= board().areaPhys && last >= board().areaPhys + board().areaBytes - 1 &&
                                      first == board().physOffset && last >= first + board().ramBytes - 1);
    }
    CHECK(holdsArea);
}
