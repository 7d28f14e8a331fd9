#include "ctl/CTable.h"

#include <algorithm>
#include <fmt/format.h>

namespace {

constexpr size_t nGap = 2;        // blanks between columns
constexpr size_t nLeastWidth = 8; // of a column that is cut

} // namespace

std::vector<size_t> CTable::widths() const {
    std::vector<size_t> widths;
    for (size_t i = 0; i < m_vColumns.size(); ++i) {
        size_t width = columnsOf(m_vColumns[i].m_sHeading);
        for (const auto& row : m_vRows) {
            width = std::max(width, columnsOf(row[i].m_sText));
        }
        widths.push_back(width);
    }
    return widths;
}

// Cuts elastic columns. Returns by how many columns the line is still too long.
size_t CTable::shrink(std::vector<size_t>& widths, size_t width) const {
    size_t total = nGap * (widths.size() - 1);
    for (const size_t column : widths) {
        total += column;
    }
    size_t excess = width == 0 || total <= width ? 0 : total - width;
    for (size_t i = 0; i < widths.size(); ++i) {
        if (m_vColumns[i].m_bElastic && widths[i] > nLeastWidth) {
            const size_t step = std::min(excess, widths[i] - nLeastWidth);
            widths[i] -= step;
            excess -= step;
        }
    }
    return excess;
}

bool CTable::fits(size_t width) const {
    auto columns = widths();
    return shrink(columns, width) == 0;
}

// A cell is padded before it is coloured, because the colour's escape sequence would count as characters.
void CTable::print(FILE* stream, size_t width) const {
    auto columns = widths();
    if (const size_t excess = shrink(columns, width); excess != 0) {
        columns.back() -= std::min(excess, columns.back() - std::min(columns.back(), nLeastWidth));
    }
    std::vector<SCell> heading;
    for (const SColumn& column : m_vColumns) {
        heading.push_back({column.m_sHeading});
    }
    const auto printRow = [&](const std::vector<SCell>& row) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i) {
            const std::string text = columns[i] == 0 ? std::string() : cut(row[i].m_sText, columns[i]);
            const std::string pad(columns[i] - std::min(columns[i], columnsOf(text)), ' ');
            const bool isRight = m_vColumns[i].m_eAlign == EAlign::right;
            const bool isLast = i + 1 == row.size();
            line += isRight ? pad : "";
            line += paint(text, row[i].m_eColour, stream);
            line += isRight || isLast ? "" : pad;
            line += isLast ? "" : std::string(nGap, ' ');
        }
        fmt::print(stream, "{}\n", line);
    };
    printRow(heading);
    for (const auto& row : m_vRows) {
        printRow(row);
    }
}
