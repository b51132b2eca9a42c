// Files of the tree that are constants of the program: tools/CMakeLists.txt makes them.
#pragma once

#include <string_view>

namespace velmora::tools {

extern const std::string_view kMessagesPage; // docs/messages.md, which describes its own form
extern const std::string_view kMapPage;      // tools/map_page.html, which "map --html" fills in

} // namespace velmora::tools
