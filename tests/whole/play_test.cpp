// guard-play as a test beside the others in one program: it prints what it printed without any change.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

#define main playMain
#include "guard/play.cpp"
#undef main

namespace {

// Of what was printed first, in memory that all processes share: the runner's recording comes before its mutants.
std::size_t* const first = static_cast<std::size_t*>(
    mmap(nullptr, sizeof(std::size_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

std::string printedBy(const std::function<void()>& work)
{
    std::fflush(stdout);
    const int before = dup(STDOUT_FILENO);
    const int file = memfd_create("played", 0);
    dup2(file, STDOUT_FILENO);
    work();
    std::fflush(stdout);
    dup2(before, STDOUT_FILENO);
    close(before);
    std::string text(static_cast<std::size_t>(lseek(file, 0, SEEK_END)), '\0');
    EXPECT_EQ(pread(file, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    close(file);
    return text;
}

TEST(GuardPlay, PrintsWhatItPrintedWithoutAChange)
{
    char program[] = "guard-play", seed[] = "1", runs[] = "12";
    char* arguments[] = {program, seed, runs};
    const std::size_t now = std::hash<std::string>()(printedBy([&] { playMain(3, arguments); }));
    if (*first == 0)
        *first = now;
    EXPECT_EQ(now, *first);
}

} // namespace
