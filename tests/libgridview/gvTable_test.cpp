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

// A table with these column headings and rows, each row's cells in column
// order, drawn.
std::string DrawTable(const std::vector<std::string>& headings, const std::vector<std::vector<std::string>>& rows)
{
    gvTable table;
    std::vector<gvColumnId> columns;
    for (const std::string& heading : headings) columns.push_back(table.createColumn(heading));
    for (const std::vector<std::string>& cells : rows) {
        gvRow& row = table.createRow();
        for (size_t i = 0; i < cells.size(); ++i) row.Insert(columns.at(i), cells[i]);
    }
    return Draw(table);
}

TEST(GvTable, DrawsRulesHeadingsAndRows)
{
    EXPECT_EQ(DrawTable({"Name", "Value"}, {{"a", "1"}, {"bb", "22"}}),
              "+------+-------+\n"
              "| Name | Value |\n"
              "+------+-------+\n"
              "| a    | 1     |\n"
              "| bb   | 22    |\n"
              "+------+-------+\n");
}

TEST(GvTable, WidthComesFromTheLongestCellOrHeading)
{
    EXPECT_EQ(DrawTable({"A", "Heading"}, {{"a much longer cell", "x"}, {"short", ""}}),
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
    EXPECT_EQ(DrawTable({"Only"}, {}),
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
