#include "whole_file.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace velmora::tools {

namespace {

[[noreturn]] void fail(const std::string& doing, const std::string& path, int error)
{
    throw std::runtime_error("cannot " + doing + " " + path + ": " + std::strerror(error));
}

// 0, or why not.
int writeAll(int file, const std::string& content)
{
    for (std::size_t done = 0; done < content.size();) {
        const ssize_t bytes = write(file, content.data() + done, content.size() - done);
        if (bytes < 0 && errno != EINTR)
            return errno;
        done += bytes > 0 ? static_cast<std::size_t>(bytes) : 0;
    }
    return 0;
}

} // namespace

void writeWholeFile(const std::string& path, const std::string& content)
{
    struct stat there;
    if (stat(path.c_str(), &there) == 0 && !S_ISREG(there.st_mode)) { // /dev/stdout: nothing can take its place
        const int file = open(path.c_str(), O_WRONLY | O_CLOEXEC);
        const int error = file < 0 ? errno : writeAll(file, content);
        if (file >= 0)
            close(file);
        if (error != 0)
            fail("write", path, error);
        return;
    }
    std::string beside = path + ".XXXXXX";
    const int file = mkostemp(beside.data(), O_CLOEXEC);
    if (file < 0)
        fail("write", path, errno);
    const mode_t mask = umask(0);
    umask(mask);
    int error = fchmod(file, 0666 & ~mask) != 0 ? errno : writeAll(file, content);
    if (close(file) != 0 && error == 0)
        error = errno;
    if (error == 0 && rename(beside.c_str(), path.c_str()) != 0)
        error = errno;
    if (error == 0)
        return;
    unlink(beside.c_str());
    fail("write", path, error);
}

std::string readWholeFile(const std::string& path)
{
    const bool standardInput = path == "-";
    std::FILE* const file = standardInput ? stdin : std::fopen(path.c_str(), "re");
    if (file == nullptr)
        fail("read", path, errno);
    std::string content;
    char part[65536];
    std::size_t bytes;
    while ((bytes = std::fread(part, 1, sizeof part, file)) != 0)
        content.append(part, bytes);
    const int error = std::ferror(file) != 0 ? errno : 0;
    if (!standardInput)
        std::fclose(file);
    if (error != 0)
        fail("read", standardInput ? "standard input" : path, error);
    return content;
}

} // namespace velmora::tools
