#include "core/model/event_id.hpp"

#include <initializer_list>

#include "core/model/enum_cases.hpp"

namespace kestrel::EventID {
namespace {

std::string join(std::initializer_list<std::string_view> parts) {
    std::size_t size = parts.size();
    for (auto p : parts) {
        size += p.size();
    }
    std::string out;
    out.reserve(size);
    bool first = true;
    for (auto p : parts) {
        if (!first) {
            out += ':';
        }
        out += p;
        first = false;
    }
    return out;
}

}  // namespace

std::string local(AgentSource source, std::string_view sessionID, std::string_view recordID,
                  std::string_view model) {
    return join({rawValue(source), sessionID, recordID, model});
}

std::string claude(std::string_view messageID) {
    return join({"claude", messageID});
}

std::string codex(std::string_view sessionID, std::string_view timestamp,
                  const TokenSnapshot& snapshot) {
    const auto input = std::to_string(snapshot.input);
    const auto cached = std::to_string(snapshot.cachedInput);
    return join({"codex", sessionID, timestamp, input, cached});
}

std::string grok(std::string_view sessionID, std::string_view promptID, std::string_view model) {
    return join({"grok", sessionID, promptID, model});
}

std::string kimi(std::string_view sessionID, int64_t time, std::string_view model,
                 std::string_view scope) {
    const auto t = std::to_string(time);
    return join({"kimi", sessionID, t, model, scope});
}

}  // namespace kestrel::EventID
