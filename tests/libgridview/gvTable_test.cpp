// gvTable and gvRow: column widths, cell storage and the drawn text.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "gvTable.h"

namespace {

std::string Draw(const gvTable& table)
{
    std::ostringstream out;
    table.Display(out);
    return out.str();
}

TEST(GvTable, DrawsRulesHeadingsAndRows)
{
    gvTable table;
    const gvColumnId name = table.createColumn("Name");
    const gvColumnId value = table.createColumn("Value");
    gvRow& first = table.createRow();
    first.Insert(name, "a");
    first.Insert(value, "1");
    gvRow& second = table.createRow();
    second.Insert(name, "bb");
    second.Insert(value, "22");
    EXPECT_EQ(Draw(table),
              "+------+-------+\n"
              "| Name | Value |\n"
              "+------+-------+\n"
              "| a    | 1     |\n"
              "| bb   | 22    |\n"
              "+------+-------+\n");
}

TEST(GvTable, WidthComesFromTheLongestCellOrHeading)
{
    gvTable table;
    const gvColumnId a = table.createColumn("A");
    const gvColumnId b = table.createColumn("Heading");
    gvRow& first = table.createRow();
    first.Insert(a, "a much longer cell");
    first.Insert(b, "x");
    gvRow& second = table.createRow();
    second.Insert(a, "short");
    second.Insert(b, "");
    EXPECT_EQ(Draw(table),
              "+--------------------+---------+\n"
              "| A                  | Heading |\n"
              "+--------------------+---------+\n"
              "| a much longer cell | x       |\n"
              "| short              |         |\n"
              "+--------------------+---------+\n");
}

TEST(GvTable, CellsNeverSetAreDrawnEmpty)
{
    gvTable table;
    const gvColumnId first = table.createColumn("One");
    const gvColumnId second = table.createColumn("Two");
    table.createRow().Insert(second, "only the second");
    table.createRow();
    table.createRow().Insert(first, "only the first");
    EXPECT_EQ(Draw(table),
              "+----------------+-----------------+\n"
              "| One            | Two             |\n"
              "+----------------+-----------------+\n"
              "|                | only the second |\n"
              "|                |                 |\n"
              "| only the first |                 |\n"
              "+----------------+-----------------+\n");
}

TEST(GvTable, TableWithoutRowsDrawsOnlyTheHeadings)
{
    gvTable table;
    table.createColumn("Only");
    EXPECT_EQ(Draw(table),
              "+------+\n"
              "| Only |\n"
              "+------+\n"
              "+------+\n");
}

TEST(GvTable, TableWithoutColumnsDrawsNothing)
{
    gvTable table;
    table.createRow();
    EXPECT_EQ(Draw(table), "");
}

TEST(GvTable, ColumnIdsCountFromZeroInCreationOrder)
{
    gvTable table;
    EXPECT_EQ(table.createColumn("a").index, 0u);
    EXPECT_EQ(table.createColumn("b").index, 1u);
    EXPECT_EQ(table.createColumn("c").index, 2u);
}

TEST(GvTable, RowReferencesStayValidAsRowsAreAdded)
{
    gvTable table;
    const gvColumnId column = table.createColumn("N");
    gvRow& first = table.createRow();
    std::vector<gvRow*> rows{&first};
    for (int i = 0; i < 1000; ++i) rows.push_back(&table.createRow());
    // Filled only now, through references taken while the table grew.
    for (size_t i = 0; i < rows.size(); ++i) rows[i]->Insert(column, std::to_string(i));
    EXPECT_EQ(&first, rows[0]);
    EXPECT_EQ(first.Cell(0), "0");
    const std::string drawn = Draw(table);
    const std::string top = "+------+\n| N    |\n+------+\n| 0    |\n";
    EXPECT_EQ(drawn.substr(0, top.size()), top);
    EXPECT_NE(drawn.find("| 1000 |\n+------+\n"), std::string::npos);
}

TEST(GvRow, InsertReplacesTheCell)
{
    gvRow row;
    row.Insert(gvColumnId{1}, "first");
    row.Insert(gvColumnId{1}, "second");
    EXPECT_EQ(row.Cell(1), "second");
    EXPECT_EQ(row.Cell(0), "");
    EXPECT_EQ(row.Cell(7), "");
}

TEST(GvTable, CellsBeyondTheLastColumnAreNotDrawn)
{
    gvTable table;
    const gvColumnId only = table.createColumn("X");
    gvRow& row = table.createRow();
    row.Insert(only, "x");
    row.Insert(gvColumnId{5}, "stray");
    EXPECT_EQ(Draw(table),
              "+---+\n"
              "| X |\n"
              "+---+\n"
              "| x |\n"
              "+---+\n");
}

}  // namespace
