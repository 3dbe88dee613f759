#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <limits>
#include <set>
#include <sstream>
#include <utility>

#include "cli/export_command.hpp"
#include "core/ledger/settings_store.hpp"
#include "tests/cli/ledger_home.hpp"
#include "tests/support/file_text.hpp"

namespace kestrel {
namespace {

using test_support::readFile;

using cli::ReportOptions;
using Record = std::vector<std::string>;

// RFC 4180 read back: CRLF after every record, quoted fields with doubled quotes. Fails the test
// on a bare LF or CR outside quotes, which a conforming writer never produces.
std::vector<Record> parseCSV(const std::string& text) {
    std::vector<Record> records(1);
    std::string field;
    bool quoted = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '"' && quoted && text[i + 1] == '"') {
            field += text[i++];
        } else if (c == '"') {
            EXPECT_TRUE(quoted || field.empty()) << "a quote inside an unquoted field at " << i;
            quoted = !quoted;
        } else if (quoted || (c != ',' && c != '\r')) {
            EXPECT_TRUE(quoted || c != '\n') << "a bare line break at " << i;
            field += c;
        } else {
            records.back().push_back(std::exchange(field, {}));
            if (c == '\r') {
                EXPECT_EQ(text[++i], '\n') << "a bare carriage return at " << i;
                records.emplace_back();
            }
        }
    }
    EXPECT_TRUE(!quoted && field.empty() && records.back().empty()) << "the last record is cut";
    records.pop_back();
    return records;
}

constexpr const char* kHeader =
    "time_utc,local_day,source,provider,model,project,session_key,input_uncached,cache_read,"
    "cache_write,output_visible,reasoning,provider_input_total,provider_output_total,"
    "provider_total,cost_usd,cost_display,display_currency,cost_source,completeness,"
    "price_version";

// The field of `record` in the column the header names `name`.
const std::string& field(const Record& record, const std::string& name) {
    static const Record names = parseCSV(std::string(kHeader) + "\r\n").at(0);
    return record.at(static_cast<std::size_t>(std::ranges::find(names, name) - names.begin()));
}

class ExportCSVTest : public test_support::LedgerHomeTest {
  protected:
    test_support::CommandOutcome exportTo(const std::filesystem::path& path,
                                          ReportOptions report = {}) {
        return call([&](auto& ctx) { return cli::runExportCSV(ctx, report, path.string()); });
    }

    // The records written to a file, once the run has said it wrote `wrote` ("7 rows").
    std::vector<Record> exported(const std::string& wrote, ReportOptions report = {}) {
        const auto path = out / "usage.csv";
        const auto o = exportTo(path, report);
        EXPECT_EQ(o.code, cli::kExitOK) << o.err;
        EXPECT_EQ(o.out, "Wrote " + wrote + " to " + path.string() + "\n");
        return parseCSV(readFile(path));
    }

    test_support::TempDir out;
};

TEST_F(ExportCSVTest, OneRowPerLedgerEventUnderTheHeaderOldestFirstInEitherCurrency) {
    writeTranscripts();
    const auto rows = exported("7 rows");
    ASSERT_EQ(rows.size(), std::size_t{kEvents + 1});
    // Oldest first, ties by id; money to the micro; an unpriced event's money fields empty rather
    // than zero; a project name with a comma and quotes quoted. The price table's version only
    // has to be there.
    const std::string version = field(rows[1], "price_version");
    EXPECT_FALSE(version.empty());
    const std::string sonnet = ",claude,anthropic,claude-sonnet-4-5-20250929,";
    const std::string priced = ",USD,priceTable,complete," + version;
    const std::string records[] = {
        kHeader,
        "2026-01-02T12:00:00.000Z,2026-01-02" + sonnet +
            "app,s1,100000,0,0,1000000,0,100000,1000000,1100000,15.300000,15.300000" + priced,
        "2026-01-02T12:00:01.123Z,2026-01-02" + sonnet +
            "app,s1,10,0,0,20,0,10,20,30,0.000330,0.000330" + priced,
        "2026-01-02T12:00:02.000Z,2026-01-02" + sonnet +
            "app,s1,30,0,0,40,0,30,40,70,0.000690,0.000690" + priced,
        "2026-01-02T12:00:02.000Z,2026-01-02" + sonnet +
            "app,s1,50,0,0,60,0,50,60,110,0.001050,0.001050" + priced,
        "2026-01-03T12:00:00.000Z,2026-01-03,claude,anthropic,acme-model-7,other,s1,"
        "70,0,0,80,0,70,80,150,,,USD,unknown,none,",
        "2026-01-04T12:00:00.000Z,2026-01-04" + sonnet +
            R"("acme, ""beta""",s1,90,0,0,100,0,90,100,190,0.001770,0.001770)" + priced,
        "2026-01-05T12:00:00.000Z,2026-01-05" + sonnet +
            "other,s1,110,0,0,120,0,110,120,230,0.002130,0.002130" + priced};
    std::string want;
    for (const auto& record : records) {
        want += record + "\r\n";
    }
    EXPECT_EQ(readFile(out / "usage.csv"), want);

    // The filters of the reports apply.
    ReportOptions onlyAcme;
    onlyAcme.noScan = true;
    onlyAcme.model = "acme-model-7";
    EXPECT_EQ(exported("1 row", onlyAcme).size(), 2u);

    // In yuan at the stored rate: $15.30 × 7.1234 = ¥108.98802, truncated to the fen.
    {
        UsageStore store(support.path());
        auto settings = SettingsStore::load(store).settings;
        settings.cnyPerUsdE4 = 71234;
        SettingsStore::save(store, settings);
    }
    ReportOptions cny;
    cny.noScan = true;
    cny.currency = "cny";
    const auto yuan = exported("7 rows", cny);
    EXPECT_EQ(field(yuan.at(1), "cost_usd"), "15.300000");
    EXPECT_EQ(field(yuan.at(1), "cost_display"), "108.98");
    EXPECT_EQ(field(yuan.at(1), "display_currency"), "CNY");
    EXPECT_EQ(field(yuan.at(5), "cost_display"), "") << "the unpriced event";
}

TEST_F(ExportCSVTest, FieldsAreQuotedOnlyWhenTheyMustBeAndDollarsAreExact) {
    const std::pair<std::string, std::string> fields[] = {
        {"", ""},
        {"semi;colon 'single'", "semi;colon 'single'"},
        {"a,b", "\"a,b\""},
        {"say \"hi\"", "\"say \"\"hi\"\"\""},
        {"line\nbreak", "\"line\nbreak\""},
        {"carriage\rreturn", "\"carriage\rreturn\""}};
    for (const auto& [text, written] : fields) {
        EXPECT_EQ(cli::csvField(text), written) << text;
    }
    const std::pair<int64_t, std::string> dollars[] = {
        {1, "0.000001"},
        {-2'500'000, "-2.500000"},
        {std::numeric_limits<int64_t>::max(), "9223372036854.775807"},
        {std::numeric_limits<int64_t>::min(), "-9223372036854.775808"}};
    for (const auto& [micros, text] : dollars) {
        EXPECT_EQ(cli::decimalUSD(micros), text) << micros;
    }
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
    const auto rows = exported("4,500 rows");
    ASSERT_EQ(rows.size(), std::size_t(n) + 1);
    std::set<std::string> inputs;
    for (std::size_t i = 1; i < rows.size(); ++i) {
        inputs.insert(field(rows[i], "input_uncached"));
    }
    EXPECT_EQ(inputs.size(), std::size_t(n)) << "an event written twice or left out";
}

TEST_F(ExportCSVTest, APathThatCannotBeWrittenLeavesNothingBehind) {
    writeTranscripts();
    out.write("file.txt", "not a folder");
    std::filesystem::create_directory(out / "folder");
    out.write("existing.csv", "old contents");
    const std::pair<std::filesystem::path, std::string> cases[] = {
        {out / "file.txt" / "usage.csv", "Not a directory"},
        {out / "missing" / "usage.csv", "No such file or directory"},
        {out / "folder", "Is a directory"}};
    for (const auto& [path, cause] : cases) {
        const auto o = exportTo(path);
        EXPECT_EQ(o.code, cli::kExitFailure) << path;
        EXPECT_NE(o.err.find("cannot write " + path.string() + ": " + cause), std::string::npos)
            << o.err;
        EXPECT_EQ(o.out, "");
    }
    const auto left = [&] {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(out.path())) {
            names.insert(entry.path().filename().string());
        }
        return names;
    };
    EXPECT_EQ(left(), (std::set<std::string>{"file.txt", "folder", "existing.csv"}));
    EXPECT_EQ(readFile(out / "existing.csv"), "old contents");

    // A file that is there is replaced whole, and no temporary stays beside it.
    ASSERT_EQ(exportTo(out / "existing.csv").code, cli::kExitOK);
    EXPECT_EQ(parseCSV(readFile(out / "existing.csv")).size(), std::size_t{kEvents + 1});
    EXPECT_EQ(left(), (std::set<std::string>{"file.txt", "folder", "existing.csv"}));
}

}  // namespace
}  // namespace kestrel
