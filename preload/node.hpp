// /dev/Velmora_MM as a program meets it that runs with a simulated controller: a character device with the controller's
// socket's owner, group, permissions and times.
#pragma once

#include <cstdint>

#include <linux/stat.h>

namespace velmora::preload {

// The socket of this program's controller: $VELMORA_MM_DEVICE, as the program was started with, where that begins with
// "unix:". nullptr: there is none, and everything goes past this library.
const char* controllerSocket();

// Does a path, as openat() takes it, lead to the node? Whatever leads to /dev counts: relative paths, "/dev/./Velmora_MM",
// a folder's descriptor, a symbolic link to /dev. A path that is not there does not. Keeps errno.
bool isNode(int folder, const char* path);
// The same for a path that ends in a symbolic link, for the kernel one to nowhere. Keeps errno.
bool isLinkToNode(int folder, const char* path);

// The node's number: the first that a kernel gives to a driver that asks for any, and 0.
inline constexpr unsigned kMajor = 254, kMinor = 0;

// What stat() says of the node: 0, or the negative code of a socket that cannot be looked at.
int nodeStatus(struct statx& status);

} // namespace velmora::preload
