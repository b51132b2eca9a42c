// The program's own memory as a kernel copies it: what is not there ends the copy, and harms nobody.
#pragma once

#include <cstddef>

namespace velmora::preload {

// Each returns how many bytes from the first on could be copied. Where the kernel does not let a process do this (a seccomp
// filter), memory is taken to be there. Keep errno.
std::size_t copyFromUser(void* to, const void* user, std::size_t bytes);
std::size_t copyToUser(void* user, const void* from, std::size_t bytes);

// The letters of a text of the program's, without its zero byte; false when it is not there, or longer than any path. Cheap: one
// call of the kernel for each page that it lies on. Keeps errno.
bool textLength(const char* text, std::size_t& length);

} // namespace velmora::preload
