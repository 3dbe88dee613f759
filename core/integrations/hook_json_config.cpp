#include "core/integrations/hook_json_config.hpp"

#include <algorithm>

namespace kestrel {

using Json = nlohmann::ordered_json;

namespace {

bool commandIsOurs(HookAgent agent, const Json& hook) {
    if (!hook.is_object()) {
        return false;
    }
    const auto it = hook.find("command");
    return it != hook.end() && it->is_string() &&
           isOurCommand(agent, it->get_ref<const std::string&>());
}

// A Claude-style matcher group is ours when any hook in it runs our script.
bool groupIsOurs(HookAgent agent, const Json& group) {
    if (agent == HookAgent::cursor) {
        return commandIsOurs(agent, group);
    }
    if (!group.is_object()) {
        return false;
    }
    const auto hooks = group.find("hooks");
    if (hooks == group.end() || !hooks->is_array()) {
        return false;
    }
    return std::any_of(hooks->begin(), hooks->end(),
                       [&](const Json& h) { return commandIsOurs(agent, h); });
}

}  // namespace

bool removeOurJsonHooks(Json& root, HookAgent agent) {
    if (!root.is_object()) {
        return false;
    }
    const auto hooksIt = root.find("hooks");
    if (hooksIt == root.end() || !hooksIt->is_object()) {
        return false;
    }
    Json& hooks = *hooksIt;
    bool removed = false;
    std::vector<std::string> emptied;
    for (auto& [event, list] : hooks.items()) {
        if (!list.is_array()) {
            continue;
        }
        const auto before = list.size();
        Json kept = Json::array();
        for (const auto& group : list) {
            if (!groupIsOurs(agent, group)) {
                kept.push_back(group);
            }
        }
        if (kept.size() != before) {
            removed = true;
            if (kept.empty()) {
                emptied.push_back(event);
            }
            list = std::move(kept);
        }
    }
    for (const auto& event : emptied) {
        hooks.erase(event);
    }
    if (removed && hooks.empty()) {
        root.erase("hooks");
    }
    return removed;
}

std::expected<void, std::string> addOurJsonHooks(Json& root, HookAgent agent,
                                                 const std::vector<HookEventRow>& rows,
                                                 const HookPaths& paths,
                                                 bool includesProjectNames) {
    if (!root.is_object()) {
        return std::unexpected("the top level is not a JSON object");
    }
    removeOurJsonHooks(root, agent);
    if (root.contains("hooks") && !root["hooks"].is_object()) {
        return std::unexpected("\"hooks\" is not an object");
    }
    Json& hooks = root["hooks"];
    if (hooks.is_null()) {
        hooks = Json::object();
    }
    for (const auto& row : rows) {
        const std::string event(row.event);
        if (hooks.contains(event) && !hooks[event].is_array()) {
            return std::unexpected("\"hooks\"." + event + " is not a list");
        }
    }
    for (const auto& row : rows) {
        Json& list = hooks[std::string(row.event)];
        if (list.is_null()) {
            list = Json::array();
        }
        const std::string command = hookCommandLine(agent, paths, row, includesProjectNames);
        if (agent == HookAgent::cursor) {
            list.push_back(Json{{"command", command}});
            continue;
        }
        Json group = Json::object();
        if (row.matcher) {
            group["matcher"] = std::string(*row.matcher);
        }
        group["hooks"] = Json::array({Json{{"type", "command"}, {"command", command}}});
        list.push_back(std::move(group));
    }
    return {};
}

std::vector<HookEntry> ourJsonHooks(const Json& root, HookAgent agent) {
    std::vector<HookEntry> out;
    if (!root.is_object() || !root.contains("hooks") || !root["hooks"].is_object()) {
        return out;
    }
    for (const auto& [event, list] : root["hooks"].items()) {
        if (!list.is_array()) {
            continue;
        }
        for (const auto& group : list) {
            if (!groupIsOurs(agent, group)) {
                continue;
            }
            if (agent == HookAgent::cursor) {
                out.emplace_back(event, "", group["command"].get<std::string>());
                continue;
            }
            std::string matcher;
            if (group.contains("matcher") && group["matcher"].is_string()) {
                matcher = group["matcher"].get<std::string>();
            }
            for (const auto& hook : group["hooks"]) {
                if (commandIsOurs(agent, hook)) {
                    out.emplace_back(event, matcher, hook["command"].get<std::string>());
                }
            }
        }
    }
    return out;
}

std::vector<HookEntry> expectedHooks(HookAgent agent, const HookPaths& paths,
                                     bool includesProjectNames) {
    std::vector<HookEntry> out;
    for (const auto& row : hookEventRows(agent)) {
        out.emplace_back(std::string(row.event), std::string(row.matcher.value_or("")),
                         hookCommandLine(agent, paths, row, includesProjectNames));
    }
    return out;
}

}  // namespace kestrel
