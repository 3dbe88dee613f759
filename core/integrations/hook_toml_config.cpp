#include "core/integrations/hook_toml_config.hpp"

#include <toml++/toml.h>

#include <cstdio>
#include <sstream>

namespace kestrel {

namespace {

constexpr std::string_view kFeaturesBlock = "\n[features]\nhooks = true\n";
constexpr std::string_view kFeaturesLine = "hooks = true\n";

struct Line {
    std::size_t begin;      // offset of the first character
    std::size_t end;        // offset after its newline (or the end of the text)
    std::string_view text;  // without the newline
};

std::vector<Line> splitLines(const std::string& text) {
    std::vector<Line> lines;
    std::size_t at = 0;
    while (at < text.size()) {
        const auto nl = text.find('\n', at);
        const std::size_t stop = nl == std::string::npos ? text.size() : nl;
        const std::size_t end = nl == std::string::npos ? text.size() : nl + 1;
        lines.push_back({at, end, std::string_view(text).substr(at, stop - at)});
        at = end;
    }
    return lines;
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) {
        s.remove_prefix(1);
    }
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) {
        s.remove_suffix(1);
    }
    return s;
}

bool isHeader(std::string_view line) {
    return trim(line).starts_with('[');
}

bool isCommandKey(std::string_view line) {
    const auto t = trim(line);
    return t.starts_with("command") && trim(t.substr(7)).starts_with('=');
}

// A [[hooks]] table: the header line, its last non-blank line, and whether it runs our script.
struct HookTable {
    std::size_t header;  // line index
    std::size_t last;    // line index
    bool ours = false;
    std::string command;  // the raw value text of `command`
};

std::vector<HookTable> hookTables(const std::vector<Line>& lines) {
    std::vector<HookTable> tables;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (trim(lines[i].text) != "[[hooks]]") {
            continue;
        }
        HookTable table{i, i, false, {}};
        for (std::size_t j = i + 1; j < lines.size() && !isHeader(lines[j].text); ++j) {
            if (!trim(lines[j].text).empty()) {
                table.last = j;
            }
            if (isCommandKey(lines[j].text) &&
                lines[j].text.find(kHookCommandMarker) != std::string_view::npos) {
                table.ours = true;
                const auto eq = lines[j].text.find('=');
                table.command = std::string(trim(lines[j].text.substr(eq + 1)));
            }
        }
        tables.push_back(std::move(table));
    }
    return tables;
}

}  // namespace

std::optional<std::string> tomlParseError(const std::string& text) {
    try {
        (void)toml::parse(text);
    } catch (const toml::parse_error& e) {
        std::ostringstream out;
        out << e.description() << " (line " << e.source().begin.line << ", column "
            << e.source().begin.column << ")";
        return out.str();
    }
    return std::nullopt;
}

std::string tomlBasicString(std::string_view text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\t':
                out += "\\t";
                break;
            case '\r':
                out += "\\r";
                break;
            default:
                if (c < 0x20 || c == 0x7f) {
                    char buf[8];
                    std::snprintf(buf, sizeof buf, "\\u%04X", c);
                    out += buf;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    out += '"';
    return out;
}

std::string removeKimiHookTables(const std::string& text) {
    const auto lines = splitLines(text);
    const auto tables = hookTables(lines);
    std::string out = text;
    // From the end, so that earlier offsets stay valid.
    for (auto it = tables.rbegin(); it != tables.rend(); ++it) {
        if (!it->ours) {
            continue;
        }
        std::size_t from = lines[it->header].begin;
        if (from > 0) {
            --from;  // the newline that the appended table began with
        }
        out.erase(from, lines[it->last].end - from);
    }
    return out;
}

std::string appendKimiHookTables(const std::string& text, const std::vector<HookEventRow>& rows,
                                 const HookPaths& paths, bool includesProjectNames) {
    std::string out = removeKimiHookTables(text);
    for (const auto& row : rows) {
        out += "\n[[hooks]]\nevent = ";
        out += tomlBasicString(row.event);
        out += "\ncommand = ";
        out += tomlBasicString(hookCommandLine(HookAgent::kimi, paths, row, includesProjectNames));
        out += '\n';
    }
    return out;
}

std::vector<std::string> kimiHookCommands(const std::string& text) {
    std::vector<std::string> out;
    toml::table parsed;
    try {
        parsed = toml::parse(text);
    } catch (const toml::parse_error&) {
        return out;
    }
    if (const auto* hooks = parsed["hooks"].as_array()) {
        for (const auto& node : *hooks) {
            const auto* table = node.as_table();
            if (!table) {
                continue;
            }
            if (auto command = (*table)["command"].value<std::string>();
                command && command->find(kHookCommandMarker) != std::string::npos) {
                out.push_back(*command);
            }
        }
    }
    return out;
}

CodexFeaturesResult enableCodexHooksFeature(const std::string& text) {
    toml::table parsed;
    try {
        parsed = toml::parse(text);
    } catch (const toml::parse_error&) {
        return {text, CodexFeaturesEdit::none};
    }
    const auto features = parsed["features"];
    if (!features) {
        return {text + std::string(kFeaturesBlock), CodexFeaturesEdit::block};
    }
    if (!features.is_table() || features["hooks"]) {
        return {text, CodexFeaturesEdit::none};
    }
    // [features] exists without the switch: add it under that header when the header is a
    // plain line of its own (a dotted or inline form is left to the user).
    for (const auto& line : splitLines(text)) {
        if (trim(line.text) == "[features]") {
            std::string out = text;
            std::string insert(kFeaturesLine);
            if (line.end == line.begin + line.text.size()) {  // the header ends the file
                insert.insert(insert.begin(), '\n');
                return {out + insert, CodexFeaturesEdit::line};
            }
            out.insert(line.end, insert);
            return {out, CodexFeaturesEdit::line};
        }
    }
    return {text, CodexFeaturesEdit::none};
}

std::string revertCodexHooksFeature(const std::string& text, CodexFeaturesEdit edit) {
    std::string out = text;
    if (edit == CodexFeaturesEdit::block) {
        if (const auto at = out.rfind(kFeaturesBlock); at != std::string::npos) {
            out.erase(at, kFeaturesBlock.size());
        }
    } else if (edit == CodexFeaturesEdit::line) {
        for (const auto& line : splitLines(out)) {
            if (trim(line.text) == "[features]") {
                if (out.compare(line.end, kFeaturesLine.size(), kFeaturesLine) == 0) {
                    out.erase(line.end, kFeaturesLine.size());
                }
                break;
            }
        }
    }
    return out;
}

}  // namespace kestrel
