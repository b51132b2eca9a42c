// Client library of the memory manager of a printer controller: everything that an application needs.
//
//   velmora::Device device(velmora::openNode());
//   velmora::Segment pages = velmora::Segment::openOrCreate(device, {.name = "PAGE", .bytes = 32 << 20, .ownerBits = 8});
//   const velmora::Owner page{0x0F};
//   if (std::optional<velmora::Block> block = pages.allocate(65536, page)) {
//       velmora::Mapping view = block->map(); // 65536 bytes, the same ones in every process that maps them
//       ...
//   }                                         // released, unless it was detached
//
//   <velmora/segment.hpp>  the safe layer: segments, blocks, owners
//   <velmora/usage.hpp>    who has how much
//   <velmora/raw.hpp>      the commands themselves, with their traps
//   <velmora/error.hpp>    codes and exceptions
// Apart from it: <velmora/controller.hpp> (a simulated controller), <velmora/testing.hpp> (for GoogleTest), <velmora/velmora.h>
// (for C). docs/application-guide.md says how an application uses them.
#pragma once

#if __cplusplus < 202002L
#error "<velmora/device.hpp> is C++20: compile with -std=c++20"
#endif

#include <velmora/error.hpp>
#include <velmora/raw.hpp>
#include <velmora/segment.hpp>
#include <velmora/usage.hpp>

// The client library.
namespace velmora {
}
