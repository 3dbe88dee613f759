#include "cli/export_command.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <utility>

#include "cli/cli.hpp"
#include "core/model/timestamp.hpp"
#include "core/pricing/money_format.hpp"

namespace kestrel::cli {
namespace {

// Large enough that a page costs one query among many rows, small enough to stay a few MB.
constexpr int kPageSize = 2000;

constexpr const char* kHeader =
    "time_utc,local_day,source,provider,model,project,session_key,input_uncached,cache_read,"
    "cache_write,output_visible,reasoning,provider_input_total,provider_output_total,"
    "provider_total,cost_usd,cost_display,display_currency,cost_source,completeness,"
    "price_version";

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

// The temporary file the rows go to until they are all written; removed unless renamed.
class PendingFile {
  public:
    PendingFile(std::filesystem::path temp, std::FILE* file)
        : temp_(std::move(temp)), file_(file) {}
    PendingFile(const PendingFile&) = delete;
    PendingFile& operator=(const PendingFile&) = delete;
    ~PendingFile() {
        if (file_) {
            std::fclose(file_);
        }
        if (!renamed_) {
            std::error_code ignored;
            std::filesystem::remove(temp_, ignored);
        }
    }

    // False, with errno set, when the write failed; later writes are skipped.
    bool write(std::string_view bytes) {
        if (failed_ == 0 && std::fwrite(bytes.data(), 1, bytes.size(), file_) != bytes.size()) {
            failed_ = errno != 0 ? errno : EIO;
        }
        return failed_ == 0;
    }

    // Flushes, syncs and closes the file, then renames it over `target`; 0 or the errno.
    int commit(const std::filesystem::path& target) {
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
        if (std::rename(temp_.c_str(), target.c_str()) != 0) {
            return errno;
        }
        renamed_ = true;
        return 0;
    }

    int error() const { return failed_; }

  private:
    std::filesystem::path temp_;
    std::FILE* file_;
    int failed_ = 0;
    bool renamed_ = false;
};

int cannotWrite(CommandContext& ctx, const std::string& path, int error) {
    ctx.err << "kestrel: cannot write " << path << ": " << std::strerror(error) << '\n';
    return kExitFailure;
}

std::string csvRecord(const Report& report, const LedgerEntry& entry) {
    const auto& e = entry.event;
    const auto& c = entry.cost;
    const bool cny = report.currency == ResolvedCurrency::cny;
    std::string costUSD, costDisplay;
    if (c.amountUSDMicros) {
        costUSD = decimalUSD(*c.amountUSDMicros);
        costDisplay =
            cny ? scaledDecimal(cnyFen(*c.amountUSDMicros, report.settings.cnyPerUsdE4), 100, 2)
                : costUSD;
    }
    const std::string fields[] = {formatISO8601UTC(e.occurredAt),
                                  report.calendar.dayKey(e.occurredAt),
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

int runExportCSV(CommandContext& ctx, const ReportOptions& reportOptions,
                 const std::string& outPath) {
    const std::filesystem::path target(outPath);
    if (outPath.empty() || !target.has_filename()) {
        ctx.err << "kestrel: cannot write \"" << outPath << "\": it does not name a file\n";
        return kExitFailure;
    }
    // Beside the target, so that the final rename stays within one file system.
    const auto temp = target.parent_path() / fmt::format(".{}.{}.tmp", target.filename().string(),
                                                         static_cast<long>(::getpid()));
    const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) {
        return cannotWrite(ctx, outPath, errno);
    }
    std::FILE* file = ::fdopen(fd, "w");
    if (!file) {
        const int error = errno;
        ::close(fd);
        std::filesystem::remove(temp);
        return cannotWrite(ctx, outPath, error);
    }
    PendingFile pending(temp, file);

    auto opened = openReport(ctx, reportOptions);
    if (!opened) {
        return opened.error();
    }
    auto& report = *opened;

    int64_t rows = 0;
    try {
        ProgressLine progress(ctx.err, ctx.errIsTerminal);
        const auto total = static_cast<std::size_t>(report.store().ledgerEventCount(report.query));
        pending.write(std::string(kHeader) + "\r\n");
        std::optional<LedgerCursor> cursor;
        do {
            auto page = report.store().ledgerEvents(report.query, LedgerSortOrder::ascending,
                                                    cursor, kPageSize);
            for (const auto& entry : page.entries) {
                if (!pending.write(csvRecord(report, entry))) {
                    break;
                }
                ++rows;
            }
            progress.update(static_cast<std::size_t>(rows), total, "events");
            cursor = std::move(page.nextCursor);
        } while (cursor && pending.error() == 0);
    } catch (const std::exception& e) {
        ctx.err << "kestrel: cannot read the ledger: " << e.what() << '\n';
        return kExitFailure;
    }
    if (const int error = pending.commit(target); error != 0) {
        return cannotWrite(ctx, outPath, error);
    }
    ctx.out << (rows == 1 ? report.text("export.wroteOne", {{"path", outPath}})
                          : report.text("export.wrote", {{"count", report.tokens(rows)},
                                                         {"path", outPath}}))
            << '\n';
    return report.scanFailed ? kExitPartial : kExitOK;
}

}  // namespace kestrel::cli
