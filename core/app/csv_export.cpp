#include "core/app/csv_export.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <iterator>
#include <optional>
#include <utility>

#include "core/model/timestamp.hpp"
#include "core/pricing/money_format.hpp"

namespace kestrel {
namespace {

// Large enough that a page costs one query among many rows, small enough to stay a few MB.
constexpr int kPageSize = 2000;

constexpr std::string_view kHeader =
    "time_utc,local_day,source,provider,model,project,session_key,input_uncached,cache_read,"
    "cache_write,output_visible,reasoning,provider_input_total,provider_output_total,"
    "provider_total,cost_usd,cost_display,display_currency,cost_source,completeness,"
    "price_version\r\n";

// A scaled integer as "<whole>.<fraction>" with `digits` fraction digits, the sign in front.
std::string scaledDecimal(int64_t value, int64_t scale, int digits) {
    // Unsigned magnitude so that the most negative value has one too.
    const uint64_t magnitude =
        value < 0 ? uint64_t{0} - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
    const auto unit = static_cast<uint64_t>(scale);
    return fmt::format("{}{}.{:0{}}", value < 0 ? "-" : "", magnitude / unit, magnitude % unit,
                       digits);
}

std::string optionalCount(const std::optional<int64_t>& v) {
    return v ? std::to_string(*v) : std::string();
}

std::string csvRecord(const CsvFormat& format, const LedgerEntry& entry) {
    const auto& e = entry.event;
    const auto& c = entry.cost;
    const bool cny = format.currency == ResolvedCurrency::cny;
    std::string costUSD, costDisplay;
    if (c.amountUSDMicros) {
        costUSD = decimalUSD(*c.amountUSDMicros);
        costDisplay = cny ? scaledDecimal(cnyFen(*c.amountUSDMicros, format.cnyPerUsdE4), 100, 2)
                          : costUSD;
    }
    const std::string fields[] = {formatISO8601UTC(e.occurredAt),
                                  format.calendar.dayKey(e.occurredAt),
                                  std::string(rawValue(e.source)),
                                  e.provider,
                                  e.model,
                                  e.projectDisplayName.value_or(""),
                                  e.sessionKey.value_or(""),
                                  optionalCount(e.tokens.inputUncached),
                                  optionalCount(e.tokens.cacheRead),
                                  optionalCount(e.tokens.cacheWrite),
                                  optionalCount(e.tokens.outputVisible),
                                  optionalCount(e.tokens.reasoning),
                                  optionalCount(e.tokens.providerInputTotal),
                                  optionalCount(e.tokens.providerOutputTotal),
                                  optionalCount(e.tokens.providerTotal),
                                  costUSD,
                                  costDisplay,
                                  cny ? "CNY" : "USD",
                                  std::string(rawValue(c.source)),
                                  std::string(rawValue(c.completeness)),
                                  optionalCount(c.priceVersion)};
    std::string record = csvField(fields[0]);
    for (std::size_t i = 1; i < std::size(fields); ++i) {
        record += ',';
        record += csvField(fields[i]);
    }
    return record + "\r\n";
}

}  // namespace

std::string csvField(std::string_view field) {
    if (field.find_first_of(",\"\r\n") == std::string_view::npos) {
        return std::string(field);
    }
    std::string out = "\"";
    for (char c : field) {
        out += c;
        if (c == '"') {
            out += '"';
        }
    }
    return out + '"';
}

std::string decimalUSD(int64_t micros) {
    return scaledDecimal(micros, 1'000'000, 6);
}

CsvExport::CsvExport(std::filesystem::path target, std::filesystem::path temp, std::FILE* file)
    : target_(std::move(target)), temp_(std::move(temp)), file_(file) {}

CsvExport::CsvExport(CsvExport&& other) noexcept
    : target_(std::move(other.target_)),
      temp_(std::move(other.temp_)),
      file_(std::exchange(other.file_, nullptr)),
      failed_(other.failed_),
      renamed_(std::exchange(other.renamed_, true)) {}

CsvExport::~CsvExport() {
    if (file_) {
        std::fclose(file_);
    }
    if (!renamed_) {
        std::error_code ignored;
        std::filesystem::remove(temp_, ignored);
    }
}

std::expected<CsvExport, ExportError> CsvExport::begin(const std::filesystem::path& target) {
    const std::string path = target.string();
    if (path.empty() || !target.has_filename()) {
        return std::unexpected(ExportError{ExportError::Kind::notAFile, path, 0, {}});
    }
    // Beside the target, so that the final rename stays within one file system.
    auto temp = target.parent_path() / fmt::format(".{}.{}.tmp", target.filename().string(),
                                                   static_cast<long>(::getpid()));
    const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) {
        return std::unexpected(ExportError{ExportError::Kind::cannotWrite, path, errno, {}});
    }
    std::FILE* file = ::fdopen(fd, "w");
    if (!file) {
        const int error = errno;
        ::close(fd);
        std::error_code ignored;
        std::filesystem::remove(temp, ignored);
        return std::unexpected(ExportError{ExportError::Kind::cannotWrite, path, error, {}});
    }
    return CsvExport(target, std::move(temp), file);
}

bool CsvExport::put(std::string_view bytes) {
    if (failed_ == 0 && std::fwrite(bytes.data(), 1, bytes.size(), file_) != bytes.size()) {
        failed_ = errno != 0 ? errno : EIO;
    }
    return failed_ == 0;
}

int CsvExport::commit() {
    if (failed_ != 0) {
        return failed_;
    }
    std::FILE* file = std::exchange(file_, nullptr);
    if (std::fflush(file) != 0 || ::fsync(::fileno(file)) != 0) {
        const int error = errno;
        std::fclose(file);
        return error;
    }
    if (std::fclose(file) != 0) {
        return errno;
    }
    if (std::rename(temp_.c_str(), target_.c_str()) != 0) {
        return errno;
    }
    renamed_ = true;
    return 0;
}

std::expected<int64_t, ExportError> CsvExport::write(
    UsageStore& store, const LedgerQuery& query, const CsvFormat& format,
    const std::function<void(int64_t, int64_t)>& progress) {
    int64_t rows = 0;
    try {
        const int64_t total = store.ledgerEventCount(query);
        put(kHeader);
        std::optional<LedgerCursor> cursor;
        do {
            auto page = store.ledgerEvents(query, LedgerSortOrder::ascending, cursor, kPageSize);
            for (const auto& entry : page.entries) {
                if (!put(csvRecord(format, entry))) {
                    break;
                }
                ++rows;
            }
            if (progress) {
                progress(rows, total);
            }
            cursor = std::move(page.nextCursor);
        } while (cursor && failed_ == 0);
    } catch (const std::exception& e) {
        return std::unexpected(
            ExportError{ExportError::Kind::cannotRead, target_.string(), 0, e.what()});
    }
    if (const int error = commit(); error != 0) {
        return std::unexpected(
            ExportError{ExportError::Kind::cannotWrite, target_.string(), error, {}});
    }
    return rows;
}

}  // namespace kestrel
