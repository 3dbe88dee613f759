#include "core/pricing/fx_rate.hpp"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tests/support/loopback_server.hpp"

namespace kestrel {
namespace {

using test_support::LoopbackServer;
using namespace std::chrono_literals;

TEST(FxRate, ParsesTypedRates) {
    const std::pair<std::string, std::optional<int64_t>> cases[] = {
        {" 7,25 \n", 72500},
        {"7.2", 72000},
        {"7.1", 71000},  // 7.1 × 10000 in binary floating point truncates to 70999
        {"7.12345", 71234},
        {"7.2e0", 72000},
        // Both ends are accepted; truncation, not rounding, decides at the edges.
        {"5", 50000},
        {"5.00009", 50000},
        {"12", 120000},
        {"12.00009", 120000},
        {"4.99", std::nullopt},
        {"4.99999", std::nullopt},
        {"12.0001", std::nullopt},
        {"-7.2", std::nullopt},
        {"0", std::nullopt},
        {"1e400", std::nullopt},
        // Not a number.
        {"", std::nullopt},
        {"abc", std::nullopt},
        {"7.2 CNY", std::nullopt},
        {"7,2,5", std::nullopt},
        {"1,000.5", std::nullopt},
    };
    for (const auto& [text, want] : cases) {
        EXPECT_EQ(FxRate::parseInput(text), want) << '"' << text << '"';
    }
}

TEST(FxRate, AppliedBumpsVersionOnlyWhenTheRateChanges) {
    const FxRate::StoredFxRate start{72000, 41};
    EXPECT_EQ(FxRate::applied(start, 72000), start);
    const auto changed = FxRate::applied(start, 71234);
    EXPECT_EQ(changed.cnyPerUsdE4, 71234);
    EXPECT_EQ(changed.fxVersion, start.fxVersion + 1);
    // Storing the same quote again, as a second fetch often does, leaves events' version alone.
    EXPECT_EQ(FxRate::applied(changed, 71234), changed);
    EXPECT_EQ(FxRate::applied(changed, start.cnyPerUsdE4).fxVersion, start.fxVersion + 2);
}

// "5.00" for 50000.
std::string twoDecimals(int64_t e4) {
    const int64_t hundredths = e4 / 100 % 100;
    return std::to_string(e4 / 10000) + (hundredths < 10 ? ".0" : ".") + std::to_string(hundredths);
}

TEST(FxError, DescriptionsAreDistinctAndNameTheAcceptedRange) {
    std::set<std::string_view> seen;
    for (const FxError error : allCases<FxError>()) {
        EXPECT_FALSE(description(error).empty()) << rawValue(error);
        EXPECT_FALSE(englishDescription(error).empty()) << rawValue(error);
        EXPECT_TRUE(seen.insert(description(error)).second) << rawValue(error);
        EXPECT_TRUE(seen.insert(englishDescription(error)).second) << rawValue(error);
    }
    const std::string range =
        twoDecimals(FxRate::kMinE4) + "–" + twoDecimals(FxRate::kMaxE4);  // en dash
    EXPECT_NE(description(FxError::outOfRange).find(range), std::string_view::npos);
    EXPECT_NE(englishDescription(FxError::outOfRange).find(range), std::string_view::npos);
}

struct Reply {
    int status;
    std::string body;
};

struct Got {
    std::string cnyPerUsd;
    int64_t e4;
    std::string date;
};

struct ResponseCase {
    std::string name;
    Reply reply;
    std::expected<Got, FxError> want;
};

const auto kBad = std::unexpected(FxError::badResponse);
const auto kMissing = std::unexpected(FxError::missingRate);
const auto kOutOfRange = std::unexpected(FxError::outOfRange);

TEST(FxFetch, ReadsTheQuoteOrSaysWhyNot) {
    const std::string pad(2 << 20, 'x');
    const std::vector<ResponseCase> cases = {
        {"number with date",
         {200, R"({"amount":1.0,"base":"USD","date":"2026-11-20","rates":{"CNY":7.1}})"},
         Got{"7.1", 71000, "2026-11-20"}},
        {"numeric string",
         {200, R"({"rates":{"CNY":"7.1"},"date":"2026-11-20"})"},
         Got{"7.1", 71000, "2026-11-20"}},
        {"integer", {200, R"({"rates":{"CNY":7}})"}, Got{"7", 70000, ""}},
        {"exponent", {200, R"({"rates":{"CNY":7.2e0}})"}, Got{"7.2e0", 72000, ""}},
        {"truncated not rounded", {200, R"({"rates":{"CNY":7.12349}})"}, Got{"7.12349", 71234, ""}},
        // A double reads this as 7.2.
        {"exact digits",
         {200, R"({"rates":{"CNY":7.19999999999999999999}})"},
         Got{"7.19999999999999999999", 71999, ""}},
        {"lower bound", {200, R"({"rates":{"CNY":5}})"}, Got{"5", 50000, ""}},
        {"upper bound", {200, R"({"rates":{"CNY":12.00009}})"}, Got{"12.00009", 120000, ""}},
        {"date not a string",
         {200, R"({"date":20261120,"rates":{"CNY":7.1}})"},
         Got{"7.1", 71000, ""}},
        {"other rates beside",
         {200, R"({"rates":{"EUR":0.9,"CNY":7.3,"JPY":150}})"},
         Got{"7.3", 73000, ""}},
        // The status and the shape of the body come first.
        {"not modified", {304, ""}, kBad},
        {"server error with a good body", {500, R"({"rates":{"CNY":7.1}})"}, kBad},
        {"created", {201, R"({"rates":{"CNY":7.1}})"}, kBad},
        {"empty body", {200, ""}, kBad},
        {"not JSON", {200, "<html>rate 7.1</html>"}, kBad},
        {"array", {200, R"([{"rates":{"CNY":7.1}}])"}, kBad},
        {"trailing text", {200, R"({"rates":{"CNY":7.1}} and more)"}, kBad},
        {"oversized", {200, R"({"pad":")" + pad + R"(","rates":{"CNY":7.1}})"}, kBad},
        // A JSON object without a usable rate.
        {"no rates", {200, R"({"date":"2026-11-20"})"}, kMissing},
        {"rates not an object", {200, R"({"rates":7.1})"}, kMissing},
        {"no CNY", {200, R"({"rates":{"EUR":0.9}})"}, kMissing},
        {"CNY outside rates", {200, R"({"CNY":7.1,"rates":{}})"}, kMissing},
        {"CNY nested deeper", {200, R"({"rates":{"x":{"CNY":7.1}}})"}, kMissing},
        {"CNY zero", {200, R"({"rates":{"CNY":0}})"}, kMissing},
        {"CNY negative", {200, R"({"rates":{"CNY":-7.1}})"}, kMissing},
        {"CNY null", {200, R"({"rates":{"CNY":null}})"}, kMissing},
        {"CNY words", {200, R"({"rates":{"CNY":"seven"}})"}, kMissing},
        {"CNY with unit", {200, R"({"rates":{"CNY":"7.1 CNY"}})"}, kMissing},
        // Positive, but not a rate we take.
        {"CNY 20", {200, R"({"rates":{"CNY":20}})"}, kOutOfRange},
        {"CNY just above", {200, R"({"rates":{"CNY":"12.0001"}})"}, kOutOfRange},
        {"CNY just below", {200, R"({"rates":{"CNY":4.9999}})"}, kOutOfRange},
        {"CNY tiny", {200, R"({"rates":{"CNY":0.00001}})"}, kOutOfRange},
        {"CNY beyond 64 bits", {200, R"({"rates":{"CNY":1e300}})"}, kOutOfRange},
        {"CNY text beyond 64 bits", {200, R"({"rates":{"CNY":"1e30"}})"}, kOutOfRange},
    };

    LoopbackServer server([&](httplib::Server& s) {
        for (std::size_t i = 0; i < cases.size(); ++i) {
            const Reply reply = cases[i].reply;
            s.Get("/case/" + std::to_string(i),
                  [reply](const httplib::Request&, httplib::Response& res) {
                      res.status = reply.status;
                      if (!reply.body.empty()) {
                          res.set_content(reply.body, "application/json");
                      }
                  });
        }
    });

    for (std::size_t i = 0; i < cases.size(); ++i) {
        const ResponseCase& c = cases[i];
        SCOPED_TRACE(c.name);
        const auto got = FxRate::fetchUSDToCNY(server.url("/case/" + std::to_string(i)), 5s);
        if (!c.want) {
            ASSERT_FALSE(got.has_value()) << got->cnyPerUsd;
            EXPECT_EQ(rawValue(got.error()), rawValue(c.want.error()));
            continue;
        }
        ASSERT_TRUE(got.has_value()) << rawValue(got.error());
        EXPECT_EQ(got->cnyPerUsd, c.want->cnyPerUsd);
        EXPECT_EQ(got->e4(), c.want->e4);
        EXPECT_EQ(got->date, c.want->date);
        EXPECT_EQ(got->source, "Frankfurter");
    }
}

TEST(FxFetch, SendsOneGetWithTheQuery) {
    const std::string_view defaultURL = FxRate::kDefaultURL;
    const std::string pathAndQuery(defaultURL.substr(defaultURL.find("/v1/")));

    std::mutex mutex;
    std::vector<std::string> seen;  // method, path, base, symbols, user agent of each request
    LoopbackServer server([&](httplib::Server& s) {
        s.Get("/v1/latest", [&](const httplib::Request& req, httplib::Response& res) {
            const std::lock_guard lock(mutex);
            seen.insert(seen.end(),
                        {req.method, req.path, req.get_param_value("base"),
                         req.get_param_value("symbols"), req.get_header_value("User-Agent")});
            res.set_content(R"({"date":"2026-11-20","rates":{"CNY":7.1}})", "application/json");
        });
    });

    const auto got = FxRate::fetchUSDToCNY(server.url(pathAndQuery));
    ASSERT_TRUE(got.has_value()) << rawValue(got.error());
    const std::lock_guard lock(mutex);
    EXPECT_EQ(seen, (std::vector<std::string>{"GET", "/v1/latest", "USD", "CNY", "kestrel/0.1"}));
}

TEST(FxFetch, DoesNotFollowRedirects) {
    std::atomic<int> targetHits{0};
    LoopbackServer server([&](httplib::Server& s) {
        s.Get("/moved", [](const httplib::Request&, httplib::Response& res) {
            res.set_redirect("/quote", 302);
        });
        s.Get("/quote", [&](const httplib::Request&, httplib::Response& res) {
            ++targetHits;
            res.set_content(R"({"rates":{"CNY":7.1}})", "application/json");
        });
    });
    const auto got = FxRate::fetchUSDToCNY(server.url("/moved"), 5s);
    ASSERT_FALSE(got.has_value());
    EXPECT_EQ(got.error(), FxError::badResponse);
    EXPECT_EQ(targetHits.load(), 0);
}

TEST(FxFetch, RefusedConnectionFailsWithoutWaitingForTheTimeout) {
    // A bound socket that never listens: connecting is refused, and no one can take the port.
    const int sock = ::socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(sock, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(::bind(sock, reinterpret_cast<sockaddr*>(&address), length), 0);
    ASSERT_EQ(::getsockname(sock, reinterpret_cast<sockaddr*>(&address), &length), 0);
    const std::string url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/";

    const auto start = std::chrono::steady_clock::now();
    const auto got = FxRate::fetchUSDToCNY(url, 10s);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    ::close(sock);

    ASSERT_FALSE(got.has_value());
    EXPECT_EQ(got.error(), FxError::badResponse);
    EXPECT_LT(elapsed, 3s);
}

TEST(FxFetch, SlowServerTimesOut) {
    std::promise<void> release;
    const std::shared_future<void> released = release.get_future().share();
    LoopbackServer server([&](httplib::Server& s) {
        s.Get("/slow", [released](const httplib::Request&, httplib::Response& res) {
            released.wait_for(10s);
            res.set_content(R"({"rates":{"CNY":7.1}})", "application/json");
        });
    });

    const auto start = std::chrono::steady_clock::now();
    const auto got = FxRate::fetchUSDToCNY(server.url("/slow"), 200ms);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    release.set_value();

    ASSERT_FALSE(got.has_value());
    EXPECT_EQ(got.error(), FxError::badResponse);
    EXPECT_LT(elapsed, 5s);
}

TEST(FxFetch, OnlyWebURLs) {
    for (const char* url : {"file:///etc/hostname", "ftp://127.0.0.1/rates", "not a url", ""}) {
        const auto got = FxRate::fetchUSDToCNY(url, 1s);
        ASSERT_FALSE(got.has_value()) << url;
        EXPECT_EQ(got.error(), FxError::badResponse) << url;
    }
}

}  // namespace
}  // namespace kestrel
