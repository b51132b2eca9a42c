// Text in a page.
#pragma once

#include <string>

namespace velmora::tools {

// In a page no text may begin a tag or an entity, nor end an attribute.
std::string forPage(const std::string& text);

} // namespace velmora::tools
