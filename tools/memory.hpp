// Memory that commands read, write and release by address, and what speaks against it as far as the segments' state tells.
// The manager itself trusts every address: a wrong one ends the controller, leaves a lock held or breaks a list.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "device_command.hpp"

namespace velmora::tools {

constexpr const char* kWhereHelp =
    "an address, or a segment's name for its first block, with +BYTES behind it for one further on";

// The address that WHERE means: 0x95313000, BAND, BAND+64K. UsageError or Refusal when it is none.
MM_TAddr findAddress(Device& device, const std::string& where);

// Refusal when not all of it is RAM. The device itself checks the first page of a mapping only.
void requireMemory(Device& device, MM_TAddr start, std::uint32_t bytes);

// Why these bytes had better not be written: a sentence without a full stop, empty where nothing speaks against it. Blocks of
// a segment may be written unless they are known to be free, and rows of the fixed table in which no segment was created.
std::string objectionToWriting(Device& device, MM_TAddr start, std::uint32_t bytes);

// A release that is to be asked for.
struct Release {
    SegmentEntry segment;
    MM_TAddr start;
    std::uint32_t bytes;
};

// Why these releases had better not be asked for, in this order: a sentence, as above. owner: whose the blocks have to be. Not
// all mistakes can be seen: the heap's blocks cannot, nor who holds them in a segment without an owner map.
std::string objectionToReleases(Device& device, const std::vector<Release>& releases,
                                std::optional<std::uint8_t> owner);

// Why an owner's ID does not go with a segment's owner map: a sentence, as above.
std::string objectionToOwner(const SegmentEntry& segment, std::uint8_t owner);

// Refusal with the objection, if there is one and it is not overruled.
void requireNone(const std::string& objection, bool force);

} // namespace velmora::tools
