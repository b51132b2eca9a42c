#include "map_page.hpp"

#include <algorithm>
#include <string_view>

#include <nlohmann/json.hpp>

#include "embedded_pages.hpp"

namespace velmora::tools {

namespace {

// In a page no text may begin a tag or an entity.
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

// The same in a script's JSON, where entities are none.
std::string forScript(const std::string& json)
{
    std::string safe;
    for (const char letter : json)
        letter == '<' ? safe.append("\\u003c") : safe.append(1, letter);
    return safe;
}

void fillIn(std::string& page, std::string_view place, const std::string& text)
{
    page.replace(page.find(place), place.size(), text);
}

} // namespace

std::string mapPage(const MemoryMap& map, const std::string& when)
{
    std::string page(kMapPage);
    fillIn(page, "{{when}}", forPage(when));
    fillIn(page, "{{listing}}", forScript(mapListing(map).dump()));
    return page;
}

} // namespace velmora::tools
