#include "document.hpp"

#include <algorithm>
#include <array>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <fcntl.h>

namespace printjob {

namespace fs = std::filesystem;

namespace {

// Runs a program with its output in a file; its exit status.
int runProgram(std::vector<std::string> words, const fs::path& output)
{
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);

    const pid_t child = fork();
    if (child < 0)
        throw std::runtime_error("cannot start " + words.front());
    if (child == 0) {
        const int file = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
        dup2(file, STDOUT_FILENO);
        dup2(file, STDERR_FILENO);
        execvp(arguments.front(), arguments.data());
        _exit(127);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}

std::string contents(const fs::path& file)
{
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

} // namespace

fs::path defaultDocument()
{
    constexpr std::array candidates = {"/usr/share/doc/ghostscript/GS9_Color_Management.pdf",
                                       "/usr/share/ghostscript/10.00.0/lib/image-qa.ps"};
    for (const char* const candidate : candidates)
        if (fs::exists(candidate))
            return candidate;
    throw std::runtime_error(
        "no example document is installed (Debian: ghostscript-doc); name one with --document FILE");
}

std::vector<fs::path> drawPages(const fs::path& document, unsigned dpi, const fs::path& folder)
{
    if (!fs::is_regular_file(document))
        throw std::runtime_error("there is no document " + document.string());
    fs::remove_all(folder);
    fs::create_directories(folder);

    const fs::path log = folder / "ghostscript.log";
    const int status = runProgram({"gs", "-q", "-dSAFER", "-dBATCH", "-dNOPAUSE", "-dNOPROMPT", "-sDEVICE=ppmraw",
                                   "-r" + std::to_string(dpi), "-sOutputFile=" + (folder / "page-%04d.ppm").string(),
                                   document.string()},
                                  log);
    if (status == 127)
        throw std::runtime_error("Ghostscript (gs) is not installed");
    if (status != 0)
        throw std::runtime_error("Ghostscript cannot draw " + document.string() + ":\n" + contents(log));
    fs::remove(log);
    return pagesIn(folder);
}

std::vector<fs::path> pagesIn(const fs::path& folder)
{
    std::vector<fs::path> pages;
    if (fs::is_directory(folder))
        for (const auto& entry : fs::directory_iterator(folder))
            if (entry.path().extension() == ".ppm" || entry.path().extension() == ".pgm" ||
                entry.path().extension() == ".pbm")
                pages.push_back(entry.path());
    if (pages.empty())
        throw std::runtime_error("there are no raster pages in " + folder.string());
    std::sort(pages.begin(), pages.end());
    return pages;
}

} // namespace printjob
