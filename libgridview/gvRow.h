// gvRow: one row of a text table, a cell per column.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

// Names a column of the table that created it.
struct gvColumnId {
    std::size_t index;
};

class gvRow {
public:
    // Sets the cell of `column`, replacing what it held.
    void Insert(gvColumnId column, const std::string& text);
    // The cell of column `index`; empty when never set.
    const std::string& Cell(std::size_t index) const;

private:
    std::vector<std::string> _cells;
};
