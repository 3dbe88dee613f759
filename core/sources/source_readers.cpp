#include "core/sources/source_readers.hpp"

#include "core/sources/agent_table.hpp"

namespace kestrel::SourceReaders {

std::optional<SourceReader> reader(AgentSource source) {
    const auto& row = AgentTable::row(source);
    if (row.reader == nullptr) {
        return std::nullopt;
    }
    return row.reader();
}

std::vector<AgentSource> readableSources() {
    std::vector<AgentSource> out;
    for (const auto& row : AgentTable::rows()) {
        if (row.reader != nullptr) {
            out.push_back(row.source);
        }
    }
    return out;
}

std::string defaultModel(AgentSource source, const std::vector<std::filesystem::path>& roots) {
    const auto& row = AgentTable::row(source);
    return row.defaultModel != nullptr ? row.defaultModel(roots) : std::string();
}

std::expected<IngestResult, FileError> collect(const SourceIngest& ingest,
                                               SourceReadContext context) {
    std::vector<UsageEvent> events;
    context.sink = [&](UsageEvent&& e) { events.push_back(std::move(e)); };
    auto result = ingest(context);
    if (result) {
        // Readers that collect a store's rows themselves hand them back in the result.
        events.insert(events.end(), std::make_move_iterator(result->events.begin()),
                      std::make_move_iterator(result->events.end()));
        result->events = std::move(events);
    }
    return result;
}

}  // namespace kestrel::SourceReaders
