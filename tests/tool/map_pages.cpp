// Writes pages of maps that the check of pages knows: small.html (tests/tool/small_map.hpp) and cut-up.html, 100,000 runs.
//   map-pages FOLDER
#include <string>

#include "small_map.hpp"
#include "tools/map_page.hpp"
#include "tools/whole_file.hpp"

int main(int count, char** arguments)
{
    using namespace velmora;
    if (count != 2)
        return 2;
    const std::string folder = arguments[1];
    tools::writeWholeFile(folder + "/small.html", tools::mapPage(test::smallMap(), "noon"));
    tools::writeWholeFile(folder + "/cut-up.html", tools::mapPage(test::cutUpMap(), "noon"));
}
