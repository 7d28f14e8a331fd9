// A table for people: columns as wide as they have to be, in lines as long as the terminal's.
#ifndef QEL_CTL_CTABLE_H
#define QEL_CTL_CTABLE_H

#include "ctl/terminal.h"

#include <cstdio>
#include <string>
#include <vector>

class CTable {
public:
    enum class EAlign { left, right };
    struct SColumn {
        std::string m_sHeading;
        EAlign m_eAlign = EAlign::left;
        bool m_bElastic = false; // is cut where the line is too long, before the last column is
    };
    struct SCell {
        std::string m_sText; // printable already
        EColour m_eColour = EColour::none;
    };

    explicit CTable(std::vector<SColumn> columns) : m_vColumns(std::move(columns)) {}

    // As many cells as there are columns.
    void add(std::vector<SCell> row) { m_vRows.push_back(std::move(row)); }
    bool isEmpty() const { return m_vRows.empty(); }
    // Whether nothing but elastic columns has to be cut in lines of this width; 0: as long as it takes.
    bool fits(size_t width) const;
    void print(FILE* stream, size_t width) const;

private:
    std::vector<size_t> widths() const;
    size_t shrink(std::vector<size_t>& widths, size_t width) const;

    std::vector<SColumn> m_vColumns;
    std::vector<std::vector<SCell>> m_vRows;
};

#endif
