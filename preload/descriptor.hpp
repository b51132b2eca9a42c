// Descriptors of the device. Each is a connection to the controller, on which the device was opened: the kernel keeps it
// through dup, fork and exec and closes it with its last copy, and the controller sees that. How it was opened is written in
// the socket's own address, an abstract name, so that whoever holds a copy can tell, a program after exec as well.
#pragma once

namespace velmora::preload {

struct Device {
    bool readable, writable, sync;
};

// As open(2) of the node with these flags: a descriptor, the lowest that is free, or a negative code: EACCES, EMFILE and
// their like are the kernel's, ENXIO says that no controller answers.
int openDevice(int flags);

// Is this a descriptor of the device, and of which kind? Asks the kernel; keeps errno.
bool isDevice(int descriptor, Device& device);
// The same, and free for descriptors that never were one. A descriptor that came from another process by a message is
// known to isDevice() only.
bool isKnownDevice(int descriptor, Device& device);

// False once the controller of this descriptor is gone.
bool isAlive(int descriptor);

// What close and dup do to what isKnownDevice() remembers. Async-signal-safe.
void forgetDescriptor(int descriptor);
void copyDescriptor(int from, int to);
// Finds the descriptors that a program was started with.
void rememberInherited();

// Gives a socket an abstract name that begins so; false when it has one. Does a socket's name begin so?
bool nameSocket(int socket, const char* beginning, char* name, unsigned room);
bool hasName(int socket, const char* name);

} // namespace velmora::preload
