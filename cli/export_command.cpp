#include "cli/export_command.hpp"

#include <cstring>

#include "cli/cli.hpp"

namespace kestrel::cli {
namespace {

int exportFailed(CommandContext& ctx, const ExportError& e) {
    switch (e.kind) {
        case ExportError::Kind::notAFile:
            ctx.err << "kestrel: cannot write \"" << e.path << "\": it does not name a file\n";
            break;
        case ExportError::Kind::cannotWrite:
            ctx.err << "kestrel: cannot write " << e.path << ": " << std::strerror(e.errorNumber)
                    << '\n';
            break;
        case ExportError::Kind::cannotRead:
            ctx.err << "kestrel: cannot read the ledger: " << e.message << '\n';
            break;
    }
    return kExitFailure;
}

}  // namespace

int runExportCSV(CommandContext& ctx, const ReportOptions& reportOptions,
                 const std::string& outPath) {
    auto file = CsvExport::begin(outPath);
    if (!file) {
        return exportFailed(ctx, file.error());
    }
    auto opened = openReport(ctx, reportOptions);
    if (!opened) {
        return opened.error();
    }
    auto& report = *opened;
    ProgressLine progress(ctx.err, ctx.errIsTerminal);
    const auto rows = file->write(
        report.store(), report.query,
        CsvFormat{report.currency, report.settings.cnyPerUsdE4, report.calendar},
        [&](int64_t written, int64_t total) {
            progress.update(static_cast<std::size_t>(written), static_cast<std::size_t>(total),
                            "events");
        });
    progress.clear();
    if (!rows) {
        return exportFailed(ctx, rows.error());
    }
    ctx.out << (*rows == 1 ? report.text("export.wroteOne", {{"path", outPath}})
                           : report.text("export.wrote", {{"count", report.tokens(*rows)},
                                                          {"path", outPath}}))
            << '\n';
    return report.scanFailed ? kExitPartial : kExitOK;
}

}  // namespace kestrel::cli
