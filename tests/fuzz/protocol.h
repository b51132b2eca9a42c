// Bytes played as packets to the controller behind its socket. Whatever they are, the service answers each packet with one
// message that is well-formed, and goes on; only a command that the manager does not survive ends it.
//
// A record: one byte that says what packet it is, two (little-endian) that say how many bytes of the input it takes, and those
// bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace velmora::fuzz {

// What was wrong with an answer, empty when nothing was. packets: how many were played.
struct ProtocolVerdict {
    std::string mistake;
    unsigned long packets = 0;
    bool stopped = false;
};

ProtocolVerdict playProtocol(const std::uint8_t* data, std::size_t size);

} // namespace velmora::fuzz
