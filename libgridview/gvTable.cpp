// gvTable: column widths and drawing.
#include "gvTable.h"

#include <algorithm>
#include <ostream>

gvColumnId gvTable::createColumn(const std::string& heading)
{
    _headings.push_back(heading);
    return gvColumnId{_headings.size() - 1};
}

gvRow& gvTable::createRow()
{
    _rows.emplace_back();
    return _rows.back();
}

void gvTable::Display(std::ostream& out) const
{
    std::vector<std::size_t> widths;
    for (const std::string& heading : _headings) widths.push_back(heading.size());
    for (const gvRow& row : _rows)
        for (std::size_t c = 0; c < widths.size(); ++c) widths[c] = std::max(widths[c], row.Cell(c).size());

    auto rule = [&] {
        out << '+';
        for (std::size_t width : widths) out << std::string(width + 2, '-') << '+';
        out << '\n';
    };
    auto line = [&](auto cellOf) {
        out << '|';
        for (std::size_t c = 0; c < widths.size(); ++c) {
            const std::string& text = cellOf(c);
            out << ' ' << text << std::string(widths[c] - text.size(), ' ') << " |";
        }
        out << '\n';
    };

    if (_headings.empty()) return;
    rule();
    line([&](std::size_t c) -> const std::string& { return _headings[c]; });
    rule();
    for (const gvRow& row : _rows) line([&](std::size_t c) -> const std::string& { return row.Cell(c); });
    rule();
    out.flush();
}
