#include "TextTable.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

using tsmon::DisplayWidth;
using tsmon::TextTable;

TEST(TextTableTest, WidthCountsColumnsNotBytes)
{
    EXPECT_EQ(DisplayWidth(""), 0U);
    EXPECT_EQ(DisplayWidth("News"), 4U);
    EXPECT_EQ(DisplayWidth("Новости"), 7U);
    EXPECT_EQ(DisplayWidth("新聞"), 4U);
    EXPECT_EQ(DisplayWidth("e\u0301"), 1U);
    EXPECT_EQ(DisplayWidth("\uFFFD"), 1U);
}

TEST(TextTableTest, BrokenUtf8CountsAColumnPerByte)
{
    EXPECT_EQ(DisplayWidth("a\xC3"), 2U);
    EXPECT_EQ(DisplayWidth("\xFF\xFE"
                           "a"),
              3U);
}

TEST(TextTableTest, ColumnsAreAsWideAsTheirWidestText)
{
    TextTable table;
    table.AddColumn("ID", TextTable::Align::RIGHT);
    table.AddColumn("NAME", TextTable::Align::LEFT);
    table.AddColumn("X", TextTable::Align::LEFT);
    table.AddRow({"1", "新聞", "a"});
    table.AddRow({"1000", "Новости", "b"});
    table.AddRow({"", "", "c"});
    std::ostringstream out;
    table.Print(out);
    EXPECT_EQ(out.str(),
              "  ID  NAME     X\n"
              "   1  新聞     a\n"
              "1000  Новости  b\n"
              "               c\n");
}

TEST(TextTableTest, LinesDoNotEndInSpaces)
{
    TextTable table;
    table.AddColumn("A", TextTable::Align::LEFT);
    table.AddColumn("LAST", TextTable::Align::LEFT);
    table.AddRow({"1"});
    std::ostringstream out;
    table.Print(out);
    EXPECT_EQ(out.str(), "A  LAST\n1\n");
}

} // namespace
