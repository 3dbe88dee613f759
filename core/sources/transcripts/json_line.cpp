#include "core/sources/transcripts/json_line.hpp"

#include <sys/stat.h>

#include "core/model/timestamp.hpp"
#include "core/sources/json_fields.hpp"
#include "core/sources/utf8.hpp"

namespace kestrel {

std::optional<simdjson::dom::object> JsonLineParser::parse(std::string_view line,
                                                           std::size_t paddingAfter) {
    if (!JsonFields::looksLikeObject(line)) {
        return std::nullopt;
    }
    simdjson::dom::element doc;
    auto error = simdjson::SUCCESS;
    if (paddingAfter >= simdjson::SIMDJSON_PADDING) {
        error = parser_.parse(line.data(), line.size(), false).get(doc);
    } else {
        scratch_.assign(line);
        scratch_.append(simdjson::SIMDJSON_PADDING, ' ');
        error = parser_.parse(scratch_.data(), line.size(), false).get(doc);
    }
    if (error == simdjson::UTF8_ERROR) {
        scratch_ = utf8::replaceInvalid(line);
        const std::size_t length = scratch_.size();
        scratch_.append(simdjson::SIMDJSON_PADDING, ' ');
        error = parser_.parse(scratch_.data(), length, false).get(doc);
    }
    simdjson::dom::object object;
    if (error || doc.get_object().get(object)) {
        return std::nullopt;
    }
    return object;
}

namespace JsonLine {

std::string stringAt(simdjson::dom::object o, std::string_view key) {
    std::string out;
    simdjson::dom::element v;
    if (!o.at_key(key).get(v)) {
        JsonFields::readString(v, out);
    }
    return out;
}

std::optional<double> timeOf(simdjson::dom::element v) {
    if (auto n = JsonFields::readNumber(v)) {
        if (*n <= 0) {
            return std::nullopt;
        }
        // Seconds since 1970 stay below 10^11 for another three thousand years; milliseconds
        // passed it in 1973.
        return *n > 1e11 ? *n / 1000.0 : *n;
    }
    std::string_view text;
    if (!v.get_string().get(text)) {
        return parseISO8601(text);
    }
    return std::nullopt;
}

namespace {

bool hasAny(simdjson::dom::object o, std::initializer_list<std::string_view> keys) {
    for (auto key : keys) {
        simdjson::dom::element v;
        if (!o.at_key(key).get(v)) {
            return true;
        }
    }
    return false;
}

std::optional<Found> search(simdjson::dom::object o, std::initializer_list<std::string_view> keys,
                            int depthLeft, const std::string& enclosingModel) {
    std::string model = stringAt(o, "model");
    if (model.empty()) {
        model = enclosingModel;
    }
    if (hasAny(o, keys)) {
        return Found{o, model};
    }
    if (depthLeft <= 0) {
        return std::nullopt;
    }
    simdjson::dom::object usage;
    if (!o.at_key("usage").get_object().get(usage)) {
        if (auto found = search(usage, keys, depthLeft - 1, model)) {
            return found;
        }
    }
    for (auto [key, value] : o) {
        simdjson::dom::object child;
        if (key == "usage" || value.get_object().get(child)) {
            continue;
        }
        if (auto found = search(child, keys, depthLeft - 1, model)) {
            return found;
        }
    }
    return std::nullopt;
}

}  // namespace

std::optional<Found> findObjectWithKey(simdjson::dom::object root,
                                       std::initializer_list<std::string_view> keys, int maxDepth) {
    return search(root, keys, maxDepth, std::string());
}

std::optional<double> timeAt(simdjson::dom::object o,
                             std::initializer_list<std::string_view> keys) {
    for (auto key : keys) {
        simdjson::dom::element v;
        if (!o.at_key(key).get(v)) {
            if (auto t = timeOf(v)) {
                return t;
            }
        }
    }
    return std::nullopt;
}

}  // namespace JsonLine
}  // namespace kestrel
