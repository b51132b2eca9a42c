#include "html.hpp"

#include <string_view>

namespace velmora::tools {

std::string forPage(const std::string& text)
{
    std::string safe;
    for (const char letter : text) {
        constexpr std::string_view kDangerous = "<>&\"";
        constexpr const char* kEntities[] = {"&lt;", "&gt;", "&amp;", "&quot;"};
        const std::size_t which = kDangerous.find(letter);
        which == kDangerous.npos ? safe.append(1, letter) : safe.append(kEntities[which]);
    }
    return safe;
}

} // namespace velmora::tools
