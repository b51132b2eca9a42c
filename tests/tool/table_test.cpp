// Tables for people.
#include <gtest/gtest.h>

#include <sstream>

#include "tools/table.hpp"

namespace velmora::test {
namespace {

TEST(Table, ColumnsAreAsWideAsWhatStandsInThem)
{
    tools::Table table({"NAME", ">BYTES", "WHERE"});
    table.add({"A", "1", "here"});
    table.add({"LONGER", "1000000", ""});
    std::ostringstream out;
    table.print(out);
    EXPECT_EQ(out.str(), "NAME      BYTES  WHERE\n"
                         "A             1  here\n"
                         "LONGER  1000000\n");
}

TEST(Table, IsEmptyUntilItHasARow)
{
    tools::Table table({"NAME"});
    EXPECT_TRUE(table.empty());
    table.add({"A"});
    EXPECT_FALSE(table.empty());
}

} // namespace
} // namespace velmora::test
