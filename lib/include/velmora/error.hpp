// What can go wrong: codes of the manager, of the kernel and of this library, and the exception that carries them.
//
// Three parties answer, and their numbers mean different things:
//   the manager   1 to 23, MM_EINVAOPT to MM_EINVAARG     managerCategory()
//   the kernel    errno's numbers                         std::generic_category(), so that code == std::errc::... works
//   this library  from 100 on, velmora::Errc              libraryCategory()
// A result as one number (Error::result(), the C interface) is the manager's and the library's as they are, the kernel's
// below 0. Threads: everything here may be used by any number of threads.
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>

namespace velmora {

// Why the safe layer refuses something, before the manager is asked or after what it answered was looked at.
enum class Errc {
    NoRoom = 100,         // neither the segment nor what it overflows into has room
    NoSuchSegment = 101,  // no segment of that name, or the one that was meant is gone: the library was started anew
    SegmentDiffers = 102, // there is a segment of that name, and it is not as it was asked for
    BadName = 103,        // a segment name has one to four characters
    BadSize = 104,        // 0 bytes, or more than 32-bit addresses can hold
    BadBlockSize = 105,   // no power of two, or too small for what the manager writes into a free block
    BadOwner = 106,       // the owner's ID does not go with the width of the segment's owner map
    BadRange = 107,       // reaches past the end of the block
    StackIsLocked = 108,  // a stack with a lock: one wrong release and the lock is held for ever
    StackOverflows = 109, // a stack that overflows: what lies in the heap cannot be released through it
    NotTopOfStack = 110,  // a stack takes back what it gave last, and nothing else
    NotHeld = 111,        // this process does not hold the block, or not any more
    NotKnown = 112,       // nothing that a process can read tells
    AlreadyStarted = 113, // there are segments already; a start would take them from everybody
    HeapUnsafe = 114      // the heap would not, or does not, lie in free memory
};

// Codes as <system_error> has them.
const std::error_category& managerCategory() noexcept; // the manager's codes, MM_EASSERT for example
const std::error_category& libraryCategory() noexcept; // Errc
// An Errc as a code of libraryCategory().
std::error_code make_error_code(Errc code) noexcept;
// The code of a number that a command or a call gave: a code of the manager, or a negative kernel code. 0 is no error.
std::error_code codeOf(int result) noexcept;
// The number of a code: the other way round, Errc included.
int resultOf(const std::error_code& code) noexcept;

// Name of a result: a code of the manager ("EASSERT" for 14), of this library ("NoRoom" for 100) or, below 0, of the
// kernel ("ENOTTY" for -25). The number where there is no name.
std::string codeName(int result);

// Name of a device command ("MM_CMD_MALLOC"), or its number.
std::string commandName(std::uint32_t number);

// A call that was refused. what() is a sentence: who answered what to which command.
class Error : public std::runtime_error
{
public:
    // A device command or call that the manager (result above 0) or the kernel (-EINVAL for example) refused. Their codes
    // share numbers and nothing else.
    Error(const std::string& command, int result);
    // A call of this library that it refuses itself; more says what about.
    Error(const std::string& command, Errc code, const std::string& more = {});

    // The answer as a code that can be compared: error.code() == Errc::NoRoom, == std::errc::permission_denied.
    const std::error_code& code() const noexcept { return code_; }
    // The answer as one number.
    int result() const noexcept { return resultOf(code_); }
    // The device command ("MM_CMD_FREE"), system call ("mmap") or call of this library ("Block::release") that failed.
    const std::string& command() const noexcept { return *command_; }

protected:
    // For a failure that has a sentence of its own.
    Error(int result, const std::string& sentence);

private:
    std::error_code code_;
    std::shared_ptr<const std::string> command_; // copied without failing
};

// The controller behind a socket is gone, or its answer cannot be understood: what() is its report where it left one.
// Every further call of the same channel fails so.
class ConnectionError : public Error
{
public:
    // result: a negative kernel code, -EPIPE.
    ConnectionError(int result, const std::string& sentence) : Error(result, sentence) {}
};

} // namespace velmora

#ifndef DOXYGEN // which looks for a namespace std
// Lets an Errc be compared with and assigned to a std::error_code.
template <> struct std::is_error_code_enum<velmora::Errc> : std::true_type {
};
#endif
