#include "cli/text_table.hpp"

#include <algorithm>
#include <cstdint>

namespace kestrel::cli {
namespace {

bool isWide(uint32_t cp) {
    return (cp >= 0x1100 && cp <= 0x115F) || (cp >= 0x2E80 && cp <= 0xA4CF) ||
           (cp >= 0xAC00 && cp <= 0xD7A3) || (cp >= 0xF900 && cp <= 0xFAFF) ||
           (cp >= 0xFE30 && cp <= 0xFE4F) || (cp >= 0xFF00 && cp <= 0xFF60) ||
           (cp >= 0xFFE0 && cp <= 0xFFE6) || (cp >= 0x1F300 && cp <= 0x1FAFF) ||
           (cp >= 0x20000 && cp <= 0x3FFFD);
}

}  // namespace

std::size_t displayWidth(std::string_view text) {
    std::size_t width = 0;
    for (std::size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        std::size_t n = c < 0x80 ? 1 : c < 0xE0 ? 2 : c < 0xF0 ? 3 : 4;
        n = std::min(n, text.size() - i);
        uint32_t cp = n == 1 ? c : c & (0xFF >> (n + 1));
        for (std::size_t k = 1; k < n; ++k) {
            cp = (cp << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
        }
        width += isWide(cp) ? 2 : 1;
        i += n;
    }
    return width;
}

std::string groupedNumber(int64_t value) {
    const bool negative = value < 0;
    // Work on the unsigned magnitude so that INT64_MIN does not overflow.
    uint64_t magnitude =
        negative ? ~static_cast<uint64_t>(value) + 1 : static_cast<uint64_t>(value);
    std::string digits = std::to_string(magnitude);
    std::string out;
    for (std::size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) {
            out += ',';
        }
        out += digits[i];
    }
    return negative ? "-" + out : out;
}

std::string counted(int64_t n, std::string_view one, std::string_view many) {
    std::string out = groupedNumber(n);
    out += ' ';
    out += n == 1 ? one : many;
    return out;
}

void TextTable::render(std::ostream& out, bool colour) const {
    std::vector<std::size_t> widths(columns_.size());
    for (std::size_t c = 0; c < columns_.size(); ++c) {
        widths[c] = displayWidth(columns_[c].title);
        for (const auto& row : rows_) {
            if (c < row.size()) {
                widths[c] = std::max(widths[c], displayWidth(row[c]));
            }
        }
    }
    auto line = [&](const std::vector<std::string>& cells) {
        std::string text;
        for (std::size_t c = 0; c < columns_.size(); ++c) {
            const std::string& cell = c < cells.size() ? cells[c] : std::string();
            const std::size_t pad = widths[c] - displayWidth(cell);
            if (c > 0) {
                text += "  ";
            }
            if (columns_[c].align == Align::right) {
                text.append(pad, ' ');
                text += cell;
            } else {
                text += cell;
                if (c + 1 < columns_.size()) {
                    text.append(pad, ' ');
                }
            }
        }
        while (!text.empty() && text.back() == ' ') {
            text.pop_back();
        }
        return text;
    };
    std::size_t total = 0;
    for (auto w : widths) {
        total += w;
    }
    total += columns_.empty() ? 0 : 2 * (columns_.size() - 1);

    std::vector<std::string> titles;
    for (const auto& column : columns_) {
        titles.push_back(column.title);
    }
    out << (colour ? "\x1b[1m" : "") << line(titles) << (colour ? "\x1b[0m" : "") << '\n';
    for (std::size_t r = 0; r <= rows_.size(); ++r) {
        if (std::find(separators_.begin(), separators_.end(), r) != separators_.end()) {
            std::string rule;
            for (std::size_t i = 0; i < total; ++i) {
                rule += "\xe2\x94\x80";  // box-drawing horizontal line
            }
            out << rule << '\n';
        }
        if (r < rows_.size()) {
            out << line(rows_[r]) << '\n';
        }
    }
}

}  // namespace kestrel::cli
