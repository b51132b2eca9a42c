// The numbers of docs/sizing.md: each table is read from the page and compared with what the manager does.
#include <fstream>
#include <sstream>

#include <velmora/segment.hpp>

#include "support/manager_fixture.h"

namespace velmora::test {
namespace {

using Cells = std::vector<std::string>;

Cells cellsOf(const std::string& line)
{
    Cells cells;
    std::istringstream text(line.substr(line.find('|') + 1));
    for (std::string cell; std::getline(text, cell, '|');) {
        const std::size_t first = cell.find_first_not_of(' ');
        cells.push_back(first == cell.npos ? "" : cell.substr(first, cell.find_last_not_of(' ') - first + 1));
    }
    return cells;
}

// The rows of the page's table behind <!-- name -->, its heading first.
std::vector<Cells> tableOf(const std::string& name)
{
    std::ifstream page(VELMORA_DOCS "/sizing.md");
    std::string line;
    while (std::getline(page, line) && line != "<!-- " + name + " -->") {
    }
    std::vector<Cells> rows;
    while (std::getline(page, line) && line.starts_with("|"))
        if (!line.starts_with("| ---"))
            rows.push_back(cellsOf(line));
    EXPECT_GT(rows.size(), 2u) << name;
    return rows;
}

U32 number(const std::string& text)
{
    return static_cast<U32>(std::stoul(text));
}

class SizingGuide : public ManagerTest
{
protected:
    // Bytes that an allocation takes of a fresh segment.
    static U32 taken(U32 bytes, U32 blockBytes)
    {
        start();
        const U32 handle = createBlocks("PAGE", 0x1000000, blockBytes);
        EXPECT_NE(MM_Malloc(handle, bytes, 0), 0u);
        return (MM_GetTotBlk(handle) - MM_GetTotAvailBlk(handle)) * blockBytes;
    }
    // Bytes to use of a fresh segment.
    static U32 usable(U32 bytes, U32 blockBytes, U8 bits)
    {
        start();
        const U32 handle = createBlocks("PAGE", bytes, blockBytes, bits);
        return MM_GetTotBlk(handle) * blockBytes;
    }
    static void startWithArea(U32 bytes)
    {
        char text[18];
        std::snprintf(text, sizeof text, "95000000-%08x", 0x95000000 + bytes);
        start(text);
    }
};

TEST_F(SizingGuide, ARequestTakesWholeBlocks)
{
    const auto rows = tableOf("waste");
    for (std::size_t row = 1; row < rows.size(); ++row)
        for (std::size_t column = 1; column < rows[0].size(); ++column)
            EXPECT_EQ(number(rows[row][column]), taken(number(rows[row][0]), number(rows[0][column])))
                << rows[row][0] << " bytes in blocks of " << rows[0][column];
}

TEST_F(SizingGuide, TheOwnerMapTakesWholeBlocksFromTheFront)
{
    constexpr U8 kBits[] = {0, 1, 2, 4, 8};
    const auto rows = tableOf("map");
    for (std::size_t row = 1; row < rows.size(); ++row)
        for (std::size_t width = 0; width < 5; ++width)
            EXPECT_EQ(number(rows[row][2 + width]), usable(number(rows[row][0]), number(rows[row][1]), kBits[width]))
                << rows[row][0] << " bytes in blocks of " << rows[row][1] << ", bits " << int(kBits[width]);
}

TEST_F(SizingGuide, OwnersThatDoNotContainEachOther)
{
    const auto rows = tableOf("owners");
    for (std::size_t row = 1; row < rows.size(); ++row) {
        const std::vector<Owner> ids = ownerIds(number(rows[row][0]));
        EXPECT_EQ(number(rows[row][1]), ids.size());
        std::istringstream shown(rows[row][2]);
        std::size_t count = 0;
        for (std::string id; shown >> id && id != "..."; ++count)
            EXPECT_EQ(number(id), static_cast<U32>(ids.at(count)));
        if (rows[row][2].find("...") == std::string::npos) {
            EXPECT_EQ(count, ids.size());
        }
    }
}

TEST_F(SizingGuide, AnAreaLessItsMarginsAndTheFixedSegmentsIsForSegments)
{
    const auto rows = tableOf("area");
    for (std::size_t row = 1; row < rows.size(); ++row) {
        startWithArea(number(rows[row][0]));
        ASSERT_NE(pstSegBlkHead, nullptr);
        EXPECT_EQ(number(rows[row][1]), pstSegBlkHead->ulSize) << rows[row][0];
    }
}

TEST_F(SizingGuide, TheExampleFitsTheAreaOf16MiBAndNotThatOf8)
{
    const auto rows = tableOf("layout");
    startWithArea(16 << 20);
    for (std::size_t row = 1; row < rows.size(); ++row) {
        const Cells& cells = rows[row];
        TSegInfoFromApp info = request(cells[0].c_str(), number(cells[4]), number(cells[1]));
        info.ubSegDSType = cells[2] == "stack" ? STACK : LINKEDLIST;
        info.ubMap = static_cast<U8>(number(cells[3]));
        ASSERT_EQ(MM_CreateSegment(&info), U32(ENOERR)) << cells[0];
        EXPECT_EQ(MM_GetTotBlk(info.hulHandle), number(cells[5])) << cells[0];
    }
    // 73 blocks of 65536 do not give the 72 bands, 74 do.
    startWithArea(16 << 20);
    EXPECT_EQ(MM_GetTotBlk(createBlocks("BAND", 73 * 65536, 65536, 4)), 71u);
    startWithArea(16 << 20);
    EXPECT_EQ(MM_GetTotBlk(createBlocks("BAND", 74 * 65536, 65536, 4)), 72u);
    // Not by falling block size, HEAD before TICK: a block of the tickets is lost.
    startWithArea(16 << 20);
    createBlocks("BAND", 4722688, 4096, 4);
    createBlocks("HEAD", 1792, 256, 4);
    EXPECT_EQ(MM_GetTotBlk(createBlocks("TICK", 41984, 1024, 2)), 39u);
    startWithArea(8 << 20);
    TSegInfoFromApp bands = request("BAND", 4722688, 4096);
    EXPECT_EQ(MM_CreateSegment(&bands), U32(EASSERT));
}

} // namespace
} // namespace velmora::test
