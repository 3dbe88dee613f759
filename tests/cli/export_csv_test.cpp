#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <limits>
#include <set>
#include <sstream>

#include "cli/export_command.hpp"
#include "cli/text_table.hpp"
#include "core/ledger/settings_store.hpp"
#include "tests/cli/ledger_home.hpp"

namespace kestrel {
namespace {

using cli::ReportOptions;
using Record = std::vector<std::string>;

// RFC 4180 read back: CRLF between records, quoted fields with doubled quotes. Fails the test on
// a bare LF or CR outside quotes, which a conforming writer never produces.
std::vector<Record> parseCSV(const std::string& text) {
    std::vector<Record> records;
    Record record;
    std::string field;
    bool quoted = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (quoted) {
            if (c == '"' && i + 1 < text.size() && text[i + 1] == '"') {
                field += '"';
                ++i;
            } else if (c == '"') {
                quoted = false;
            } else {
                field += c;
            }
        } else if (c == '"') {
            EXPECT_TRUE(field.empty()) << "a quote inside an unquoted field at " << i;
            quoted = true;
        } else if (c == ',') {
            record.push_back(std::move(field));
            field.clear();
        } else if (c == '\r' && i + 1 < text.size() && text[i + 1] == '\n') {
            record.push_back(std::move(field));
            field.clear();
            records.push_back(std::move(record));
            record.clear();
            ++i;
        } else {
            EXPECT_TRUE(c != '\r' && c != '\n') << "a bare line break at " << i;
            field += c;
        }
    }
    EXPECT_FALSE(quoted) << "unterminated quote";
    EXPECT_TRUE(field.empty() && record.empty()) << "the last record has no CRLF";
    return records;
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

const Record kHeader{"time_utc",
                     "local_day",
                     "source",
                     "provider",
                     "model",
                     "project",
                     "session_key",
                     "input_uncached",
                     "cache_read",
                     "cache_write",
                     "output_visible",
                     "reasoning",
                     "provider_input_total",
                     "provider_output_total",
                     "provider_total",
                     "cost_usd",
                     "cost_display",
                     "display_currency",
                     "cost_source",
                     "completeness",
                     "price_version"};

std::size_t column(const std::string& name) {
    return static_cast<std::size_t>(std::find(kHeader.begin(), kHeader.end(), name) -
                                    kHeader.begin());
}

class ExportCSVTest : public test_support::LedgerHomeTest {
  protected:
    test_support::CommandOutcome exportTo(const std::filesystem::path& path,
                                          ReportOptions report = {}) {
        return call([&](auto& ctx) { return cli::runExportCSV(ctx, report, path.string()); });
    }

    std::vector<Record> exported(ReportOptions report = {}) {
        const auto path = out / "usage.csv";
        const auto o = exportTo(path, report);
        EXPECT_EQ(o.code, cli::kExitOK) << o.err;
        const int64_t count = ledgerCount(report);
        EXPECT_EQ(o.out, (count == 1 ? "Wrote 1 row to "
                                     : "Wrote " + cli::groupedNumber(count) + " rows to ") +
                             path.string() + "\n");
        return parseCSV(readFile(path));
    }

    int64_t ledgerCount(const ReportOptions& report) {
        UsageStore store(support.path());
        LedgerQuery q;
        if (!report.model.empty()) {
            q.model = report.model;
        }
        return store.ledgerEventCount(q);
    }

    // The record of one event, found by its model and input count.
    static const Record& row(const std::vector<Record>& rows, const std::string& inputUncached) {
        for (const auto& r : rows) {
            if (r[column("input_uncached")] == inputUncached) {
                return r;
            }
        }
        ADD_FAILURE() << "no row with input " << inputUncached;
        static const Record none(kHeader.size());
        return none;
    }

    test_support::TempDir out;
};

TEST_F(ExportCSVTest, OneRowPerLedgerEventUnderTheHeaderOldestFirst) {
    writeTranscripts();
    const auto rows = exported();
    ASSERT_EQ(rows.size(), std::size_t{kEvents + 1});
    EXPECT_EQ(rows[0], kHeader);
    for (std::size_t i = 1; i < rows.size(); ++i) {
        EXPECT_EQ(rows[i].size(), kHeader.size()) << i;
        if (i > 1) {
            EXPECT_LE(rows[i - 1][0], rows[i][0]) << "ascending time";
        }
    }

    const auto& first = rows[1];
    EXPECT_EQ(first[column("time_utc")], "2026-01-02T12:00:00.000Z");
    EXPECT_EQ(first[column("local_day")], "2026-01-02");
    EXPECT_EQ(first[column("source")], "claude");
    EXPECT_EQ(first[column("provider")], "anthropic");
    EXPECT_EQ(first[column("model")], "claude-sonnet-4-5-20250929");
    EXPECT_EQ(first[column("project")], "app");
    EXPECT_EQ(first[column("session_key")], "s1");
    EXPECT_EQ(first[column("input_uncached")], "100000");
    EXPECT_EQ(first[column("output_visible")], "1000000");
    EXPECT_EQ(first[column("cost_usd")], "15.300000");
    EXPECT_EQ(first[column("cost_display")], "15.300000");
    EXPECT_EQ(first[column("display_currency")], "USD");
    EXPECT_EQ(first[column("cost_source")], "priceTable");
    EXPECT_EQ(first[column("completeness")], "complete");
    EXPECT_FALSE(first[column("price_version")].empty());
    EXPECT_EQ(rows[2][column("time_utc")], "2026-01-02T12:00:01.123Z");

    // An unpriced event leaves its money fields empty instead of writing zero.
    const auto& unpriced = row(rows, "70");
    EXPECT_EQ(unpriced[column("model")], "acme-model-7");
    EXPECT_EQ(unpriced[column("cost_usd")], "");
    EXPECT_EQ(unpriced[column("cost_display")], "");
    EXPECT_EQ(unpriced[column("price_version")], "");
    EXPECT_EQ(unpriced[column("cost_source")], "unknown");

    // The filters of the reports apply.
    ReportOptions onlyAcme;
    onlyAcme.noScan = true;
    onlyAcme.model = "acme-model-7";
    EXPECT_EQ(exported(onlyAcme).size(), 2u);
}

TEST_F(ExportCSVTest, AProjectNameWithACommaAndQuotesIsQuoted) {
    writeTranscripts();
    const auto path = out / "usage.csv";
    ASSERT_EQ(exportTo(path).code, cli::kExitOK);
    const auto text = readFile(path);
    EXPECT_NE(text.find(R"(,"acme, ""beta""",)"), std::string::npos) << text;
    EXPECT_EQ(row(parseCSV(text), "90")[column("project")], R"(acme, "beta")");
}

TEST_F(ExportCSVTest, FieldsAreQuotedOnlyWhenTheyMustBe) {
    const struct {
        const char* field;
        const char* written;
    } cases[] = {
        {"", ""},
        {"plain text", "plain text"},
        {"a,b", "\"a,b\""},
        {"say \"hi\"", "\"say \"\"hi\"\"\""},
        {"\"", "\"\"\"\""},
        {"line\nbreak", "\"line\nbreak\""},
        {"carriage\rreturn", "\"carriage\rreturn\""},
        {"semi;colon 'single'", "semi;colon 'single'"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(cli::csvField(c.field), c.written) << c.field;
    }
}

TEST_F(ExportCSVTest, DollarsAreExactDecimalsOfTheMicros) {
    const struct {
        int64_t micros;
        const char* dollars;
    } cases[] = {
        {0, "0.000000"},
        {1, "0.000001"},
        {999'999, "0.999999"},
        {1'000'000, "1.000000"},
        {15'300'000, "15.300000"},
        {-1, "-0.000001"},
        {-2'500'000, "-2.500000"},
        {std::numeric_limits<int64_t>::max(), "9223372036854.775807"},
        {std::numeric_limits<int64_t>::min(), "-9223372036854.775808"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(cli::decimalUSD(c.micros), c.dollars) << c.micros;
    }
}

TEST_F(ExportCSVTest, YuanAtTheStoredRate) {
    writeTranscripts();
    scan();
    {
        UsageStore store(support.path());
        auto settings = SettingsStore::load(store).settings;
        settings.cnyPerUsdE4 = 71234;  // 7.1234 yuan per dollar
        SettingsStore::save(store, settings);
    }
    ReportOptions cny;
    cny.noScan = true;
    cny.currency = "cny";
    const auto rows = exported(cny);
    const auto& first = row(rows, "100000");
    EXPECT_EQ(first[column("cost_usd")], "15.300000");
    // $15.30 × 7.1234 = ¥108.98802, truncated to the fen.
    EXPECT_EQ(first[column("cost_display")], "108.98");
    EXPECT_EQ(first[column("display_currency")], "CNY");
    EXPECT_EQ(row(rows, "70")[column("cost_display")], "");
}

TEST_F(ExportCSVTest, ManyPagesOfEventsAreWrittenOnceEach) {
    // More events than one page of the export holds, several sharing one time.
    std::string lines;
    const int n = 4500;
    for (int i = 0; i < n; ++i) {
        lines += line("bulk" + std::to_string(i), "claude-sonnet-4-5-20250929",
                      "2026-02-01T10:" + std::to_string(10 + i / 100) + ":00Z", i + 1, 1);
    }
    home.write(".claude/projects/-w-app/bulk.jsonl", lines);
    const auto rows = exported();
    ASSERT_EQ(rows.size(), std::size_t(n) + 1);
    std::set<std::string> inputs;
    for (std::size_t i = 1; i < rows.size(); ++i) {
        inputs.insert(rows[i][column("input_uncached")]);
    }
    EXPECT_EQ(inputs.size(), std::size_t(n)) << "an event written twice or left out";
}

TEST_F(ExportCSVTest, APathThatCannotBeWrittenLeavesNothingBehind) {
    writeTranscripts();
    out.write("file.txt", "not a folder");
    std::filesystem::create_directory(out / "folder");
    out.write("existing.csv", "old contents");
    const struct {
        std::filesystem::path path;
        const char* cause;
    } cases[] = {
        {out / "file.txt" / "usage.csv", "Not a directory"},
        {out / "missing" / "usage.csv", "No such file or directory"},
        {out / "folder", "Is a directory"},
    };
    for (const auto& c : cases) {
        const auto o = exportTo(c.path);
        EXPECT_EQ(o.code, cli::kExitFailure) << c.path;
        EXPECT_NE(o.err.find("cannot write " + c.path.string() + ": " + c.cause), std::string::npos)
            << o.err;
        EXPECT_TRUE(o.out.empty()) << o.out;
    }
    std::set<std::string> left;
    for (const auto& entry : std::filesystem::directory_iterator(out.path())) {
        left.insert(entry.path().filename().string());
    }
    EXPECT_EQ(left, (std::set<std::string>{"file.txt", "folder", "existing.csv"}));
    EXPECT_EQ(readFile(out / "existing.csv"), "old contents");

    // A file that is there is replaced whole.
    const auto o = exportTo(out / "existing.csv");
    ASSERT_EQ(o.code, cli::kExitOK) << o.err;
    EXPECT_EQ(parseCSV(readFile(out / "existing.csv")).size(), std::size_t{kEvents + 1});
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(out.path()),
                            std::filesystem::directory_iterator()),
              3);
}

}  // namespace
}  // namespace kestrel
