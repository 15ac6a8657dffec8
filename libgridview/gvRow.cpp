// gvRow: cell storage.
#include "gvRow.h"

void gvRow::Insert(gvColumnId column, const std::string& text)
{
    if (_cells.size() <= column.index) _cells.resize(column.index + 1);
    _cells[column.index] = text;
}

const std::string& gvRow::Cell(std::size_t index) const
{
    static const std::string empty;
    return index < _cells.size() ? _cells[index] : empty;
}
