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

TEST(TextTableTest, ClippedTextEndsInAnEllipsisAndKeepsCombiningCharacters)
{
    EXPECT_EQ(tsmon::Clip("News", 4), "News");
    EXPECT_EQ(tsmon::Clip("News", 3), "Ne\u2026");
    EXPECT_EQ(tsmon::Clip("News", 1), "\u2026");
    EXPECT_EQ(tsmon::Clip("News", 0), "");
    EXPECT_EQ(tsmon::Clip("新聞天", 5), "新聞\u2026");
    EXPECT_EQ(tsmon::Clip("新聞天", 4), "新\u2026") << "half a character is none";
    EXPECT_EQ(tsmon::Clip("e\u0301e\u0301e\u0301", 2), "e\u0301\u2026");
    EXPECT_EQ(tsmon::Clip("a\xFF\xFE"
                          "b",
                          3),
              "a\xFF\u2026");
}

TEST(TextTableTest, WidestColumnThatMayBeCutGivesWay)
{
    TextTable table;
    table.AddColumn("ID", TextTable::Align::RIGHT);
    table.AddColumn("NAME", TextTable::Align::LEFT, TextTable::Cut::ALLOWED);
    table.AddColumn("BY", TextTable::Align::LEFT, TextTable::Cut::ALLOWED);
    table.AddColumn("N", TextTable::Align::RIGHT);
    table.AddRow({"10", "新聞天氣預報", "Somebody", "123"});
    table.AddText(1, "a text of its own");
    std::ostringstream out;
    table.Print(out, 26);
    EXPECT_EQ(out.str(),
              "ID  NAME     BY          N\n"
              "10  新聞天\u2026  Somebody  123\n"
              "    a text of its own\n");
}

TEST(TextTableTest, LinesAreCutWhereColumnsCannotGiveWay)
{
    TextTable table;
    table.AddColumn("FIXED", TextTable::Align::LEFT);
    table.AddColumn("FIXED TOO", TextTable::Align::LEFT);
    table.AddRow({"1", "2"});
    table.AddText(0, "a text of its own");
    std::ostringstream out;
    table.Print(out, 10);
    EXPECT_EQ(out.str(), "FIXED  FI\u2026\n1      2\na text of\u2026\n");
}

} // namespace
