// Checks the subcommand "velmora-mm area", on the machine that builds.
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "../../tools/area.h"

namespace {

struct Case {
    const char* name;
    std::vector<std::string_view> words;
    int status;
    const char* says; // somewhere in what it prints, on either stream
};

const Case kCases[] = {
    {"product kernel is the default", {"--text", "0x01000000-0x0a000000"}, 0, "95000000-9e000000\n"},
    {"size with a suffix", {"--text", "16M+144M"}, 0, "95000000-9e000000\n"},
    {"other kernel constants",
     {"--text", "--page-offset", "0xc0000000", "--phys-offset", "0x40000000", "0x50000000+144M"},
     0,
     "d0000000-d9000000\n"},
    {"managed bounds are one mebibyte inside", {"16M+144M"}, 0, "kernel virtual 0x95100000 to 0x9df00000"},
    {"the linear map is not checked without its end", {"16M+144M"}, 0, "not checked"},
    {"up to the end of the linear map",
     {"--text", "--high-memory", "0xa4000000", "112M+144M"},
     0,
     "9b000000-a4000000\n"},
    {"beyond the linear map", {"--high-memory", "0xa4000000", "113M+144M"}, 1, "beyond the linear map"},
    {"text that the module takes", {"--check", "95000000-9e000000"}, 0, "physical 0x01000000 to 0x0a000000"},
    {"start at PAGE_OFFSET", {"--check", "94000000-96000000"}, 1, "must start above PAGE_OFFSET 0x94000000"},
    {"reduced end at PAGE_OFFSET", {"--check", "95000000-94100000"}, 1, "0x94000000, must be above PAGE_OFFSET"},
    {"end below start", {"--check", "96000000-95000000"}, 1, "not above its start"},
    {"no numbers", {"--check", "none"}, 1, "two hexadecimal numbers"},
    {"sign in front of the start", {"--check", "+5000000-9e000000"}, 1, "two hexadecimal numbers"},
    {"sign in front of the end", {"--check", "95000000--2000000"}, 1, "two hexadecimal numbers"},
    {"sign behind white space", {"--check", "95000000- +600000"}, 1, "two hexadecimal numbers"},
    {"longer than the parameter", {"--check", "0x95000000-0x96000000"}, 1, "21 characters"},
    {"physical end below start", {"32M-16M"}, 1, "not above its start"},
    {"below the start of RAM", {"--phys-offset", "0x40000000", "16M+16M"}, 1, "below the start of RAM"},
    {"start of RAM itself", {"0+16M"}, 1, "must start above PAGE_OFFSET"},
    {"not whole pages", {"0x01000001+16M"}, 1, "whole pages"},
    {"nothing left inside", {"16M+4M"}, 1, "leave nothing"},
    {"beyond 32 bits", {"3900M+100M"}, 1, "32-bit address space"},
    {"no area", {}, 2, "the area is missing"},
    {"two areas", {"16M+16M", "48M+16M"}, 2, "more than one"},
    {"area and check", {"16M+16M", "--check", "95000000-9e000000"}, 2, "not both"},
    {"option without value", {"--page-offset"}, 2, "lacks its value"},
    {"unknown option", {"--nonsense"}, 2, "unknown option"},
    {"no number", {"x-y"}, 2, "no number"},
    {"number above 32 bits", {"1M+5G"}, 2, "no number of up to 32 bits"},
    {"help", {"--help"}, 0, "usage: velmora-mm area"},
};

} // namespace

int main()
{
    int failed = 0;
    for (const Case& test : kCases) {
        std::ostringstream out;
        const int status = velmora::tools::area(test.words, out, out);
        if (status == test.status && out.str().find(test.says) != std::string::npos)
            continue;
        std::printf("FAIL area: %s: status %d\n%s", test.name, status, out.str().c_str());
        failed = 1;
    }
    if (failed == 0)
        std::printf("PASS area: %zu cases\n", sizeof kCases / sizeof *kCases);
    return failed;
}
