#include "cli/summary_command.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <nlohmann/json.hpp>
#include <unordered_map>

#include "cli/claude_collection.hpp"
#include "cli/cli.hpp"
#include "cli/local_time.hpp"
#include "cli/text_table.hpp"
#include "core/model/checked_math.hpp"
#include "core/pricing/money_format.hpp"

namespace kestrel::cli {
namespace {

// What is kept per request while reading: enough to total it, nothing more, so that a home with
// millions of lines stays small in memory.
struct Request {
    uint32_t model = 0;
    double time = 0;
    ExclusiveTokens tokens;
    std::optional<int64_t> costMicros;
};

struct Totals {
    int64_t requests = 0;
    ExclusiveTokens tokens;
    int64_t costMicros = 0;  // of the priced requests
    int64_t unpriced = 0;

    void add(const Request& r) {
        ++requests;
        tokens += r.tokens;
        if (r.costMicros) {
            costMicros = checkedAdd(costMicros, *r.costMicros, "summary cost");
        } else {
            ++unpriced;
        }
    }
};

nlohmann::ordered_json totalsJSON(const Totals& t) {
    return {{"requests", t.requests},
            {"inputUncached", t.tokens.inputUncached},
            {"cacheRead", t.tokens.cacheRead},
            {"cacheWrite", t.tokens.cacheWrite},
            {"outputVisible", t.tokens.outputVisible},
            {"reasoning", t.tokens.reasoning},
            {"totalTokens", t.tokens.billedTokens()},
            {"costUSDMicros", t.costMicros},
            {"unpricedRequests", t.unpriced}};
}

std::vector<std::string> totalsCells(std::string label, const Totals& t) {
    return {std::move(label),
            groupedNumber(t.requests),
            groupedNumber(t.tokens.inputUncached),
            groupedNumber(t.tokens.cacheRead),
            groupedNumber(t.tokens.cacheWrite),
            groupedNumber(t.tokens.outputVisible),
            groupedNumber(t.tokens.billedTokens()),
            formatUSD(t.costMicros, "en_US") + (t.unpriced > 0 ? "*" : "")};
}

std::vector<Column> totalsColumns(std::string first) {
    return {{std::move(first)},
            {"Requests", Align::right},
            {"Input", Align::right},
            {"Cache read", Align::right},
            {"Cache write", Align::right},
            {"Output", Align::right},
            {"Total tokens", Align::right},
            {"Cost", Align::right}};
}

}  // namespace

int runSummary(CommandContext& ctx, bool json) {
    std::vector<std::string> models;
    std::unordered_map<std::string, uint32_t> modelIndex;
    std::unordered_map<std::string, Request> requests;

    ProgressLine progress(ctx.err, ctx.errIsTerminal);
    const auto stats = collectClaude(
        ctx.home, ctx.env, ctx.settings,
        [&](UsageEvent&& e) {
            auto [it, added] = modelIndex.try_emplace(e.model, uint32_t(models.size()));
            if (added) {
                models.push_back(e.model);
            }
            // A later line of the same message replaces the earlier placeholder counts.
            requests[e.id] =
                Request{it->second, e.occurredAt, e.exclusive, e.estimatedCostUSDMicros};
        },
        [&](std::size_t done, std::size_t total, const std::filesystem::path&) {
            progress.update(done, total);
        });
    progress.clear();
    for (const auto& error : stats.errors) {
        ctx.err << "kestrel: " << error.description() << '\n';
    }

    const std::time_t now = std::time(nullptr);
    const double today = localMidnight(now, 0);
    const double week = localMidnight(now, 6);
    const double month = localMidnight(now, 29);
    Totals all, todayTotals, weekTotals, monthTotals;
    std::vector<Totals> byModel(models.size());
    double first = 0, last = 0;
    for (const auto& [id, r] : requests) {
        all.add(r);
        byModel[r.model].add(r);
        if (r.time >= today) {
            todayTotals.add(r);
        }
        if (r.time >= week) {
            weekTotals.add(r);
        }
        if (r.time >= month) {
            monthTotals.add(r);
        }
        first = all.requests == 1 ? r.time : std::min(first, r.time);
        last = all.requests == 1 ? r.time : std::max(last, r.time);
    }
    std::vector<std::size_t> order(models.size());
    for (std::size_t i = 0; i < order.size(); ++i) {
        order[i] = i;
    }
    std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        const auto ta = byModel[a].tokens.billedTokens();
        const auto tb = byModel[b].tokens.billedTokens();
        return ta != tb ? ta > tb : models[a] < models[b];
    });

    if (json) {
        nlohmann::ordered_json doc;
        doc["home"] = ctx.home.string();
        std::vector<std::string> roots;
        for (const auto& r : stats.roots) {
            roots.push_back(r.string());
        }
        doc["roots"] = roots;
        doc["files"] = stats.files;
        doc["lines"] = stats.lines;
        doc["events"] = stats.events;
        doc["malformedLines"] = stats.malformed;
        doc["unreadableFiles"] = stats.errors.size();
        doc["today"] = totalsJSON(todayTotals);
        doc["last7Days"] = totalsJSON(weekTotals);
        doc["last30Days"] = totalsJSON(monthTotals);
        doc["allTime"] = totalsJSON(all);
        auto rows = nlohmann::ordered_json::array();
        for (auto i : order) {
            auto row = totalsJSON(byModel[i]);
            row["model"] = models[i];
            rows.push_back(row);
        }
        doc["models"] = rows;
        ctx.out << doc.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
        return stats.errors.empty() ? kExitOK : kExitPartial;
    }

    const auto bold = [&](const std::string& s) {
        return ctx.colour ? "\x1b[1m" + s + "\x1b[0m" : s;
    };
    if (stats.roots.empty()) {
        ctx.out << "No Claude Code data folder found below " << ctx.home.string() << ".\n";
        return stats.errors.empty() ? kExitOK : kExitPartial;
    }
    ctx.out << bold("Claude Code usage") << " below " << ctx.home.string() << '\n';
    if (all.requests > 0) {
        ctx.out << "From " << formatLocal(first, "%Y-%m-%d") << " to "
                << formatLocal(last, "%Y-%m-%d") << "\n";
    }
    ctx.out << '\n';

    TextTable periods(totalsColumns("Period"));
    periods.addRow(totalsCells("Today", todayTotals));
    periods.addRow(totalsCells("Last 7 days", weekTotals));
    periods.addRow(totalsCells("Last 30 days", monthTotals));
    periods.addRow(totalsCells("All time", all));
    periods.render(ctx.out, ctx.colour);
    ctx.out << '\n';

    if (!order.empty()) {
        TextTable byModelTable(totalsColumns("Model"));
        for (auto i : order) {
            byModelTable.addRow(totalsCells(models[i], byModel[i]));
        }
        byModelTable.addSeparator();
        byModelTable.addRow(totalsCells("Total", all));
        byModelTable.render(ctx.out, ctx.colour);
        ctx.out << '\n';
    }
    ctx.out << fmt::format(
        "{}, {}, {} for {}, {} skipped\n", counted(stats.files, "transcript", "transcripts"),
        counted(stats.lines, "line", "lines"), counted(stats.events, "usage line", "usage lines"),
        counted(all.requests, "request", "requests"),
        counted(stats.malformed, "malformed line", "malformed lines"));
    ctx.out << "Costs are list prices of the models' APIs"
            << (all.unpriced > 0 ? "; * some requests have no price (see kestrel prices)" : "")
            << ".\n";
    return stats.errors.empty() ? kExitOK : kExitPartial;
}

}  // namespace kestrel::cli
