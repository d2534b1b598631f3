#include "table.h"

#include <algorithm>
#include <cstdio>

namespace weblog {

namespace {

std::size_t displayWidth(const std::string& text) {
    // Continuation bytes of UTF-8 do not start a character.
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    }));
}

}  // namespace

Table::Table(std::vector<std::string> vecHeadings) {
    m_vecRows.push_back(std::move(vecHeadings));
}

void Table::addRow(std::vector<std::string> vecCells) {
    m_vecRows.push_back(std::move(vecCells));
}

void Table::print() const {
    std::vector<std::size_t> vecWidths;
    for (const std::vector<std::string>& row : m_vecRows) {
        vecWidths.resize(std::max(vecWidths.size(), row.size()), 0);
        for (std::size_t i = 0; i < row.size(); ++i) {
            vecWidths[i] = std::max(vecWidths[i], displayWidth(row[i]));
        }
    }
    for (const std::vector<std::string>& row : m_vecRows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            if (i + 1 < row.size()) {
                line.append(vecWidths[i] - displayWidth(row[i]) + 2, ' ');
            }
        }
        std::printf("%s\n", line.c_str());
    }
}

}  // namespace weblog
