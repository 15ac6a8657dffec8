// gvTable: a plain text table with a header row, drawn with ASCII rules.
#pragma once

#include <deque>
#include <iosfwd>
#include <string>
#include <vector>

#include "gvRow.h"

class gvTable {
public:
    // Adds a column with the given heading, right of the existing ones.
    gvColumnId createColumn(const std::string& heading);
    // Adds an empty row below the existing ones; the reference stays valid
    // for the table's lifetime.
    gvRow& createRow();
    // Draws the table: a rule, the headings, a rule, the rows, a rule.
    void Display(std::ostream& out) const;

private:
    std::vector<std::string> _headings;
    std::deque<gvRow> _rows;
};
