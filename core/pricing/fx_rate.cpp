#include "core/pricing/fx_rate.hpp"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "core/model/checked_math.hpp"
#include "core/pricing/decimal.hpp"
#include "core/pricing/http_client.hpp"

namespace kestrel::FxRate {
namespace {

constexpr std::string_view kSource = "Frankfurter";

bool inRange(int64_t e4) {
    return e4 >= kMinE4 && e4 <= kMaxE4;
}

// The blank set parseDecimalScaled ignores around a number.
constexpr std::string_view kDecimalBlanks = " \t\n\r";

std::string_view trimmed(std::string_view text, std::string_view blanks) {
    const auto first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// A quoted rate's text as cnyPerUsdE4, or which error it is.
std::expected<int64_t, FxError> quotedE4(std::string_view text) {
    // The grammar is checked on a copy with every digit zeroed: same syntax, value 0, so a
    // number too large for 64 bits still counts as a number (and is then out of range).
    std::string zeroed(text);
    std::replace_if(
        zeroed.begin(), zeroed.end(), [](char c) { return c >= '1' && c <= '9'; }, '0');
    if (!parseDecimalScaled(zeroed, 0)) {
        return std::unexpected(FxError::missingRate);
    }
    const std::string_view number = trimmed(text, kDecimalBlanks);
    const std::string_view mantissa = number.substr(0, number.find_first_of("eE"));
    const bool positive =
        mantissa.front() != '-' && mantissa.find_first_of("123456789") != std::string_view::npos;
    if (!positive) {
        return std::unexpected(FxError::missingRate);
    }
    const auto e4 = parseDecimalScaled(text, 4);
    if (!e4 || !inRange(*e4)) {
        return std::unexpected(FxError::outOfRange);
    }
    return *e4;
}

// Reads the two fields a quote needs while the parser validates the whole body, so that
// rates.CNY keeps the exact digits the service sent instead of passing through a double.
class QuoteReader {
  public:
    using json = nlohmann::json;

    enum class Kind { absent, number, string, other };

    bool rootIsObject = false;
    Kind cnyKind = Kind::absent;
    std::string cnyText;
    std::string date;

    bool null() { return value(Kind::other); }
    bool boolean(bool) { return value(Kind::other); }
    bool number_integer(json::number_integer_t v) { return value(Kind::number, std::to_string(v)); }
    bool number_unsigned(json::number_unsigned_t v) {
        return value(Kind::number, std::to_string(v));
    }
    // `raw` is the number as written in the body.
    bool number_float(json::number_float_t, const json::string_t& raw) {
        return value(Kind::number, raw);
    }
    bool string(json::string_t& s) { return value(Kind::string, s); }
    bool binary(json::binary_t&) { return value(Kind::other); }
    bool start_object(std::size_t) {
        value(Kind::other, {}, true);
        frames_.push_back({true, std::exchange(nextIsRates_, false), {}});
        return true;
    }
    bool key(json::string_t& k) {
        frames_.back().key = k;
        return true;
    }
    bool end_object() {
        frames_.pop_back();
        return true;
    }
    bool start_array(std::size_t) {
        value(Kind::other);
        frames_.push_back({false, false, {}});
        return true;
    }
    bool end_array() {
        frames_.pop_back();
        return true;
    }
    bool parse_error(std::size_t, const std::string&, const json::exception&) { return false; }

  private:
    struct Frame {
        bool object;
        bool rates;       // the top-level "rates" object
        std::string key;  // the key of the member being read, in an object
    };

    // Every value, scalars and containers alike, passes here before it is entered. A repeated
    // key replaces the earlier member, as it would in a parsed document.
    bool value(Kind kind, std::string text = {}, bool opensObject = false) {
        if (frames_.empty()) {
            rootIsObject = opensObject;
            return true;
        }
        const Frame& parent = frames_.back();
        if (!parent.object) {
            return true;
        }
        if (frames_.size() == 1 && parent.key == "date") {
            date = kind == Kind::string ? std::move(text) : std::string{};
        } else if (frames_.size() == 1 && parent.key == "rates") {
            cnyKind = Kind::absent;
            cnyText.clear();
            nextIsRates_ = opensObject;
        } else if (parent.rates && parent.key == "CNY") {
            cnyKind = kind;
            cnyText = std::move(text);
        }
        return true;
    }

    std::vector<Frame> frames_;
    bool nextIsRates_ = false;
};

}  // namespace

std::expected<FxQuote, FxError> quoteFromResponse(long status, const std::string& body) {
    QuoteReader reader;
    if (status != 200 || !nlohmann::json::sax_parse(body, &reader) || !reader.rootIsObject) {
        return std::unexpected(FxError::badResponse);
    }
    if (reader.cnyKind != QuoteReader::Kind::number &&
        reader.cnyKind != QuoteReader::Kind::string) {
        return std::unexpected(FxError::missingRate);
    }
    if (const auto e4 = quotedE4(reader.cnyText); !e4) {
        return std::unexpected(e4.error());
    }
    return FxQuote{std::string(trimmed(reader.cnyText, kDecimalBlanks)), std::move(reader.date),
                   std::string(kSource)};
}

std::optional<int64_t> parseInput(std::string_view text) {
    std::string normalized(trimmed(text, " \t\n\r\v\f"));
    std::replace(normalized.begin(), normalized.end(), ',', '.');
    const auto e4 = parseDecimalScaled(normalized, 4);
    if (!e4 || !inRange(*e4)) {
        return std::nullopt;
    }
    return e4;
}

std::expected<FxQuote, FxError> fetchUSDToCNY(std::string_view url,
                                              std::chrono::milliseconds timeout) {
    HttpRequest request;
    request.url = std::string(url);
    request.timeout = timeout;
    // A quote is a few dozen bytes; anything near this is not the service we asked.
    request.maxBodyBytes = 1 << 20;
    // One request: a redirect is not a quote and ends as a non-200 status.
    const auto response = HttpClient::send(request);
    if (!response) {
        return std::unexpected(FxError::badResponse);
    }
    return quoteFromResponse(response->status, response->body);
}

StoredFxRate applied(StoredFxRate current, int64_t cnyPerUsdE4) {
    if (cnyPerUsdE4 == current.cnyPerUsdE4) {
        return current;
    }
    return {cnyPerUsdE4, checkedAdd(current.fxVersion, 1, "fxVersion increment")};
}

}  // namespace kestrel::FxRate
