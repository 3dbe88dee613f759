#pragma once
// Aligned text tables for the terminal: columns sized to their widest cell (CJK characters count
// double), numbers right-aligned, an optional bold header when colours are on.

#include <ostream>
#include <string>
#include <vector>

namespace kestrel::cli {

enum class Align { left, right };

struct Column {
    std::string title;
    Align align = Align::left;
};

class TextTable {
  public:
    explicit TextTable(std::vector<Column> columns) : columns_(std::move(columns)) {}

    // A row with one cell per column (missing cells are blank).
    void addRow(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
    // A rule before the next row, e.g. above a totals row.
    void addSeparator() { separators_.push_back(rows_.size()); }
    bool empty() const { return rows_.empty(); }

    void render(std::ostream& out, bool colour) const;

  private:
    std::vector<Column> columns_;
    std::vector<std::vector<std::string>> rows_;
    std::vector<std::size_t> separators_;
};

// Columns a text occupies on a terminal.
std::size_t displayWidth(std::string_view text);

// "1234567" -> "1,234,567".
std::string groupedNumber(int64_t value);

// "1 file", "12 files": the grouped count with the noun that fits it.
std::string counted(int64_t n, std::string_view one, std::string_view many);

}  // namespace kestrel::cli
