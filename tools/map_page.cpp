#include "map_page.hpp"

#include <algorithm>
#include <string_view>

#include <nlohmann/json.hpp>

#include "embedded_pages.hpp"
#include "html.hpp"

namespace velmora::tools {

namespace {

// No text may begin a tag in a script's JSON either, where entities are none.
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
