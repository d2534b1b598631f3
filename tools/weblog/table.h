// A table printed with its columns aligned, for the commands that list values.
#pragma once

#include <string>
#include <vector>

namespace weblog {

class Table {
public:
    explicit Table(std::vector<std::string> vecHeadings);
    void addRow(std::vector<std::string> vecCells);
    // Columns separated by two blanks, each as wide as its widest cell (counted in characters
    // of UTF-8 text); no trailing blanks.
    void print() const;

private:
    std::vector<std::vector<std::string>> m_vecRows;
};

}  // namespace weblog
